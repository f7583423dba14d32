#include "audio/CG_LimCom_interface.h"
#include "daemon/grace.h"
#include "support/alloc_count.h"
#include "support/cycle_tables.h"
#include "support/emulation.h"
#include "support/limcom_params.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <gtest/gtest.h>
#include <thread>

namespace {
float tone(int col, int k) { return 0.9f * std::sin(0.3f * float(k) + float(col)); }

// Flows with a limiter are limited in place on the rows of the block (which
// here wrap round the ring), as a separate instance would, without allocating.
TEST(LimComGlue, FlowsAreLimitedInPlaceOnTheRowsOfTheBlock)
{
    reset_cycle_tables();
    const uint32_t ts = 0xFFFFFFF0u;
    for (uint32_t t = ts - 48; t != ts + 96; t++)
        for (int i = 0; i < RTP_DST_MAX; i++)
            *mix_slot(t, i) = tone(i, int(t - ts));
    const limcom_params p = lce(1, 1, 0.3, 4);
    for (int i : {5, 47})
        CG_limcom_init_instance(&rtp_dsts[i].limcom, &p, 1);
    alloc_count_start();
    cg_limcom_run(ts);
    EXPECT_EQ(alloc_count_stop(), 0);
    LimCom_Instance r{};
    CG_limcom_init_instance(&r, &p, 1);
    for (int k = 0; k < 48; k++)
        r.inputBuffer[k] = tone(5, k);
    CG_limcom_process(&r);
    for (int k = 0; k < 48; k++)
        ASSERT_EQ(*mix_slot(ts + uint32_t(k), 5), r.outputBuffer[k]) << k;
    EXPECT_NE(*mix_slot(ts + 3, 47), tone(47, 3));
    EXPECT_EQ(*mix_slot(ts + 3, 4), tone(4, 3));  // disabled flow
    EXPECT_EQ(*mix_slot(ts - 1, 5), tone(5, -1)); // rows outside the block
    EXPECT_EQ(*mix_slot(ts + 48, 5), tone(5, 48));
}
// A cycle double processes the instance whenever it is enabled, while the
// supervisor re-initialises it over and over, switching models.
TEST(LimComReinit, CycleNeverSeesAHalfInitialisedInstance)
{
    SKIP_UNDER_EMULATION();
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
                    bad += !std::isfinite(l.outputBuffer[j]) || l.outputBuffer[j] == 0.0f;
                blocks++;
            }
            rt_cycle_done();
        }
    });
    const limcom_params p = lce(1, 1, 0.5, 4);
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
