// The sound-card module against the PCM double (fake_pcm.cpp).
#include "audio/alsa.h"
#include "fake_pcm.h"
#include "support/alloc_count.h"

#include <alsa/asoundlib.h>
#include <array>
#include <cerrno>
#include <gtest/gtest.h>
#include <vector>

namespace {
using block = std::array<int32_t, 96>;
using strings = std::vector<std::string>;

void reset_counters()
{
    alsa_ply_or = alsa_ply_rewrite = 0;
    alsa_cap_err = alsa_cap_xrun = alsa_cap_samples = alsa_cap_low = alsa_cap_reread = 0;
    alsa_loop_cut = 0;
    alsa_debug = 0;
    alsa_cap_peak = 0;
}

block ramp(int32_t base)
{
    block b{};
    for (int i = 0; i < 96; i++)
        b[size_t(i)] = base + i;
    return b;
}

void queue_capture(const block &b) { fake_cap.capture.insert(fake_cap.capture.end(), b.begin(), b.end()); }

class AlsaClosed : public ::testing::Test { // state: never opened
protected:
    void SetUp() override
    {
        alsa_close();
        fake_pcm_reset();
        reset_counters();
    }
    void TearDown() override { alsa_close(); }
    int open_quietly(std::string *out = nullptr, std::string *err = nullptr)
    {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int r = alsa_open();
        const std::string o = testing::internal::GetCapturedStdout();
        const std::string e = testing::internal::GetCapturedStderr();
        if (out)
            *out = o;
        if (err)
            *err = e;
        return r;
    }
};

class AlsaOpen : public AlsaClosed { // state: both streams open and running
protected:
    void SetUp() override
    {
        AlsaClosed::SetUp();
        ASSERT_EQ(open_quietly(), 0);
        fake_play.calls.clear();
        fake_cap.calls.clear();
    }
};

TEST_F(AlsaClosed, OpenConfiguresBothStreamsAndStartsCaptureOnly)
{
    std::string out, err;
    EXPECT_EQ(open_quietly(&out, &err), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
    // the S16 probe is installed first, then replaced by S24
    EXPECT_EQ(fake_play.formats, (std::vector<int>{SND_PCM_FORMAT_S16_LE, SND_PCM_FORMAT_S24_LE}));
    EXPECT_EQ(fake_cap.formats, (std::vector<int>{SND_PCM_FORMAT_S24_LE}));
    for (const fake_pcm_stream *s : {&fake_play, &fake_cap}) {
        EXPECT_TRUE(s->open);
        EXPECT_EQ(s->access, SND_PCM_ACCESS_RW_INTERLEAVED);
        EXPECT_EQ(s->rate, 48000u);
        EXPECT_EQ(s->channels, 2u);
        EXPECT_EQ(s->buffer_size, 384u);
        EXPECT_EQ(s->start_threshold, 192u);
        EXPECT_EQ(s->stop_threshold, FAKE_BOUNDARY);
        EXPECT_EQ(s->avail_min, 48u);
    }
    EXPECT_EQ(fake_cap.count("start"), 1);
    EXPECT_EQ(fake_play.count("start"), 0);
}

TEST_F(AlsaClosed, NeverOpenedStreamsAreLeftAloneAndTheMicrophoneIsSilent)
{
    block b = ramp(1000);
    EXPECT_EQ(alsa_play48(b.data()), 0);
    EXPECT_EQ(alsa_rec48(b.data()), 0);
    EXPECT_EQ(b, block{});
    EXPECT_TRUE(fake_play.calls.empty());
    EXPECT_TRUE(fake_cap.calls.empty());
}

TEST_F(AlsaClosed, CloseClosesEachOpenStreamOnce)
{
    ASSERT_EQ(open_quietly(), 0);
    alsa_close();
    EXPECT_FALSE(fake_play.open);
    EXPECT_FALSE(fake_cap.open);
    alsa_close();
    EXPECT_EQ(fake_play.count("close"), 1);
    EXPECT_EQ(fake_cap.count("close"), 1);
    block b = ramp(7);
    EXPECT_EQ(alsa_play48(b.data()), 0);
    EXPECT_EQ(fake_play.count("writei"), 0);
}

// The buffer-size step reports the text of code 1 with the adjusted count
// and lets opening go on without installing that pass.
TEST_F(AlsaClosed, BufferSizeFailureSkipsTheInstallAndGoesOn)
{
    fake_fault = {0, "snd_pcm_hw_params_set_buffer_size_near", 1, -EINVAL};
    std::string out, err;
    EXPECT_EQ(open_quietly(&out, &err), 0);
    EXPECT_EQ(out, "Unable to set buffer size 400 Operation not permitted\n");
    EXPECT_EQ(err, "");
    EXPECT_EQ(fake_play.formats, (std::vector<int>{SND_PCM_FORMAT_S24_LE}));

    alsa_close();
    fake_pcm_reset();
    fake_fault = {0, "snd_pcm_hw_params_set_buffer_size_near", 2, -EINVAL};
    EXPECT_EQ(open_quietly(&out, &err), 0);
    EXPECT_EQ(fake_play.formats, (std::vector<int>{SND_PCM_FORMAT_S16_LE})); // S24 never installed
}

struct open_failure {
    int stream;
    const char *call;
    int nth;
    const char *out;
    const char *err;
};

class AlsaOpenFails : public AlsaClosed, public ::testing::WithParamInterface<open_failure> {};

TEST_P(AlsaOpenFails, PrintsTheStepsMessageToItsStream)
{
    const open_failure &f = GetParam();
    fake_fault = {f.stream, f.call, f.nth, -EIO};
    std::string out, err;
    EXPECT_EQ(open_quietly(&out, &err), -1);
    EXPECT_EQ(out, f.out);
    EXPECT_EQ(err, f.err);
    // a stream whose set-up failed is never offered a block; one that
    // completed works as usual
    fake_play.calls.clear();
    fake_cap.calls.clear();
    fake_play.avail_default = fake_cap.avail_default = 100;
    block b = ramp(1);
    alsa_play48(b.data());
    alsa_rec48(b.data());
    EXPECT_EQ(fake_play.count("writei"), f.stream == 0 ? 0 : 1);
    EXPECT_EQ(fake_cap.count("readi"), 0);
}

#define EIO_TEXT "Input/output error"
INSTANTIATE_TEST_SUITE_P(
    EveryStep, AlsaOpenFails,
    ::testing::Values(
        open_failure{0, "snd_pcm_open", 1, "", "Cannot open playback device hw:0,0 (" EIO_TEXT ")\n"},
        open_failure{0, "snd_pcm_hw_params_any", 1, "",
                     "cannot initialize hardware parameter structure (" EIO_TEXT ")\n"
                     "Setting of playback hwparams S16 failed: " EIO_TEXT "\n"},
        open_failure{0, "snd_pcm_hw_params_set_access", 1, "",
                     "cannot set access type (" EIO_TEXT ")\nSetting of playback hwparams S16 failed: " EIO_TEXT "\n"},
        open_failure{0, "snd_pcm_hw_params_set_format", 2, "",
                     "cannot set sample format (" EIO_TEXT ")\nSetting of playback hwparams S24 failed: " EIO_TEXT "\n"},
        open_failure{0, "snd_pcm_hw_params_set_rate_near", 1, "",
                     "cannot set sample rate (" EIO_TEXT ")\nSetting of playback hwparams S16 failed: " EIO_TEXT "\n"},
        open_failure{0, "snd_pcm_hw_params_set_channels", 1, "",
                     "cannot set channel count (" EIO_TEXT ")\nSetting of playback hwparams S16 failed: " EIO_TEXT "\n"},
        open_failure{0, "snd_pcm_hw_params", 2, "",
                     "cannot set parameters (" EIO_TEXT ")\nSetting of playback hwparams S24 failed: " EIO_TEXT "\n"},
        open_failure{0, "snd_pcm_sw_params_current", 1,
                     "Unable to determine current swparams: " EIO_TEXT "\nSetting of swparams playback failed: " EIO_TEXT "\n", ""},
        open_failure{0, "snd_pcm_sw_params_set_start_threshold", 1,
                     "Unable to set start threshold mode: " EIO_TEXT "\nSetting of swparams playback failed: " EIO_TEXT "\n", ""},
        open_failure{0, "snd_pcm_sw_params_get_boundary", 1,
                     "Unable to get boundary for playback: " EIO_TEXT "\nSetting of swparams playback failed: " EIO_TEXT "\n", ""},
        open_failure{0, "snd_pcm_sw_params_set_stop_threshold", 1,
                     "Unable to set stop threshold mode: " EIO_TEXT "\nSetting of swparams playback failed: " EIO_TEXT "\n", ""},
        open_failure{0, "snd_pcm_sw_params_set_avail_min", 1,
                     "Unable to set avail min for " EIO_TEXT "\nSetting of swparams playback failed: " EIO_TEXT "\n", ""},
        open_failure{0, "snd_pcm_sw_params", 1,
                     "Unable to set sw params: " EIO_TEXT "\nSetting of swparams playback failed: " EIO_TEXT "\n", ""},
        open_failure{1, "snd_pcm_open", 1, "", "Cannot open capture device hw:0,0 (" EIO_TEXT ")\n"},
        open_failure{1, "snd_pcm_hw_params_set_format", 1, "",
                     "cannot set sample format (" EIO_TEXT ")\nSetting of capture hwparams failed: " EIO_TEXT "\n"},
        open_failure{1, "snd_pcm_sw_params_get_boundary", 1,
                     "Unable to get boundary for playback: " EIO_TEXT "\nSetting of swparams capture failed: " EIO_TEXT "\n", ""},
        open_failure{1, "snd_pcm_start", 1, "", "Capture start (" EIO_TEXT ")\n"}));

// --- playback ---------------------------------------------------------

TEST_F(AlsaOpen, PlaybackNeedsMoreThanOneBlockOfRoom)
{
    block b = ramp(5);
    fake_play.avail = {48};
    EXPECT_EQ(alsa_play48(b.data()), 0);
    EXPECT_EQ(fake_play.count("writei"), 0);
    fake_play.avail = {49, 192};
    EXPECT_EQ(alsa_play48(b.data()), 48);
    ASSERT_EQ(fake_play.written.size(), 1u);
    EXPECT_EQ(fake_play.written[0], std::vector<int32_t>(b.begin(), b.end()));
    // an error from the room query counts as plenty of room
    fake_play.avail = {-EPIPE, 0};
    EXPECT_EQ(alsa_play48(b.data()), 48);
    EXPECT_EQ(fake_play.count("writei"), 2);
    EXPECT_EQ(alsa_ply_rewrite, 0u);
}

TEST_F(AlsaOpen, ShortOrFailedWritesCountAsOverruns)
{
    block b = ramp(5);
    fake_play.avail = {300, 100, 300, 100};
    fake_play.io = {20, -EPIPE};
    EXPECT_EQ(alsa_play48(b.data()), 20);
    EXPECT_EQ(alsa_play48(b.data()), -EPIPE);
    EXPECT_EQ(alsa_ply_or, 2u);
}

TEST_F(AlsaOpen, ALowBufferGetsTheSameBlockAgainUntilHalfFull)
{
    block b = ramp(-300);
    fake_play.avail = {384, 336, 288, 240, 192};
    EXPECT_EQ(alsa_play48(b.data()), 48);
    EXPECT_EQ(alsa_ply_rewrite, 3u);
    ASSERT_EQ(fake_play.written.size(), 4u);
    for (const std::vector<int32_t> &w : fake_play.written)
        EXPECT_EQ(w, std::vector<int32_t>(b.begin(), b.end()));
    fake_play.avail = {200, 200, 150};
    alsa_play48(b.data());
    EXPECT_EQ(alsa_ply_rewrite, 4u);
    EXPECT_EQ(alsa_loop_cut, 0u);
}

// A device that never fills (consumes instantly) or always fails: at most
// eight writes per call, and the cut is counted.
TEST_F(AlsaOpen, PlaybackLoopEndsAtTheBufferDepth)
{
    block b = ramp(1);
    fake_play.avail_default = 384;
    EXPECT_EQ(alsa_play48(b.data()), 48);
    EXPECT_EQ(fake_play.count("writei"), ALSA_LOOP_MAX);
    EXPECT_EQ(alsa_ply_rewrite, unsigned(ALSA_LOOP_MAX - 1));
    EXPECT_EQ(alsa_loop_cut, 1u);

    fake_play.calls.clear();
    fake_play.avail_default = -ESTRPIPE;
    fake_play.io.assign(ALSA_LOOP_MAX, -ESTRPIPE);
    EXPECT_EQ(alsa_play48(b.data()), -ESTRPIPE);
    EXPECT_EQ(fake_play.count("writei"), ALSA_LOOP_MAX);
    EXPECT_EQ(alsa_ply_or, unsigned(ALSA_LOOP_MAX));
    EXPECT_EQ(alsa_loop_cut, 2u);
}

// --- capture ----------------------------------------------------------

TEST_F(AlsaOpen, CaptureNeedsMoreThanOneBlockWaiting)
{
    block b = ramp(10);
    fake_cap.avail = {48};
    queue_capture(ramp(5000));
    EXPECT_EQ(alsa_rec48(b.data()), 0);
    EXPECT_EQ(b, ramp(10)); // still the played block
    EXPECT_EQ(fake_cap.count("readi"), 0);
    fake_cap.avail = {49, 0};
    EXPECT_EQ(alsa_rec48(b.data()), 48);
    EXPECT_EQ(b, ramp(5000));
    EXPECT_EQ(alsa_cap_samples, 48u);
    EXPECT_EQ(alsa_cap_reread, 0u);
}

TEST_F(AlsaOpen, CapturedWordsAreSignExtendedFrom24Bits)
{
    block in{};
    in[0] = 0x00800000;            // most negative 24-bit value
    in[1] = 0x007FFFFF;            // most positive
    in[2] = 0x00FFFFFF;            // -1
    in[3] = int32_t(0xAB800001u);  // upper bits replaced when bit 23 is set
    in[4] = 0x12345678;            // bit 23 clear: kept as it is, upper bits included
    in[5] = 0x00000001;
    queue_capture(in);
    fake_cap.avail = {384, 0};
    block b{};
    alsa_rec48(b.data());
    EXPECT_EQ(b[0], -8388608);
    EXPECT_EQ(uint32_t(b[0]), 0xFF800000u);
    EXPECT_EQ(b[1], 8388607);
    EXPECT_EQ(b[2], -1);
    EXPECT_EQ(uint32_t(b[3]), 0xFF800001u);
    EXPECT_EQ(b[4], 0x12345678);
    EXPECT_EQ(b[5], 1);
    EXPECT_EQ(alsa_cap_peak, 0x12345678);
}

TEST_F(AlsaOpen, PeakIsASignedMaximumKeptUntilTheReportResetsIt)
{
    block in{};
    in[7] = 0x007FFFFF;
    queue_capture(in);
    block neg{};
    neg.fill(0x00800000);
    queue_capture(neg);
    fake_cap.avail = {384, 0, 384, 0};
    block b{};
    alsa_rec48(b.data());
    EXPECT_EQ(alsa_cap_peak, 8388607);
    alsa_rec48(b.data());
    EXPECT_EQ(alsa_cap_peak, 8388607); // a quieter block does not lower it
    alsa_cap_peak = 0;                 // the report's reset
    for (int32_t &v : neg)
        v = 0x00FFFF00; // all negative
    queue_capture(neg);
    fake_cap.avail = {384, 0};
    alsa_rec48(b.data());
    EXPECT_EQ(alsa_cap_peak, 0);
    EXPECT_EQ(b[0], -256);
}

TEST_F(AlsaOpen, ShortReadKeepsTheRestAndIsPrintedOnlyWithDebug)
{
    block b{};
    b[50] = 0x00800000; // left over from the played block
    block in = ramp(100);
    queue_capture(in);
    fake_cap.io = {20, 20};
    fake_cap.avail = {384, 0, 384, 0};
    testing::internal::CaptureStdout();
    EXPECT_EQ(alsa_rec48(b.data()), 20);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(b[39], 139);
    EXPECT_EQ(b[40], 0);
    EXPECT_EQ(b[50], -8388608); // the old rest is sign-extended too
    alsa_debug = 1;
    testing::internal::CaptureStdout();
    alsa_rec48(b.data());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "snd_pcm_readi: 20\n");
    EXPECT_EQ(alsa_cap_low, 2u);
    EXPECT_EQ(alsa_cap_samples, 40u);
}

TEST_F(AlsaOpen, MoreThanHalfABufferWaitingIsReadOverUntilBelow)
{
    for (int k = 0; k < 3; k++)
        queue_capture(ramp(1000 * k));
    fake_cap.avail = {300, 252, 204, 156};
    block b{};
    EXPECT_EQ(alsa_rec48(b.data()), 48);
    EXPECT_EQ(fake_cap.count("readi"), 3);
    EXPECT_EQ(alsa_cap_reread, 2u);
    EXPECT_EQ(b, ramp(2000)); // the newest block wins
    EXPECT_EQ(alsa_cap_samples, 144u);
    EXPECT_EQ(alsa_loop_cut, 0u);
}

TEST_F(AlsaOpen, CaptureLoopEndsAtTheBufferDepth)
{
    for (int k = 0; k < 10; k++)
        queue_capture(ramp(1000 * k));
    fake_cap.avail_default = 384; // a device that never drains
    block b{};
    EXPECT_EQ(alsa_rec48(b.data()), 48);
    EXPECT_EQ(fake_cap.count("readi"), ALSA_LOOP_MAX);
    EXPECT_EQ(alsa_cap_reread, unsigned(ALSA_LOOP_MAX - 1));
    EXPECT_EQ(alsa_loop_cut, 1u);
    EXPECT_EQ(b, ramp(1000 * (ALSA_LOOP_MAX - 1)));

    // reads that fail every time are bounded the same way
    fake_cap.calls.clear();
    fake_cap.io.assign(20, -EIO);
    alsa_rec48(b.data());
    EXPECT_EQ(fake_cap.count("readi"), ALSA_LOOP_MAX);
    EXPECT_EQ(alsa_cap_err, unsigned(ALSA_LOOP_MAX));
    EXPECT_EQ(alsa_loop_cut, 2u);
}

struct recovery_case {
    int err;
    std::deque<int> resume;
    strings calls; // after the read
};

class AlsaRecovery : public AlsaOpen, public ::testing::WithParamInterface<recovery_case> {};

TEST_P(AlsaRecovery, EachErrorCodeHasItsRecovery)
{
    const recovery_case &c = GetParam();
    fake_cap.avail = {384, 0};
    fake_cap.io = {c.err};
    fake_cap.resume = c.resume;
    block b{};
    b[3] = 0x00C00000;
    b[4] = 0x00000040;
    EXPECT_EQ(alsa_rec48(b.data()), c.err);
    EXPECT_EQ(alsa_cap_err, 1u);
    EXPECT_EQ(alsa_cap_xrun, 1u);
    EXPECT_EQ(alsa_cap_samples, 0u);
    strings expected{"avail", "readi"};
    expected.insert(expected.end(), c.calls.begin(), c.calls.end());
    expected.push_back("avail_update");
    EXPECT_EQ(fake_cap.calls, expected);
    // the old contents are still sign-extended and measured
    EXPECT_EQ(b[3], int32_t(0xFFC00000u));
    EXPECT_EQ(alsa_cap_peak, 0x40);

    // the next cycle reads normally
    queue_capture(ramp(77));
    fake_cap.avail = {384, 0};
    EXPECT_EQ(alsa_rec48(b.data()), 48);
    EXPECT_EQ(b, ramp(77));
}

INSTANTIATE_TEST_SUITE_P(
    PerCode, AlsaRecovery,
    ::testing::Values(recovery_case{-EPIPE, {}, {"prepare"}},
                      recovery_case{-ESTRPIPE, {0}, {"resume"}},
                      recovery_case{-ESTRPIPE, {-ENOSYS}, {"resume", "prepare"}},
                      recovery_case{-EIO, {}, {"drop", "start"}},
                      recovery_case{-EBADFD, {}, {"drop", "start"}}));

// Suspend recovery never sleeps in the cycle: while the card answers
// -EAGAIN, each later attempt comes ALSA_RESUME_GAP calls after the last.
TEST_F(AlsaOpen, SuspendedCaptureRetriesResumeWithoutWaiting)
{
    fake_cap.avail_default = 0;
    fake_cap.avail = {384};
    fake_cap.io = {-ESTRPIPE};
    fake_cap.resume = {-EAGAIN, -EAGAIN, 0};
    block b = ramp(3);
    EXPECT_EQ(alsa_rec48(b.data()), -ESTRPIPE);
    EXPECT_EQ(fake_cap.count("resume"), 1);
    EXPECT_EQ(fake_cap.count("avail_update"), 0); // nothing more this call
    fake_cap.calls.clear();
    for (int i = 1; i < ALSA_RESUME_GAP; i++)
        EXPECT_EQ(alsa_rec48(b.data()), 0);
    EXPECT_TRUE(fake_cap.calls.empty());
    alsa_rec48(b.data()); // second attempt: -EAGAIN again
    EXPECT_EQ(fake_cap.calls, strings{"resume"});
    for (int i = 1; i < ALSA_RESUME_GAP; i++)
        alsa_rec48(b.data());
    fake_cap.calls.clear();
    queue_capture(ramp(9000));
    fake_cap.avail = {384, 0};
    EXPECT_EQ(alsa_rec48(b.data()), 48); // resumed: reads in the same call
    EXPECT_EQ(fake_cap.calls, (strings{"resume", "avail", "readi", "avail_update"}));
    EXPECT_EQ(b, ramp(9000));
    EXPECT_EQ(alsa_cap_xrun, 1u);
    EXPECT_EQ(alsa_loop_cut, 0u);
}

TEST_F(AlsaOpen, SuspendRecoveryGivesUpAndPreparesAfterItsTries)
{
    fake_cap.avail = {384};
    fake_cap.io = {-ESTRPIPE};
    fake_cap.resume.assign(ALSA_RESUME_TRIES + 5, -EAGAIN);
    block b{};
    alsa_rec48(b.data());
    for (int i = 0; i < (ALSA_RESUME_TRIES - 1) * ALSA_RESUME_GAP; i++)
        alsa_rec48(b.data());
    EXPECT_EQ(fake_cap.count("resume"), ALSA_RESUME_TRIES);
    EXPECT_EQ(fake_cap.count("prepare"), 1);
    EXPECT_EQ(alsa_loop_cut, 1u);
    EXPECT_EQ(fake_cap.calls.back(), "avail"); // read again from that call on
}

TEST_F(AlsaOpen, PlayAndCaptureAllocateNothing)
{
    fake_play.record = fake_cap.record = false;
    fake_play.avail_default = fake_cap.avail_default = 384;
    fake_cap.io.assign(3, -EPIPE);
    alsa_debug = 1;
    fake_cap.io.push_back(20);
    block b = ramp(1);
    testing::internal::CaptureStdout();
    alloc_count_start();
    for (int i = 0; i < 4; i++) {
        alsa_play48(b.data());
        alsa_rec48(b.data());
    }
    EXPECT_EQ(alloc_count_stop(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "snd_pcm_readi: 20\n");
}
} // namespace
