#include "audio/eaec_glue.h"
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "eaec/eaec.h"
#include "routing/xpt.h"
#include "support/alloc_count.h"
#include "support/cycle_tables.h"

#include <algorithm>
#include <cmath>
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
    void SetUp() override { reset_cycle_tables(); }
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
            ASSERT_EQ(*mix_slot(base + uint32_t(i), FLOW), float(expect[i]) * int16_to_float) << "frame " << frame << " sample " << i;
            spk[i] = f2int16(far(base + uint32_t(i)));
            mic[i] = f2int16(micv(base + uint32_t(i)));
        }
        eaec_processframe(p, s, spk, mic, expect);
        EXPECT_TRUE(frame > 0 || std::any_of(expect, expect + 480, [](INT_PCM v) { return v != 0; }));
    }
    eaec_done(p, s);
}

TEST_F(EaecGlue, SamplesBeyondFullScaleAreHeldThere)
{
    dst_eaec_setup(&d, REF);
    mix_out[REF] = 1.5f;
    *mix_slot(TS0, FLOW) = 1.5f;
    mix_out[MIX_OUT_MAX + REF] = -1.0f;
    *mix_slot(TS0 + 1, FLOW) = 1.0f;
    eaec_run(TS0);
    EXPECT_EQ(d.eaec_mic[0], 32767); // not the low 16 bits of 49150
    EXPECT_EQ(d.eaec_spk[0], 32767);
    EXPECT_EQ(d.eaec_mic[1], 32767);
    EXPECT_EQ(d.eaec_spk[1], -32767);
    EXPECT_EQ(d.eaec_pos, 48);
}

// The cycle's step allocates nothing (two flows with cancellers).
TEST_F(EaecGlue, ChangedReferenceRestartsWithASilentFrame)
{
    dst_eaec_setup(&d, REF);
    dst_eaec_setup(&rtp_dsts[FLOW + 1], REF);
    EXPECT_EQ(d.eaec_source, REF);
    EXPECT_EQ(d.eaec_frame_length, 480);
    alloc_count_start();
    for (int b = 0; b < 25; b++)
        block(TS0 + uint32_t(b) * MIX_BLOCK);
    EXPECT_EQ(alloc_count_stop(), 0);
    ASSERT_EQ(d.eaec_pos, 240);

    dst_eaec_setup(&d, REF); // same reference: nothing changes
    EXPECT_EQ(d.eaec_pos, 240);

    dst_eaec_setup(&d, 5);
    EXPECT_EQ(d.eaec_source, 5);
    EXPECT_EQ(d.eaec_pos, 0);
    EXPECT_NE(d.eaec_params, nullptr);
    EXPECT_TRUE(std::all_of(std::begin(d.eaec_out), std::end(d.eaec_out), [](int16_t v) { return v == 0; }));
    const uint32_t base = TS0 + 25 * MIX_BLOCK;
    for (int b = 0; b < 10; b++)
        block(base + uint32_t(b) * MIX_BLOCK);
    for (int i = 0; i < 480; i++)
        ASSERT_EQ(*mix_slot(base + uint32_t(i), FLOW), 0.0f) << i;
}

// No reference, or one outside the mix outputs (refused with a message),
// tears the canceller down and leaves the ring alone.
TEST_F(EaecGlue, NoOrBadReferenceTearsDown)
{
    for (int bad : {-1, MIX_OUT_MAX}) {
        dst_eaec_setup(&d, REF);
        testing::internal::CaptureStderr();
        dst_eaec_setup(&d, bad);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(err.find("pelod: ") != std::string::npos, bad >= 0) << err;
        EXPECT_EQ(d.eaec_source, -1);
        EXPECT_EQ(d.eaec_params, nullptr);
        EXPECT_EQ(d.eaec_state, nullptr);
        block(TS0);
        EXPECT_EQ(*mix_slot(TS0 + 5, FLOW), micv(TS0 + 5));
    }
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
