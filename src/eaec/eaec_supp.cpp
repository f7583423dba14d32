#include "eaec/eaec_supp.h"

#include "eaec/eaec_v4.h"

#include <algorithm>
#include <cmath>

namespace {
constexpr float TINY = 1e-20f;
constexpr float POW_SMOOTH = 0.5f;    // |E|^2, |Y|^2 smoothing per frame
constexpr float MEAN_RATE = 0.05f;    // slow means of the leak regression
constexpr float LEAK_RATE = 0.10f;    // regression update, scaled down in double talk
constexpr int LEAK_BAND = 16;        // bins per band of the leak regression (eaec_chan::misadj)
constexpr float LEAK_MIN = 1e-4f, LEAK_MAX = 16.0f;
constexpr float NOISE_RISE = 1.0046f; // +2 dB/s at 100 frames/s
constexpr float NOISE_FALL = 0.5f;    // towards a new minimum
constexpr float NOISE_BIAS = 2.0f;   // the minimum lies below the mean noise power
constexpr float DD_MEMORY = 0.96f;    // decision-directed a priori SNR
// The leak share of the error is a cautious estimate of the misadjustment
// (it is a regression over all bins): scaled up, it still falls by orders
// of magnitude in double talk, which is what protects the filter.
constexpr float LEAK_STEP_GAIN = 16.0f;
// The error's coherence with the far end is high after an echo-path change
// (the new echo and the old estimate are both far-end) and low in double
// talk: it lets the background re-adapt at once where the leak, learning
// slowly while the error is large, would hold it back.
constexpr float COH_STEP_GAIN = 4.0f;
constexpr float COH_RATE = 0.1f;      // cross-spectrum smoothing per frame
// Both residual-echo estimates run low (regression and coherence biases);
// weighted up, they leave double-talk loss under 2 dB on the benchmark.
constexpr float LEAK_WEIGHT = 32.0f;
constexpr float COH_WEIGHT = 4.0f;
// Residual echo the filter cannot model (loudspeaker distortion, the
// misadjustment's spread) reaches bins where the echo estimate itself is
// weak: a floor of leak x the mean echo estimate over the band, weighted
// up like the per-bin estimates (tanh saturation: 28 -> 40 dB ERLE).
constexpr float SPREAD = 256.0f;
// Echo beyond the filter's window (see missed_echo): the decay per frame is
// measured over LATE_SPAN partitions and taken at most LATE_DECAY_MAX
// (-0.7 dB a frame, RT60 about 850 ms: the last partitions of a short room
// hold only the filter's noise, which does not decay); weighted up like
// the other estimates (room B over eight signals: ERLE +0.4 dB, double-talk
// leak -1 dB).
constexpr int LATE_SPAN = 4;
constexpr float LATE_DECAY_MAX = 0.85f;
constexpr float LATE_WEIGHT = 2.0f;
// The filter's misadjustment: the regression of the error's power
// fluctuations on those of the far end's power in the window (weighted as
// the step's normaliser), by bands like the leak. Its weight trades ERLE
// against near-end loss in double talk (0.3: ERLE +4.7 / +3.6 dB over
// eight signals, the loss at most 1.96 dB; 1.0: +8.8 / +8.2 dB, 2.8 dB).
constexpr float MISADJ_WEIGHT = 0.3f;
constexpr float ECHO_OVER_NOISE = 1.0f; // residual echo the floor lets through, re the noise
} // namespace

// Echo the window's estimate misses, into miss_echo. Beyond the window
// the reverberation goes on decaying past its last partition: the far
// end's power that leaves the window feeds a one-pole recursion whose
// factor is the decay per frame of the background's last partitions;
// times the power gain of the window's last partitions (band means: a
// room's late gain is smooth across the spectrum) it is the late echo the
// filter cannot cancel. The filter's misadjustment goes with the far
// end's power in the window (xw), by the band's regression slope.
static void missed_echo(const eaec_params *p, const eaec_state *s, eaec_chan *c, const float *xw) noexcept
{
    const int kp = p->kpad, np = p->npart;
    float a = 0.0f;
    if (np >= 2 * LATE_SPAN) {
        float last = 0.0f, prev = 0.0f;
        for (int part = np - LATE_SPAN; part < np; part++)
            last += c->part_norm[part] * c->part_norm[part];
        for (int part = np - 2 * LATE_SPAN; part < np - LATE_SPAN; part++)
            prev += c->part_norm[part] * c->part_norm[part];
        if (prev > TINY && last < prev)
            a = std::min(LATE_DECAY_MAX, std::pow(last / prev, 1.0f / float(LATE_SPAN)));
    }
    const int slot = eaec_slot(p, s, np);
    const float *xa = eaec_aux_row(p, s, slot) + EAEC_AUX_POW; // |x|^2: 4 of every 16 floats
    const float *fr = c->f_re + (np - 1) * kp, *fi = c->f_im + (np - 1) * kp;
    const v4 va = v4_dup(a), ref = v4_dup(LATE_WEIGHT / float(LEAK_BAND));
    for (int k0 = 0, band = 0; k0 < kp; k0 += LEAK_BAND, band++) {
        const int k1 = std::min(kp, k0 + LEAK_BAND);
        v4 g = v4_dup(0.0f);
        for (int k = k0; k < k1; k += 4) {
            const v4 ar = v4_load(fr + k), ai = v4_load(fi + k);
            g = v4_add(g, v4_mma(ar, ar, ai, ai));
        }
        const v4 gain = v4_mul(ref, v4_dup(v4_hsum(g))), mis = v4_dup(MISADJ_WEIGHT * c->misadj[band]);
        for (int k = k0; k < k1; k += 4) {
            const v4 r = v4_mul(va, v4_add(v4_load(c->late + k), v4_load(xa + 4 * k)));
            v4_store(c->late + k, r);
            v4_store(c->miss_echo + k, v4_mma(gain, r, mis, v4_load(xw + k)));
        }
    }
}

// Cross spectra of the far end at lags 0..EAEC_LAGS-1 frames with the
// error; the lag whose coherent part is largest names the residual echo.
static void coherence(const eaec_params *p, const eaec_state *s, eaec_chan *c, const float *e_re,
                      const float *e_im, int far_active) noexcept
{
    const int kp = p->kpad;
    const v4 tiny = v4_dup(TINY), rate = v4_dup(COH_RATE);
    if (!far_active) {
        for (int k = 0; k < kp; k += 4)
            v4_store(c->coh_echo + k, v4_dup(0.0f));
        return;
    }
    float best = -1.0f;
    int best_lag = 0;
    for (int lag = 0; lag < EAEC_LAGS; lag++) {
        const int slot = eaec_slot(p, s, lag);
        const float *xr = s->x_re + slot * kp, *xi = s->x_im + slot * kp, *xa = eaec_aux_row(p, s, slot) + EAEC_AUX_POW;
        float *sxx = c->sxx[lag], *cr = c->sxe_re[lag], *ci = c->sxe_im[lag];
        v4 score = v4_dup(0.0f);
        for (int k = 0; k < kp; k += 4) {
            const v4 u = v4_load(xr + k), v = v4_load(xi + k), er = v4_load(e_re + k), ei = v4_load(e_im + k);
            const v4 a = v4_load(sxx + k), b = v4_load(cr + k), d = v4_load(ci + k);
            const v4 na = v4_add(a, v4_mul(rate, v4_sub(v4_load(xa + 4 * k), a))); // |x|^2, kept with the ring
            const v4 nb = v4_add(b, v4_mul(rate, v4_sub(v4_mma(u, er, v, ei), b)));
            const v4 nd = v4_add(d, v4_mul(rate, v4_sub(v4_mms(u, ei, v, er), d)));
            v4_store(sxx + k, na);
            v4_store(cr + k, nb);
            v4_store(ci + k, nd);
            score = v4_add(score, v4_div(v4_mma(nb, nb, nd, nd), v4_add(na, tiny)));
        }
        const float sc = v4_hsum(score);
        if (sc > best) {
            best = sc;
            best_lag = lag;
        }
    }
    const float *sxx = c->sxx[best_lag], *cr = c->sxe_re[best_lag], *ci = c->sxe_im[best_lag];
    for (int k = 0; k < kp; k += 4) {
        const v4 b = v4_load(cr + k), d = v4_load(ci + k);
        v4_store(c->coh_echo + k, v4_div(v4_mma(b, b, d, d), v4_add(v4_load(sxx + k), tiny)));
    }
}

supp_frame supp_analyse(const eaec_params *p, const eaec_state *s, eaec_chan *c, const float *e_re,
                        const float *e_im, const float *y_re, const float *y_im, const float *xw, int far_active,
                        int mic_silent, float *pe) noexcept
{
    const int kp = p->kpad;
    const v4 smooth = v4_dup(POW_SMOOTH);
    v4 se = v4_dup(0.0f), sy = se;
    for (int k = 0; k < kp; k += 4) {
        const v4 er = v4_load(e_re + k), ei = v4_load(e_im + k), yr = v4_load(y_re + k), yi = v4_load(y_im + k);
        const v4 e2 = v4_mma(er, er, ei, ei), y2 = v4_mma(yr, yr, yi, yi);
        v4_store(pe + k, e2);
        se = v4_add(se, e2);
        sy = v4_add(sy, y2);
        const v4 a = v4_load(c->s_ee + k), b = v4_load(c->s_yy + k);
        v4_store(c->s_ee + k, v4_add(a, v4_mul(smooth, v4_sub(e2, a))));
        v4_store(c->s_yy + k, v4_add(b, v4_mul(smooth, v4_sub(y2, b))));
    }
    const supp_frame f{v4_hsum(se), v4_hsum(sy)};
    if (far_active && f.sum_y > 0.0f) {
        // Near-end speech raises the error against the echo estimate: the
        // regression then learns more slowly.
        const float rate_s = LEAK_RATE * std::min(1.0f, f.sum_y / (f.sum_e + TINY));
        const v4 rate = v4_dup(rate_s);
        const v4 mrate = v4_dup(MEAN_RATE);
        v4 sey = v4_dup(0.0f), syy = sey;
        for (int k0 = 0, band = 0; k0 < kp; k0 += LEAK_BAND, band++) {
            const int k1 = std::min(kp, k0 + LEAK_BAND);
            v4 bex = v4_dup(0.0f), bxx = bex;
            for (int k = k0; k < k1; k += 4) {
                const v4 e2 = v4_load(pe + k), yr = v4_load(y_re + k), yi = v4_load(y_im + k);
                const v4 y2 = v4_mma(yr, yr, yi, yi);
                const v4 me = v4_add(v4_load(c->m_e + k), v4_mul(mrate, v4_sub(e2, v4_load(c->m_e + k))));
                const v4 my = v4_add(v4_load(c->m_y + k), v4_mul(mrate, v4_sub(y2, v4_load(c->m_y + k))));
                v4_store(c->m_e + k, me);
                v4_store(c->m_y + k, my);
                const v4 de = v4_sub(e2, me), dy = v4_sub(y2, my);
                const v4 rey = v4_add(v4_load(c->r_ey + k), v4_mul(rate, v4_sub(v4_mul(de, dy), v4_load(c->r_ey + k))));
                const v4 ryy = v4_add(v4_load(c->r_yy + k), v4_mul(rate, v4_sub(v4_mul(dy, dy), v4_load(c->r_yy + k))));
                v4_store(c->r_ey + k, rey);
                v4_store(c->r_yy + k, ryy);
                sey = v4_add(sey, rey);
                syy = v4_add(syy, ryy);
                // The same on the far end's power in the window, summed over
                // the band at once.
                const v4 x2 = v4_load(xw + k);
                const v4 mx = v4_add(v4_load(c->m_x + k), v4_mul(mrate, v4_sub(x2, v4_load(c->m_x + k))));
                v4_store(c->m_x + k, mx);
                const v4 dx = v4_sub(x2, mx);
                bex = v4_add(bex, v4_mul(de, dx));
                bxx = v4_add(bxx, v4_mul(dx, dx));
            }
            c->r_ex[band] += rate_s * (v4_hsum(bex) - c->r_ex[band]);
            c->r_xx[band] += rate_s * (v4_hsum(bxx) - c->r_xx[band]);
        }
        const float sum_ey = v4_hsum(sey), sum_yy = v4_hsum(syy);
        if (sum_yy > TINY) {
            c->leak = std::clamp(sum_ey / sum_yy, LEAK_MIN, LEAK_MAX);
            c->leak_valid = 1;
            // The same regression band by band: the filter's misadjustment
            // differs across the spectrum (larger where the far end is weak).
            for (int k0 = 0, band = 0; k0 < kp; k0 += LEAK_BAND, band++) {
                const int k1 = std::min(kp, k0 + LEAK_BAND);
                v4 bey = v4_dup(0.0f), byy = bey;
                for (int k = k0; k < k1; k += 4) {
                    bey = v4_add(bey, v4_load(c->r_ey + k));
                    byy = v4_add(byy, v4_load(c->r_yy + k));
                }
                const float ey = v4_hsum(bey), yy = v4_hsum(byy), ex = c->r_ex[band], xx = c->r_xx[band];
                const v4 l = v4_dup(yy > 1e-3f * sum_yy / float(kp) ? std::clamp(ey / yy, LEAK_MIN, LEAK_MAX) : c->leak);
                c->misadj[band] = xx > TINY ? std::max(0.0f, ex / xx) : 0.0f;
                for (int k = k0; k < k1; k += 4)
                    v4_store(c->leak_bin + k, l);
            }
        }
    }
    coherence(p, s, c, e_re, e_im, far_active);
    missed_echo(p, s, c, xw);
    if (mic_silent)
        return f;
    const v4 fall = v4_dup(NOISE_FALL), rise = v4_dup(NOISE_RISE), lift = v4_dup(1e-16f);
    for (int k = 0; k < kp; k += 4) {
        const v4 v = v4_load(c->s_ee + k), nz = v4_load(c->noise + k);
        v4_store(c->noise + k, v4_select_lt(v, nz, v4_add(nz, v4_mul(fall, v4_sub(v, nz))), v4_add(v4_mul(nz, rise), lift)));
    }
    return f;
}

void supp_step(const eaec_params *p, const eaec_chan *c, float *mu) noexcept
{
    const int kp = p->kpad;
    if (!c->leak_valid) {
        for (int k = 0; k < kp; k += 4)
            v4_store(mu + k, v4_dup(p->mu_init));
        return;
    }
    const v4 gain = v4_dup(LEAK_STEP_GAIN * c->leak), top = v4_dup(c->boost_frames > 0 ? p->mu_init : p->mu_max), tiny = v4_dup(TINY);
    const v4 cg = v4_dup(COH_STEP_GAIN);
    for (int k = 0; k < kp; k += 4) {
        const v4 num = v4_max(v4_mul(gain, v4_load(c->s_yy + k)), v4_mul(cg, v4_load(c->coh_echo + k)));
        v4_store(mu + k, v4_min(top, v4_div(num, v4_add(v4_load(c->s_ee + k), tiny))));
    }
}

void supp_gain(const eaec_params *p, eaec_chan *c, float *gain_out, float *pe, int far_near) noexcept
{
    const int kp = p->kpad, nb = p->nbin;
    // While the far end talks (and a little after), everything left of
    // the microphone is held down by both floors: the far-end talker hears
    // neither their echo nor our background under their own voice.
    const float lower = far_near ? p->floor_echo : 1.0f;
    const v4 fe = v4_dup(p->floor_echo * lower), fn = v4_dup(p->floor_noise * lower), tiny = v4_dup(TINY), one = v4_dup(1.0f);
    const v4 zero = v4_dup(0.0f), lw = v4_dup(LEAK_WEIGHT), cw = v4_dup(COH_WEIGHT);
    const v4 dd = v4_dup(DD_MEMORY), dd1 = v4_dup(1.0f - DD_MEMORY), deep = v4_dup(ECHO_OVER_NOISE);
    const v4 nbias = v4_dup(NOISE_BIAS);
    v4 syy = zero;
    for (int k = 0; k < kp; k += 4)
        syy = v4_add(syy, v4_load(c->s_yy + k));
    const v4 spread = v4_dup(SPREAD * c->leak * v4_hsum(syy) / float(kp));
    for (int k = 0; k < kp; k += 4) {
        const v4 s_ee = v4_load(c->s_ee + k), noise = v4_mul(nbias, v4_load(c->noise + k));
        const v4 echo0 = v4_max(v4_max(v4_max(v4_mul(v4_mul(lw, v4_load(c->leak_bin + k)), v4_load(c->s_yy + k)),
                                               v4_mul(cw, v4_load(c->coh_echo + k))), spread), v4_load(c->unc_echo + k));
        // Plus the echo the window's estimate misses (see missed_echo).
        const v4 echo = v4_min(v4_add(echo0, v4_load(c->miss_echo + k)), s_ee);
        const v4 interf = v4_add(v4_add(echo, noise), tiny);
        const v4 post = v4_div(v4_load(pe + k), interf);
        const v4 prio = v4_add(v4_mul(dd, v4_load(c->snr_prev + k)), v4_mul(dd1, v4_max(v4_sub(post, one), zero)));
        const v4 g = v4_div(prio, v4_add(one, prio));
        // The echo floor leaves at most floor_echo x the noise of residual
        // echo: deeper than configured only where the echo dominates.
        const v4 g2 = v4_max(v4_mul(g, g), v4_div(v4_mma(fe, v4_min(echo, v4_mul(deep, noise)), fn, noise), interf));
        v4_store(c->snr_prev + k, v4_mul(g2, post));
        v4_store(gain_out + k, v4_sqrt(g2));
        v4_store(pe + k, v4_max(zero, v4_mul(v4_sub(fn, g2), noise))); // comfort noise power
    }
    for (int k = nb; k < kp; k++)
        gain_out[k] = pe[k] = 0.0f;
}
