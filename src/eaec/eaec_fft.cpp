#include "eaec/eaec_fft.h"

#include "eaec/eaec_v4.h"

#include <cmath>

int eaec_fft_plan_init(eaec_fft_plan *p, int n)
{
    if (n != 256 && n != 512 && n != 1024)
        return -1;
    p->n = n;
    p->half = n / 2;
    p->nstage4 = 0;
    const double two_pi = 6.283185307179586476925286766559;
    int off = 0;
    for (int len = p->half; len >= 4; len /= 4) {
        const int m = len / 4;
        for (int j = 1; j <= 3; j++)
            for (int q = 0; q < m; q++) {
                const double a = -two_pi * double(j * q) / double(len);
                p->stage_tw[off + (2 * j - 2) * m + q] = float(std::cos(a));
                p->stage_tw[off + (2 * j - 1) * m + q] = float(std::sin(a));
            }
        off += 6 * m;
        p->nstage4++;
    }
    for (int k = 0; k <= p->half; k++) {
        const double a = -two_pi * double(k) / double(n);
        p->rot_re[k] = float(std::cos(a));
        p->rot_im[k] = float(std::sin(a));
    }
    return 0;
}

// One radix-4 decimation-in-frequency Stockham stage: sub-sequences of
// length 4m, stride s. The first stage (s == 1) runs its loop over p so
// that it still vectorises; later stages run over the contiguous q.
static void radix4(int m, int s, const float *__restrict xr, const float *__restrict xi,
                   float *__restrict yr, float *__restrict yi, const float *__restrict tw) noexcept
{
    const float *w1r = tw, *w1i = tw + m, *w2r = tw + 2 * m, *w2i = tw + 3 * m;
    const float *w3r = tw + 4 * m, *w3i = tw + 5 * m;
    const int qs = s * m;
    if (s == 1) {
        // Four p at a time; the four outputs of each p are interleaved.
        for (int p = 0; p < m; p += 4) {
            const v4 a_r = v4_load(xr + p), a_i = v4_load(xi + p), b_r = v4_load(xr + p + m), b_i = v4_load(xi + p + m);
            const v4 c_r = v4_load(xr + p + 2 * m), c_i = v4_load(xi + p + 2 * m);
            const v4 d_r = v4_load(xr + p + 3 * m), d_i = v4_load(xi + p + 3 * m);
            const v4 spr = v4_add(a_r, c_r), spi = v4_add(a_i, c_i), smr = v4_sub(a_r, c_r), smi = v4_sub(a_i, c_i);
            const v4 tpr = v4_add(b_r, d_r), tpi = v4_add(b_i, d_i), tmr = v4_sub(b_r, d_r), tmi = v4_sub(b_i, d_i);
            const v4 u1r = v4_add(smr, tmi), u1i = v4_sub(smi, tmr);
            const v4 u2r = v4_sub(spr, tpr), u2i = v4_sub(spi, tpi);
            const v4 u3r = v4_sub(smr, tmi), u3i = v4_add(smi, tmr);
            const v4 c1r = v4_load(w1r + p), c1i = v4_load(w1i + p), c2r = v4_load(w2r + p), c2i = v4_load(w2i + p);
            const v4 c3r = v4_load(w3r + p), c3i = v4_load(w3i + p);
            v4_store_interleaved(yr + 4 * p, v4_add(spr, tpr), v4_mms(c1r, u1r, c1i, u1i), v4_mms(c2r, u2r, c2i, u2i),
                                 v4_mms(c3r, u3r, c3i, u3i));
            v4_store_interleaved(yi + 4 * p, v4_add(spi, tpi), v4_mma(c1r, u1i, c1i, u1r), v4_mma(c2r, u2i, c2i, u2r),
                                 v4_mma(c3r, u3i, c3i, u3r));
        }
        return;
    }
    // s >= 4: four q at a time.
    for (int p = 0; p < m; p++) {
        const v4 c1r = v4_dup(w1r[p]), c1i = v4_dup(w1i[p]), c2r = v4_dup(w2r[p]), c2i = v4_dup(w2i[p]);
        const v4 c3r = v4_dup(w3r[p]), c3i = v4_dup(w3i[p]);
        const float *ar = xr + s * p, *ai = xi + s * p;
        float *outr = yr + 4 * s * p, *outi = yi + 4 * s * p;
        for (int q = 0; q < s; q += 4) {
            const v4 a_r = v4_load(ar + q), a_i = v4_load(ai + q), b_r = v4_load(ar + q + qs), b_i = v4_load(ai + q + qs);
            const v4 c_r = v4_load(ar + q + 2 * qs), c_i = v4_load(ai + q + 2 * qs);
            const v4 d_r = v4_load(ar + q + 3 * qs), d_i = v4_load(ai + q + 3 * qs);
            const v4 spr = v4_add(a_r, c_r), spi = v4_add(a_i, c_i), smr = v4_sub(a_r, c_r), smi = v4_sub(a_i, c_i);
            const v4 tpr = v4_add(b_r, d_r), tpi = v4_add(b_i, d_i), tmr = v4_sub(b_r, d_r), tmi = v4_sub(b_i, d_i);
            const v4 u1r = v4_add(smr, tmi), u1i = v4_sub(smi, tmr);
            const v4 u2r = v4_sub(spr, tpr), u2i = v4_sub(spi, tpi);
            const v4 u3r = v4_sub(smr, tmi), u3i = v4_add(smi, tmr);
            v4_store(outr + q, v4_add(spr, tpr));
            v4_store(outi + q, v4_add(spi, tpi));
            v4_store(outr + q + s, v4_mms(c1r, u1r, c1i, u1i));
            v4_store(outi + q + s, v4_mma(c1r, u1i, c1i, u1r));
            v4_store(outr + q + 2 * s, v4_mms(c2r, u2r, c2i, u2i));
            v4_store(outi + q + 2 * s, v4_mma(c2r, u2i, c2i, u2r));
            v4_store(outr + q + 3 * s, v4_mms(c3r, u3r, c3i, u3i));
            v4_store(outi + q + 3 * s, v4_mma(c3r, u3i, c3i, u3r));
        }
    }
}

// Complex forward FFT of p->half points held in (ar, ai); (br, bi) is the
// other buffer of the ping-pong. Returns the buffer holding the result:
// 0 for a, 1 for b.
static int cfft(const eaec_fft_plan *p, float *ar, float *ai, float *br, float *bi) noexcept
{
    float *xr = ar, *xi = ai, *yr = br, *yi = bi;
    int in_b = 0, len = p->half, s = 1, off = 0;
    for (int st = 0; st < p->nstage4; st++) {
        const int m = len / 4;
        radix4(m, s, xr, xi, yr, yi, p->stage_tw + off);
        off += 6 * m;
        len = m;
        s *= 4;
        float *t = xr; xr = yr; yr = t;
        t = xi; xi = yi; yi = t;
        in_b ^= 1;
    }
    if (len == 2) {
        for (int q = 0; q < s; q += 4) {
            const v4 a_r = v4_load(xr + q), a_i = v4_load(xi + q), b_r = v4_load(xr + q + s), b_i = v4_load(xi + q + s);
            v4_store(yr + q, v4_add(a_r, b_r));
            v4_store(yi + q, v4_add(a_i, b_i));
            v4_store(yr + q + s, v4_sub(a_r, b_r));
            v4_store(yi + q + s, v4_sub(a_i, b_i));
        }
        in_b ^= 1;
    }
    return in_b;
}

void eaec_rfft(const eaec_fft_plan *p, const float *x, float *re, float *im, float *work) noexcept
{
    const int h = p->half;
    float *ar = work, *ai = work + h, *br = work + 2 * h, *bi = work + 3 * h;
    for (int j = 0; j < h; j += 4) {
        v4 ev, od;
        v4_load_deinterleaved(x + 2 * j, &ev, &od);
        v4_store(ar + j, ev);
        v4_store(ai + j, od);
    }
    const int in_b = cfft(p, ar, ai, br, bi);
    const float *zr = in_b ? br : ar, *zi = in_b ? bi : ai;
    re[0] = zr[0] + zi[0];
    im[0] = 0.0f;
    re[h] = zr[0] - zi[0];
    im[h] = 0.0f;
    const v4 half = v4_dup(0.5f);
    int k = 1;
    for (; k + 3 < h; k += 4) {
        const v4 a_r = v4_loadu(zr + k), a_i = v4_loadu(zi + k);
        const v4 b_r = v4_rev(v4_loadu(zr + h - k - 3)), b_i = v4_sub(v4_dup(0.0f), v4_rev(v4_loadu(zi + h - k - 3)));
        const v4 fer = v4_mul(half, v4_add(a_r, b_r)), fei = v4_mul(half, v4_add(a_i, b_i));
        const v4 dr = v4_mul(half, v4_sub(a_r, b_r)), di = v4_mul(half, v4_sub(a_i, b_i));
        const v4 cr = v4_loadu(p->rot_re + k), ci = v4_loadu(p->rot_im + k);
        v4_storeu(re + k, v4_add(fer, v4_mma(cr, di, ci, dr)));
        v4_storeu(im + k, v4_add(fei, v4_mms(ci, di, cr, dr)));
    }
    for (; k < h; k++) {
        const float a_r = zr[k], a_i = zi[k], b_r = zr[h - k], b_i = -zi[h - k];
        const float fer = 0.5f * (a_r + b_r), fei = 0.5f * (a_i + b_i);
        const float dr = 0.5f * (a_r - b_r), di = 0.5f * (a_i - b_i);
        const float cr = p->rot_re[k], ci = p->rot_im[k];
        re[k] = fer + cr * di + ci * dr;
        im[k] = fei + ci * di - cr * dr;
    }
}

void eaec_irfft(const eaec_fft_plan *p, const float *re, const float *im, float *x, float *work) noexcept
{
    const int h = p->half;
    const float sc = 1.0f / float(h);
    float *ar = work, *ai = work + h, *br = work + 2 * h, *bi = work + 3 * h;
    // Z = Fe + i Fo, handed to the forward transform conjugated and scaled.
    {
        const float fe = 0.5f * (re[0] + re[h]), fo = 0.5f * (re[0] - re[h]);
        ar[0] = fe * sc;
        ai[0] = -fo * sc;
    }
    const v4 half = v4_dup(0.5f), vsc = v4_dup(sc), zero = v4_dup(0.0f);
    int k = 1;
    for (; k + 3 < h; k += 4) {
        const v4 xr_ = v4_loadu(re + k), xi_ = v4_loadu(im + k);
        const v4 yr_ = v4_rev(v4_loadu(re + h - k - 3)), yi_ = v4_sub(zero, v4_rev(v4_loadu(im + h - k - 3)));
        const v4 fer = v4_mul(half, v4_add(xr_, yr_)), fei = v4_mul(half, v4_add(xi_, yi_));
        const v4 dr = v4_mul(half, v4_sub(xr_, yr_)), di = v4_mul(half, v4_sub(xi_, yi_));
        const v4 cr = v4_loadu(p->rot_re + k), ci = v4_loadu(p->rot_im + k);
        const v4 forr = v4_mma(dr, cr, di, ci), foi = v4_mms(di, cr, dr, ci);
        v4_storeu(ar + k, v4_mul(v4_sub(fer, foi), vsc));
        v4_storeu(ai + k, v4_sub(zero, v4_mul(v4_add(fei, forr), vsc)));
    }
    for (; k < h; k++) {
        const float xr_ = re[k], xi_ = im[k], yr_ = re[h - k], yi_ = -im[h - k];
        const float fer = 0.5f * (xr_ + yr_), fei = 0.5f * (xi_ + yi_);
        const float dr = 0.5f * (xr_ - yr_), di = 0.5f * (xi_ - yi_);
        const float cr = p->rot_re[k], ci = p->rot_im[k];
        const float forr = dr * cr + di * ci, foi = di * cr - dr * ci;
        ar[k] = (fer - foi) * sc;
        ai[k] = -(fei + forr) * sc;
    }
    const int in_b = cfft(p, ar, ai, br, bi);
    const float *ur = in_b ? br : ar, *ui = in_b ? bi : ai;
    const v4 zero2 = v4_dup(0.0f);
    for (int j = 0; j < h; j += 4)
        v4_store_pairs(x + 2 * j, v4_load(ur + j), v4_sub(zero2, v4_load(ui + j)));
}
