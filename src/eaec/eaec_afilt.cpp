#include "eaec/eaec_afilt.h"

#include <cmath>

void afilt_echo_spectrum(const eaec_params *p, const eaec_state *s, const eaec_chan *c,
                         float *__restrict y_re, float *__restrict y_im) noexcept
{
    const int kp = p->kpad;
    for (int k = 0; k < kp; k++) {
        y_re[k] = 0.0f;
        y_im[k] = 0.0f;
    }
    int slot = s->head;
    for (int part = 0; part < p->npart; part++) {
        const float *__restrict wr = c->w_re + part * kp, *__restrict wi = c->w_im + part * kp;
        const float *__restrict xr = s->x_re + slot * kp, *__restrict xi = s->x_im + slot * kp;
        for (int k = 0; k < kp; k++) {
            y_re[k] += wr[k] * xr[k] - wi[k] * xi[k];
            y_im[k] += wr[k] * xi[k] + wi[k] * xr[k];
        }
        slot = slot ? slot - 1 : p->npart - 1;
    }
}

int afilt_update(const eaec_params *p, const eaec_state *s, eaec_chan *c, const float *__restrict g_re,
                 const float *__restrict g_im) noexcept
{
    const int kp = p->kpad, np = p->npart;
    float check = 0.0f;
    int slot = s->head;
    for (int part = 0; part < np; part++) {
        float *__restrict wr = c->w_re + part * kp, *__restrict wi = c->w_im + part * kp;
        const float *__restrict xr = s->x_re + slot * kp, *__restrict xi = s->x_im + slot * kp;
        for (int k = 0; k < kp; k++) {
            wr[k] += xr[k] * g_re[k] + xi[k] * g_im[k];
            wi[k] += xr[k] * g_im[k] - xi[k] * g_re[k];
        }
        check += wr[1] + wi[kp / 2]; // a NaN or overflow spreads to every bin within a frame
        slot = slot ? slot - 1 : np - 1;
    }
    return std::isfinite(check) ? 0 : -1;
}

void afilt_constrain(const eaec_params *p, eaec_chan *c, float *taps, float *fw) noexcept
{
    const int kp = p->kpad, part = c->part_next;
    float *wr = c->w_re + part * kp, *wi = c->w_im + part * kp;
    eaec_irfft(&p->fft, wr, wi, taps, fw);
    for (int t = p->hop; t < p->nfft; t++)
        taps[t] = 0.0f;
    eaec_rfft(&p->fft, taps, wr, wi, fw);
    c->part_next = part + 1 < p->npart ? part + 1 : 0;
}

void afilt_scale(const eaec_params *p, eaec_chan *c, float g) noexcept
{
    const int n = p->npart * p->kpad;
    for (int i = 0; i < n; i++) {
        c->w_re[i] *= g;
        c->w_im[i] *= g;
    }
}
