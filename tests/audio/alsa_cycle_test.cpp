// One block of the cycle against the PCM double: what the loudspeaker
// plays of the sound-card source, and what the microphone flows receive.
#include "audio/alsa.h"
#include "daemon/mixrun.h"
#include "daemon/pelod.h"
#include "fake_pcm.h"
#include "support/alloc_count.h"
#include "support/capture.h"
#include "support/cycle_tables.h"

#include <bit>
#include <climits>
#include <gtest/gtest.h>

namespace {
using block = std::array<int32_t, 96>;
constexpr uint32_t TS = 96000;

block frames(int32_t left, int32_t right)
{
    block b;
    for (size_t k = 0; k < 96; k += 2) {
        b[k] = left;
        b[k + 1] = right;
    }
    return b;
}

// Captured value i: 24 bits on the wire, (i + 1) * 1000 with the sign of
// the channel (left positive) once extended.
int32_t mic_value(int i) { return (i + 1) * 1000 * (i % 2 ? -1 : 1); }

class AlsaCycle : public ::testing::Test { // state: card open, nothing routed
protected:
    void SetUp() override
    {
        alsa_close();
        fake_pcm_reset();
        ASSERT_EQ(captured(alsa_open).status, 0);
        reset_cycle_tables();
        for (fake_pcm_stream *s : {&fake_play, &fake_cap})
            s->calls.reserve(64);
        fake_play.written.reserve(4);
        buf.fill(0x00123456);
    }
    void TearDown() override
    {
        alsa_close();
        reset_cycle_tables();
    }
    // One block with room for one write, and a captured block waiting when
    // `capture` (else nothing to read). Returns what was played.
    block run(bool capture = false, uint32_t ts = TS)
    {
        fake_play.avail = {384, 0};
        fake_cap.avail = {capture ? 384 : 48, 0};
        for (int i = 0; i < 96; i++)
            fake_cap.capture.push_back(mic_value(i) & 0x00FFFFFF);
        alloc_count_start();
        mix_block(ts, buf.data());
        EXPECT_EQ(alloc_count_stop(), 0);
        EXPECT_EQ(fake_play.written.size(), 1u);
        return fake_play.written.empty() ? block{} : fake_play.written[0];
    }
    rtp_src &card_source(int nchn, int mix0, int mix1)
    {
        src.ep.sa_dst.sin_family = alsa_src_family;
        src.nchn = nchn;
        src.mix[0] = mix0;
        src.mix[1] = mix1;
        src.gainv[0] = src.gainv[1] = 1.0f;
        rtp_srcs = &src;
        return src;
    }
    static void mic(int i, int nchan, uint32_t pdly)
    {
        rtp_dsts[i].ep.sa_dst.sin_family = alsa_src_family;
        rtp_dsts[i].fmt.nchan = nchan;
        rtp_dsts[i].pdly = pdly;
    }
    block buf;
    rtp_src src{};
};

struct render_case {
    int nchn, mix1; // mix[0] is 2, holding 0.5; mix 5 holds -0.25
    float gain0, gain1;
    bool limiter; // enabled, its output 0.125 and -0.0625
    int32_t left, right;
};

class AlsaCycleRender : public AlsaCycle, public ::testing::WithParamInterface<render_case> {};

// The last of two sound-card sources is played; with nothing captured a
// microphone flow hears silence, never the block just played.
TEST_P(AlsaCycleRender, LastSoundCardSourcePlaysItsMixesWithTheirGains)
{
    const render_case &c = GetParam();
    for (int k = 0; k < 48; k++) {
        mix_out[k * MIX_OUT_MAX + 2] = 0.5f;
        mix_out[k * MIX_OUT_MAX + 5] = -0.25f;
        src.limcom.outputBuffer[k] = 0.125f;
        src.limcom.outputBuffer[48 + k] = -0.0625f;
    }
    rtp_src &s = card_source(c.nchn, 2, c.mix1);
    s.gainv[0] = c.gain0;
    s.gainv[1] = c.gain1;
    s.limcom.current_params.enable = c.limiter;
    rtp_src first = s; // plays mix 5 alone
    first.mix[0] = first.mix[1] = 5;
    first.next = &s;
    rtp_srcs = &first;
    mic(4, 0, 48);
    EXPECT_EQ(run(), frames(c.left, c.right));
    EXPECT_EQ(*mix_slot(TS + 48, 4), 0.0f);
}

INSTANTIATE_TEST_SUITE_P(
    Sources, AlsaCycleRender,
    ::testing::Values(render_case{2, 5, 0.5f, 1.0f, false, 2097151, -2097151}, // 0.25 * 8388607 toward zero
                      render_case{1, 5, 0.5f, 0.5f, false, 2097151, 2097151},  // one mix feeds both sides
                      render_case{2, -1, 1.0f, 1.0f, false, 4194303, 0},       // no mix: silence
                      render_case{2, 5, 1.0f, 1.0f, true, 1048575, -524287},   // the limiter's output instead
                      render_case{1, 5, 1.0f, 1.0f, true, 1048575, 1048575}));

TEST_F(AlsaCycle, FullScaleTruncatesAndOverloadSaturates)
{
    const float in[] = {1.0f, -1.0f, 1e4f, -1e4f, 1e-7f, std::bit_cast<float>(0x7FC00000u)};
    const int32_t want[] = {8388607, -8388607, INT32_MAX, INT32_MIN, 0, 0};
    for (size_t k = 0; k < std::size(in); k++)
        mix_out[k * MIX_OUT_MAX + 2] = in[k];
    card_source(1, 2, 2);
    const block b = run();
    for (size_t k = 0; k < std::size(in); k++)
        EXPECT_EQ(b[2 * k], want[k]) << in[k];
}

} // namespace
