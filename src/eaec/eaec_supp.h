// Residual-echo and noise suppression of the echo canceller, on the
// sqrt-Hann analysis spectra of the error (E) and of the echo estimate (Y).
//
// Residual echo is the largest of the error's part coherent with the far
// end (found before the filter has converged and after a path change),
// the echo of the part of a new path the filter has not learnt yet
// (unc_echo, kept by the frame), a broadband floor (leak x the band's mean
// |Y|^2) and leak x |Y|^2, plus the echo beyond the filter's window and
// the filter's misadjustment (a regression on the window's far-end power),
// where
// leak is the regression
// of the error's power fluctuations on the echo estimate's (near-end
// speech does not move with the far-end, so it barely enters); noise by
// minimum tracking. The gain is a decision-directed Wiener gain whose
// power floor is floor_echo for residual echo and floor_noise for noise;
// comfort noise keeps the noise floor at floor_noise wherever the echo
// floor cut deeper, so suppression does not pump the background. The gain
// is applied by the frame's output stage as a minimum-phase filter.
#pragma once
#include "eaec/eaec_core.h"

// Frame sums the leak regression needs.
struct supp_frame {
    float sum_e;  // sum |E|^2
    float sum_y;  // sum |Y|^2
};

// [rt] Updates the smoothed powers, the leak regression (only while the
// far end is active) and the noise estimate (held while the microphone
// carries digital silence, so a paused stream does not empty it). pe receives |E|^2 per bin.
// The error's part coherent with the far end (the newest far-end spectra
// of the ring, at the best of EAEC_LAGS frame lags) goes to coh_echo.
// xw: the far end's power in the filter's window per bin (the step's
// normaliser); the echo the window's estimate misses goes to miss_echo.
supp_frame supp_analyse(const eaec_params *p, const eaec_state *s, eaec_chan *c, const float *e_re,
                        const float *e_im, const float *y_re, const float *y_im, const float *xw, int far_active,
                        int mic_silent, float *pe) noexcept;
// [rt] Step size per bin of the background filter into mu: the larger of
// the leak's share of the error power and the error's coherence with the
// far end, so adaptation slows down in double talk and speeds up after an
// echo-path change; mu_init until the leak is known and for a while after
// the start or a path change (boost_frames), at most mu_max else.
void supp_step(const eaec_params *p, const eaec_chan *c, float *mu) noexcept;
// [rt] The suppression gain (amplitude) per bin into gain; pe is used up
// (it holds the comfort noise power afterwards, in analysis units). Every
// per-bin array is kpad long and 16-byte aligned.
// far_near: the far end is talking or was a moment ago.
void supp_gain(const eaec_params *p, eaec_chan *c, float *gain, float *pe, int far_near) noexcept;
