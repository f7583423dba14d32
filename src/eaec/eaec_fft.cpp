#include "eaec/eaec_fft.h"

#include "eaec/eaec_v4.h"

#include <cmath>
#include <initializer_list>
#include <type_traits>

namespace {
// Radix of the stage that splits sub-sequences of len points (len > 8) of
// an n-point transform: 8, or 4 where 8 would leave 2 points for the last
// stage, and for the first of 1024 points (cheaper than the eight-point
// first stage's transposes there).
constexpr int radix_of(int n, int len) { return len == 16 || (len == n && n == 1024) ? 4 : 8; }

// The stages of a complex transform of len points: radix_of's while more
// than 8 points remain per sub-sequence, then a final stage of 4 or 8
// points, which needs no twiddles. Appends their twiddles at *off.
int plan_steps(eaec_fft_plan *p, eaec_fft_steps *st, int len, int *off)
{
    const double two_pi = 6.283185307179586476925286766559;
    int e = 0;
    while ((1 << e) < len)
        e++;
    st->len = len;
    st->tw = *off;
    int cur = len, s = 1;
    while (e > 3) {
        const int r = radix_of(len, cur), m = cur / r, rep = s == 1 ? 1 : 4;
        if (*off + 2 * (r - 1) * m * rep > EAEC_FFT_TW)
            return -1;
        for (int j = 1; j < r; j++)
            for (int q = 0; q < m; q++) {
                const double a = -two_pi * double(j * q) / double(cur);
                for (int c = 0; c < rep; c++) {
                    p->stage_tw[*off + (2 * j - 2) * m * rep + q * rep + c] = float(std::cos(a));
                    p->stage_tw[*off + (2 * j - 1) * m * rep + q * rep + c] = float(std::sin(a));
                }
            }
        *off += 2 * (r - 1) * m * rep;
        cur = m;
        s *= r;
        e -= r == 8 ? 3 : 2;
    }
    return 0;
}

// Four complex values, split.
struct cv {
    v4 r, i;
};
inline cv cadd(cv a, cv b) noexcept { return {v4_add(a.r, b.r), v4_add(a.i, b.i)}; }
inline cv csub(cv a, cv b) noexcept { return {v4_sub(a.r, b.r), v4_sub(a.i, b.i)}; }
inline cv cmul(cv a, v4 wr, v4 wi) noexcept { return {v4_mms(wr, a.r, wi, a.i), v4_mma(wr, a.i, wi, a.r)}; }

// Forward DFT of x[0], x[s], x[2s], x[3s] in place.
inline void dft4(cv *x, int s) noexcept
{
    const cv sp = cadd(x[0], x[2 * s]), sm = csub(x[0], x[2 * s]);
    const cv tp = cadd(x[s], x[3 * s]), tm = csub(x[s], x[3 * s]);
    x[0] = cadd(sp, tp);
    x[2 * s] = csub(sp, tp);
    x[s] = {v4_add(sm.r, tm.i), v4_sub(sm.i, tm.r)};
    x[3 * s] = {v4_sub(sm.r, tm.i), v4_add(sm.i, tm.r)};
}

// Forward DFT of eight points in two halves, so that no more than half of
// them are held in registers at once (sixteen vectors would not fit): the
// even outputs are a DFT of four of the sums x[j] + x[j + 4]; the odd ones
// of the differences (loaded again) turned by w8^j, with the turns by -i
// and (+-1 - i)/sqrt 2 written out. ld(j) gives x[j]; st(k, X[k]). H:
// x[4..7] are zero (not loaded, no sums or differences with them).
template <bool H, class Ld, class St> inline void dft8(Ld ld, St st) noexcept
{
    const auto plus = [&](int j) { return H ? ld(j) : cadd(ld(j), ld(j + 4)); };
    const auto minus = [&](int j) { return H ? ld(j) : csub(ld(j), ld(j + 4)); };
    {
        cv e[4] = {plus(0), plus(1), plus(2), plus(3)};
        dft4(e, 1);
        for (int r = 0; r < 4; r++)
            st(2 * r, e[r]);
    }
    const v4 h = v4_dup(0.70710678118654752f);
    const cv d0 = minus(0), d2 = minus(2);
    const cv sp = {v4_add(d0.r, d2.i), v4_sub(d0.i, d2.r)}, sm = {v4_sub(d0.r, d2.i), v4_add(d0.i, d2.r)};
    const cv d1 = minus(1), d3 = minus(3);
    const v4 pr = v4_sub(d1.r, d3.r), qi = v4_add(d1.i, d3.i), rr = v4_add(d1.r, d3.r), si = v4_sub(d1.i, d3.i);
    const cv tp = {v4_mul(h, v4_add(pr, qi)), v4_mul(h, v4_sub(si, rr))};
    const cv tm = {v4_mul(h, v4_add(rr, si)), v4_mul(h, v4_sub(qi, pr))};
    st(1, cadd(sp, tp));
    st(5, csub(sp, tp));
    st(3, cv{v4_add(sm.r, tm.i), v4_sub(sm.i, tm.r)});
    st(7, cv{v4_sub(sm.r, tm.i), v4_add(sm.i, tm.r)});
}

// The DFT of R points: ld(j) gives x[j]; st(k, X[k]). H: the second half
// of the points is zero.
template <int R, bool H = false, class Ld, class St> inline void dft(Ld ld, St st) noexcept
{
    if constexpr (R == 8) {
        dft8<H>(ld, st);
    } else if constexpr (H) { // dft4 with x[2] = x[3] = 0
        const cv a = ld(0), b = ld(1);
        st(0, cadd(a, b));
        st(1, cv{v4_add(a.r, b.i), v4_sub(a.i, b.r)});
        st(2, csub(a, b));
        st(3, cv{v4_sub(a.r, b.i), v4_add(a.i, b.r)});
    } else {
        cv x[4] = {ld(0), ld(1), ld(2), ld(3)};
        dft4(x, 1);
        for (int k = 0; k < 4; k++)
            st(k, x[k]);
    }
}

// Where the first stage reads and the last one writes.
struct split_in {
    static constexpr bool head = false;
    const float *r, *i;
    void load(int k, cv *v) const noexcept { *v = {v4_loadu(r + k), v4_loadu(i + k)}; }
};
// split_in of which only points [0, n/2] may be nonzero.
struct split_in_head : split_in {
    static constexpr bool head = true;
};
struct split_io {
    static constexpr eaec_keep keep = EAEC_KEEP_ALL;
    float *r, *i;
    void store(int k, cv v) const noexcept
    {
        v4_storeu(r + k, v.r);
        v4_storeu(i + k, v.i);
    }
};
// split_io of which the last stage writes only the outputs K asks for.
template <eaec_keep K> struct split_io_keep : split_io {
    static constexpr eaec_keep keep = K;
};
// Real signal read as complex points (even samples real, odd imaginary).
struct pairs_in {
    static constexpr bool head = false;
    const float *x;
    void load(int k, cv *v) const noexcept { v4_load_deinterleaved(x + 2 * k, &v->r, &v->i); }
};
// Complex points written as a real signal, real and imaginary swapped.
struct swapped_pairs_out {
    static constexpr eaec_keep keep = EAEC_KEEP_ALL;
    float *x;
    void store(int k, cv v) const noexcept { v4_store_pairs(x + 2 * k, v.i, v.r); }
};

// The stages are instantiated per length, so that every stride and table
// offset is a constant (the addresses then need no registers of their own).

// First stage (stride 1) of length R M: four p at a time, the R outputs
// of each p stored next to each other (transposed in blocks of four).
template <int R, int M, class In> void first_stage(In in, float *yr, float *yi, const float *tw) noexcept
{
    for (int p = 0; p < M; p += 4) {
        cv x[R];
        const auto ld = [&](int j) {
            cv v;
            in.load(p + j * M, &v);
            return v;
        };
        const auto st = [&](int k, cv v) {
            x[k] = k == 0 ? v : cmul(v, v4_load(tw + (2 * k - 2) * M + p), v4_load(tw + (2 * k - 1) * M + p));
        };
        // Past the first four p, the points j >= R/2 (from p + n/2 on) are
        // zero when only the first half and one may be nonzero.
        if (In::head && p > 0)
            dft<R, true>(ld, st);
        else
            dft<R>(ld, st);
        for (int k = 0; k < R; k += 4) {
            v4_transpose(x[k].r, x[k + 1].r, x[k + 2].r, x[k + 3].r);
            v4_transpose(x[k].i, x[k + 1].i, x[k + 2].i, x[k + 3].i);
            for (int l = 0; l < 4; l++) {
                v4_store(yr + R * (p + l) + k, x[k + l].r);
                v4_store(yi + R * (p + l) + k, x[k + l].i);
            }
        }
    }
}

// A later stage: sub-sequences of length R M at stride S >= 4, four q at
// a time; the twiddles are stored as vectors.
template <int R, int M, int S>
void stage(const float *xr, const float *xi, float *yr, float *yi, const float *tw) noexcept
{
    for (int p = 0; p < M; p++) {
        const float *ar = xr + S * p, *ai = xi + S * p, *t = tw + 4 * p;
        float *outr = yr + R * S * p, *outi = yi + R * S * p;
        for (int q = 0; q < S; q += 4) {
            const auto ld = [&](int j) { return cv{v4_load(ar + q + j * S * M), v4_load(ai + q + j * S * M)}; };
            const auto st = [&](int k, cv v) {
                if (k > 0)
                    v = cmul(v, v4_load(t + (2 * k - 2) * 4 * M), v4_load(t + (2 * k - 1) * 4 * M));
                v4_store(outr + q + k * S, v.r);
                v4_store(outi + q + k * S, v.i);
            };
            dft<R>(ld, st);
        }
    }
}

// The final stage: R points at stride S, no twiddles. Output k lies in
// [k S, (k + 1) S): the first half and one more are k <= R/2, the second
// half k >= R/2; the others (and their arithmetic) are left out.
template <int R, int S, class Out> void last_stage(const float *xr, const float *xi, Out out) noexcept
{
    for (int q = 0; q < S; q += 4)
        dft<R>([&](int j) { return cv{v4_load(xr + q + j * S), v4_load(xi + q + j * S)}; },
               [&](int k, cv v) {
                   if ((Out::keep == EAEC_KEEP_HEAD && k > R / 2) || (Out::keep == EAEC_KEEP_TAIL && k < R / 2))
                       return;
                   out.store(q + k * S, v);
               });
}

// Out for a forward transform whose result stays in the work area.
struct to_spare {};

// The stages after the first, sub-sequences of LEN points at stride S:
// they go back and forth between x and y; the last one writes out, or y
// for to_spare. Returns the buffer the result went to (y for to_spare).
template <int N, int LEN, int S, class Out>
split_io later_stages(split_io x, split_io y, const float *tw, Out out) noexcept
{
    if constexpr (LEN <= 8) {
        if constexpr (std::is_same_v<Out, to_spare>)
            last_stage<LEN, S>(x.r, x.i, y);
        else
            last_stage<LEN, S>(x.r, x.i, out);
        return y;
    } else {
        constexpr int R = radix_of(N, LEN), M = LEN / R;
        stage<R, M, S>(x.r, x.i, y.r, y.i, tw);
        return later_stages<N, M, S * R>(y, x, tw + 2 * (R - 1) * M * 4, out);
    }
}

// Complex forward transform of N points: the first stage reads `in` and
// writes a; the stages go back and forth between a and b.
template <int N, class In, class Out>
split_io cfft_n(const float *tw, In in, split_io a, split_io b, Out out) noexcept
{
    constexpr int R = radix_of(N, N), M = N / R;
    first_stage<R, M>(in, a.r, a.i, tw);
    return later_stages<N, M, R>(a, b, tw + 2 * (R - 1) * M, out);
}

template <class In, class Out>
split_io cfft(const eaec_fft_plan *p, const eaec_fft_steps &st, In in, split_io a, split_io b, Out out) noexcept
{
    const float *tw = p->stage_tw + st.tw;
    switch (st.len) {
    case 128: return cfft_n<128>(tw, in, a, b, out);
    case 256: return cfft_n<256>(tw, in, a, b, out);
    case 512: return cfft_n<512>(tw, in, a, b, out);
    default: return cfft_n<1024>(tw, in, a, b, out);
    }
}
} // namespace

int eaec_fft_plan_init(eaec_fft_plan *p, int n)
{
    if (n != 256 && n != 512 && n != 1024)
        return -1;
    p->n = n;
    p->half = n / 2;
    int off = 0;
    if (plan_steps(p, &p->cx_half, p->half, &off) != 0 || plan_steps(p, &p->cx_full, n, &off) != 0)
        return -1;
    const double two_pi = 6.283185307179586476925286766559;
    for (int k = 0; k <= p->half; k++) {
        const double a = -two_pi * double(k) / double(n);
        p->rot_re[k] = float(std::cos(a));
        p->rot_im[k] = float(std::sin(a));
    }
    return 0;
}

void eaec_rfft(const eaec_fft_plan *p, const float *x, float *re, float *im, float *work) noexcept
{
    const int h = p->half;
    const split_io z = cfft(p, p->cx_half, pairs_in{x}, split_io{work, work + h},
                            split_io{work + 2 * h, work + 3 * h}, to_spare{});
    const float *zr = z.r, *zi = z.i;
    re[0] = zr[0] + zi[0];
    im[0] = 0.0f;
    re[h] = zr[0] - zi[0];
    im[h] = 0.0f;
    const v4 half = v4_dup(0.5f);
    int k = 1;
    for (; k + 3 < h; k += 4) {
        const v4 a_r = v4_loadu(zr + k), a_i = v4_loadu(zi + k);
        const v4 b_r = v4_rev(v4_loadu(zr + h - k - 3)), b_i = v4_rev(v4_loadu(zi + h - k - 3));
        // b is conjugated: its imaginary part enters with the opposite sign.
        const v4 fer = v4_mul(half, v4_add(a_r, b_r)), fei = v4_mul(half, v4_sub(a_i, b_i));
        const v4 dr = v4_mul(half, v4_sub(a_r, b_r)), di = v4_mul(half, v4_add(a_i, b_i));
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

// The inverses use swap(fft(swap(Z))) = n ifft(Z), swap(a + i b) = b + i a:
// the input goes in with its halves swapped and scaled, the output is read
// swapped.
void eaec_irfft(const eaec_fft_plan *p, const float *re, const float *im, float *x, float *work) noexcept
{
    const int h = p->half;
    const float sc = 1.0f / float(h);
    float *ar = work, *ai = work + h;
    // Z = Fe + i Fo.
    ar[0] = 0.5f * (re[0] - re[h]) * sc;
    ai[0] = 0.5f * (re[0] + re[h]) * sc;
    const v4 hsc = v4_dup(0.5f * sc);
    int k = 1;
    for (; k + 3 < h; k += 4) {
        const v4 xr_ = v4_loadu(re + k), xi_ = v4_loadu(im + k);
        const v4 yr_ = v4_rev(v4_loadu(re + h - k - 3)), yi_ = v4_rev(v4_loadu(im + h - k - 3));
        const v4 fer = v4_add(xr_, yr_), fei = v4_sub(xi_, yi_);
        const v4 dr = v4_sub(xr_, yr_), di = v4_add(xi_, yi_);
        const v4 cr = v4_loadu(p->rot_re + k), ci = v4_loadu(p->rot_im + k);
        const v4 forr = v4_mma(dr, cr, di, ci), foi = v4_mms(di, cr, dr, ci);
        v4_storeu(ar + k, v4_mul(v4_add(fei, forr), hsc));
        v4_storeu(ai + k, v4_mul(v4_sub(fer, foi), hsc));
    }
    for (; k < h; k++) {
        const float xr_ = re[k], xi_ = im[k], yr_ = re[h - k], yi_ = -im[h - k];
        const float fer = 0.5f * (xr_ + yr_), fei = 0.5f * (xi_ + yi_);
        const float dr = 0.5f * (xr_ - yr_), di = 0.5f * (xi_ - yi_);
        const float cr = p->rot_re[k], ci = p->rot_im[k];
        const float forr = dr * cr + di * ci, foi = di * cr - dr * ci;
        ar[k] = (fei + forr) * sc;
        ai[k] = (fer - foi) * sc;
    }
    cfft(p, p->cx_half, split_in{ar, ai}, split_io{work + 2 * h, work + 3 * h}, split_io{ar, ai},
         swapped_pairs_out{x});
}

// Whether a[0..n-1] (n a multiple of 16) is all zeros; a NaN is not. It
// stops at the first block of sixteen that is not: soon, for most signals;
// the last block goes first, for a block of zeros followed by a frame.
static bool silent(const float *a, int n) noexcept
{
    const v4 zero = v4_dup(0.0f);
    const auto block_zero = [&](int k) {
        v4 sum = zero;
        for (int j = k; j < k + 16; j += 4) {
            const v4 u = v4_loadu(a + j);
            sum = v4_add(sum, v4_max(u, v4_sub(zero, u)));
        }
        return v4_hsum(sum) == 0.0f;
    };
    if (!block_zero(n - 16))
        return false;
    for (int k = 0; k < n - 16; k += 16)
        if (!block_zero(k))
            return false;
    return true;
}

// A pair transform leaks rounding noise of one member into the other; a
// member that is all zeros (a filter not yet adapted, digital silence)
// must come out exactly zero, as from a transform of its own.
static void zero_spectrum(float *re, float *im, int h) noexcept
{
    for (int k = 0; k <= h; k++)
        re[k] = im[k] = 0.0f;
}

// Z = X + i Y: X[k] = (Z[k] + conj Z[n-k]) / 2, Y[k] = (Z[k] - conj Z[n-k]) / 2i.
void eaec_rfft_pair(const eaec_fft_plan *p, const float *x, const float *y, float *x_re, float *x_im, float *y_re,
                    float *y_im, float *work, eaec_keep support) noexcept
{
    const int n = p->n, h = p->half;
    for (int j = 0; j < 2; j++) {
        if (silent(j ? y : x, n)) {
            if (!j && silent(y, n)) // both: no transform at all
                zero_spectrum(y_re, y_im, h);
            else
                eaec_rfft(p, j ? x : y, j ? x_re : y_re, j ? x_im : y_im, work);
            zero_spectrum(j ? y_re : x_re, j ? y_im : x_im, h);
            return;
        }
    }
    const split_io a{work, work + n}, b{work + 2 * n, work + 3 * n};
    const split_io z = support == EAEC_KEEP_HEAD ? cfft(p, p->cx_full, split_in_head{{x, y}}, a, b, to_spare{})
                                                 : cfft(p, p->cx_full, split_in{x, y}, a, b, to_spare{});
    const float *zr = z.r, *zi = z.i;
    for (int k : {0, h}) {
        x_re[k] = zr[k];
        y_re[k] = zi[k];
        x_im[k] = y_im[k] = 0.0f;
    }
    const v4 half = v4_dup(0.5f);
    int k = 1;
    for (; k + 3 < h; k += 4) {
        const v4 a_r = v4_loadu(zr + k), a_i = v4_loadu(zi + k);
        const v4 b_r = v4_rev(v4_loadu(zr + n - k - 3)), b_i = v4_rev(v4_loadu(zi + n - k - 3));
        v4_storeu(x_re + k, v4_mul(half, v4_add(a_r, b_r)));
        v4_storeu(x_im + k, v4_mul(half, v4_sub(a_i, b_i)));
        v4_storeu(y_re + k, v4_mul(half, v4_add(a_i, b_i)));
        v4_storeu(y_im + k, v4_mul(half, v4_sub(b_r, a_r)));
    }
    for (; k < h; k++) {
        const float a_r = zr[k], a_i = zi[k], b_r = zr[n - k], b_i = zi[n - k];
        x_re[k] = 0.5f * (a_r + b_r);
        x_im[k] = 0.5f * (a_i - b_i);
        y_re[k] = 0.5f * (a_i + b_i);
        y_im[k] = 0.5f * (b_r - a_r);
    }
}

// Z = X + i Y over all n bins (Z[n-k] from the conjugates), transformed
// back: x and y are its real and imaginary parts.
void eaec_irfft_pair(const eaec_fft_plan *p, const float *x_re, const float *x_im, const float *y_re,
                     const float *y_im, float *x, float *y, float *work, eaec_keep keep) noexcept
{
    const int n = p->n, h = p->half;
    const auto zero = [&](const float *re, const float *im) { // im[0], im[h] do not count
        bool z = re[h] == 0.0f && silent(re, h) && silent(im + 16, h - 16);
        for (int k = 1; k < 16; k++)
            z = z && im[k] == 0.0f;
        return z;
    };
    for (int j = 0; j < 2; j++) {
        if (zero(j ? y_re : x_re, j ? y_im : x_im)) {
            if (!j && zero(y_re, y_im)) { // both: no transform at all
                for (int t = 0; t < n; t++)
                    y[t] = 0.0f;
            } else {
                eaec_irfft(p, j ? x_re : y_re, j ? x_im : y_im, j ? x : y, work);
            }
            for (int t = 0; t < n; t++)
                (j ? y : x)[t] = 0.0f;
            return;
        }
    }
    const float sc = 1.0f / float(n);
    float *ar = work, *ai = work + n; // swap(Z) / n
    for (int k : {0, h}) {
        ar[k] = y_re[k] * sc;
        ai[k] = x_re[k] * sc;
    }
    const v4 vsc = v4_dup(sc);
    int k = 1;
    for (; k + 3 < h; k += 4) {
        const v4 xr = v4_loadu(x_re + k), xi = v4_loadu(x_im + k), yr = v4_loadu(y_re + k), yi = v4_loadu(y_im + k);
        v4_storeu(ar + k, v4_mul(vsc, v4_add(xi, yr)));
        v4_storeu(ai + k, v4_mul(vsc, v4_sub(xr, yi)));
        v4_storeu(ar + n - k - 3, v4_rev(v4_mul(vsc, v4_sub(yr, xi))));
        v4_storeu(ai + n - k - 3, v4_rev(v4_mul(vsc, v4_add(xr, yi))));
    }
    for (; k < h; k++) {
        ar[k] = (x_im[k] + y_re[k]) * sc;
        ai[k] = (x_re[k] - y_im[k]) * sc;
        ar[n - k] = (y_re[k] - x_im[k]) * sc;
        ai[n - k] = (x_re[k] + y_im[k]) * sc;
    }
    const split_io a{work + 2 * n, work + 3 * n}, b{ar, ai};
    if (keep == EAEC_KEEP_HEAD)
        cfft(p, p->cx_full, split_in{ar, ai}, a, b, split_io_keep<EAEC_KEEP_HEAD>{{y, x}});
    else if (keep == EAEC_KEEP_TAIL)
        cfft(p, p->cx_full, split_in{ar, ai}, a, b, split_io_keep<EAEC_KEEP_TAIL>{{y, x}});
    else
        cfft(p, p->cx_full, split_in{ar, ai}, a, b, split_io{y, x});
}
