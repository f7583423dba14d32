#include "eaec/eaec_afilt.h"
#include "eaec/eaec_core.h"
#include "eaec/eaec_supp.h"
#include "eaec/eaec_v4.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <type_traits>

static_assert(std::is_trivially_copyable_v<eaec_params> && std::is_trivially_copyable_v<eaec_state>);
static_assert(std::is_trivially_copyable_v<eaec_chan>);

namespace {
constexpr float PCM_IN = 1.0f / 32768.0f;
constexpr float PCM_OUT = 32768.0f;
constexpr float TWO_PATH_RATE = 0.3f;   // error energy smoothing per frame
constexpr float TWO_PATH_BETTER = 0.7f; // background 1.5 dB better: copy it
constexpr float TWO_PATH_WORSE = 8.0f;  // background 9 dB worse: reset it
constexpr float TWO_PATH_HARM = 1.2f;   // both 0.8 dB above the microphone ...
constexpr int TWO_PATH_HARM_FRAMES = 5; // ... for this many far-active frames: restart the background
constexpr int BETTER_FRAMES = 3;       // echo-dominated frames in a row the background is 1.5 dB better: copy it
constexpr int BOOST_FRAMES = 50;        // far-active frames of starting steps (start, path change)
constexpr float LOCKED = 10.0f;         // the foreground takes 10 dB off the microphone
constexpr float CANCELS = 2.0f;         // a filter takes 3 dB off it
constexpr int FAR_HANGOVER = 30;       // frames the far end counts as talking after it stops
constexpr float PROPORTIONATE_SHARE = 0.5f; // of the step, by partition norm
constexpr float UNC_RATE = 0.6f; // the filter's learning against a white far end's (see unc_learn)

// The process-wide scratch area: one frame at a time borrows it (the
// real-time cycle is the only caller), so no frame allocates.
constexpr int SPECTRA = 14; // per-bin rows below
constexpr int SCRATCH_FLOATS = EAEC_FFT_WORK + 4 * EAEC_FFT_MAX + SPECTRA * EAEC_KPAD_MAX;
alignas(64) float scratch[SCRATCH_FLOATS];

struct frame_scratch {
    float *work;     // FFT work area
    float *t0, *t1, *t2, *t3;
    float *y_re, *y_im;   // filter output spectrum
    float *es_re, *es_im; // analysis spectrum of the error
    float *ys_re, *ys_im; // analysis spectrum of the echo estimate
    float *g_re, *g_im;   // step-scaled error spectrum
    float *mu, *pe;
    float *h_re, *h_im;   // this frame's output filter
    float *norm;          // the background step's normaliser
    float *gain;          // the suppressor's gain
};

frame_scratch borrow_scratch()
{
    frame_scratch f{};
    float *q = scratch;
    f.work = q; q += EAEC_FFT_WORK;
    f.t0 = q; q += EAEC_FFT_MAX;
    f.t1 = q; q += EAEC_FFT_MAX;
    f.t2 = q; q += EAEC_FFT_MAX;
    f.t3 = q; q += EAEC_FFT_MAX;
    float **rows[SPECTRA] = {&f.y_re, &f.y_im, &f.es_re, &f.es_im, &f.ys_re,
                             &f.ys_im, &f.g_re, &f.g_im, &f.mu, &f.pe, &f.h_re, &f.h_im, &f.norm, &f.gain};
    for (float **r : rows) {
        *r = q;
        q += EAEC_KPAD_MAX;
    }
    return f;
}

// Sum of squares of x[0..n-1], four at a time.
float sum_sq(const float *x, int n) noexcept
{
    v4 acc = v4_dup(0.0f);
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        const v4 v = v4_loadu(x + i);
        acc = v4_add(acc, v4_mul(v, v));
    }
    float sum = v4_hsum(acc);
    for (; i < n; i++)
        sum += x[i] * x[i];
    return sum;
}

// Windowed analysis of [previous half, current half] of two signals (a
// and b) into their spectra; buf_a, buf_b: M floats each.
void analyse(const eaec_params *p, const float *a_prev, const float *a, const float *b_prev, const float *b,
             float *buf_a, float *buf_b, float *a_re, float *a_im, float *b_re, float *b_im, float *work) noexcept
{
    const int n = p->hop;
    const float *w = p->window;
    for (int i = 0; i < n; i++)
        buf_a[i] = a_prev[i] * w[i];
    for (int i = 0; i < n; i++)
        buf_a[n + i] = a[i] * w[n + i];
    for (int i = 0; i < n; i++)
        buf_b[i] = b_prev[i] * w[i];
    for (int i = 0; i < n; i++)
        buf_b[n + i] = b[i] * w[n + i];
    for (int i = p->win; i < p->nfft; i++)
        buf_a[i] = buf_b[i] = 0.0f;
    eaec_rfft_pair(&p->fft, buf_a, buf_b, a_re, a_im, b_re, b_im, work);
    for (int k = p->nbin; k < p->kpad; k++)
        a_re[k] = a_im[k] = b_re[k] = b_im[k] = 0.0f; // the per-bin loops run over the padding too
}

// Fast approximations for the output filter, relative error about 1e-6
// over the ranges used there. Branch-free, so the per-bin loops that call
// them run four bins at a time.
inline float fast_ln(float x) noexcept // x normal and > 0
{
    const uint32_t i = std::bit_cast<uint32_t>(x);
    const float m0 = std::bit_cast<float>((i & 0x7FFFFFu) | 0x3F800000u); // mantissa in [1, 2)
    // Into [0.707, 1.414), where the series converges faster.
    const bool big = m0 > 1.41421356f;
    const float m = big ? 0.5f * m0 : m0;
    const float ex = float(int((i >> 23) & 255u) - (big ? 126 : 127));
    const float t = (m - 1.0f) / (m + 1.0f), t2 = t * t;
    return ex * 0.69314718f + 2.0f * t * (1.0f + t2 * (1.0f / 3.0f + t2 * (0.2f + t2 * (1.0f / 7.0f + t2 * (1.0f / 9.0f)))));
}

inline float fast_exp(float y) noexcept // y in [-80, 0]
{
    const float z = y * 1.44269504f;
    const int zi = int(z);                  // towards zero
    const int fi = zi - int(float(zi) > z); // floor
    const float fr = (z - float(fi)) * 0.69314718f;
    const float poly = 1.0f + fr * (1.0f + fr * (0.5f + fr * (1.0f / 6.0f + fr * (1.0f / 24.0f + fr * (1.0f / 120.0f + fr * (1.0f / 720.0f))))));
    return poly * std::bit_cast<float>(uint32_t(fi + 127) << 23);
}

// sin and cos of r in [-1e6, 1e6]: reduced to [-pi, pi], then from the half angle.
inline void fast_sincos(float r, float *sn, float *cs) noexcept
{
    constexpr float TWO_PI = 6.28318531f;
    const float q = r * (1.0f / TWO_PI) + 0.5f;
    const int qi = int(q);
    const float h = 0.5f * (r - TWO_PI * float(qi - int(float(qi) > q))), h2 = h * h; // r - the nearest turn
    const float s = h * (1.0f - h2 * (1.0f / 6.0f - h2 * (1.0f / 120.0f - h2 * (1.0f / 5040.0f - h2 * (1.0f / 362880.0f)))));
    const float c = 1.0f - h2 * (0.5f - h2 * (1.0f / 24.0f - h2 * (1.0f / 720.0f - h2 * (1.0f / 40320.0f))));
    *sn = 2.0f * s * c;
    *cs = 1.0f - 2.0f * s * s;
}

constexpr float GAIN_MIN = 1e-5f; // -100 dB: below every configured floor

// The minimum-phase filter whose magnitude is gain: the log magnitude's
// real cepstrum folded onto positive quefrencies, transformed back and
// exponentiated. A short causal filter, so applying it adds no delay.
// Three steps around the caller's transforms: the log gain into h (then
// an inverse transform to the cepstrum t), the fold of t (then a forward
// transform back into h), and the exponential of h. The log gain is real:
// its imaginary part is no_phase.
alignas(16) constexpr float no_phase[EAEC_KPAD_MAX] = {};
void min_phase_log(const eaec_params *p, const float *gain, float *h_re) noexcept
{
    for (int k = 0; k < p->kpad; k++) {
        const float g = gain[k];
        h_re[k] = fast_ln(g > GAIN_MIN ? (g < 1.0f ? g : 1.0f) : GAIN_MIN);
    }
}

void min_phase_fold(const eaec_params *p, float *t) noexcept
{
    const int m = p->nfft;
    for (int i = 1; i < m / 2; i++)
        t[i] *= 2.0f;
    for (int i = m / 2 + 1; i < m; i++)
        t[i] = 0.0f;
}

void min_phase_exp(const eaec_params *p, float *h_re, float *h_im) noexcept
{
    for (int k = 0; k < p->kpad; k++) {
        float sn, cs;
        const float a = fast_exp(std::min(h_re[k], 0.0f));
        fast_sincos(h_im[k], &sn, &cs);
        h_re[k] = a * cs;
        h_im[k] = a * sn;
    }
    for (int k = p->nbin; k < p->kpad; k++)
        h_re[k] = h_im[k] = 0.0f;
}

constexpr uint32_t lcg(uint32_t &r)
{
    r = r * 1664525u + 1013904223u;
    return r;
}

// Comfort noise: two tables of uniform values in [-1, 1), made by the
// compiler; every frame reads them from a random offset, four bins at a
// time.
constexpr int NOISE_TABLE = 4096;
using noise_table = std::array<float, NOISE_TABLE + EAEC_KPAD_MAX>;
constexpr noise_table make_noise(uint32_t r)
{
    noise_table t{};
    for (float &v : t)
        v = float(int32_t(lcg(r))) * (1.0f / 2147483648.0f);
    return t;
}
alignas(16) constexpr noise_table noise_re = make_noise(0x6D2B79F5u), noise_im = make_noise(0x2545F491u);

// Rounded to the nearest 16-bit value (halves away from zero), clipped;
// NaN gives 0. Branch-free, four samples at a time.
inline int16_t to_pcm(float s) noexcept
{
    const float c = s == s ? std::min(std::max(s, -32768.0f), 32767.0f) : 0.0f;
    return int16_t(int(c + (c < 0.0f ? -0.5f : 0.5f)));
}

void chan_reset(const eaec_params *p, eaec_chan *c, int index)
{
    float *bufs[4] = {c->w_re, c->w_im, c->f_re, c->f_im};
    std::memset(c, 0, sizeof *c);
    c->w_re = bufs[0];
    c->w_im = bufs[1];
    c->f_re = bufs[2];
    c->f_im = bufs[3];
    for (float *b : bufs)
        std::memset(b, 0, sizeof(float) * size_t(p->npart * p->kpad));
    for (int k = 0; k < EAEC_KPAD_MAX; k++)
        c->h_re[k] = 1.0f; // the output filter starts as identity
    c->leak = 1.0f;
    c->boost_frames = BOOST_FRAMES;
    for (int k = 0; k < EAEC_KPAD_MAX; k++)
        c->leak_bin[k] = 1.0f;
    c->rng = 0x2545F491u + uint32_t(index) * 0x9E3779B9u;
    for (int k = 0; k < EAEC_KPAD_MAX; k++)
        c->noise[k] = 1.0f; // falls to the first frames' level at once
}

// Applies this frame's output filter (f.h_re, f.h_im) to the error
// without delay: it and the previous frame's filter run over the last M
// error samples (overlap-save; their spectrum in f.es_re, f.es_im, used
// up), with the same comfort noise added, and their outputs are
// cross-faded over the frame.
void output_stage(const eaec_params *p, eaec_chan *c, const float *comfort, INT_PCM *out,
                  const frame_scratch &f) noexcept
{
    const int n = p->hop, m = p->nfft;
    float *xr = f.es_re, *xi = f.es_im, *yr = f.ys_re, *yi = f.ys_im;
    // Uniform components have power 1/3 each; the analysis window's power
    // is N, this block's M.
    const float cscale = 1.5f * float(m) / float(n);
    const int off = int(lcg(c->rng) >> 20); // below NOISE_TABLE
    const float *nr = noise_re.data() + off, *ni = noise_im.data() + off;
    const v4 cs = v4_dup(cscale);
    for (int k = 0; k < p->kpad; k += 4) {
        const v4 a = v4_sqrt(v4_mul(cs, v4_load(comfort + k))); // comfort >= 0
        const v4 cr = v4_mul(a, v4_loadu(nr + k)), ci = v4_mul(a, v4_loadu(ni + k));
        const v4 ur = v4_load(xr + k), ui = v4_load(xi + k);
        const v4 hr = v4_load(f.h_re + k), hi = v4_load(f.h_im + k), gr = v4_load(c->h_re + k), gi = v4_load(c->h_im + k);
        v4_store(yr + k, v4_add(v4_mms(hr, ur, hi, ui), cr));
        v4_store(yi + k, v4_add(v4_mma(hr, ui, hi, ur), ci));
        v4_store(xr + k, v4_add(v4_mms(gr, ur, gi, ui), cr));
        v4_store(xi + k, v4_add(v4_mma(gr, ui, gi, ur), ci));
    }
    eaec_irfft_pair(&p->fft, yr, yi, xr, xi, f.t2, f.t1, f.work, EAEC_KEEP_TAIL);
    const float *now = f.t2 + (m - n), *before = f.t1 + (m - n);
    // The cross-fade (r rises from 0 to 1 over the frame) and to_pcm, four
    // samples at a time.
    const v4 lo = v4_dup(-32768.0f), hi = v4_dup(32767.0f), below = v4_dup(-32769.0f), zero = v4_dup(0.0f);
    const v4 half = v4_dup(0.5f), mhalf = v4_dup(-0.5f), scale = v4_dup(PCM_OUT);
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        const v4 w = v4_loadu(p->window + i), b = v4_loadu(before + i);
        const v4 s = v4_mul(v4_add(b, v4_mul(v4_mul(w, w), v4_sub(v4_loadu(now + i), b))), scale);
        const v4 x = v4_select_lt(s, lo, lo, s), y = v4_select_lt(hi, x, hi, x); // NaN stays NaN
        const v4 c = v4_select_lt(below, y, y, zero);                            // and becomes 0
        v4_store_i16(out + i, v4_add(c, v4_select_lt(c, zero, mhalf, half)));
    }
    for (; i < n; i++) {
        const float r = p->window[i] * p->window[i];
        out[i] = to_pcm((before[i] + r * (now[i] - before[i])) * PCM_OUT);
    }
    std::memcpy(c->h_re, f.h_re, sizeof(float) * size_t(p->kpad));
    std::memcpy(c->h_im, f.h_im, sizeof(float) * size_t(p->kpad));
}

// After an echo-path change the new path is taken to be as strong as the
// old one, and none of it known: the old foreground's power gain per bin.
void unc_restart(const eaec_params *p, eaec_chan *c) noexcept
{
    const int kp = p->kpad;
    std::memset(c->unc, 0, sizeof c->unc);
    for (int part = 0; part < p->npart; part++) {
        const float *re = c->f_re + part * kp, *im = c->f_im + part * kp;
        for (int k = 0; k < kp; k++)
            c->unc[k] += re[k] * re[k] + im[k] * im[k];
    }
}

// Each adapting frame learns a share of what is unknown: for a white far
// end standing well above the step's regularisation (the bin's noise),
// mu (2 - mu) / P of it; speech's colour and the proportionate step make
// the filter slower, UNC_RATE of that. The echo left unknown is what the
// filter has not learnt times the far end in its window (mu: null while
// the far end is silent, when nothing is learnt).
void unc_learn(const eaec_params *p, eaec_chan *c, const float *mu, const float *norm) noexcept
{
    const float np = float(p->npart), inv_p = 1.0f / np;
    for (int k = 0; k < p->kpad; k++) {
        if (mu) {
            const float excite = norm[k] / (norm[k] + inv_p * (p->reg + p->reg_noise * c->noise[k]));
            c->unc[k] *= 1.0f - UNC_RATE * mu[k] * (2.0f - mu[k]) * inv_p * excite;
        }
        c->unc_echo[k] = c->unc[k] * np * norm[k];
    }
}

// Returns the filter delay the delay estimator asks for (channel 0 only,
// else the one in force).
int process_channel(const eaec_params *p, eaec_state *s, eaec_chan *c, const short *mic, INT_PCM *out,
                    int far_active, int ch, const frame_scratch &f) noexcept
{
    const int n = p->hop, m = p->nfft, nb = p->nbin;
    // Two echo estimates (overlap-save: the last N samples): the background
    // filter adapts at full speed and may be thrown off by double talk; the
    // foreground filter makes the output and takes the background's
    // weights only while they do clearly better.
    afilt_part_gains(p, c, PROPORTIONATE_SHARE);
    afilt_echo_spectra(p, s, c, f.y_re, f.y_im, f.g_re, f.g_im, f.norm);
    eaec_irfft_pair(&p->fft, f.y_re, f.y_im, f.g_re, f.g_im, f.t2, f.t0, f.work, EAEC_KEEP_TAIL); // the background's, the foreground's
    float *eb = f.t3, *e = f.t1;
    const float *yb = f.t2 + (m - n);
    float *yhat = f.t0 + (m - n);
    for (int i = 0; i < n; i++)
        e[i] = float(mic[i]) * PCM_IN;
    const float en_d = sum_sq(e, n);
    for (int i = 0; i < n; i++)
        eb[i] = e[i] - yb[i];
    for (int i = 0; i < n; i++)
        e[i] -= yhat[i];
    const float en_b = sum_sq(eb, n), en_f = sum_sq(e, n);
    if (far_active) {
        if (!(c->err_fg > TWO_PATH_HARM * c->err_mic))
            c->harm_frames = 0;
        // The foreground, having cancelled, adds echo: the path has changed,
        // whether or not the background is restarted below (it may already
        // be finding its way from the old path).
        if (c->was_locked && c->err_fg > TWO_PATH_HARM * c->err_mic) {
            if (++c->fg_harm_frames == TWO_PATH_HARM_FRAMES)
                unc_restart(p, c);
        } else {
            c->fg_harm_frames = 0;
        }
        if (c->err_fg * LOCKED < c->err_mic)
            c->was_locked = 1;
        c->err_bg += TWO_PATH_RATE * (en_b - c->err_bg);
        c->err_fg += TWO_PATH_RATE * (en_f - c->err_fg);
        c->err_mic += TWO_PATH_RATE * (en_d - c->err_mic);
        // In double talk both smoothed errors carry the near end, and a
        // background that has learnt more in the near end's pauses never
        // shows it there: its gain counts on the frames the echo dominates
        // (the foreground takes 10 dB off the microphone), where it must
        // hold for a few in a row.
        if (en_f * LOCKED < en_d)
            c->better_frames = en_b < TWO_PATH_BETTER * en_f ? c->better_frames + 1 : 0;
        if ((c->err_bg < TWO_PATH_BETTER * c->err_fg && en_b < en_f) || c->better_frames >= BETTER_FRAMES) {
            afilt_copy(p, c->w_re, c->w_im, c->f_re, c->f_im);
            c->better_frames = 0;
            c->err_fg = c->err_bg;
            for (int i = 0; i < n; i++) {
                yhat[i] += e[i] - eb[i];
                e[i] = eb[i];
            }
        } else if (c->was_locked && c->err_fg > TWO_PATH_HARM * c->err_mic &&
                   c->err_bg > TWO_PATH_HARM * c->err_mic && ++c->harm_frames >= TWO_PATH_HARM_FRAMES) {
            // Both add echo rather than take it away: the echo path has
            // changed beyond what they know. The background starts again
            // from nothing, which is nearer than a filter for the old path;
            // the foreground keeps going until the background beats it
            // (so a burst of garbage does not cost the foreground).
            afilt_scale(p, c->w_re, c->w_im, 0.0f);
            c->err_bg = c->err_fg; // copied once its own error is clearly lower
            c->harm_frames = 0;
            c->was_locked = 0;
            c->boost_frames = BOOST_FRAMES;
            unc_restart(p, c);
        } else if (c->err_bg > TWO_PATH_WORSE * c->err_fg) {
            // Double talk pulled the background away: restart it from the
            // foreground.
            afilt_copy(p, c->f_re, c->f_im, c->w_re, c->w_im);
            c->err_bg = c->err_fg;
        }
    }

    analyse(p, c->e_hist + (m - 2 * n), e, c->y_hist, yhat, f.t2, f.y_re, f.es_re, f.es_im, f.ys_re, f.ys_im,
            f.work);
    std::memcpy(c->y_hist, yhat, sizeof(float) * size_t(n));
    int delay = s->dl.delay;
    if (ch == 0) {
        // The microphone's spectrum is the sum of the two analysed ones.
        for (int k = 0; k < p->kpad; k++) {
            const float re = f.es_re[k] + f.ys_re[k], im = f.es_im[k] + f.ys_im[k];
            f.pe[k] = re * re + im * im;
        }
        int found = -1; // where the echo's direct path lies, once a filter cancels
        if (std::min(c->err_fg, c->err_bg) * CANCELS < c->err_mic) {
            found = 0;
            for (int part = 1; part < p->npart; part++)
                if (c->part_norm[part] > c->part_norm[found])
                    found = part;
            found += s->dl.delay;
        }
        delay = delay_mic(p, s, f.pe, far_active, c->err_fg * LOCKED < c->err_mic, found);
    }

    // Digital silence (below one 16-bit step) leaves the noise estimate alone.
    const int mic_silent = en_d < float(n) * 1e-10f;
    const supp_frame sf = supp_analyse(p, s, c, f.es_re, f.es_im, f.ys_re, f.ys_im, f.norm, far_active, mic_silent, f.pe);
    if (!std::isfinite(sf.sum_e + sf.sum_y + c->leak + c->err_fg + c->err_bg)) {
        // Nothing should get here; if it does, start the channel afresh
        // rather than stay silent.
        const uint32_t rng = c->rng;
        chan_reset(p, c, 0);
        c->rng = rng;
        for (int k = 0; k < p->kpad; k++)
            f.es_re[k] = f.es_im[k] = f.pe[k] = 0.0f;
    }

    // The last M error samples, for the output filter; with the gradient
    // (the background's error) their transforms go together.
    float *block = f.t0; // the echo estimates are used
    std::memcpy(block, c->e_hist, sizeof(float) * size_t(m - n));
    std::memcpy(block + (m - n), e, sizeof(float) * size_t(n));
    std::memmove(c->e_hist, block + n, sizeof(float) * size_t(m - n));
    if (far_active) {
        for (int i = 0; i < m - n; i++)
            f.t2[i] = 0.0f;
        std::memcpy(f.t2 + (m - n), eb, sizeof(float) * size_t(n));
        eaec_rfft_pair(&p->fft, f.t2, block, f.g_re, f.g_im, f.es_re, f.es_im, f.work); // the analysis spectra are used
        supp_step(p, c, f.mu);
        c->boost_frames = std::max(0, c->boost_frames - 1);
        unc_learn(p, c, f.mu, f.norm);
        // Bins whose far end lies below the microphone noise carry mostly
        // noise into the gradient: their steps shrink.
        const float *norm = f.norm;
        // The regularisation was set for the plain sum over P partitions;
        // the weighted norm is a mean (the gains sum to 1).
        const float inv_p = 1.0f / float(p->npart);
        for (int k = 0; k < nb; k++) {
            const float g = f.mu[k] / (norm[k] + inv_p * (p->reg + p->reg_noise * c->noise[k]));
            f.g_re[k] *= g;
            f.g_im[k] *= g;
        }
        for (int k = nb; k < p->kpad; k++)
            f.g_re[k] = f.g_im[k] = 0.0f;
        if (afilt_update(p, s, c, f.g_re, f.g_im) != 0)
            afilt_scale(p, c->w_re, c->w_im, 0.0f);
    } else {
        eaec_rfft(&p->fft, block, f.es_re, f.es_im, f.work);
        unc_learn(p, c, nullptr, f.norm);
    }

    c->far_hold = far_active ? FAR_HANGOVER : std::max(0, c->far_hold - 1);
    supp_gain(p, c, f.gain, f.pe, c->far_hold > 0);
    // The output filter's design; while the filter adapts, its constraint
    // shares the transforms.
    min_phase_log(p, f.gain, f.h_re);
    if (far_active) {
        float *wr, *wi;
        afilt_constrain_rows(p, c, &wr, &wi);
        eaec_irfft_pair(&p->fft, f.h_re, no_phase, wr, wi, f.t1, f.t2, f.work, EAEC_KEEP_HEAD);
        min_phase_fold(p, f.t1);
        afilt_constrain_cut(p, f.t2);
        eaec_rfft_pair(&p->fft, f.t1, f.t2, f.h_re, f.h_im, wr, wi, f.work, EAEC_KEEP_HEAD); // both zero past m/2
        afilt_constrain_done(p, c);
    } else {
        eaec_irfft(&p->fft, f.h_re, no_phase, f.t1, f.work);
        min_phase_fold(p, f.t1);
        eaec_rfft(&p->fft, f.t1, f.h_re, f.h_im, f.work);
    }
    min_phase_exp(p, f.h_re, f.h_im);
    output_stage(p, c, f.pe, out, f);
    return delay;
}
} // namespace

void *eaec_calloc(size_t bytes)
{
    const size_t rounded = (bytes + 63) & ~size_t{63};
    void *p = aligned_alloc(64, rounded ? rounded : 64);
    if (p)
        memset(p, 0, rounded ? rounded : 64);
    return p;
}

void eaec_free(void *ptr) { free(ptr); }

void eaec_lib_startup(void)
{
    std::memset(scratch, 0, sizeof scratch); // touched once, before the cycle runs
}

void eaec_derive(eaec_params *p, const EAEC_CONFIG *cfg, int hop, int nfft)
{
    p->sfreq = cfg->sfreq;
    p->nspk = cfg->nspk;
    p->nmic = cfg->nmic;
    p->hop = hop;
    p->win = 2 * hop;
    p->nfft = nfft;
    p->nbin = nfft / 2 + 1;
    p->kpad = (p->nbin + 3) & ~3;
    // The linear filter covers the speech band; echo above it is left to
    // the suppressor (at most aec dB), which saves a third of the filter's
    // work at 48 kHz.
    p->kadapt = std::min(p->kpad, (int(int64_t(EAEC_ADAPT_HZ) * nfft / std::max(cfg->sfreq, 1)) + 1 + 3) & ~3);
    // The echo-path delay in whole frames, in the order of the interface;
    // a negative delay counts as none.
    p->delay_frames = std::max(0, (cfg->sfreq * cfg->sigdelay / hop) / 1000);
    const int tail = (cfg->sfreq / 1000 * EAEC_TAIL_MS + hop - 1) / hop;
    p->npart = std::min(EAEC_PART_MAX, p->delay_frames + tail);
    delay_derive(p);
    p->floor_echo = float(std::pow(10.0, cfg->aec / 10.0));
    p->floor_noise = float(std::pow(10.0, cfg->nc / 10.0));
    // White far-end at -90 dBFS in every partition: below it the
    // filter's normalisation stops shrinking.
    p->reg = float(p->npart) * float(nfft) * 1e-9f;
    p->reg_noise = 10.0f;
    p->far_active = float(hop) * 1e-8f; // -80 dBFS mean power
    p->mu_max = 0.65f;
    p->mu_init = 0.8f;
    const double pi = 3.14159265358979323846;
    for (int i = 0; i < p->win; i++)
        p->window[i] = float(std::sin(pi * (i + 0.5) / p->win));
    eaec_fft_plan_init(&p->fft, nfft);
}

int eaec_alloc_state(const eaec_params *p, eaec_state *s)
{
    const size_t ring = sizeof(float) * size_t(p->nring * p->kpad), row = sizeof(float) * size_t(p->npart * p->kpad);
    s->x_re = static_cast<float *>(eaec_calloc(ring));
    s->x_im = static_cast<float *>(eaec_calloc(ring));
    s->x_aux = static_cast<float *>(eaec_calloc(4 * ring));
    if (!s->x_re || !s->x_im || !s->x_aux)
        return -1;
    for (int i = 0; i < p->nmic; i++) {
        auto *c = static_cast<eaec_chan *>(eaec_calloc(sizeof(eaec_chan)));
        s->chan[i] = c;
        if (!c)
            return -1;
        c->w_re = static_cast<float *>(eaec_calloc(row));
        c->w_im = static_cast<float *>(eaec_calloc(row));
        c->f_re = static_cast<float *>(eaec_calloc(row));
        c->f_im = static_cast<float *>(eaec_calloc(row));
        if (!c->w_re || !c->w_im || !c->f_re || !c->f_im)
            return -1;
    }
    return 0;
}

void eaec_free_state(const eaec_params *p, eaec_state *s)
{
    for (int i = 0; i < p->nmic && i < EAEC_CHAN_MAX; i++) {
        if (eaec_chan *c = s->chan[i]) {
            eaec_free(c->w_re);
            eaec_free(c->w_im);
            eaec_free(c->f_re);
            eaec_free(c->f_im);
            eaec_free(c);
        }
        s->chan[i] = nullptr;
    }
    eaec_free(s->x_re);
    eaec_free(s->x_im);
    eaec_free(s->x_aux);
    s->x_re = s->x_im = s->x_aux = nullptr;
}

void eaec_reset_state(const eaec_params *p, eaec_state *s)
{
    s->frames = 0;
    s->head = 0;
    std::memset(s->x_hist, 0, sizeof s->x_hist);
    const size_t ring = sizeof(float) * size_t(p->nring * p->kpad);
    std::memset(s->x_re, 0, ring);
    std::memset(s->x_im, 0, ring);
    std::memset(s->x_aux, 0, 4 * ring);
    std::memset(s->x_energy, 0, sizeof s->x_energy);
    delay_reset(&s->dl);
    for (int i = 0; i < p->nmic; i++)
        chan_reset(p, s->chan[i], i);
}

void eaec_processframe(const HANDLE_EAEC_PARAMS params, HANDLE_EAEC_STATE state, const short *spk,
                       const short *mic, INT_PCM *out)
{
    if (!params || !state)
        return;
    const eaec_params *p = params;
    eaec_state *s = state;
    const frame_scratch f = borrow_scratch();
    const int n = p->hop, m = p->nfft, kp = p->kpad;

    // Far end: the speaker channels mixed to one reference.
    std::memmove(s->x_hist, s->x_hist + n, sizeof(float) * size_t(m - n));
    float *xn = s->x_hist + (m - n);
    if (p->nspk == 2) {
        for (int i = 0; i < n; i++)
            xn[i] = 0.5f * (float(spk[i]) + float(spk[n + i])) * PCM_IN;
    } else {
        for (int i = 0; i < n; i++)
            xn[i] = float(spk[i]) * PCM_IN;
    }
    const float energy = sum_sq(xn, n);
    s->head = s->head + 1 < p->nring ? s->head + 1 : 0;
    s->x_energy[s->head] = energy;
    // The far end counts as active when it was in the newest frame the
    // filter sees, not when it is now: with a long bulk delay its echo
    // arrives much later. Once the delay estimate has moved the window,
    // the echo's direct path lies a few partitions in: the frames up to
    // there count.
    int far_active = 0;
    for (int part = 0; part <= (s->dl.delay > 0 ? EAEC_DELAY_MARGIN : 0); part++)
        far_active |= s->x_energy[eaec_slot(p, s, part)] > p->far_active;
    float *xr = s->x_re + s->head * kp, *xi = s->x_im + s->head * kp, *xp = f.mu; // mu is not yet in use
    // The last M samples all zero (digital silence, as far as frame energies
    // tell): the spectrum is zero without a transform.
    if (eaec_slot_silent(p, s, s->head)) {
        for (int k = 0; k < kp; k += 4) {
            v4_store(xr + k, v4_dup(0.0f));
            v4_store(xi + k, v4_dup(0.0f));
        }
    } else {
        eaec_rfft(&p->fft, s->x_hist, xr, xi, f.work);
    }
    float *xa = eaec_aux_row(p, s, s->head);
    for (int k = 0; k < kp; k += 4, xa += 16) {
        const v4 u = v4_load(xr + k), v = v4_load(xi + k), pw = v4_mma(u, u, v, v);
        v4_store(xa, u);
        v4_store(xa + 4, v4_sub(v, u));
        v4_store(xa + 8, v4_add(u, v));
        v4_store(xa + EAEC_AUX_POW, pw);
        v4_store(xp + k, pw);
    }
    delay_far(p, s, xp, energy > p->far_active);

    int delay = s->dl.delay;
    for (int ch = 0; ch < p->nmic; ch++) {
        const int d = process_channel(p, s, s->chan[ch], mic + ch * n, out + ch * n, far_active, ch, f);
        if (ch == 0)
            delay = d;
    }
    if (delay != s->dl.delay) {
        // The filters keep what they learnt where the old and the new
        // window over the far end overlap.
        for (int ch = 0; ch < p->nmic; ch++) {
            eaec_chan *c = s->chan[ch];
            afilt_shift(p, c->w_re, c->w_im, delay - s->dl.delay);
            afilt_shift(p, c->f_re, c->f_im, delay - s->dl.delay);
            c->was_locked = 0;
        }
        s->dl.delay = delay;
    }
    s->frames++;
}
