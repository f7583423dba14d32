// Adaptive filter of the echo canceller: a partitioned-block
// frequency-domain filter (P partitions of N taps, overlap-save with an
// M-point FFT) driven by the far-end spectra ring of the state. Every
// per-bin array is kpad long (a multiple of 4) and 16-byte aligned.
#pragma once
#include "eaec/eaec_core.h"

// [rt] Both filters' echo spectra in one pass over the far-end ring: ya
// from the background, yb from the foreground; and into norm,
// sum_p f_p |X_p|^2 with the partition gains (part_gain): the normaliser
// of the background's step.
void afilt_echo_spectra(const eaec_params *p, const eaec_state *s, const eaec_chan *c, float *ya_re, float *ya_im,
                        float *yb_re, float *yb_im, float *norm) noexcept;
// [rt] Copies all partitions from one filter to the other.
void afilt_copy(const eaec_params *p, const float *from_re, const float *from_im, float *to_re,
                float *to_im) noexcept;
// [rt] W_p += f_p conj(X_(head - p)) G for every background partition,
// where G is the step-scaled, normalised error spectrum and f_p the
// partition's gain (part_gain). Refreshes part_norm. Returns -1 when the
// filter is no longer finite (the caller resets it).
int afilt_update(const eaec_params *p, const eaec_state *s, eaec_chan *c, const float *g_re,
                 const float *g_im) noexcept;
// [rt] Partition gains from the background's partition norms: a fraction
// `share` in proportion to the norms, the rest even; they sum to 1.
void afilt_part_gains(const eaec_params *p, eaec_chan *c, float share) noexcept;
// [rt] Cuts one partition a frame back to N taps (the gradient leaves it
// circular), in three steps around the caller's transforms, so they can
// share a transform with other work: afilt_constrain_rows names the
// partition's spectrum (c->part_next), which the caller transforms to M
// taps; afilt_constrain_cut zeroes all but the first N of them; the caller
// transforms them back into the rows, and afilt_constrain_done clears the
// bins the filter leaves alone and moves on to the next partition.
void afilt_constrain_rows(const eaec_params *p, eaec_chan *c, float **re, float **im) noexcept;
void afilt_constrain_cut(const eaec_params *p, float *taps) noexcept;
void afilt_constrain_done(const eaec_params *p, eaec_chan *c) noexcept;
// [rt] Scales every partition of w by g (a reset with g = 0).
void afilt_scale(const eaec_params *p, float *w_re, float *w_im, float g) noexcept;
// [rt] Moves the filter `by` partitions towards the newest far end (its
// window over the far-end ring moves back by as much): partition p takes
// partition p + by, the ones left over are cleared.
void afilt_shift(const eaec_params *p, float *w_re, float *w_im, int by) noexcept;
