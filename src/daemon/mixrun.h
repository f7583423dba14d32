// The real-time context: wakes on every whole millisecond of the media
// clock, receives, and runs one block per elapsed millisecond.
#pragma once
#include <cstdint>
#include <ctime>

inline constexpr int32_t MIX_PERIOD_NS = 1000000;

extern int32_t jitter_max;            // largest accepted lateness, ns
extern int32_t jitter_max_statperiod; // the same per report period
extern int32_t time_resync;           // re-synchronisations to the clock

// ts.tv_nsec += ns with a single carry into seconds.
void timespec_add_ns(timespec *ts, long ns) noexcept;

// What one wake-up does, decided from the time of the last processed block
// boundary and the clock read at wake-up; no clock, no side effects.
struct wake_plan {
    int resync;       // 1: skip this wake-up's work, count a resync
    int32_t jitter;   // lateness in ns (32-bit arithmetic)
    int blocks;       // blocks to process (0 when resync)
    uint32_t rtp_ts;  // RTP time of the first block
    timespec ts_next; // ts_prev after this wake-up
};
wake_plan mix_wake_plan(timespec ts_prev, timespec now, int32_t sysjitter_ns) noexcept;

// RTP time (48 kHz, modulo 2^32) of a whole-millisecond media time.
uint32_t mix_rtp_ts(timespec ts) noexcept;

// [rt] Clears the ring rows of the blocks a re-synchronisation skips, from
// RTP time `from` to `to` (at most the whole ring; nothing if `to` is not
// later): audio written ahead for them is never consumed and would
// otherwise play a turn of the ring later.
void mix_ring_skip(uint32_t from, uint32_t to) noexcept;
// [rt] Zeroes the eight receive counters of every flow (SIGUSR1).
void stats_reset() noexcept;
// [rt] One block for rtp_ts, every step in order; buf is the sound-card
// buffer of 48 stereo frames.
void mix_block(uint32_t rtp_ts, int32_t *buf) noexcept;
// [rt] Block step 1b: renders a sound-card source into buf.
void mix_render_alsa_src(const struct rtp_src *src, int32_t *buf) noexcept;
// [rt] Block step 3: captured samples into the ring of every sound-card flow.
void mix_mic_to_ring(const int32_t *buf, uint32_t rtp_ts) noexcept;

// [rt] Flush-to-zero for the calling context's floating point (x86 also
// denormal inputs as zero; armhf FPSCR.FZ).
void rt_flush_denormals() noexcept;

// Body of the real-time context (made with clone). Returns 0 after a
// stop, 1 when the timer cannot be created.
int mix_run(void *arg);
