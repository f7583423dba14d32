// Real-input FFT of the echo canceller: 256, 512 or 1024 points, computed
// as a half-length complex FFT on split real/imaginary arrays, so every
// inner loop runs over contiguous floats (four NEON lanes at a time). The
// complex transforms are Stockham stages of radix 8 (radix 4 where the
// length asks for it), the last one without twiddles. Two real signals can
// go through one full-length complex transform together (x + i y), the
// spectra separated afterwards: cheaper than two real transforms.
#pragma once

inline constexpr int EAEC_FFT_MAX = 1024;              // real points
inline constexpr int EAEC_BIN_MAX = EAEC_FFT_MAX / 2 + 1; // 513
inline constexpr int EAEC_FFT_TW = 5 * EAEC_FFT_MAX; // twiddle floats, both lengths

// One complex transform length; its stages follow from the length.
struct eaec_fft_steps {
    int len; // complex points
    int tw;  // offset of its stages' twiddles in stage_tw
};

struct eaec_fft_plan {
    int n;    // real points
    int half; // n / 2
    eaec_fft_steps cx_half; // n / 2 complex points: one real signal
    eaec_fft_steps cx_full; // n complex points: a pair of real signals
    // Per twiddled stage of length len = R m: w^(j p), j = 1..R-1, p < m,
    // as 2 (R - 1) arrays (re, im of each j) one after the other. After the
    // first stage each value is stored four times, as the vector the inner
    // loop multiplies by.
    alignas(16) float stage_tw[EAEC_FFT_TW];
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
// A part of the n samples of a pair's two signals: all, the first half and
// one more ([0, n/2]), or the second half ([n/2, n)).
enum eaec_keep { EAEC_KEEP_ALL, EAEC_KEEP_HEAD, EAEC_KEEP_TAIL };
// [rt] eaec_rfft of x and of y in one complex transform (x, y and the
// outputs need not be aligned). Each result carries rounding noise of the
// other's size; a member that is all zeros comes out exactly zero. support
// EAEC_KEEP_HEAD: x and y are zero past n/2 (the first stage skips them).
void eaec_rfft_pair(const eaec_fft_plan *p, const float *x, const float *y, float *x_re, float *x_im, float *y_re,
                    float *y_im, float *work, eaec_keep support = EAEC_KEEP_ALL) noexcept;
// [rt] eaec_irfft of two spectra in one complex transform, likewise. keep:
// the samples of x and y it must deliver; the others are left as they were
// or undefined (the last stage skips their outputs).
void eaec_irfft_pair(const eaec_fft_plan *p, const float *x_re, const float *x_im, const float *y_re,
                     const float *y_im, float *x, float *y, float *work, eaec_keep keep = EAEC_KEEP_ALL) noexcept;
