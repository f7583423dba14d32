// A double of the sound-card library's PCM calls for alsa_tests: two
// scripted streams that record what the module asks of them.
#pragma once
#include <array>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

// The hardware parameters of one pass.
struct fake_hw {
    int format = -1, access = -1;
    unsigned rate = 0, channels = 0;
    unsigned long buffer_size = 0;
    bool operator==(const fake_hw &) const = default;
};

struct fake_pcm_stream {
    bool open = false;
    // Scripted answers, taken from the front. When a queue is empty: the
    // avail calls answer avail_default, reads and writes all 48 frames,
    // resume 0.
    std::deque<long> avail, io;
    std::deque<int> resume;
    long avail_default = 0;
    std::deque<int32_t> capture; // what successful reads copy out, 96 values a block
    std::vector<std::array<int32_t, 96>> written; // every block offered to a write
    // Calls in order: "avail", "avail_update", "writei", "readi", "prepare",
    // "resume", "drop", "start", "close".
    std::vector<std::string> calls;
    fake_hw pending;
    std::vector<fake_hw> installed; // one entry per snd_pcm_hw_params that succeeded
    unsigned long start_threshold = 0, stop_threshold = 0, avail_min = 0;
    int count(const std::string &call) const;
};
extern fake_pcm_stream fake_play, fake_cap;

// Failure injection: the nth call (from 1) of the named library function
// on the given stream (0 playback, 1 capture) returns err.
struct fake_pcm_fault {
    int stream = -1;
    std::string call;
    int nth = 1;
    int err = 0;
};
extern fake_pcm_fault fake_fault;
inline constexpr unsigned long FAKE_BOUNDARY = 0x40000000ul; // the boundary the double reports

// Both streams closed and scripts empty, no fault.
void fake_pcm_reset();
