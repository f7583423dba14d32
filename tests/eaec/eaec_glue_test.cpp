#include "audio/eaec_glue.h"
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "eaec/eaec.h"
#include "routing/xpt.h"
#include "support/alloc_count.h"

#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {
constexpr int FLOW = 3;
constexpr int REF = 2;
constexpr uint32_t TS0 = 8192 * 3 - 240; // frames straddle the ring's wrap

// State: flows and ring as after start-up, flow 3 without a canceller.
class EaecGlue : public ::testing::Test {
protected:
    void SetUp() override
    {
        mix_inp_init();
        mix_init();
        for (int i = 0; i < RTP_DST_MAX; i++)
            dst_init(&rtp_dsts[i], i);
        std::memset(mix_out, 0, sizeof mix_out);
        std::memset(mix_inp, 0, 8192 * 48 * sizeof(float));
    }
    void TearDown() override
    {
        for (rtp_dst &d : rtp_dsts)
            dst_eaec_setup(&d, -1);
    }
    // Deterministic test signals: a far end and a microphone.
    static float far(uint32_t n) { return 0.3f * std::sin(0.05f * float(n)) + 0.1f * std::sin(0.31f * float(n)); }
    static float micv(uint32_t n) { return 0.2f * std::sin(0.021f * float(n)) + 0.5f * far(n + 7); }
    // One block as the cycle would present it: reference in mix_out, the
    // flow's samples in the ring, then the canceller's step.
    void block(uint32_t ts)
    {
        for (int k = 0; k < MIX_BLOCK; k++) {
            mix_out[k * MIX_OUT_MAX + REF] = far(ts + uint32_t(k));
            *mix_slot(ts + uint32_t(k), FLOW) = micv(ts + uint32_t(k));
        }
        eaec_run(ts);
    }
    rtp_dst &d = rtp_dsts[FLOW];
};

TEST_F(EaecGlue, SetUpRecordsReferenceAndFrame)
{
    dst_eaec_setup(&d, REF);
    EXPECT_EQ(d.eaec_source, REF);
    EXPECT_EQ(d.eaec_frame_length, 480);
    EXPECT_EQ(d.eaec_pos, 0);
    EXPECT_NE(d.eaec_params, nullptr);
    EXPECT_NE(d.eaec_state, nullptr);
}

TEST_F(EaecGlue, FirstFrameSilentThenProcessedFrameOneFrameLater)
{
    dst_eaec_setup(&d, REF);
    // A second canceller fed what the glue should feed it gives the
    // expected output frame by frame.
    EAEC_CONFIG cfg{48000, 1, 1, -12, -10, 20, 0};
    HANDLE_EAEC_PARAMS p = nullptr;
    HANDLE_EAEC_STATE s = nullptr;
    ASSERT_EQ(eaec_init(&p, &s, &cfg), EAEC_STATUS_OK);
    short spk[480], mic[480];
    INT_PCM expect[480] = {};
    for (int frame = 0; frame < 4; frame++) {
        const uint32_t base = TS0 + uint32_t(frame) * 480;
        for (int b = 0; b < 10; b++)
            block(base + uint32_t(b) * MIX_BLOCK);
        for (int i = 0; i < 480; i++) {
            const float got = *mix_slot(base + uint32_t(i), FLOW);
            ASSERT_EQ(got, float(expect[i]) * int16_to_float) << "frame " << frame << " sample " << i;
            spk[i] = f2int16(far(base + uint32_t(i)));
            mic[i] = f2int16(micv(base + uint32_t(i)));
        }
        eaec_processframe(p, s, spk, mic, expect);
        if (frame == 0) {
            bool any = false;
            for (INT_PCM v : expect)
                any = any || v != 0;
            EXPECT_TRUE(any) << "the processed frame should carry signal";
        }
    }
    eaec_done(p, s);
}

TEST_F(EaecGlue, SamplesWrapAtSixteenBits)
{
    dst_eaec_setup(&d, REF);
    mix_out[REF] = 1.5f;
    *mix_slot(TS0, FLOW) = 1.5f;
    mix_out[MIX_OUT_MAX + REF] = -1.0f;
    *mix_slot(TS0 + 1, FLOW) = 1.0f;
    eaec_run(TS0);
    EXPECT_EQ(d.eaec_mic[0], -16386); // low 16 bits of 49150
    EXPECT_EQ(d.eaec_spk[0], -16386);
    EXPECT_EQ(d.eaec_mic[1], 32767);
    EXPECT_EQ(d.eaec_spk[1], -32767);
    EXPECT_EQ(d.eaec_pos, 48);
}

TEST_F(EaecGlue, ChangedReferenceRestartsWithASilentFrame)
{
    dst_eaec_setup(&d, REF);
    for (int b = 0; b < 25; b++)
        block(TS0 + uint32_t(b) * MIX_BLOCK);
    ASSERT_EQ(d.eaec_pos, 240);

    dst_eaec_setup(&d, REF); // same reference: nothing changes
    EXPECT_EQ(d.eaec_pos, 240);

    dst_eaec_setup(&d, 5);
    EXPECT_EQ(d.eaec_source, 5);
    EXPECT_EQ(d.eaec_pos, 0);
    EXPECT_NE(d.eaec_params, nullptr);
    for (int16_t v : d.eaec_out)
        EXPECT_EQ(v, 0);
    const uint32_t base = TS0 + 25 * MIX_BLOCK;
    for (int b = 0; b < 10; b++)
        block(base + uint32_t(b) * MIX_BLOCK);
    for (int i = 0; i < 480; i++)
        ASSERT_EQ(*mix_slot(base + uint32_t(i), FLOW), 0.0f) << i;
}

TEST_F(EaecGlue, NoReferenceTearsDownAndLeavesTheRingAlone)
{
    dst_eaec_setup(&d, REF);
    dst_eaec_setup(&d, -1);
    EXPECT_EQ(d.eaec_source, -1);
    EXPECT_EQ(d.eaec_params, nullptr);
    EXPECT_EQ(d.eaec_state, nullptr);
    block(TS0);
    EXPECT_EQ(*mix_slot(TS0 + 5, FLOW), micv(TS0 + 5));
}

TEST_F(EaecGlue, ReferenceOutsideTheMixOutputsIsRefused)
{
    testing::internal::CaptureStderr();
    dst_eaec_setup(&d, MIX_OUT_MAX);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(d.eaec_source, -1);
    EXPECT_EQ(d.eaec_params, nullptr);
    EXPECT_NE(err.find("pelod: "), std::string::npos);
}

TEST_F(EaecGlue, CycleStepAllocatesNothing)
{
    dst_eaec_setup(&d, REF);
    dst_eaec_setup(&rtp_dsts[FLOW + 1], REF);
    alloc_count_start();
    for (int b = 0; b < 30; b++)
        block(TS0 + uint32_t(b) * MIX_BLOCK);
    EXPECT_EQ(alloc_count_stop(), 0);
}

TEST(EaecLibInitLine, PrintedUnderDebugOnly)
{
    debug = 1;
    testing::internal::CaptureStdout();
    eaec_lib_init();
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("eaec lib: Torvo EAEC 2.1.3 (33620736) Oct  1 2014 19:30:44\n"), std::string::npos) << out;
    debug = 0;
    testing::internal::CaptureStdout();
    eaec_lib_init();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}
} // namespace
