#include "daemon/grace.h"
#include "daemon/mixrun.h"
#include "support/emulation.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

namespace {
timespec at(long sec, long nsec) { return timespec{sec, nsec}; }

TEST(WakePlan, OnTimeRunsOneBlock)
{
    const wake_plan p = mix_wake_plan(at(100, 5000000), at(100, 6000000 + 20000), 2000000);
    EXPECT_EQ(p.resync, 0);
    EXPECT_EQ(p.jitter, 20000);
    EXPECT_EQ(p.blocks, 1);
    EXPECT_EQ(p.rtp_ts, 100u * 48000 + 240);
    EXPECT_EQ(p.ts_next.tv_sec, 100);
    EXPECT_EQ(p.ts_next.tv_nsec, 6000000);
}

TEST(WakePlan, OneAndAHalfMillisecondsLateRunsTwoBlocks)
{
    const wake_plan p = mix_wake_plan(at(7, 0), at(7, 2500000), 2000000);
    EXPECT_EQ(p.resync, 0);
    EXPECT_EQ(p.jitter, 1500000);
    EXPECT_EQ(p.blocks, 2);
    EXPECT_EQ(p.rtp_ts, 7u * 48000);
    EXPECT_EQ(p.ts_next.tv_nsec, 2000000);
}

TEST(WakePlan, BeyondTheAllowanceResynchronises)
{
    wake_plan p = mix_wake_plan(at(7, 0), at(7, 3500000), 2000000); // 2.5 ms late
    EXPECT_EQ(p.resync, 1);
    EXPECT_EQ(p.blocks, 0);
    EXPECT_EQ(p.ts_next.tv_nsec, 3000000); // restarts from the current millisecond
    p = mix_wake_plan(at(7, 0), at(7, 3500000), 3000000); // allowed with -J 3 ms
    EXPECT_EQ(p.resync, 0);
    EXPECT_EQ(p.blocks, 3);
}

TEST(WakePlan, EarlyWakeUpResynchronises)
{
    const wake_plan p = mix_wake_plan(at(7, 0), at(7, 999000), 2000000);
    EXPECT_EQ(p.resync, 1);
    EXPECT_LT(p.jitter, 0);
}

TEST(WakePlan, ClockStepsOfSecondsResynchroniseEitherWay)
{
    for (long step : {3L, 5L, -3L, 4L}) {
        // 4.294967296 s wraps the 32-bit figure near zero: still a resync
        const wake_plan p = mix_wake_plan(at(100, 0), at(100 + step, step == 4 ? 295967296 : 1000000), 2000000);
        EXPECT_EQ(p.resync, 1) << step;
        EXPECT_EQ(p.blocks, 0) << step;
    }
}

TEST(WakePlan, SecondCarryAndRtpWrap)
{
    // 89478 s * 48000 = 4294944000: the block at .999 s crosses 2^32
    const wake_plan p = mix_wake_plan(at(89478, 999000000), at(89479, 0), 2000000);
    EXPECT_EQ(p.blocks, 1);
    EXPECT_EQ(p.rtp_ts, uint32_t(89478ull * 48000 + 47952));
    EXPECT_EQ(p.ts_next.tv_sec, 89479);
    EXPECT_EQ(p.ts_next.tv_nsec, 0);
    EXPECT_EQ(mix_rtp_ts(at(89479, 0)), uint32_t(89479ull * 48000)); // wrapped modulo 2^32
    EXPECT_LT(mix_rtp_ts(at(89479, 0)), mix_rtp_ts(at(89478, 0)));
}

TEST(TimespecAdd, CarriesOnce)
{
    timespec t = at(1, 999500000);
    timespec_add_ns(&t, 1000000);
    EXPECT_EQ(t.tv_sec, 2);
    EXPECT_EQ(t.tv_nsec, 500000);
}

TEST(GracePeriod, ReturnsAtOnceWithoutACycle)
{
    rt_set_alive(0);
    EXPECT_EQ(grace_wait(1000), 0);
}

TEST(GracePeriod, WaitsForTheWakeUpInProgress)
{
    SKIP_UNDER_EMULATION();
    rt_set_alive(1);
    std::atomic<bool> go{false};
    std::thread cycle([&] {
        while (!go)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        rt_cycle_done();
    });
    const auto t0 = std::chrono::steady_clock::now();
    go = true;
    EXPECT_EQ(grace_wait(1000), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(4));
    cycle.join();
    rt_set_alive(0);
}

TEST(GracePeriod, GivesUpOnAStuckCycle)
{
    rt_set_alive(1);
    EXPECT_EQ(grace_wait(20), -1);
    rt_set_alive(0);
}
} // namespace
