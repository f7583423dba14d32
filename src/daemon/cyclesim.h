// Deterministic simulator of the real-time cycle: the real wake-up
// planner, receive path, ring and block sequence, driven by a virtual
// media clock instead of a timer, with scripted wake-up lateness and
// scripted datagram arrivals. No sleeping and no sockets: datagrams go
// through rtp_sk_deliver, as the socket drain hands them over. It takes
// over the flow table, the ring and the mix tables while it runs.
#pragma once
#include <cstdint>

struct sim_scenario {
    const char *name;
    int streams;        // mono L24 flows with 1 ms packets and equal timestamps
    int ms;             // simulated time
    // our wake-ups: late by a uniform [min, max] us, one of them held up
    int wake_late_min_us, wake_late_max_us;
    int stall_at_ms, stall_ms;
    // the senders: a datagram leaves delay_us after its block ends, plus
    // stream i * spread_us / streams, plus a uniform [0, jitter_us]
    int delay_us, spread_us, jitter_us;
    int sender_stall_at_ms, sender_stall_ms; // then everything held back at once
    int ppm;                                 // stream 0's clock runs fast (+) or slow (-)
    int step_at_ms, step_samples;            // stream 0's timestamps jump forward
    uint32_t seed;
    int ts_offset; // every sender's timestamps minus our media clock
    int drain_stall_ms; // at stall_at_ms, a stall after the first half of the sockets was drained
};

struct sim_result {
    int64_t datagrams;  // sent and delivered
    int64_t late;       // receive counter: placed after their slot was played
    int64_t relocks;    // re-locks beyond the first lock of each stream
    int64_t lost;       // samples sent (after each stream's first datagram) never played
    int64_t repeated;   // samples played more than once
    int32_t skew;       // largest difference between streams' delays in one block, samples
    int32_t delay_min, delay_max; // playout delay obtained, local play time - timestamp, samples
    int32_t recover_ms; // after the stall's end until all streams play whole and aligned; -1: never
    int32_t resyncs;    // re-synchronisations of the cycle
    int64_t wakeups;    // wake-ups that received and played
    int64_t reads;      // socket reads (one recvmmsg each in the daemon)
};

// [init] Runs one scenario from a fresh flow table; deterministic for a seed.
sim_result cycle_sim_run(const sim_scenario &sc);
