#include "audio/CG_LimCom_interface.h"
#include "daemon/grace.h"
#include "daemon/mix.h"
#include "routing/xpt.h"
#include "rtp/rtp_src.h"
#include "support/alloc_count.h"
#include "support/emulation.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <thread>

namespace {
limcom_params lce(double t, int ch0 = 0, int ch1 = 1)
{
    limcom_params p;
    std::memset(&p, 0, sizeof p);
    p.enable = 1;
    p.ch0 = ch0;
    p.ch1 = ch1;
    p.attack = 1;
    p.release = 1;
    p.threshold = t;
    p.ratio = 4;
    return p;
}

float tone(int col, int k) { return 0.9f * std::sin(0.3f * float(k) + float(col)); }

class LimComGlue : public ::testing::Test { // state: start-up done, nothing routed
protected:
    void SetUp() override
    {
        mix_inp_init();
        std::memset(mix_inp, 0, 8192 * 48 * sizeof(float));
        mix_init();
        for (int i = 0; i < RTP_DST_MAX; i++)
            dst_init(&rtp_dsts[i], i);
        src = rtp_src{};
    }
    // The outputs a separate instance gives for the given inputs.
    static std::array<float, 96> reference(const limcom_params &p, int nchan, const float *in)
    {
        LimCom_Instance r{};
        CG_limcom_init_instance(&r, &p, nchan);
        std::memcpy(r.inputBuffer, in, sizeof r.inputBuffer);
        CG_limcom_process(&r);
        std::array<float, 96> out;
        std::memcpy(out.data(), r.outputBuffer, sizeof r.outputBuffer);
        return out;
    }
    rtp_src src;
};

TEST_F(LimComGlue, FlowsAreLimitedInPlaceOnTheRowsOfTheBlock)
{
    const uint32_t ts = 0xFFFFFFF0u; // the block's rows wrap round the ring
    for (uint32_t t = ts - 48; t != ts + 96; t++)
        for (int i = 0; i < RTP_DST_MAX; i++)
            *mix_slot(t, i) = tone(i, int(t - ts));
    const limcom_params p = lce(0.3);
    for (int i : {5, 47})
        CG_limcom_init_instance(&rtp_dsts[i].limcom, &p, 1);
    cg_limcom_run(ts);
    float in[96] = {};
    for (int k = 0; k < 48; k++)
        in[k] = tone(5, k);
    const auto want5 = reference(p, 1, in);
    for (int k = 0; k < 48; k++)
        ASSERT_EQ(*mix_slot(ts + uint32_t(k), 5), want5[k]) << k;
    EXPECT_NE(*mix_slot(ts + 3, 47), tone(47, 3));
    EXPECT_EQ(*mix_slot(ts + 3, 4), tone(4, 3));    // disabled flow
    EXPECT_EQ(*mix_slot(ts - 1, 5), tone(5, -1));   // rows outside the block
    EXPECT_EQ(*mix_slot(ts + 48, 5), tone(5, 48));
}

TEST_F(LimComGlue, ThresholdZeroSilencesItsFlowWithoutPoisoningTheMix)
{
    const limcom_params p = lce(0.0);
    CG_limcom_init_instance(&rtp_dsts[3].limcom, &p, 1);
    for (int k = 0; k < 48; k++)
        *mix_slot(uint32_t(k), 3) = *mix_slot(uint32_t(k), 4) = 0.25f;
    mix_gain_set(0, 3, 1.0f);
    mix_gain_set(0, 4, 1.0f);
    for (int b = 0; b < 3; b++)
        cg_limcom_run(0);
    do_dsp(0);
    for (int k = 0; k < 48; k++)
        ASSERT_EQ(mix_out[k * MIX_OUT_MAX], 0.25f) << k;

    src.nchn = 2;
    CG_limcom_init_instance(&src.limcom, &p, 2);
    cg_limcom_run_src(&src);
    for (float y : src.limcom.outputBuffer)
        ASSERT_EQ(y, 0.0f);
}

struct SelectorCase {
    int nchn, ch0, ch1, want0, want1; // want: mix output feeding channel 0 / 1
};
class LimComSelectors : public LimComGlue, public ::testing::WithParamInterface<SelectorCase> {};

TEST_P(LimComSelectors, ChannelsComeFromTheSelectedEntriesOfTheMixPair)
{
    const SelectorCase c = GetParam();
    for (int k = 0; k < 48; k++)
        for (int o = 0; o < MIX_OUT_MAX; o++)
            mix_out[k * MIX_OUT_MAX + o] = tone(o, k);
    src.nchn = c.nchn;
    src.mix[0] = 3;
    src.mix[1] = c.nchn > 1 ? 9 : 0; // a mono stream's second entry is unset
    const limcom_params p = lce(0.3, c.ch0, c.ch1);
    const int nchan = c.nchn == 1 ? 1 : 2;
    CG_limcom_init_instance(&src.limcom, &p, nchan);
    cg_limcom_run_src(&src);
    float in[96] = {};
    for (int k = 0; k < 48; k++) {
        in[k] = tone(c.want0, k);
        in[48 + k] = nchan == 2 ? tone(c.want1, k) : 0.0f;
    }
    const auto want = reference(p, nchan, in);
    for (int j = 0; j < 48 * nchan; j++)
        ASSERT_EQ(src.limcom.outputBuffer[j], want[j]) << j;
}
INSTANTIATE_TEST_SUITE_P(Pairs, LimComSelectors,
                         ::testing::Values(SelectorCase{2, 0, 1, 3, 9}, SelectorCase{2, 1, 0, 9, 3},
                                           SelectorCase{2, 2, 3, 3, 9}, SelectorCase{2, 7, 6, 9, 3},
                                           SelectorCase{3, 1, 1, 9, 9}, SelectorCase{1, 1, 1, 3, 3},
                                           SelectorCase{1, 0, 1, 3, 3}));

TEST_F(LimComGlue, CycleStepsAllocateNothing)
{
    const limcom_params p = lce(0.3);
    for (rtp_dst &d : rtp_dsts)
        CG_limcom_init_instance(&d.limcom, &p, 1);
    src.nchn = 2;
    src.mix[1] = 1;
    CG_limcom_init_instance(&src.limcom, &p, 2);
    alloc_count_start();
    cg_limcom_run(480);
    cg_limcom_run_src(&src);
    EXPECT_EQ(alloc_count_stop(), 0);
}

TEST(LimComReinit, CycleNeverSeesAHalfInitialisedInstance)
{
    SKIP_UNDER_EMULATION();
    // A cycle double processes the instance whenever it is enabled, while
    // the supervisor re-initialises it over and over, switching models.
    static LimCom_Instance l{};
    std::atomic<bool> stop{false};
    std::atomic<long> bad{0}, blocks{0};
    rt_set_alive(1);
    std::thread cycle([&] {
        while (!stop.load()) {
            if (CG_limcom_is_enabled(&l)) {
                for (int j = 0; j < 96; j++)
                    l.inputBuffer[j] = j % 2 ? 0.5f : -0.5f; // never silent after the high-pass
                CG_limcom_process(&l);
                for (int j = 0; j < 48 * l.nchan; j++)
                    if (!std::isfinite(l.outputBuffer[j]) || l.outputBuffer[j] == 0.0f)
                        bad++;
                blocks++;
            }
            rt_cycle_done();
        }
    });
    const limcom_params p = lce(0.5);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
    for (int n = 0; std::chrono::steady_clock::now() < end; n++) {
        CG_limcom_init_instance(&l, &p, 1 + n % 2);
        std::this_thread::sleep_for(std::chrono::microseconds(50)); // let the cycle run it
    }
    stop = true;
    cycle.join();
    rt_set_alive(0);
    EXPECT_EQ(bad.load(), 0);
    EXPECT_GT(blocks.load(), 100);
}
} // namespace
