// Real-input FFT of the echo canceller: 256, 512 or 1024 points, computed
// as a half-length complex FFT (radix-4 Stockham stages, one radix-2 stage
// when needed) on split real/imaginary arrays, so every inner loop runs
// over contiguous floats (four NEON lanes at a time).
#pragma once

inline constexpr int EAEC_FFT_MAX = 1024;              // real points
inline constexpr int EAEC_BIN_MAX = EAEC_FFT_MAX / 2 + 1; // 513

struct eaec_fft_plan {
    int n;       // real points
    int half;    // complex points, n / 2
    int nstage4; // radix-4 stages; a radix-2 stage follows when half is not a power of 4
    // Per radix-4 stage of length len: w^p, w^2p, w^3p for p < len / 4,
    // stored as six arrays (re, im of each) one after the other.
    alignas(16) float stage_tw[3 * EAEC_FFT_MAX];
    // exp(-2 pi i k / n), k = 0..n/2, for the real-to-complex split.
    alignas(16) float rot_re[EAEC_BIN_MAX + 3];
    alignas(16) float rot_im[EAEC_BIN_MAX + 3];
};

// [sup] Fills the tables for n real points (n = 256, 512 or 1024).
// Returns -1 for another n.
int eaec_fft_plan_init(eaec_fft_plan *p, int n);

// Scratch an FFT call needs: 4 * n floats, 16-byte aligned.
inline constexpr int EAEC_FFT_WORK = 4 * EAEC_FFT_MAX;

// [rt] Forward transform of x[0..n-1] into re/im[0..n/2], unscaled.
void eaec_rfft(const eaec_fft_plan *p, const float *x, float *re, float *im, float *work) noexcept;
// [rt] Inverse of eaec_rfft (scaled by 1/n): re/im[0..n/2] into x[0..n-1].
// The imaginary parts of bins 0 and n/2 are ignored.
void eaec_irfft(const eaec_fft_plan *p, const float *re, const float *im, float *x, float *work) noexcept;
