#include "eaec/eaec_afilt.h"

#include <cmath>

namespace {
// Four bins at a time: GCC lowers this to SSE on x86 and to NEON q
// registers on the board (explicit vectors need no fast-math there).
typedef float v4 __attribute__((vector_size(16)));
} // namespace

void afilt_echo_spectrum(const eaec_params *p, const eaec_state *s, const eaec_chan *c, float *y_re,
                         float *y_im) noexcept
{
    const int kp = p->kpad, nv = kp / 4;
    v4 *yr = reinterpret_cast<v4 *>(y_re), *yi = reinterpret_cast<v4 *>(y_im);
    for (int k = 0; k < nv; k++)
        yr[k] = yi[k] = v4{0.0f, 0.0f, 0.0f, 0.0f};
    int slot = s->head;
    for (int part = 0; part < p->npart; part++) {
        const v4 *wr = reinterpret_cast<const v4 *>(c->w_re + part * kp);
        const v4 *wi = reinterpret_cast<const v4 *>(c->w_im + part * kp);
        const v4 *xr = reinterpret_cast<const v4 *>(s->x_re + slot * kp);
        const v4 *xi = reinterpret_cast<const v4 *>(s->x_im + slot * kp);
        for (int k = 0; k < nv; k++) {
            yr[k] += wr[k] * xr[k] - wi[k] * xi[k];
            yi[k] += wr[k] * xi[k] + wi[k] * xr[k];
        }
        slot = slot ? slot - 1 : p->npart - 1;
    }
}

int afilt_update(const eaec_params *p, const eaec_state *s, eaec_chan *c, const float *g_re,
                 const float *g_im) noexcept
{
    const int kp = p->kpad, np = p->npart, nv = kp / 4;
    const v4 *gr = reinterpret_cast<const v4 *>(g_re), *gi = reinterpret_cast<const v4 *>(g_im);
    float check = 0.0f;
    int slot = s->head;
    for (int part = 0; part < np; part++) {
        v4 *wr = reinterpret_cast<v4 *>(c->w_re + part * kp), *wi = reinterpret_cast<v4 *>(c->w_im + part * kp);
        const v4 *xr = reinterpret_cast<const v4 *>(s->x_re + slot * kp);
        const v4 *xi = reinterpret_cast<const v4 *>(s->x_im + slot * kp);
        for (int k = 0; k < nv; k++) {
            wr[k] += xr[k] * gr[k] + xi[k] * gi[k];
            wi[k] += xr[k] * gi[k] - xi[k] * gr[k];
        }
        check += c->w_re[part * kp + 1] + c->w_im[part * kp + kp / 2]; // NaN spreads to every bin
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
