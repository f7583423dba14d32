// The sound card "hw:0,0": 48 kHz stereo, S24_LE in 32-bit words,
// non-blocking playback and capture of 48-frame blocks.
#pragma once
#include <cstdint>

inline constexpr int ALSA_BLOCK_FRAMES = 48;
inline constexpr int ALSA_BUFFER_FRAMES = 384;  // requested device buffer, 8 blocks
inline constexpr int ALSA_THRESHOLD_FRAMES = 192; // start threshold; rewrite/reread limit
// Most writes (reads) in one alsa_play48 (alsa_rec48) call: the device
// buffer's depth in blocks. A device that never fills (never drains) cannot
// keep the cycle inside the call.
inline constexpr int ALSA_LOOP_MAX = ALSA_BUFFER_FRAMES / ALSA_BLOCK_FRAMES;
// Suspended capture: resume attempts are this many calls (blocks, 1 ms
// each) apart instead of sleeping a second, and after this many -EAGAIN
// answers the stream is prepared instead.
inline constexpr int ALSA_RESUME_GAP = 1000;
inline constexpr int ALSA_RESUME_TRIES = 10;

// Counters: written by the cycle only, read unlocked by the report.
extern unsigned long alsa_ply_or;      // writes that did not take 48 frames
extern unsigned long alsa_ply_rewrite; // extra writes of the same block
extern unsigned long alsa_cap_err;     // reads that returned an error
extern unsigned long alsa_cap_xrun;    // recoveries after a read error
extern unsigned long alsa_cap_samples; // frames read
extern unsigned long alsa_cap_low;     // reads of fewer than 48 frames
extern unsigned long alsa_cap_reread;  // extra reads over the previous block
// Calls that ALSA_LOOP_MAX ended while the device still asked for more, and
// suspend recoveries that ran out of ALSA_RESUME_TRIES.
extern unsigned long alsa_loop_cut;
extern int alsa_debug;    // "-d": print short reads
extern int alsa_cap_peak; // signed maximum since the report last reset it

// [init] Opens and configures both streams and starts capture. Returns
// -1 after printing the failing step's message; what was opened stays
// open, but a stream whose configuration failed is never used.
int alsa_open(void);
// [init] Closes playback, then capture, whichever is open.
void alsa_close(void);
// [rt] Offers one 48-frame block to playback, writing it again (at most
// ALSA_LOOP_MAX writes in all) while more than 192 frames are free.
// Returns 0 when nothing was written, else the last write's result.
// Does nothing when playback is not open.
int alsa_play48(int32_t *samples) noexcept;
// [rt] Reads one 48-frame block into samples, sign-extended in place, and
// raises alsa_cap_peak; reads again over it (at most ALSA_LOOP_MAX reads in
// all) while more than 192 frames wait. Returns 0 when nothing was read,
// else the last read's result. When capture is not open, the block becomes
// silence.
int alsa_rec48(int32_t *samples) noexcept;
