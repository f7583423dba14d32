// The sound card "hw:0,0": 48 kHz stereo, S24_LE in 32-bit words,
// non-blocking playback and capture of 48-frame blocks.
#pragma once
#include <cstdint>

inline constexpr int ALSA_BLOCK_FRAMES = 48;

extern unsigned long alsa_ply_or, alsa_ply_rewrite;
extern unsigned long alsa_cap_err, alsa_cap_xrun, alsa_cap_samples, alsa_cap_low, alsa_cap_reread;
extern int alsa_debug;
extern int alsa_cap_peak;

// [init] Opens and configures both streams and starts capture. Returns
// -1 after printing the failing step's message.
int alsa_open(void);
// [init] Closes whatever is open.
void alsa_close(void);
// [rt] Offers one 48-frame block to playback. Returns 0 when nothing was
// written, else the last write's result. Does nothing when never opened.
int alsa_play48(int32_t *samples) noexcept;
// [rt] Reads one 48-frame block into samples, sign-extended in place.
// Returns 0 when nothing was read, else the last read's result.
int alsa_rec48(int32_t *samples) noexcept;
