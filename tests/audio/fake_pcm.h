// A double of the sound-card library's PCM calls for alsa_tests: two
// scripted streams that record what the module asks of them.
#pragma once
#include <array>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

struct fake_hw { // the hardware parameters of one pass
    int format = -1, access = -1;
    unsigned rate = 0, channels = 0;
    unsigned long buffer_size = 0;
    bool operator==(const fake_hw &) const = default;
};

struct fake_pcm_stream {
    // Answers taken from the front; when a queue is empty, the avail calls
    // answer avail_default, reads and writes 48 frames, resume 0.
    std::deque<long> avail, io;
    std::deque<int> resume;
    long avail_default = 0;
    std::deque<int32_t> capture; // what reads copy out
    std::vector<std::array<int32_t, 96>> written;
    std::vector<std::string> calls; // "avail", "writei", "readi", "prepare", "close", ...
    fake_hw pending;
    std::vector<fake_hw> installed; // by each snd_pcm_hw_params that succeeded
    unsigned long start_threshold = 0, stop_threshold = 0, avail_min = 0;
    int count(const std::string &call) const;
};
extern fake_pcm_stream fake_play, fake_cap;

// The nth call (from 1) of the named function on stream 0 (playback) or 1
// (capture) returns err.
struct fake_pcm_fault {
    int stream = -1;
    std::string call;
    int nth = 1;
    int err = 0;
};
extern fake_pcm_fault fake_fault;
inline constexpr unsigned long FAKE_BOUNDARY = 0x40000000ul;

// Both streams closed and scripts empty, no fault.
void fake_pcm_reset();
