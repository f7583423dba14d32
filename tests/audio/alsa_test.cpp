// The sound-card module against the PCM double (fake_pcm.cpp).
#include "audio/alsa.h"
#include "fake_pcm.h"
#include "support/alloc_count.h"
#include "support/capture.h"

#include <alsa/asoundlib.h>
#include <algorithm>
#include <cstring>
#include <tuple>
#include <gtest/gtest.h>

namespace {
using block = std::array<int32_t, 96>;
using strings = std::vector<std::string>;

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
        alsa_ply_or = alsa_ply_rewrite = alsa_cap_err = alsa_cap_xrun = alsa_cap_samples = 0;
        alsa_cap_low = alsa_cap_reread = alsa_loop_cut = 0;
        alsa_debug = alsa_cap_peak = 0;
    }
    void TearDown() override { alsa_close(); }
};

class AlsaOpen : public AlsaClosed { // state: both streams open and running
protected:
    void SetUp() override
    {
        AlsaClosed::SetUp();
        ASSERT_EQ(captured(alsa_open).status, 0);
        for (fake_pcm_stream *s : {&fake_play, &fake_cap}) {
            s->calls.clear();
            s->calls.reserve(256); // the double allocates nothing while counting
            s->written.reserve(64);
        }
    }
};

// Each stream gets 48 kHz stereo S24 in a 384-frame buffer (playback after
// an S16 probe); only capture is started. A failing buffer-size step reports
// the text of code 1 with the adjusted count, and opening goes on without
// installing that pass.
TEST_F(AlsaClosed, OpenConfiguresBothStreamsAndStartsCaptureOnly)
{
    const run_result r = captured(alsa_open);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out + r.err, "");
    const fake_hw s24{SND_PCM_FORMAT_S24_LE, SND_PCM_ACCESS_RW_INTERLEAVED, 48000, 2, 384};
    fake_hw s16 = s24;
    s16.format = SND_PCM_FORMAT_S16_LE;
    EXPECT_EQ(fake_play.installed, (std::vector<fake_hw>{s16, s24}));
    EXPECT_EQ(fake_cap.installed, std::vector<fake_hw>{s24});
    for (const fake_pcm_stream *s : {&fake_play, &fake_cap})
        EXPECT_EQ(std::tie(s->start_threshold, s->stop_threshold, s->avail_min), std::tuple(192ul, FAKE_BOUNDARY, 48ul));
    EXPECT_EQ(fake_play.calls, strings{});
    EXPECT_EQ(fake_cap.calls, strings{"start"});

    SetUp();
    fake_fault = {0, "snd_pcm_hw_params_set_buffer_size_near", 1, -EINVAL};
    EXPECT_EQ(captured(alsa_open).out, "Unable to set buffer size 400 Operation not permitted\n");
    EXPECT_EQ(fake_play.installed, std::vector<fake_hw>{s24});
    EXPECT_EQ(fake_cap.installed, std::vector<fake_hw>{s24});
}

// Either direction: a block moves when more than 48 frames are free (to
// play) or waiting (to read), an error counting as plenty, and moves again
// while more than 192 are, at most ALSA_LOOP_MAX times. A read over an
// earlier one keeps the newest block; a failed read is followed by the
// recovery its code calls for. The next call moves one block as usual.
struct loop_case {
    bool capture;
    std::deque<long> avail; // answers, then avail_default
    long avail_default;
    std::deque<long> io; // read or write results, then 48
    int ret, moves, failures, cut;
    std::deque<int> resume = {}; // resume results, then 0
    strings recovery = {};       // calls after one failed read
};

class AlsaLoop : public AlsaOpen, public ::testing::WithParamInterface<loop_case> {};

TEST_P(AlsaLoop, RoomDecidesHowOftenABlockMovesAndErrorsRecover)
{
    const loop_case &c = GetParam();
    fake_pcm_stream &s = c.capture ? fake_cap : fake_play;
    s.avail = c.avail;
    s.avail_default = c.avail_default;
    s.io = c.io;
    s.resume = c.resume;
    for (int k = 1; k <= 10; k++)
        queue_capture(ramp(1000 * k));
    block b = ramp(10);
    b[0] = 0x00C00000; // negative once sign-extended
    const block before = b;
    const auto move = [&] { return c.capture ? alsa_rec48(b.data()) : alsa_play48(b.data()); };
    alloc_count_start();
    EXPECT_EQ(move(), c.ret);
    EXPECT_EQ(alloc_count_stop(), 0);
    EXPECT_EQ(s.count(c.capture ? "readi" : "writei"), c.moves);
    EXPECT_EQ(c.capture ? alsa_cap_reread : alsa_ply_rewrite, unsigned(std::max(c.moves - 1, 0)));
    EXPECT_EQ(c.capture ? alsa_cap_err : alsa_ply_or, unsigned(c.failures));
    EXPECT_EQ(alsa_cap_xrun, alsa_cap_err);
    EXPECT_EQ(alsa_loop_cut, unsigned(c.cut));
    if (!c.recovery.empty()) {
        strings want{"avail", "readi"};
        want.insert(want.end(), c.recovery.begin(), c.recovery.end());
        want.push_back("avail_update");
        EXPECT_EQ(s.calls, want);
    }
    if (!c.capture)
        EXPECT_EQ(fake_play.written, std::vector<block>(size_t(c.moves), before));
    else if (c.moves > c.failures)
        EXPECT_EQ(b, ramp(1000 * c.moves));
    else // nothing read: silence, never the block just played
        EXPECT_EQ(b, block{});
    s.avail = {384, 0};
    s.avail_default = 0;
    s.io.clear();
    EXPECT_EQ(move(), 48);
    EXPECT_TRUE(!c.capture || b == ramp(1000 * (c.moves - c.failures + 1)));
}

constexpr int MAX = ALSA_LOOP_MAX;
INSTANTIATE_TEST_SUITE_P(
    BothDirections, AlsaLoop,
    ::testing::Values(loop_case{false, {48}, 0, {}, 0, 0, 0, 0}, loop_case{true, {48}, 0, {}, 0, 0, 0, 0},
                      loop_case{false, {49, 192}, 0, {}, 48, 1, 0, 0}, loop_case{true, {49, 0}, 0, {}, 48, 1, 0, 0},
                      loop_case{false, {300, 100}, 0, {20}, 20, 1, 1, 0},
                      loop_case{false, {384, 336, 288, 240, 192}, 0, {}, 48, 4, 0, 0},
                      loop_case{true, {300, 252, 204, 156}, 0, {}, 48, 3, 0, 0},
                      // a device that never fills or drains, or always fails
                      loop_case{true, {}, 384, {}, 48, MAX, 0, 1},
                      loop_case{false, {}, -ESTRPIPE, std::deque<long>(MAX, -ESTRPIPE), -ESTRPIPE, MAX, MAX, 1},
                      loop_case{true, {}, 384, std::deque<long>(MAX, -EIO), -EIO, MAX, MAX, 1},
                      // recovery per error code
                      loop_case{true, {384, 0}, 0, {-EPIPE}, -EPIPE, 1, 1, 0, {}, {"prepare"}},
                      loop_case{true, {384, 0}, 0, {-ESTRPIPE}, -ESTRPIPE, 1, 1, 0, {0}, {"resume"}},
                      loop_case{true, {384, 0}, 0, {-ESTRPIPE}, -ESTRPIPE, 1, 1, 0, {-ENOSYS}, {"resume", "prepare"}},
                      loop_case{true, {384, 0}, 0, {-EIO}, -EIO, 1, 1, 0, {}, {"drop", "start"}}));

} // namespace
