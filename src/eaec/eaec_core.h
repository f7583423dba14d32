// Inside of the echo canceller: the parameter and state objects that
// eaec_init derives, and the steps of one frame.
//
// Signal path of one frame (hop N, window 2N, FFT M >= 2N, K = M/2 + 1):
//   far-end x -> spectrum of the last M samples -> ring of P + 53 spectra
//   a delay estimator places the filter's window of P partitions on the
//   ring, up to 520 ms behind the newest far end (eaec_delay)
//   echo estimate y = last N samples of IFFT(sum_p W_p X_p)  (overlap-save)
//   error e = mic - y; W_p += mu_k conj(X_p) E / norm_k     (PBFDAF)
//   two filters: the background adapts, the foreground (a copy taken
//   while the background does clearly better) makes the output, so double
//   talk cannot throw the output filter off
//   e and y -> sqrt-Hann analysis -> residual-echo and noise suppression
//   gain per bin -> minimum-phase filter (real cepstrum) applied to e by
//   overlap-save, cross-faded from the previous frame's filter over the
//   frame -> 16-bit output of the same frame: the processor adds no delay.
//
// Single-precision float throughout: the far-end power spans more than
// 90 dB and the filter's per-bin normalisation would need block-floating
// scaling in fixed point; float keeps the code short and exact enough,
// and the board's NEON unit runs four float lanes.
#pragma once
#include "eaec/eaec.h"
#include "eaec/eaec_fft.h"

#include <cstddef>
#include <cstdint>

inline constexpr int EAEC_HOP_MAX = 512;
inline constexpr int EAEC_KPAD_MAX = (EAEC_BIN_MAX + 3) & ~3; // 516
inline constexpr int EAEC_CHAN_MAX = 2;
inline constexpr int EAEC_TAIL_MS = 200;  // echo tail covered after the bulk delay
inline constexpr int EAEC_ADAPT_HZ = 24000; // upper edge of the adaptive filter's band
inline constexpr int EAEC_PART_MAX = 64;
inline constexpr int EAEC_LAGS = 3; // frame lags tried by the coherence
inline constexpr int EAEC_DELAY_MS = 520;  // bulk delay the delay estimator searches
inline constexpr int EAEC_DELAY_LAGS_MAX = 64; // frame lags it tries, at most
inline constexpr int EAEC_DELAY_BANDS = 32; // bands the delay estimator compares
inline constexpr int EAEC_DELAY_MARGIN = 3; // partitions the filter keeps before the estimated delay
inline constexpr int EAEC_RING_MAX = EAEC_PART_MAX + EAEC_DELAY_LAGS_MAX;

struct eaec_params {
    int sfreq, nspk, nmic;
    int hop;          // N: samples per frame
    int win;          // 2N: analysis window
    int nfft;         // M
    int nbin;         // K = M/2 + 1
    int kpad;         // K rounded up to 4: row length of every per-bin array
    int kadapt;       // bins the adaptive filter covers (a multiple of 4)
    int npart;        // P: filter partitions of N taps each
    int nlag;         // frame lags the delay estimator tries
    int nring;        // far-end spectra kept: P + nlag
    int band_edge[EAEC_DELAY_BANDS + 1]; // bins of the delay estimator's bands
    int delay_frames; // sigdelay in frames
    float floor_echo; // power floor of the residual-echo gain, 10^(aec/10)
    float floor_noise;// power floor of the noise gain, 10^(nc/10)
    float reg;        // regularisation of the filter's normalisation (absolute part)
    float reg_noise;  // ... and the part relative to the microphone noise of the bin
    float far_active; // far-end frame energy above which the filter adapts
    float mu_max, mu_init; // largest step once converged; at the start and after a path change
    float window[2 * EAEC_HOP_MAX]; // sqrt-Hann, analysis and synthesis
    eaec_fft_plan fft;
};

// One microphone channel: its adaptive filter and suppressor state.
struct eaec_chan {
    float *w_re, *w_im;                // P rows of kpad: background filter (adapts)
    float *f_re, *f_im;                // foreground filter (makes the output)
    float err_bg, err_fg, err_mic;     // smoothed error energies of the two, and the mic's
    float part_norm[EAEC_PART_MAX];    // |W_p| of the background
    float part_gain[EAEC_PART_MAX];    // step share of each partition (sum 1)
    float e_hist[EAEC_FFT_MAX];        // the error's last M - N samples (output filter, analysis)
    float y_hist[EAEC_HOP_MAX];        // previous frame's echo estimate (analysis)
    alignas(16) float h_re[EAEC_KPAD_MAX], h_im[EAEC_KPAD_MAX]; // previous frame's output filter
    alignas(16) float s_ee[EAEC_KPAD_MAX], s_yy[EAEC_KPAD_MAX]; // smoothed powers
    alignas(16) float m_e[EAEC_KPAD_MAX], m_y[EAEC_KPAD_MAX];   // slow means for the leak
    alignas(16) float r_ey[EAEC_KPAD_MAX], r_yy[EAEC_KPAD_MAX]; // leak regression
    alignas(16) float noise[EAEC_KPAD_MAX];        // noise power estimate
    alignas(16) float leak_bin[EAEC_KPAD_MAX];     // leak per bin (by bands)
    alignas(16) float unc[EAEC_KPAD_MAX];          // power gain of the echo path not learnt since a path change
    alignas(16) float unc_echo[EAEC_KPAD_MAX];     // ... times the far end: residual echo for the suppressor
    alignas(16) float m_x[EAEC_KPAD_MAX];          // slow mean of the far end's power in the filter's window
    float r_ex[EAEC_KPAD_MAX / 16 + 1], r_xx[EAEC_KPAD_MAX / 16 + 1]; // regression of the error on it, per band of 16 bins
    float misadj[EAEC_KPAD_MAX / 16 + 1];          // its slope per band
    alignas(16) float late[EAEC_KPAD_MAX];         // far-end power that has left the filter's window, decayed
    alignas(16) float miss_echo[EAEC_KPAD_MAX];    // echo the window's estimate misses: beyond it, misadjustment
    alignas(16) float sxx[EAEC_LAGS][EAEC_KPAD_MAX];    // far-end power, per lag in frames
    alignas(16) float sxe_re[EAEC_LAGS][EAEC_KPAD_MAX]; // far-end/error cross spectrum
    alignas(16) float sxe_im[EAEC_LAGS][EAEC_KPAD_MAX];
    alignas(16) float coh_echo[EAEC_KPAD_MAX];     // error power coherent with the far end
    alignas(16) float snr_prev[EAEC_KPAD_MAX];     // decision-directed memory
    float leak;                        // residual echo / echo estimate power
    int leak_valid;
    int part_next;                     // next partition to constrain
    int was_locked;                    // the foreground has cancelled well since the last change
    int boost_frames;                  // far-active frames left at the starting step size
    int harm_frames;                   // far-active frames both filters did harm in a row
    int fg_harm_frames;                // ... the foreground did
    int better_frames;                 // echo-dominated frames in a row the background did clearly better
    int far_hold;                      // frames the far end still counts as talking
    uint32_t rng;                      // comfort noise
};

// Bulk-delay estimator: the changes of the band log energies of the far
// end and of the microphone, correlated at every frame lag; the lag with
// the highest smoothed coefficient, held for a while, moves the filter's
// window over the far-end ring.
struct eaec_delay {
    int delay;         // frames the filter's first partition lies behind the newest far end
    int lag;           // the estimate in force, -1 before the first
    int cand, cand_frames; // a lag that has been best for cand_frames frames
    int updates;
    int trial;         // far-active frames since a move the filter has not yet confirmed, -1: none
    int prev_lag;      // the estimate before that move
    float prev_far[EAEC_DELAY_BANDS], prev_mic[EAEC_DELAY_BANDS]; // last frame's band log energies
    float score[EAEC_DELAY_LAGS_MAX];                    // smoothed coefficient per lag
    float far_feat[EAEC_RING_MAX][EAEC_DELAY_BANDS];     // per ring slot: the far end's changes
    float far_norm[EAEC_RING_MAX];                       // ... their sum of squares, 0 when inactive
};

struct eaec_state {
    uint32_t frames;
    int head;                         // ring slot of the newest far-end spectrum
    float *x_re, *x_im;               // nring rows of kpad: far-end spectra
    float *x_aux;                     // nring rows of 4 kpad: per 4 bins, u, v - u, u + v and u^2 + v^2 of x = u + iv
    eaec_delay dl;
    float x_hist[EAEC_FFT_MAX];       // last M far-end samples
    float x_energy[EAEC_RING_MAX];    // far-end energy of each ring slot's frame
    eaec_chan *chan[EAEC_CHAN_MAX];
};

// [sup] Fills the derived part of a cleared parameter object from a
// validated configuration and its frame set-up.
void eaec_derive(eaec_params *p, const EAEC_CONFIG *cfg, int hop, int nfft);
// [sup] Allocates the state's buffers (ring and one channel per
// microphone). Returns -1 when an allocation fails; eaec_free_state then
// frees what was made.
int eaec_alloc_state(const eaec_params *p, eaec_state *s);
void eaec_free_state(const eaec_params *p, eaec_state *s);
// [sup] Sets a freshly allocated state to its starting values.
void eaec_reset_state(const eaec_params *p, eaec_state *s);

// Ring slot of filter partition `part` (0 = the newest the filter uses).
inline int eaec_slot(const eaec_params *p, const eaec_state *s, int part) noexcept
{
    const int i = s->head - s->dl.delay - part;
    return i >= 0 ? i : i + p->nring;
}
// The far-end operands of a ring slot (x_aux): per 4 bins 16 floats, four
// lanes each of u, v - u, u + v and |x|^2; the power at EAEC_AUX_POW.
inline constexpr int EAEC_AUX_POW = 12;
inline float *eaec_aux_row(const eaec_params *p, const eaec_state *s, int slot) noexcept
{
    return s->x_aux + slot * 4 * p->kpad;
}
// The far-end spectrum of a ring slot was made from digital silence: every
// frame its M samples span (the slot's and the ones before) has zero energy.
inline bool eaec_slot_silent(const eaec_params *p, const eaec_state *s, int slot) noexcept
{
    for (int back = 0; back < (p->nfft + p->hop - 1) / p->hop; back++, slot = slot ? slot - 1 : p->nring - 1)
        if (s->x_energy[slot] != 0.0f)
            return false;
    return true;
}

// [sup] Band edges and starting values of the delay estimator.
void delay_derive(eaec_params *p);
void delay_reset(eaec_delay *d);
// [rt] The far end's newest spectrum power (slot head) into its bits.
void delay_far(const eaec_params *p, eaec_state *s, const float *x_pow, int far_active) noexcept;
// [rt] One frame of the microphone's analysis spectrum power (kpad bins);
// returns the filter delay in frames the estimate now asks for. While the
// filter is `locked` (cancelling well) the estimate in force stays. When
// a filter cancels something, `found` is its strongest partition in frames
// behind the newest far end (else -1): no window that would leave it out is
// taken, and a move is undone unless a filter cancels soon after it.
int delay_mic(const eaec_params *p, eaec_state *s, const float *mic_pow, int far_active, int locked,
              int found) noexcept;

// Library platform layer: aligned, zero-filled allocation and its release
// (with the frame processor, so the interface layer above only calls down).
void *eaec_calloc(size_t bytes);
void eaec_free(void *ptr);
