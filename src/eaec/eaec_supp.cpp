#include "eaec/eaec_supp.h"

#include <algorithm>
#include <cmath>

namespace {
constexpr float TINY = 1e-20f;
constexpr float POW_SMOOTH = 0.5f;    // |E|^2, |Y|^2 smoothing per frame
constexpr float MEAN_RATE = 0.05f;    // slow means of the leak regression
constexpr float LEAK_RATE = 0.10f;    // regression update, scaled down in double talk
constexpr float LEAK_MIN = 1e-4f, LEAK_MAX = 16.0f;
constexpr float NOISE_RISE = 1.0046f; // +2 dB/s at 100 frames/s
constexpr float NOISE_FALL = 0.5f;    // towards a new minimum
constexpr float DD_MEMORY = 0.96f;    // decision-directed a priori SNR
// The leak share of the error is a cautious estimate of the misadjustment
// (it is a regression over all bins): scaled up, it still falls by orders
// of magnitude in double talk, which is what protects the filter.
constexpr float LEAK_STEP_GAIN = 16.0f;
constexpr float COH_RATE = 0.1f;      // cross-spectrum smoothing per frame
// Both residual-echo estimates run low (regression and coherence biases);
// weighted up, they leave double-talk loss under 2 dB on the benchmark.
constexpr float LEAK_WEIGHT = 4.0f;
constexpr float COH_WEIGHT = 4.0f;

uint32_t lcg(uint32_t &r)
{
    r = r * 1664525u + 1013904223u;
    return r;
}
// Uniform in [-1, 1).
float uniform(uint32_t &r) { return float(int32_t(lcg(r))) * (1.0f / 2147483648.0f); }
} // namespace

// Cross spectra of the far end at lags 0..EAEC_LAGS-1 frames with the
// error; the lag whose coherent part is largest names the residual echo.
static void coherence(const eaec_params *p, const eaec_state *s, eaec_chan *c, const float *e_re,
                      const float *e_im, int far_active) noexcept
{
    const int nb = p->nbin;
    if (!far_active) {
        for (int k = 0; k < nb; k++)
            c->coh_echo[k] = 0.0f;
        return;
    }
    float best = -1.0f;
    int best_lag = 0;
    for (int lag = 0; lag < EAEC_LAGS; lag++) {
        const int slot = (s->xs_head - lag + EAEC_LAGS) % EAEC_LAGS;
        const float *xr = s->xs_re[slot], *xi = s->xs_im[slot];
        float *sxx = c->sxx[lag], *cr = c->sxe_re[lag], *ci = c->sxe_im[lag];
        float score = 0.0f;
        for (int k = 0; k < nb; k++) {
            sxx[k] += COH_RATE * (xr[k] * xr[k] + xi[k] * xi[k] - sxx[k]);
            cr[k] += COH_RATE * (xr[k] * e_re[k] + xi[k] * e_im[k] - cr[k]);
            ci[k] += COH_RATE * (xr[k] * e_im[k] - xi[k] * e_re[k] - ci[k]);
            score += (cr[k] * cr[k] + ci[k] * ci[k]) / (sxx[k] + TINY);
        }
        if (score > best) {
            best = score;
            best_lag = lag;
        }
    }
    const float *sxx = c->sxx[best_lag], *cr = c->sxe_re[best_lag], *ci = c->sxe_im[best_lag];
    for (int k = 0; k < nb; k++)
        c->coh_echo[k] = (cr[k] * cr[k] + ci[k] * ci[k]) / (sxx[k] + TINY);
}

supp_frame supp_analyse(const eaec_params *p, const eaec_state *s, eaec_chan *c, const float *e_re,
                        const float *e_im, const float *y_re, const float *y_im, int far_active,
                        float *pe) noexcept
{
    const int nb = p->nbin;
    supp_frame f{0.0f, 0.0f, 0.0f};
    for (int k = 0; k < nb; k++) {
        const float e2 = e_re[k] * e_re[k] + e_im[k] * e_im[k];
        const float y2 = y_re[k] * y_re[k] + y_im[k] * y_im[k];
        const float dr = e_re[k] + y_re[k], di = e_im[k] + y_im[k];
        pe[k] = e2;
        f.sum_e += e2;
        f.sum_y += y2;
        f.sum_d += dr * dr + di * di;
        c->s_ee[k] += POW_SMOOTH * (e2 - c->s_ee[k]);
        c->s_yy[k] += POW_SMOOTH * (y2 - c->s_yy[k]);
    }
    if (far_active && f.sum_y > 0.0f) {
        // Near-end speech raises the error against the echo estimate: the
        // regression then learns more slowly.
        const float rate = LEAK_RATE * std::min(1.0f, f.sum_y / (f.sum_e + TINY));
        float sum_ey = 0.0f, sum_yy = 0.0f;
        for (int k = 0; k < nb; k++) {
            const float e2 = pe[k];
            const float y2 = y_re[k] * y_re[k] + y_im[k] * y_im[k];
            c->m_e[k] += MEAN_RATE * (e2 - c->m_e[k]);
            c->m_y[k] += MEAN_RATE * (y2 - c->m_y[k]);
            const float de = e2 - c->m_e[k], dy = y2 - c->m_y[k];
            c->r_ey[k] += rate * (de * dy - c->r_ey[k]);
            c->r_yy[k] += rate * (dy * dy - c->r_yy[k]);
            sum_ey += c->r_ey[k];
            sum_yy += c->r_yy[k];
        }
        if (sum_yy > TINY) {
            c->leak = std::clamp(sum_ey / sum_yy, LEAK_MIN, LEAK_MAX);
            c->leak_valid = 1;
        }
    }
    coherence(p, s, c, e_re, e_im, far_active);
    for (int k = 0; k < nb; k++) {
        const float v = c->s_ee[k];
        if (v < c->noise[k])
            c->noise[k] += NOISE_FALL * (v - c->noise[k]);
        else
            c->noise[k] = c->noise[k] * NOISE_RISE + 1e-16f;
    }
    return f;
}

void supp_step(const eaec_params *p, const eaec_chan *c, float *mu) noexcept
{
    const int nb = p->nbin;
    if (!c->leak_valid) {
        for (int k = 0; k < nb; k++)
            mu[k] = p->mu_init;
        return;
    }
    for (int k = 0; k < nb; k++)
        mu[k] = std::min(p->mu_max, LEAK_STEP_GAIN * c->leak * c->s_yy[k] / (c->s_ee[k] + TINY));
}

void supp_apply(const eaec_params *p, eaec_chan *c, float *e_re, float *e_im, const float *pe) noexcept
{
    const int nb = p->nbin;
    const float fe = p->floor_echo, fn = p->floor_noise;
    for (int k = 0; k < nb; k++) {
        const float echo =
            std::min(std::max(LEAK_WEIGHT * c->leak * c->s_yy[k], COH_WEIGHT * c->coh_echo[k]), c->s_ee[k]);
        const float noise = c->noise[k];
        const float interf = echo + noise + TINY;
        const float post = pe[k] / interf;
        const float prio = DD_MEMORY * c->snr_prev[k] + (1.0f - DD_MEMORY) * std::max(post - 1.0f, 0.0f);
        const float g = prio / (1.0f + prio);
        const float g2 = std::max(g * g, (fe * echo + fn * noise) / interf);
        c->snr_prev[k] = g2 * post;
        const float gain = std::sqrt(g2);
        e_re[k] *= gain;
        e_im[k] *= gain;
        const float comfort = (fn - g2) * noise;
        if (comfort > 0.0f) {
            // Uniform components have power 1/3 each: scale to `comfort`.
            const float a = std::sqrt(1.5f * comfort);
            e_re[k] += a * uniform(c->rng);
            e_im[k] += a * uniform(c->rng);
        }
    }
}
