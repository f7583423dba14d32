// The sound-card steps of a block: rendering the loudspeaker source into the
// 96-value buffer, and the captured buffer into the microphone flows.
#include "daemon/mix.h"
#include "daemon/mixrun.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "rtp/rtp_src.h"
#include "support/alloc_count.h"

#include <array>
#include <bit>
#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>

namespace {
using block = std::array<int32_t, 96>;

float &mix_at(int row, int col) { return mix_out[row * MIX_OUT_MAX + col]; }

class MixRenderAlsaSrc : public ::testing::Test { // state: a sound-card source, no limiter
protected:
    void SetUp() override
    {
        memset(mix_out, 0, sizeof mix_out);
        src = std::make_unique<rtp_src>();
        src->ep.sa_dst.sin_family = alsa_src_family;
        src->mix[0] = 2;
        src->mix[1] = 5;
        src->nchn = 2;
        src->gainv[0] = src->gainv[1] = 1.0f;
        for (int k = 0; k < MIX_BLOCK; k++) {
            mix_at(k, 2) = 0.5f;
            mix_at(k, 5) = -0.25f;
        }
    }
    block render()
    {
        block b;
        b.fill(0x5A5A5A5A);
        mix_render_alsa_src(src.get(), b.data());
        return b;
    }
    std::unique_ptr<rtp_src> src;
};

TEST_F(MixRenderAlsaSrc, TwoMixesFeedLeftAndRightWithTheirGains)
{
    src->gainv[0] = 0.5f;
    const block b = render();
    for (int k = 0; k < MIX_BLOCK; k++) {
        EXPECT_EQ(b[2 * k], 2097151) << k;      // 0.25 * 8388607, truncated
        EXPECT_EQ(b[2 * k + 1], -2097151) << k; // toward zero
    }
}

TEST_F(MixRenderAlsaSrc, OneMixFeedsBothChannels)
{
    src->nchn = 1;
    src->gainv[1] = 0.5f;
    const block b = render();
    for (int k = 0; k < MIX_BLOCK; k++) {
        EXPECT_EQ(b[2 * k], 4194303) << k;
        EXPECT_EQ(b[2 * k + 1], 2097151) << k;
    }
}

TEST_F(MixRenderAlsaSrc, FullScaleTruncatesAndOverloadSaturates)
{
    mix_at(0, 2) = 1.0f;
    mix_at(1, 2) = -1.0f;
    mix_at(2, 2) = 1e4f;
    mix_at(3, 2) = -1e4f;
    mix_at(4, 2) = 1e-7f; // below one step
    mix_at(5, 2) = std::bit_cast<float>(0x7FC00000u);
    const block b = render();
    EXPECT_EQ(b[0], 8388607);
    EXPECT_EQ(b[2], -8388607);
    EXPECT_EQ(b[4], INT32_MAX);
    EXPECT_EQ(b[6], INT32_MIN);
    EXPECT_EQ(b[8], 0);
    EXPECT_EQ(b[10], 0);
}

TEST_F(MixRenderAlsaSrc, EnabledLimiterOutputIsPlayedFromTheScratchRows)
{
    src->limcom.current_params.enable = 1;
    for (int k = 0; k < MIX_BLOCK; k++) {
        src->limcom.outputBuffer[k] = 0.125f;
        src->limcom.outputBuffer[48 + k] = -0.0625f;
    }
    block b = render();
    for (int k = 0; k < MIX_BLOCK; k++) {
        EXPECT_EQ(mix_at(48 + k, 0), 0.125f);
        EXPECT_EQ(mix_at(48 + k, 1), -0.0625f);
        EXPECT_EQ(b[2 * k], 1048575) << k;
        EXPECT_EQ(b[2 * k + 1], -524287) << k;
    }
    EXPECT_EQ(mix_at(0, 2), 0.5f); // the mixed rows are left alone
    src->nchn = 1;                  // mono: column 0 on both sides
    b = render();
    EXPECT_EQ(b[1], 1048575);
}

TEST_F(MixRenderAlsaSrc, MissingMixPlaysSilenceAndNothingIsAllocated)
{
    src->mix[1] = -1;
    alloc_count_start();
    const block b = render();
    EXPECT_EQ(alloc_count_stop(), 0);
    EXPECT_EQ(b[0], 4194303);
    EXPECT_EQ(b[1], 0);
}

class MixMicToRing : public ::testing::Test { // state: flows cleared, ring empty
protected:
    void SetUp() override
    {
        mix_inp_init();
        memset(mix_inp, 0, 8192 * MIX_INP_MAX * sizeof(float));
        for (int i = 0; i < RTP_DST_MAX; i++)
            dst_init(&rtp_dsts[i], i);
        for (int k = 0; k < 96; k++)
            buf[size_t(k)] = (k + 1) * 1000 * (k % 2 ? -1 : 1);
    }
    void TearDown() override
    {
        for (int i = 0; i < RTP_DST_MAX; i++)
            dst_init(&rtp_dsts[i], i);
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

TEST_F(MixMicToRing, FullScaleAndOneStepConvertExactly)
{
    mic(0, 2, 48);
    buf[0] = 8388607;
    buf[2] = 1;
    buf[4] = -8388607;
    mix_mic_to_ring(buf.data(), 1000);
    EXPECT_EQ(*mix_slot(1048, 0), 1.0f);
    EXPECT_EQ(*mix_slot(1049, 0), std::bit_cast<float>(0x34000001u));
    EXPECT_EQ(*mix_slot(1050, 0), -1.0f);
}

struct mic_case {
    int nchan;
    int count; // ring slots written
    int step;  // buffer values between slots
};
class MixMicChannels : public MixMicToRing, public ::testing::WithParamInterface<mic_case> {};

// 0 and 2 take the left channel; 1 deliberately takes all 96 interleaved
// values into 96 slots
TEST_P(MixMicChannels, ChannelCountSetsTheStep)
{
    const mic_case &c = GetParam();
    mic(9, c.nchan, 48);
    const uint32_t ts = 4800;
    mix_mic_to_ring(buf.data(), ts);
    for (int k = 0; k < c.count; k++)
        EXPECT_EQ(*mix_slot(ts + 48 + uint32_t(k), 9), float(buf[size_t(k * c.step)]) * int24_to_float) << k;
    EXPECT_EQ(*mix_slot(ts + 48 + uint32_t(c.count), 9), 0.0f);
    EXPECT_EQ(*mix_slot(ts + 47, 9), 0.0f);
}

INSTANTIATE_TEST_SUITE_P(Counts, MixMicChannels,
                         ::testing::Values(mic_case{0, 48, 2}, mic_case{1, 96, 1}, mic_case{2, 48, 2},
                                           mic_case{3, 32, 3}));

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
