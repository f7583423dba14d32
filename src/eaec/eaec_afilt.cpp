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
    float amp[EAEC_PART_MAX];
    float total = 0.0f;
    for (int part = 0; part < np; part++) {
        amp[part] = std::sqrt(c->part_energy[part]);
        total += amp[part];
    }
    const float even = 0.5f, prop = total > 0.0f ? 0.5f * float(np) / total : 0.0f;
    float check = 0.0f;
    int slot = s->head;
    for (int part = 0; part < np; part++) {
        const float f = prop > 0.0f ? even + prop * amp[part] : 1.0f;
        float *__restrict wr = c->w_re + part * kp, *__restrict wi = c->w_im + part * kp;
        const float *__restrict xr = s->x_re + slot * kp, *__restrict xi = s->x_im + slot * kp;
        float energy = 0.0f;
        for (int k = 0; k < kp; k++) {
            const float ur = wr[k] + f * (xr[k] * g_re[k] + xi[k] * g_im[k]);
            const float ui = wi[k] + f * (xr[k] * g_im[k] - xi[k] * g_re[k]);
            wr[k] = ur;
            wi[k] = ui;
            energy += ur * ur + ui * ui;
        }
        c->part_energy[part] = energy;
        check += energy;
        slot = slot ? slot - 1 : np - 1;
    }
    return std::isfinite(check) ? 0 : -1;
}

void afilt_constrain(const eaec_params *p, eaec_chan *c, float *work) noexcept
{
    const int kp = p->kpad, part = c->part_next;
    float *wr = c->w_re + part * kp, *wi = c->w_im + part * kp;
    float *taps = work, *fw = work + p->nfft;
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
    for (int part = 0; part < p->npart; part++)
        c->part_energy[part] *= g * g;
}
