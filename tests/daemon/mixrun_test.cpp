#include "daemon/grace.h"
#include "daemon/mixrun.h"
#include "support/emulation.h"

#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <tuple>

namespace {
struct wake_case { // last block boundary, clock at wake-up, allowance; the plan (jitter when not re-synchronising)
    timespec prev, now;
    int32_t sysjitter;
    int resync, jitter, blocks;
    uint32_t rtp_ts;
    timespec next;
};

TEST(WakePlan, LatenessDecidesBlocksOrResync)
{
    const wake_case cases[] = {
        {{100, 5000000}, {100, 6020000}, 2000000, 0, 20000, 1, 4800240, {100, 6000000}}, // on time
        {{7, 0}, {7, 2500000}, 2000000, 0, 1500000, 2, 336000, {7, 2000000}},            // 1.5 ms late
        {{7, 0}, {7, 3000000}, 2000000, 0, 2000000, 3, 336000, {7, 3000000}}, // 2 ms late: still allowed
        {{7, 0}, {7, 3500000}, 2000000, 1, 0, 0, 0, {7, 3000000}}, // 2.5 ms: from the current millisecond
        {{7, 0}, {7, 3500000}, 3000000, 0, 2500000, 3, 336000, {7, 3000000}}, // allowed with -J 3 ms
        {{7, 0}, {7, 999000}, 2000000, 1, 0, 0, 0, {7, 0}},                     // early
        // clock steps of seconds either way; 4.294967296 s wraps the 32-bit lateness near zero
        {{100, 0}, {103, 1000000}, 2000000, 1, 0, 0, 0, {103, 1000000}},
        {{100, 0}, {97, 1000000}, 2000000, 1, 0, 0, 0, {97, 1000000}},
        {{100, 0}, {104, 295967296}, 2000000, 1, 0, 0, 0, {104, 295000000}},
        // the block at .999 s carries into the next second and crosses 2^32
        {{89478, 999000000}, {89479, 0}, 2000000, 0, 0, 1, uint32_t(89478ull * 48000 + 47952), {89479, 0}},
    };
    for (const wake_case &c : cases) {
        const wake_plan p = mix_wake_plan(c.prev, c.now, c.sysjitter);
        const std::string at = std::to_string(c.now.tv_sec) + "." + std::to_string(c.now.tv_nsec);
        EXPECT_EQ(std::tuple(p.resync, p.resync ? 0 : p.jitter, p.blocks, p.rtp_ts, p.ts_next.tv_sec, p.ts_next.tv_nsec),
                  std::tuple(c.resync, c.jitter, c.blocks, c.rtp_ts, c.next.tv_sec, c.next.tv_nsec)) << at;
    }
    EXPECT_EQ(mix_rtp_ts({89479, 0}), uint32_t(89479ull * 48000)); // modulo 2^32
}

// A slow wake-up (here 250 ms) is waited for, however long it takes: the
// caller frees what the cycle may be reading as soon as this returns.
TEST(GracePeriod, WaitsForTheWakeUpInProgressHoweverLong)
{
    rt_set_alive(0);
    EXPECT_EQ(grace_wait(), 0);
    SKIP_UNDER_EMULATION();
    rt_set_alive(1);
    std::atomic<bool> go{false};
    std::thread cycle([&] {
        while (!go)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        rt_cycle_done();
    });
    const auto t0 = std::chrono::steady_clock::now();
    go = true;
    testing::internal::CaptureStderr();
    EXPECT_EQ(grace_wait(), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(249));
    EXPECT_NE(testing::internal::GetCapturedStderr().find("pelod: grace_wait: the real-time cycle has not passed"),
              std::string::npos);
    cycle.join();
    rt_set_alive(0);
}
} // namespace
