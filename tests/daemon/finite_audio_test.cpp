// Whatever comes in, the ring, the mixes, limiters and cancellers stay
// finite, and a flow recovers soon after bad input stops.
#include "audio/eaec_glue.h"
#include "config/pelocfg.h"
#include "support/cycle_tables.h"
#include "support/limcom_params.h"

#include <cmath>
#include <gtest/gtest.h>

namespace {

class FiniteAudio : public ::testing::Test {
protected:
    void SetUp() override { reset_cycle_tables(); }
    void TearDown() override
    {
        for (rtp_dst &d : rtp_dsts) {
            dst_eaec_setup(&d, -1);
            CG_limcom_init_instance(&d.limcom, nullptr, 1);
        }
    }
};

// Flow 3 with a limiter and a canceller into mix 0: RMS of mix 0 over the
// last 100 of 1500 blocks, with NaN and absurd input in blocks 100..199;
// -1 when the mix was ever not finite.
double run_flow(bool bad_input)
{
    rtp_dst &d = rtp_dsts[3];
    const limcom_params p = lce(5, 100, 0.5, 4);
    CG_limcom_init_instance(&d.limcom, &p, 1);
    dst_eaec_setup(&d, 2);
    mix_gain_set(0, d.index, 1.0f);
    double sum = 0.0;
    for (uint32_t b = 0, ts = 0; b < 1500; b++, ts += MIX_BLOCK) {
        const bool bad = bad_input && b >= 100 && b < 200;
        for (uint32_t k = 0; k < MIX_BLOCK; k++)
            *mix_slot(ts + k, d.index) = bad ? (k % 2 ? NAN : 1e30f) : 0.3f * std::sin(0.05f * float(ts + k));
        cg_limcom_run(ts);
        eaec_run(ts);
        do_dsp(ts);
        for (int k = 0; k < MIX_BLOCK; k++) {
            const double v = mix_out[k * MIX_OUT_MAX];
            if (!std::isfinite(v))
                return -1.0;
            sum += b >= 1400 ? v * v : 0.0;
        }
    }
    return std::sqrt(sum / (100.0 * MIX_BLOCK));
}

TEST_F(FiniteAudio, NanIntoAFlowWithLimiterAndCancellerRecoversWithinASecond)
{
    const double clean = run_flow(false);
    TearDown();
    SetUp();
    const double after_bad = run_flow(true);
    ASSERT_GT(clean, 0.01);
    EXPECT_NEAR(20.0 * std::log10(after_bad / clean), 0.0, 1.0);
}

} // namespace
