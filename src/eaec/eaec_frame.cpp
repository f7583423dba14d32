#include "eaec/eaec_afilt.h"
#include "eaec/eaec_core.h"
#include "eaec/eaec_supp.h"

#include <algorithm>
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
constexpr int BOOST_FRAMES = 50;        // far-active frames of starting steps (start, path change)
constexpr float LOCKED = 10.0f;         // the foreground takes 10 dB off the microphone
constexpr int CONSTRAIN_PER_FRAME = 1;  // partitions cut back to N taps per frame
constexpr int FAR_HANGOVER = 30;       // frames the far end counts as talking after it stops
constexpr float PROPORTIONATE_SHARE = 0.5f; // of the step, by partition norm

// The process-wide scratch area: one frame at a time borrows it (the
// real-time cycle is the only caller), so no frame allocates.
constexpr int SPECTRA = 13; // per-bin rows below
constexpr int SCRATCH_FLOATS = EAEC_FFT_WORK + 5 * EAEC_FFT_MAX + SPECTRA * EAEC_KPAD_MAX;
alignas(64) float scratch[SCRATCH_FLOATS];

struct frame_scratch {
    float *work;     // FFT work area
    float *t0, *t1, *t2, *t3, *t4;
    float *y_re, *y_im;   // filter output spectrum
    float *es_re, *es_im; // analysis spectrum of the error
    float *ys_re, *ys_im; // analysis spectrum of the echo estimate
    float *g_re, *g_im;   // step-scaled error spectrum
    float *mu, *pe;
    float *h_re, *h_im;   // this frame's output filter
    float *norm;          // the background step's normaliser
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
    f.t4 = q; q += EAEC_FFT_MAX;
    float **rows[SPECTRA] = {&f.y_re, &f.y_im, &f.es_re, &f.es_im, &f.ys_re,
                             &f.ys_im, &f.g_re, &f.g_im, &f.mu, &f.pe, &f.h_re, &f.h_im, &f.norm};
    for (float **r : rows) {
        *r = q;
        q += EAEC_KPAD_MAX;
    }
    return f;
}

// Windowed [previous half, current half], zero padded, for an analysis.
void windowed(const eaec_params *p, const float *prev, const float *cur, float *buf) noexcept
{
    const int n = p->hop;
    for (int i = 0; i < n; i++) {
        buf[i] = prev[i] * p->window[i];
        buf[n + i] = cur[i] * p->window[n + i];
    }
    for (int i = p->win; i < p->nfft; i++)
        buf[i] = 0.0f;
}

// Fast approximations for the output filter, relative error about 1e-6
// over the ranges used there.
float fast_ln(float x) noexcept // x normal and > 0
{
    uint32_t i;
    std::memcpy(&i, &x, sizeof i);
    const float e = float(int((i >> 23) & 255u) - 127);
    i = (i & 0x7FFFFFu) | 0x3F800000u; // mantissa in [1, 2)
    float m;
    std::memcpy(&m, &i, sizeof m);
    float ex = e;
    if (m > 1.41421356f) { // into [0.707, 1.414), where the series converges faster
        m *= 0.5f;
        ex += 1.0f;
    }
    const float t = (m - 1.0f) / (m + 1.0f), t2 = t * t;
    return ex * 0.69314718f + 2.0f * t * (1.0f + t2 * (1.0f / 3.0f + t2 * (0.2f + t2 * (1.0f / 7.0f + t2 * (1.0f / 9.0f)))));
}

float fast_exp(float y) noexcept // y in [-80, 80]
{
    const float z = y * 1.44269504f, fl = std::floor(z), fr = (z - fl) * 0.69314718f;
    const float poly = 1.0f + fr * (1.0f + fr * (0.5f + fr * (1.0f / 6.0f + fr * (1.0f / 24.0f + fr * (1.0f / 120.0f + fr * (1.0f / 720.0f))))));
    const uint32_t bits = uint32_t(int(fl) + 127) << 23;
    float scale;
    std::memcpy(&scale, &bits, sizeof scale);
    return poly * scale;
}

// sin and cos of any finite r: reduced to [-pi, pi], then from the half angle.
void fast_sincos(float r, float *sn, float *cs) noexcept
{
    constexpr float TWO_PI = 6.28318531f;
    const float h = 0.5f * (r - TWO_PI * std::nearbyint(r * (1.0f / TWO_PI))), h2 = h * h;
    const float s = h * (1.0f - h2 * (1.0f / 6.0f - h2 * (1.0f / 120.0f - h2 * (1.0f / 5040.0f - h2 * (1.0f / 362880.0f)))));
    const float c = 1.0f - h2 * (0.5f - h2 * (1.0f / 24.0f - h2 * (1.0f / 720.0f - h2 * (1.0f / 40320.0f))));
    *sn = 2.0f * s * c;
    *cs = 1.0f - 2.0f * s * s;
}

constexpr float GAIN_MIN = 1e-5f; // -100 dB: below every configured floor

// The minimum-phase filter whose magnitude is gain: the log magnitude's
// real cepstrum folded onto positive quefrencies, transformed back and
// exponentiated. A short causal filter, so applying it adds no delay.
void min_phase(const eaec_params *p, const float *gain, float *h_re, float *h_im, float *t, float *work) noexcept
{
    const int m = p->nfft, nb = p->nbin;
    for (int k = 0; k < nb; k++) {
        const float g = gain[k];
        h_re[k] = fast_ln(g > GAIN_MIN ? (g < 1.0f ? g : 1.0f) : GAIN_MIN);
        h_im[k] = 0.0f;
    }
    eaec_irfft(&p->fft, h_re, h_im, t, work);
    for (int i = 1; i < m / 2; i++)
        t[i] *= 2.0f;
    for (int i = m / 2 + 1; i < m; i++)
        t[i] = 0.0f;
    eaec_rfft(&p->fft, t, h_re, h_im, work);
    for (int k = 0; k < nb; k++) {
        float sn, cs;
        const float a = fast_exp(h_re[k] < 0.0f ? h_re[k] : 0.0f);
        fast_sincos(h_im[k], &sn, &cs);
        h_re[k] = a * cs;
        h_im[k] = a * sn;
    }
    for (int k = nb; k < p->kpad; k++)
        h_re[k] = h_im[k] = 0.0f;
}

uint32_t lcg(uint32_t &r)
{
    r = r * 1664525u + 1013904223u;
    return r;
}
// Uniform in [-1, 1).
float uniform(uint32_t &r) { return float(int32_t(lcg(r))) * (1.0f / 2147483648.0f); }

int16_t to_pcm(float v) noexcept
{
    const float s = v * PCM_OUT;
    if (!(s > -32768.0f))
        return s != s ? 0 : -32768;
    if (s >= 32767.0f)
        return 32767;
    return int16_t(std::lrint(s));
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

// Applies this frame's gain to the error e[0..n-1] without delay: the
// minimum-phase filters of this frame and of the previous one run over the
// last M error samples (overlap-save), with the same comfort noise added,
// and their outputs are cross-faded over the frame.
void output_stage(const eaec_params *p, eaec_chan *c, const float *e, const float *gain, const float *comfort,
                  INT_PCM *out, const frame_scratch &f) noexcept
{
    const int n = p->hop, m = p->nfft, nb = p->nbin;
    min_phase(p, gain, f.h_re, f.h_im, f.t2, f.work);
    std::memcpy(f.t2, c->e_hist, sizeof(float) * size_t(m - n));
    std::memcpy(f.t2 + (m - n), e, sizeof(float) * size_t(n));
    std::memmove(c->e_hist, f.t2 + n, sizeof(float) * size_t(m - n));
    float *xr = f.es_re, *xi = f.es_im, *yr = f.ys_re, *yi = f.ys_im; // the analysis spectra are used
    eaec_rfft(&p->fft, f.t2, xr, xi, f.work);
    // Uniform components have power 1/3 each; the analysis window's power
    // is N, this block's M.
    const float cscale = 1.5f * float(m) / float(n);
    for (int k = 0; k < nb; k++) {
        float cr = 0.0f, ci = 0.0f;
        if (comfort[k] > 0.0f) {
            const float a = std::sqrt(cscale * comfort[k]);
            cr = a * uniform(c->rng);
            ci = a * uniform(c->rng);
        }
        const float ur = xr[k], ui = xi[k];
        yr[k] = f.h_re[k] * ur - f.h_im[k] * ui + cr;
        yi[k] = f.h_re[k] * ui + f.h_im[k] * ur + ci;
        xr[k] = c->h_re[k] * ur - c->h_im[k] * ui + cr;
        xi[k] = c->h_re[k] * ui + c->h_im[k] * ur + ci;
    }
    eaec_irfft_pair(&p->fft, yr, yi, xr, xi, f.t2, f.t1, f.work);
    const float *now = f.t2 + (m - n), *before = f.t1 + (m - n);
    for (int i = 0; i < n; i++) {
        const float r = p->window[i] * p->window[i]; // rises from 0 to 1 over the frame
        out[i] = to_pcm(before[i] + r * (now[i] - before[i]));
    }
    std::memcpy(c->h_re, f.h_re, sizeof(float) * size_t(p->kpad));
    std::memcpy(c->h_im, f.h_im, sizeof(float) * size_t(p->kpad));
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
    eaec_irfft_pair(&p->fft, f.y_re, f.y_im, f.g_re, f.g_im, f.t0, f.t4, f.work); // background's, foreground's
    float *eb = f.t3, *e = f.t1;
    float en_b = 0.0f, en_f = 0.0f, en_d = 0.0f;
    for (int i = 0; i < n; i++) {
        const float d = float(mic[i]) * PCM_IN;
        eb[i] = d - f.t0[m - n + i];
        en_b += eb[i] * eb[i];
        en_d += d * d;
    }
    float *yhat = f.t4 + (m - n);
    for (int i = 0; i < n; i++) {
        e[i] = float(mic[i]) * PCM_IN - yhat[i];
        en_f += e[i] * e[i];
    }
    if (far_active) {
        if (!(c->err_fg > TWO_PATH_HARM * c->err_mic))
            c->harm_frames = 0;
        if (c->err_fg * LOCKED < c->err_mic)
            c->was_locked = 1;
        c->err_bg += TWO_PATH_RATE * (en_b - c->err_bg);
        c->err_fg += TWO_PATH_RATE * (en_f - c->err_fg);
        c->err_mic += TWO_PATH_RATE * (en_d - c->err_mic);
        if (c->err_bg < TWO_PATH_BETTER * c->err_fg && en_b < en_f) {
            afilt_copy(p, c->w_re, c->w_im, c->f_re, c->f_im);
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
        } else if (c->err_bg > TWO_PATH_WORSE * c->err_fg) {
            // Double talk pulled the background away: restart it from the
            // foreground.
            afilt_copy(p, c->f_re, c->f_im, c->w_re, c->w_im);
            c->err_bg = c->err_fg;
        }
    }

    windowed(p, c->e_hist + (m - 2 * n), e, f.t2);
    windowed(p, c->y_hist, yhat, f.t0);
    eaec_rfft_pair(&p->fft, f.t2, f.t0, f.es_re, f.es_im, f.ys_re, f.ys_im, f.work);
    for (int k = nb; k < p->kpad; k++)
        f.es_re[k] = f.es_im[k] = f.ys_re[k] = f.ys_im[k] = 0.0f; // the per-bin loops run over the padding too
    std::memcpy(c->y_hist, yhat, sizeof(float) * size_t(n));
    int delay = s->dl.delay;
    if (ch == 0) {
        // The microphone's spectrum is the sum of the two analysed ones.
        for (int k = 0; k < p->kpad; k++) {
            const float re = f.es_re[k] + f.ys_re[k], im = f.es_im[k] + f.ys_im[k];
            f.pe[k] = re * re + im * im;
        }
        delay = delay_mic(p, s, f.pe, far_active, c->err_fg * LOCKED < c->err_mic);
    }

    // Digital silence (below one 16-bit step) leaves the noise estimate alone.
    const int mic_silent = en_d < float(n) * 1e-10f;
    const supp_frame sf = supp_analyse(p, s, c, f.es_re, f.es_im, f.ys_re, f.ys_im, far_active, mic_silent, f.pe);
    if (!std::isfinite(sf.sum_e + sf.sum_y + c->leak + c->err_fg + c->err_bg)) {
        // Nothing should get here; if it does, start the channel afresh
        // rather than stay silent.
        const uint32_t rng = c->rng;
        chan_reset(p, c, 0);
        c->rng = rng;
        for (int k = 0; k < p->kpad; k++)
            f.es_re[k] = f.es_im[k] = f.pe[k] = 0.0f;
    }

    if (far_active) {
        supp_step(p, c, f.mu);
        c->boost_frames = std::max(0, c->boost_frames - 1);
        for (int i = 0; i < m - n; i++)
            f.t2[i] = 0.0f;
        std::memcpy(f.t2 + (m - n), eb, sizeof(float) * size_t(n));
        eaec_rfft(&p->fft, f.t2, f.g_re, f.g_im, f.work);
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
        for (int q = 0; q < CONSTRAIN_PER_FRAME; q++)
            afilt_constrain(p, c, f.t2, f.work);
    }

    c->far_hold = far_active ? FAR_HANGOVER : std::max(0, c->far_hold - 1);
    supp_gain(p, c, f.mu, f.pe, c->far_hold > 0);
    output_stage(p, c, e, f.mu, f.pe, out, f);
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
    if (!s->x_re || !s->x_im)
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
    s->x_re = s->x_im = nullptr;
}

void eaec_reset_state(const eaec_params *p, eaec_state *s)
{
    s->frames = 0;
    s->head = 0;
    std::memset(s->x_hist, 0, sizeof s->x_hist);
    const size_t ring = sizeof(float) * size_t(p->nring * p->kpad);
    std::memset(s->x_re, 0, ring);
    std::memset(s->x_im, 0, ring);
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
    const int n = p->hop, m = p->nfft, kp = p->kpad, nb = p->nbin;

    // Far end: the speaker channels mixed to one reference.
    std::memmove(s->x_hist, s->x_hist + n, sizeof(float) * size_t(m - n));
    float *xn = s->x_hist + (m - n);
    float energy = 0.0f;
    for (int i = 0; i < n; i++) {
        float v = float(spk[i]);
        if (p->nspk == 2)
            v = 0.5f * (v + float(spk[n + i]));
        xn[i] = v * PCM_IN;
        energy += xn[i] * xn[i];
    }
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
    eaec_rfft(&p->fft, s->x_hist, xr, xi, f.work);
    for (int k = 0; k < nb; k++)
        xp[k] = xr[k] * xr[k] + xi[k] * xi[k];
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
