// The sound-card steps of a block: rendering the loudspeaker source into the
// 96-value buffer, and the captured buffer into the microphone flows.
#include "daemon/mixrun.h"
#include "daemon/pelod.h"
#include "support/alloc_count.h"
#include "support/cycle_tables.h"

#include <array>
#include <bit>
#include <climits>
#include <gtest/gtest.h>

namespace {
using block = std::array<int32_t, 96>;

float &mix_at(int row, int col) { return mix_out[row * MIX_OUT_MAX + col]; }

class MixRenderAlsaSrc : public ::testing::Test { // state: a stereo sound-card source of mixes 2 and 5
protected:
    void SetUp() override
    {
        reset_cycle_tables();
        src.ep.sa_dst.sin_family = alsa_src_family;
        src.mix[0] = 2;
        src.mix[1] = 5;
        src.nchn = 2;
        src.gainv[0] = src.gainv[1] = 1.0f;
        for (int k = 0; k < MIX_BLOCK; k++) {
            mix_at(k, 2) = 0.5f;
            mix_at(k, 5) = -0.25f;
        }
    }
    // The block rendered, checked to hold left and right in every frame.
    void expect_frames(int32_t left, int32_t right)
    {
        block b;
        b.fill(0x5A5A5A5A);
        mix_render_alsa_src(&src, b.data());
        for (int k = 0; k < MIX_BLOCK; k++) {
            EXPECT_EQ(b[size_t(2 * k)], left) << k;
            EXPECT_EQ(b[size_t(2 * k + 1)], right) << k;
        }
    }
    rtp_src src{};
};

TEST_F(MixRenderAlsaSrc, MixesFeedLeftAndRightWithTheirGains)
{
    src.gainv[0] = 0.5f;
    expect_frames(2097151, -2097151); // 0.25 * 8388607, truncated toward zero
    src.nchn = 1;                     // one mix feeds both channels
    src.gainv[1] = 0.5f;
    expect_frames(2097151, 2097151);
    src.nchn = 2;
    src.mix[1] = -1; // no mix: silence
    alloc_count_start();
    expect_frames(2097151, 0);
    EXPECT_EQ(alloc_count_stop(), 0);
}

TEST_F(MixRenderAlsaSrc, FullScaleTruncatesAndOverloadSaturates)
{
    const float in[] = {1.0f, -1.0f, 1e4f, -1e4f, 1e-7f, std::bit_cast<float>(0x7FC00000u)};
    const int32_t want[] = {8388607, -8388607, INT32_MAX, INT32_MIN, 0, 0};
    for (size_t k = 0; k < std::size(in); k++)
        mix_at(int(k), 2) = in[k];
    block b;
    mix_render_alsa_src(&src, b.data());
    for (size_t k = 0; k < std::size(in); k++)
        EXPECT_EQ(b[2 * k], want[k]) << in[k];
}

// The limiter's output goes through the scratch rows 48..95 of mix_out;
// the mixed rows are left alone.
TEST_F(MixRenderAlsaSrc, EnabledLimiterOutputIsPlayedFromTheScratchRows)
{
    src.limcom.current_params.enable = 1;
    for (int k = 0; k < MIX_BLOCK; k++) {
        src.limcom.outputBuffer[k] = 0.125f;
        src.limcom.outputBuffer[48 + k] = -0.0625f;
    }
    expect_frames(1048575, -524287);
    EXPECT_EQ(mix_at(48, 0), 0.125f);
    EXPECT_EQ(mix_at(95, 1), -0.0625f);
    EXPECT_EQ(mix_at(0, 2), 0.5f);
    src.nchn = 1; // mono: limiter channel 0 on both sides
    expect_frames(1048575, 1048575);
}

class MixMicToRing : public ::testing::Test { // state: flows cleared, ring empty
protected:
    void SetUp() override
    {
        reset_cycle_tables();
        for (int k = 0; k < 96; k++)
            buf[size_t(k)] = (k + 1) * 1000 * (k % 2 ? -1 : 1);
    }
    rtp_dst &mic(int i, int nchan, uint32_t pdly)
    {
        rtp_dst &d = rtp_dsts[i];
        d.ep.sa_dst.sin_family = alsa_src_family;
        d.fmt.nchan = nchan;
        d.pdly = pdly;
        return d;
    }
    block buf{};
};

// Channel count 0 and 2 take the left channel, 3 every third value; 1
// deliberately takes all 96 interleaved values into 96 slots.
TEST_F(MixMicToRing, ChannelCountSetsTheStep)
{
    for (auto [nchan, count, step] : {std::array{0, 48, 2}, {1, 96, 1}, {2, 48, 2}, {3, 32, 3}}) {
        SetUp();
        mic(9, nchan, 48);
        mix_mic_to_ring(buf.data(), 4800);
        for (int k = 0; k <= count; k++)
            EXPECT_EQ(*mix_slot(4848 + uint32_t(k), 9), k < count ? float(buf[size_t(k * step)]) * int24_to_float : 0.0f)
                << nchan << " " << k;
        EXPECT_EQ(*mix_slot(4847, 9), 0.0f);
    }
}

TEST_F(MixMicToRing, OnlySoundCardFlowsAtTheirOwnDelayAcrossTheRingEnd)
{
    rtp_dsts[0].ep.sa_dst.sin_family = AF_INET;
    mic(3, 0, 48);
    mic(7, 0, 96);
    const uint32_t ts = 5u * 8192u - 60u; // the block ends past the ring's last row
    alloc_count_start();
    mix_mic_to_ring(buf.data(), ts);
    EXPECT_EQ(alloc_count_stop(), 0);
    const float first = float(buf[0]) * int24_to_float;
    const float last = float(buf[94]) * int24_to_float;
    EXPECT_EQ(mix_inp[8180 * MIX_INP_MAX + 3], first);
    EXPECT_EQ(mix_inp[35 * MIX_INP_MAX + 3], last); // wrapped to the ring's start
    EXPECT_EQ(mix_inp[36 * MIX_INP_MAX + 3], 0.0f);
    EXPECT_EQ(*mix_slot(ts + 96, 7), first);
    EXPECT_EQ(*mix_slot(ts + 96 + 47, 7), last);
    for (uint32_t t = 0; t < 8192; t++)
        ASSERT_EQ(mix_inp[t * MIX_INP_MAX + 0], 0.0f) << t;
}
} // namespace
