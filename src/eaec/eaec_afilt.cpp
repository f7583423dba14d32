#include "eaec/eaec_afilt.h"

#include "eaec/eaec_v4.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <initializer_list>

void afilt_echo_spectra(const eaec_params *p, const eaec_state *s, const eaec_chan *c, float *ya_re, float *ya_im,
                        float *yb_re, float *yb_im, float *norm) noexcept
{
    const float *a_re = c->w_re, *a_im = c->w_im, *b_re = c->f_re, *b_im = c->f_im;
    const int kp = p->kpad, np = p->npart;
    // The window's slots run down from the first partition's, wrapping once
    // at most: partitions [0, np1) from x_first down, the rest from the
    // ring's last slot down.
    const int slot0 = eaec_slot(p, s, 0), np1 = std::min(np, slot0 + 1), step = 4 * kp;
    const float *x_first = eaec_aux_row(p, s, slot0), *x_wrap = eaec_aux_row(p, s, p->nring - 1);
    // A partition whose far-end spectrum was made from digital silence
    // (every sample of its frames zero) adds nothing: the far end often
    // pauses. Over a window of silence there is no pass at all; with some
    // of it the pass takes the others from a list.
    int act[EAEC_PART_MAX], nact = 0;
    const float *act_x[EAEC_PART_MAX];
    for (int part = 0; part < np; part++) {
        const int slot = eaec_slot(p, s, part);
        if (!eaec_slot_silent(p, s, slot)) {
            act_x[nact] = eaec_aux_row(p, s, slot);
            act[nact++] = part;
        }
    }
    const int kad = nact ? p->kadapt : 0;
    for (int k = kad; k < kp; k += 4) {
        v4_store(ya_re + k, v4_dup(0.0f));
        v4_store(ya_im + k, v4_dup(0.0f));
        v4_store(yb_re + k, v4_dup(0.0f));
        v4_store(yb_im + k, v4_dup(0.0f));
        v4_store(norm + k, v4_dup(0.0f));
    }
    v4 gain[EAEC_PART_MAX];
    for (int part = 0; part < np; part++)
        gain[part] = v4_dup(c->part_gain[part]);
    // Bins outermost: the sums stay in registers across partitions. Each
    // product (a + ib)(u + iv) in three multiplications, from the far end's
    // u, v - u, u + v and power, made once when it entered the ring:
    // re = u (a + b) - b (u + v), im = u (a + b) + a (v - u).
    for (int k = 0; k < kad; k += 4) {
        v4 a1 = v4_dup(0.0f), a2 = a1, a3 = a1, b1 = a1, b2 = a1, b3 = a1, nrm = a1;
        const auto add = [&](int part, const float *x) {
            const int o = part * kp + k;
            const v4 u = v4_load(x), dif = v4_load(x + 4), sum = v4_load(x + 8);
            nrm = v4_add(nrm, v4_mul(gain[part], v4_load(x + EAEC_AUX_POW)));
            const v4 war = v4_load(a_re + o), wai = v4_load(a_im + o), wbr = v4_load(b_re + o), wbi = v4_load(b_im + o);
            a1 = v4_add(a1, v4_mul(u, v4_add(war, wai)));
            a2 = v4_add(a2, v4_mul(war, dif));
            a3 = v4_add(a3, v4_mul(wai, sum));
            b1 = v4_add(b1, v4_mul(u, v4_add(wbr, wbi)));
            b2 = v4_add(b2, v4_mul(wbr, dif));
            b3 = v4_add(b3, v4_mul(wbi, sum));
        };
        if (nact == np) {
            int part = 0;
            const auto run = [&](const float *x, int end) {
                for (; part + 2 <= end; part += 2, x -= 2 * step) { // two at a time: half the loop's own instructions
                    add(part, x);
                    add(part + 1, x - step);
                }
                if (part < end)
                    add(part++, x);
            };
            run(x_first + 4 * k, np1);
            run(x_wrap + 4 * k, np);
        } else {
            for (int i = 0; i < nact; i++)
                add(act[i], act_x[i] + 4 * k);
        }
        v4_store(ya_re + k, v4_sub(a1, a3));
        v4_store(ya_im + k, v4_add(a1, a2));
        v4_store(yb_re + k, v4_sub(b1, b3));
        v4_store(yb_im + k, v4_add(b1, b2));
        v4_store(norm + k, nrm);
    }
}

int afilt_update(const eaec_params *p, const eaec_state *s, eaec_chan *c, const float *g_re,
                 const float *g_im) noexcept
{
    const int kp = p->kpad, np = p->npart;
    float total = 0.0f;
    int slot = eaec_slot(p, s, 0);
    // conj(u + iv) G in three multiplications, as in the echo pass:
    // re = u (gr + gi) + gi (v - u), im = u (gr + gi) - gr (u + v).
    alignas(16) float g_sum[EAEC_KPAD_MAX];
    for (int k = 0; k < p->kadapt; k += 4)
        v4_store(g_sum + k, v4_add(v4_load(g_re + k), v4_load(g_im + k)));
    for (int part = 0; part < np; part++) {
        float *wr = c->w_re + part * kp, *wi = c->w_im + part * kp;
        const float *x = eaec_aux_row(p, s, slot);
        const v4 f = v4_dup(c->part_gain[part]);
        v4 energy = v4_dup(0.0f);
        const auto step = [&](int k) {
            const v4 k1 = v4_mul(v4_load(g_sum + k), v4_load(x + 4 * k));
            const v4 nr = v4_add(v4_load(wr + k), v4_mul(f, v4_add(k1, v4_mul(v4_load(g_im + k), v4_load(x + 4 * k + 4)))));
            const v4 ni = v4_add(v4_load(wi + k), v4_mul(f, v4_sub(k1, v4_mul(v4_load(g_re + k), v4_load(x + 4 * k + 8)))));
            v4_store(wr + k, nr);
            v4_store(wi + k, ni);
            energy = v4_add(energy, v4_mma(nr, nr, ni, ni));
        };
        // A far-end spectrum made from digital silence changes nothing (as in
        // the echo pass): only the partition's norm is taken.
        int k = 0;
        if (eaec_slot_silent(p, s, slot)) {
            for (; k < p->kadapt; k += 4) {
                const v4 nr = v4_load(wr + k), ni = v4_load(wi + k);
                energy = v4_add(energy, v4_mma(nr, nr, ni, ni));
            }
        }
        for (const int kad = p->kadapt; k + 8 <= kad; k += 8) { // eight bins a loop: half its own instructions
            step(k);
            step(k + 4);
        }
        if (k < p->kadapt)
            step(k);
        float lanes[4];
        v4_storeu(lanes, energy);
        c->part_norm[part] = std::sqrt((lanes[0] + lanes[1]) + (lanes[2] + lanes[3]));
        total += c->part_norm[part];
        slot = slot ? slot - 1 : p->nring - 1;
    }
    return std::isfinite(total) ? 0 : -1;
}

void afilt_part_gains(const eaec_params *p, eaec_chan *c, float share) noexcept
{
    const int np = p->npart;
    float total = 0.0f;
    for (int part = 0; part < np; part++)
        total += c->part_norm[part];
    // Half even (or all of it, before the filter holds anything), half in
    // proportion to each partition's share of the filter: the early,
    // strong part of a room response converges first.
    const float even = total > 0.0f ? (1.0f - share) / float(np) : 1.0f / float(np);
    const float prop = total > 0.0f ? share / total : 0.0f;
    for (int part = 0; part < np; part++)
        c->part_gain[part] = even + prop * c->part_norm[part];
}

void afilt_copy(const eaec_params *p, const float *from_re, const float *from_im, float *to_re,
                float *to_im) noexcept
{
    // Four at a time (rows are kpad long): memcpy copies blocks this size
    // with a string instruction on x86, one instruction per byte in callgrind's count.
    const int n = p->npart * p->kpad;
    for (int i = 0; i < n; i += 4) {
        v4_store(to_re + i, v4_load(from_re + i));
        v4_store(to_im + i, v4_load(from_im + i));
    }
}

void afilt_constrain_rows(const eaec_params *p, eaec_chan *c, float **re, float **im) noexcept
{
    *re = c->w_re + c->part_next * p->kpad;
    *im = c->w_im + c->part_next * p->kpad;
}

void afilt_constrain_cut(const eaec_params *p, float *taps) noexcept
{
    for (int t = p->hop; t < p->nfft; t++)
        taps[t] = 0.0f;
}

void afilt_constrain_done(const eaec_params *p, eaec_chan *c) noexcept
{
    float *wr, *wi;
    afilt_constrain_rows(p, c, &wr, &wi);
    for (int k = p->kadapt; k < p->kpad; k++)
        wr[k] = wi[k] = 0.0f; // the cut spreads into bins the filter leaves alone
    c->part_next = c->part_next + 1 < p->npart ? c->part_next + 1 : 0;
}

void afilt_scale(const eaec_params *p, float *w_re, float *w_im, float g) noexcept
{
    const int n = p->npart * p->kpad;
    if (g == 0.0f) {
        // A reset: multiplying would keep a NaN.
        std::memset(w_re, 0, sizeof(float) * size_t(n));
        std::memset(w_im, 0, sizeof(float) * size_t(n));
        return;
    }
    for (int i = 0; i < n; i++) {
        w_re[i] *= g;
        w_im[i] *= g;
    }
}

void afilt_shift(const eaec_params *p, float *w_re, float *w_im, int by) noexcept
{
    const int np = p->npart;
    const size_t row = sizeof(float) * size_t(p->kpad);
    for (float *w : {w_re, w_im}) {
        if (by > 0) {
            for (int part = 0; part < np; part++) {
                if (part + by < np)
                    std::memcpy(w + part * p->kpad, w + (part + by) * p->kpad, row);
                else
                    std::memset(w + part * p->kpad, 0, row);
            }
        } else if (by < 0) {
            for (int part = np - 1; part >= 0; part--) {
                if (part + by >= 0)
                    std::memcpy(w + part * p->kpad, w + (part + by) * p->kpad, row);
                else
                    std::memset(w + part * p->kpad, 0, row);
            }
        }
    }
}
