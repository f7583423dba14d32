// The capture recovery of the sound-card module, against a double of the
// PCM calls defined here in place of alsa-lib: every read fails once, and
// the block comes back silent after the recovery that error calls for.
#include "audio/alsa.h"

#include <alsa/asoundlib.h>
#include <array>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>

namespace {
std::deque<long> avail_answers, read_answers;
int resume_answer;
std::vector<std::string> calls; // of the capture stream
_snd_pcm *const capture = reinterpret_cast<_snd_pcm *>(&calls);

long next(std::deque<long> &q)
{
    const long v = q.empty() ? 0 : q.front();
    if (!q.empty())
        q.pop_front();
    return v;
}
int note(snd_pcm_t *pcm, const char *call)
{
    if (pcm == capture)
        calls.emplace_back(call);
    return 0;
}
} // namespace

extern "C" {
#define PCM_OK(name, ...) \
    int name(__VA_ARGS__) { return 0; }
PCM_OK(snd_pcm_hw_params_any, snd_pcm_t *, snd_pcm_hw_params_t *)
PCM_OK(snd_pcm_hw_params_set_access, snd_pcm_t *, snd_pcm_hw_params_t *, snd_pcm_access_t)
PCM_OK(snd_pcm_hw_params_set_format, snd_pcm_t *, snd_pcm_hw_params_t *, snd_pcm_format_t)
PCM_OK(snd_pcm_hw_params_set_rate_near, snd_pcm_t *, snd_pcm_hw_params_t *, unsigned *, int *)
PCM_OK(snd_pcm_hw_params_set_channels, snd_pcm_t *, snd_pcm_hw_params_t *, unsigned)
PCM_OK(snd_pcm_hw_params_set_buffer_size_near, snd_pcm_t *, snd_pcm_hw_params_t *, snd_pcm_uframes_t *)
PCM_OK(snd_pcm_hw_params, snd_pcm_t *, snd_pcm_hw_params_t *)
PCM_OK(snd_pcm_sw_params_current, snd_pcm_t *, snd_pcm_sw_params_t *)
PCM_OK(snd_pcm_sw_params_set_start_threshold, snd_pcm_t *, snd_pcm_sw_params_t *, snd_pcm_uframes_t)
PCM_OK(snd_pcm_sw_params_get_boundary, const snd_pcm_sw_params_t *, snd_pcm_uframes_t *)
PCM_OK(snd_pcm_sw_params_set_stop_threshold, snd_pcm_t *, snd_pcm_sw_params_t *, snd_pcm_uframes_t)
PCM_OK(snd_pcm_sw_params_set_avail_min, snd_pcm_t *, snd_pcm_sw_params_t *, snd_pcm_uframes_t)
PCM_OK(snd_pcm_sw_params, snd_pcm_t *, snd_pcm_sw_params_t *)
const char *snd_strerror(int e) { return strerror(-e); }
size_t snd_pcm_hw_params_sizeof(void) { return 64; }
size_t snd_pcm_sw_params_sizeof(void) { return 64; }
int snd_pcm_open(snd_pcm_t **pcm, const char *, snd_pcm_stream_t stream, int)
{
    static int playback;
    *pcm = stream == SND_PCM_STREAM_CAPTURE ? capture : reinterpret_cast<_snd_pcm *>(&playback);
    return 0;
}
int snd_pcm_close(snd_pcm_t *) { return 0; }
int snd_pcm_start(snd_pcm_t *pcm) { return note(pcm, "start"); }
int snd_pcm_prepare(snd_pcm_t *pcm) { return note(pcm, "prepare"); }
int snd_pcm_drop(snd_pcm_t *pcm) { return note(pcm, "drop"); }
int snd_pcm_resume(snd_pcm_t *pcm) { return note(pcm, "resume"), resume_answer; }
snd_pcm_sframes_t snd_pcm_avail(snd_pcm_t *) { return next(avail_answers); }
snd_pcm_sframes_t snd_pcm_avail_update(snd_pcm_t *) { return next(avail_answers); }
snd_pcm_sframes_t snd_pcm_writei(snd_pcm_t *, const void *, snd_pcm_uframes_t) { return 48; }
snd_pcm_sframes_t snd_pcm_readi(snd_pcm_t *pcm, void *, snd_pcm_uframes_t) { return note(pcm, "readi"), next(read_answers); }
}

namespace {
TEST(AlsaCapture, FailedReadRecoversPerErrorAndLeavesSilence)
{
    const struct {
        long err;
        int resume;
        std::vector<std::string> recovery;
    } rows[] = {{-EPIPE, 0, {"prepare"}}, {-ESTRPIPE, -ENOSYS, {"resume", "prepare"}}, {-EIO, 0, {"drop", "start"}}};
    for (const auto &r : rows) {
        testing::internal::CaptureStdout();
        ASSERT_EQ(alsa_open(), 0);
        testing::internal::GetCapturedStdout();
        calls.clear();
        avail_answers = {384, 0};
        read_answers = {r.err};
        resume_answer = r.resume;
        std::array<int32_t, 96> b;
        b.fill(0x123456); // the block just played
        EXPECT_EQ(alsa_rec48(b.data()), r.err);
        std::vector<std::string> want = {"readi"};
        want.insert(want.end(), r.recovery.begin(), r.recovery.end());
        EXPECT_EQ(calls, want) << r.err;
        EXPECT_EQ(b, (std::array<int32_t, 96>{})) << "nothing read: silence, never the block just played";
        alsa_close();
    }
}
} // namespace
