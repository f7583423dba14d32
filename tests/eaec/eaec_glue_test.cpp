#include "audio/eaec_glue.h"
#include "daemon/mix.h"
#include "routing/xpt.h"
#include "support/alloc_count.h"
#include "support/cycle_tables.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {
constexpr int FLOW = 3, REF = 2;
constexpr uint32_t TS0 = 8192 * 3 - 240; // frames straddle the ring's wrap

class EaecGlue : public ::testing::Test {
protected:
    void SetUp() override { reset_cycle_tables(); }
    void TearDown() override { std::for_each(rtp_dsts, rtp_dsts + 48, [](rtp_dst &x) { dst_eaec_setup(&x, -1); }); }
    // One block as the cycle runs it (silent reference); what it left.
    void block(uint32_t ts, const float *in, float *out)
    {
        for (int k = 0; k < MIX_BLOCK; k++)
            mix_out[k * MIX_OUT_MAX + REF] = 0.0f, *mix_slot(ts + uint32_t(k), FLOW) = in[k];
        eaec_run(ts);
        for (int k = 0; k < MIX_BLOCK; k++)
            out[k] = *mix_slot(ts + uint32_t(k), FLOW);
    }
    rtp_dst &d = rtp_dsts[FLOW];
};

// End to end through the glue, a near-end talker (noise in 100 ms bursts)
// comes back exactly one frame late, after a silent frame; a second flow
// runs beside it, and the cycle's step allocates nothing.
TEST_F(EaecGlue, FlowComesBackExactlyOneFrameLate)
{
    dst_eaec_setup(&d, REF);
    dst_eaec_setup(&rtp_dsts[FLOW + 1], REF);
    EXPECT_EQ(d.eaec_frame_length, 480);
    std::vector<float> in(400 * MIX_BLOCK), out(in.size());
    uint64_t r = 1;
    for (size_t i = 0; i < in.size(); i++)
        r = r * 6364136223846793005u + 1442695040888963407u, in[i] = float(int64_t(r) >> 32) * ((i / 4800) % 2 ? 1e-10f : 1e-12f);
    alloc_count_start();
    for (size_t b = 0; b < 400; b++)
        block(TS0 + uint32_t(b * MIX_BLOCK), &in[b * MIX_BLOCK], &out[b * MIX_BLOCK]);
    EXPECT_EQ(alloc_count_stop(), 0);
    EXPECT_TRUE(std::all_of(out.begin(), out.begin() + 480, [](float v) { return v == 0.0f; }));
    std::vector<double> corr(1201, 0.0);
    for (size_t lag = 0; lag < corr.size(); lag++)
        for (size_t i = 2400; i + 1200 < in.size(); i++)
            corr[lag] += double(in[i]) * double(out[i + lag]);
    EXPECT_EQ(std::max_element(corr.begin(), corr.end()) - corr.begin(), 480);
}

// The same reference changes nothing; another restarts with a silent
// frame; one outside the mix outputs is refused with a message and, like
// none, leaves the flow and its ring alone.
TEST_F(EaecGlue, ReferenceChangesAndTearDown)
{
    std::vector<float> in(MIX_BLOCK, 0.25f), out(MIX_BLOCK);
    dst_eaec_setup(&d, REF);
    for (int b = 0; b < 15; b++)
        block(TS0 + uint32_t(b * MIX_BLOCK), in.data(), out.data());
    dst_eaec_setup(&d, REF);
    EXPECT_EQ(d.eaec_pos, 240);
    dst_eaec_setup(&d, 5);
    EXPECT_EQ(d.eaec_pos, 0);
    EXPECT_TRUE(std::all_of(std::begin(d.eaec_out), std::end(d.eaec_out), [](int16_t v) { return v == 0; }));
    testing::internal::CaptureStderr();
    dst_eaec_setup(&d, MIX_OUT_MAX);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("pelod: "), std::string::npos);
    EXPECT_TRUE(d.eaec_source == -1 && d.eaec_params == nullptr && d.eaec_state == nullptr);
    block(TS0, in.data(), out.data());
    EXPECT_EQ(out[5], 0.25f);
}

} // namespace
