// The real-time cycle under scripted lateness and senders, with exact
// counts: a late wake-up of our own costs no audio and no alignment.
#include "daemon/cyclesim.h"

#include <gtest/gtest.h>

namespace {
struct sim_case {
    sim_scenario sc;
    int64_t late, lost, relocks;
    int32_t recover_ms; // at most
    int32_t delay = 144; // obtained, from the first datagram to the last
    int64_t reads = -1;  // socket reads, when given
};

TEST(CycleSim, LateWakeUpsLoseNothingStallsRecoverSteppedSendersRelock)
{
    // streams, ms, wake late min/max us, stall at/ms, delay/spread/jitter us,
    // sender stall at/ms, ppm, step at/samples, seed, timestamp offset, drain stall ms
    const sim_case cases[] = {
        // a socket holding two packet times of audio is read every other wake-up
        {{"punctual", 48, 400, 0, 0, 0, 0, 500, 0, 0, 0, 0, 0, 0, 0, 1}, 0, 0, 0, 0, 144, 10032},
        {{"wake-ups 1.0-1.9 ms late", 48, 1000, 1000, 1900, 0, 0, 500, 0, 0, 0, 0, 0, 0, 0, 2}, 0, 0, 0, 0},
        {{"0-2 ms late, senders 0-1.5 ms", 48, 1000, 0, 2000, 0, 0, 0, 0, 1500, 0, 0, 0, 0, 0, 3}, 0, 0, 0, 0},
        {{"0-2 ms late, streams 0-1.5 ms apart", 48, 1000, 0, 2000, 0, 0, 0, 1500, 0, 0, 0, 0, 0, 0, 4}, 0, 0, 0, 0},
        {{"0-2 ms late, sent 0.9 ms after", 48, 1000, 0, 2000, 0, 0, 900, 0, 100, 0, 0, 0, 0, 0, 5}, 0, 0, 0, 0},
        {{"sent 1.5 ms after, all 2 ms late", 8, 1000, 2000, 2000, 0, 0, 1500, 0, 0, 0, 0, 0, 0, 0, 6}, 0, 0, 0, 0},
        // a clock of their own: one offset for all, whichever wake-up locked them
        {{"other clock", 48, 1000, 0, 2000, 0, 0, 0, 1500, 0, 0, 0, 0, 0, 0, 4, 1000003}, 0, 0, 0, 0, 96},
        // what the stall itself costs, and nothing after it
        {{"stall 5 ms", 48, 600, 0, 500, 300, 5, 500, 0, 300, 0, 0, 0, 0, 0, 7}, 216, 13824, 0, 0},
        {{"stall 100 ms", 48, 600, 0, 500, 300, 100, 500, 0, 300, 0, 0, 0, 0, 0, 9}, 4776, 232704, 0, 10},
        {{"9 ms stall inside a drain", 48, 600, 0, 500, 300, 0, 500, 0, 300, 0, 0, 0, 0, 0, 14, 0, 9}, 276, 20736, 0, 0},
        // the blocks a stall skips never play what was written ahead for them
        {{"stall 100 ms, senders pause", 8, 1000, 0, 500, 300, 100, 500, 0, 300, 402, 300, 0, 0, 0, 15}, 3180, 153216, 0, 0},
        {{"senders stall 20 ms", 48, 600, 0, 1000, 0, 0, 500, 0, 300, 300, 20, 0, 0, 0, 10}, 816, 39168, 0, 10},
        // a timestamp jump: one re-lock at once, the audio goes on where it was
        {{"step forward", 8, 600, 0, 1000, 0, 0, 500, 0, 300, 0, 0, 0, 300, 480, 11}, 0, 0, 1, 0},
    };
    for (const sim_case &c : cases) {
        const sim_result r = cycle_sim_run(c.sc);
        SCOPED_TRACE(c.sc.name);
        EXPECT_GT(r.datagrams, c.sc.streams * (c.sc.ms - 40));
        EXPECT_EQ(r.late, c.late);
        EXPECT_EQ(r.lost, c.lost);
        EXPECT_EQ(r.repeated, 0);
        EXPECT_EQ(r.skew, 0);
        EXPECT_EQ(r.relocks, c.relocks);
        EXPECT_GE(r.recover_ms, 0);
        EXPECT_LE(r.recover_ms, c.recover_ms);
        EXPECT_EQ(r.delay_min, c.delay); // steady, whatever the wake-ups did
        EXPECT_EQ(r.delay_max, c.delay);
        EXPECT_EQ(r.reads, c.reads >= 0 ? c.reads : r.reads);
    }
}
} // namespace
