// A double of the sound-card library's PCM calls for alsa_tests: two
// scripted streams that record what the module asks of them.
#pragma once
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

struct fake_pcm_stream {
    bool open = false;
    bool record = true;           // false: keep no log (nothing allocated)
    // Scripted answers, taken from the front; when a queue is empty the
    // default answers (for avail: avail_default; for I/O: all 48 frames).
    std::deque<long> avail;       // snd_pcm_avail and snd_pcm_avail_update
    long avail_default = 0;
    std::deque<long> io;          // snd_pcm_writei / snd_pcm_readi results
    std::deque<int> resume;       // snd_pcm_resume results; empty: 0
    // Capture: each successful read copies the next 96 values from here
    // (when any are left) into the caller's buffer.
    std::deque<int32_t> capture;
    // Playback: every block offered to a write, 96 values each.
    std::vector<std::vector<int32_t>> written;
    // Calls in order, by short name ("avail", "avail_update", "writei",
    // "readi", "prepare", "resume", "drop", "start", "hw_params", ...).
    std::vector<std::string> calls;
    // Installed hardware formats, one per snd_pcm_hw_params call.
    std::vector<int> formats;
    unsigned rate = 0, channels = 0;
    unsigned long buffer_size = 0, start_threshold = 0, stop_threshold = 0, avail_min = 0;
    int access = -1;
    int count(const std::string &call) const;
};

extern fake_pcm_stream fake_play, fake_cap;

// Failure injection: the nth call (from 1) of the named library function
// on the given stream (0 playback, 1 capture) returns err.
struct fake_pcm_fault {
    int stream = -1;
    std::string call; // e.g. "snd_pcm_hw_params_set_buffer_size_near"
    int nth = 1;
    int err = 0;
};
extern fake_pcm_fault fake_fault;
// The boundary the double reports.
inline constexpr unsigned long FAKE_BOUNDARY = 0x40000000ul;

// Both streams closed and scripts empty, no fault.
void fake_pcm_reset();
