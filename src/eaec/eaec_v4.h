// Four float lanes for the canceller's per-bin and FFT loops: NEON q
// registers on the board, SSE on x86, plain four-float records on anything
// else; intrinsics only, so every compiler builds them alike. Every pointer handed to v4_load/v4_store is 16-byte aligned;
// the u forms and the (de)interleaving ones take any float pointer.
#pragma once
#include <cmath>
#include <cstdint>
#if defined(__ARM_NEON)
#include <arm_neon.h>
typedef float32x4_t v4;
inline v4 v4_load(const float *p) noexcept { return vld1q_f32(p); }
inline void v4_store(float *p, v4 v) noexcept { vst1q_f32(p, v); }
inline v4 v4_dup(float x) noexcept { return vdupq_n_f32(x); }
inline v4 v4_add(v4 a, v4 b) noexcept { return vaddq_f32(a, b); }
inline v4 v4_sub(v4 a, v4 b) noexcept { return vsubq_f32(a, b); }
inline v4 v4_mul(v4 a, v4 b) noexcept { return vmulq_f32(a, b); }
inline v4 v4_loadu(const float *p) noexcept { return vld1q_f32(p); }
inline void v4_storeu(float *p, v4 v) noexcept { vst1q_f32(p, v); }
// Lanes in reverse order.
inline v4 v4_rev(v4 v) noexcept
{
    const float32x4_t r = vrev64q_f32(v);
    return vcombine_f32(vget_high_f32(r), vget_low_f32(r));
}
// dst[4i + j] = lane i of the j-th vector.
inline void v4_store_interleaved(float *dst, v4 a, v4 b, v4 c, v4 d) noexcept
{
    float32x4x4_t q = {{a, b, c, d}};
    vst4q_f32(dst, q);
}
// Rows become columns: afterwards a holds lane 0 of the four inputs, etc.
inline void v4_transpose(v4 &a, v4 &b, v4 &c, v4 &d) noexcept
{
    const float32x4x2_t ab = vtrnq_f32(a, b), cd = vtrnq_f32(c, d);
    a = vcombine_f32(vget_low_f32(ab.val[0]), vget_low_f32(cd.val[0]));
    b = vcombine_f32(vget_low_f32(ab.val[1]), vget_low_f32(cd.val[1]));
    c = vcombine_f32(vget_high_f32(ab.val[0]), vget_high_f32(cd.val[0]));
    d = vcombine_f32(vget_high_f32(ab.val[1]), vget_high_f32(cd.val[1]));
}
// Even and odd elements of src[0..7].
inline void v4_load_deinterleaved(const float *src, v4 *even, v4 *odd) noexcept
{
    const float32x4x2_t q = vld2q_f32(src);
    *even = q.val[0];
    *odd = q.val[1];
}
inline void v4_store_pairs(float *dst, v4 even, v4 odd) noexcept
{
    float32x4x2_t q = {{even, odd}};
    vst2q_f32(dst, q);
}
inline v4 v4_min(v4 a, v4 b) noexcept { return vminq_f32(a, b); }
// The four lanes, truncated towards zero, as 16-bit values (lanes in range).
inline void v4_store_i16(int16_t *dst, v4 v) noexcept { vst1_s16(dst, vmovn_s32(vcvtq_s32_f32(v))); }
inline v4 v4_max(v4 a, v4 b) noexcept { return vmaxq_f32(a, b); }
// a < b ? x : y, lane by lane.
inline v4 v4_select_lt(v4 a, v4 b, v4 x, v4 y) noexcept { return vbslq_f32(vcltq_f32(a, b), x, y); }
// a / b for b > 0: reciprocal estimate and two Newton steps (ARMv7 has no
// vector division).
inline v4 v4_div(v4 a, v4 b) noexcept
{
    v4 r = vrecpeq_f32(b);
    r = vmulq_f32(vrecpsq_f32(b, r), r);
    r = vmulq_f32(vrecpsq_f32(b, r), r);
    return vmulq_f32(a, r);
}
// sqrt(x) for x >= 0, from the reciprocal square root and two Newton
// steps; 0 (whose estimate is infinite) stays 0.
inline v4 v4_sqrt(v4 x) noexcept
{
    v4 r = vrsqrteq_f32(x);
    r = vmulq_f32(r, vrsqrtsq_f32(vmulq_f32(x, r), r));
    r = vmulq_f32(r, vrsqrtsq_f32(vmulq_f32(x, r), r));
    return vbslq_f32(vcgtq_f32(x, vdupq_n_f32(0.0f)), vmulq_f32(x, r), vdupq_n_f32(0.0f));
}
#elif defined(__SSE2__)
#include <emmintrin.h>
typedef __m128 v4;
inline v4 v4_load(const float *p) noexcept { return _mm_load_ps(p); }
inline void v4_store(float *p, v4 v) noexcept { _mm_store_ps(p, v); }
inline v4 v4_dup(float x) noexcept { return _mm_set1_ps(x); }
inline v4 v4_add(v4 a, v4 b) noexcept { return _mm_add_ps(a, b); }
inline v4 v4_sub(v4 a, v4 b) noexcept { return _mm_sub_ps(a, b); }
inline v4 v4_mul(v4 a, v4 b) noexcept { return _mm_mul_ps(a, b); }
inline v4 v4_loadu(const float *p) noexcept { return _mm_loadu_ps(p); }
inline void v4_storeu(float *p, v4 v) noexcept { _mm_storeu_ps(p, v); }
inline v4 v4_rev(v4 v) noexcept { return _mm_shuffle_ps(v, v, _MM_SHUFFLE(0, 1, 2, 3)); }
inline void v4_transpose(v4 &a, v4 &b, v4 &c, v4 &d) noexcept { _MM_TRANSPOSE4_PS(a, b, c, d); }
inline void v4_store_interleaved(float *dst, v4 a, v4 b, v4 c, v4 d) noexcept
{
    _MM_TRANSPOSE4_PS(a, b, c, d);
    _mm_storeu_ps(dst, a);
    _mm_storeu_ps(dst + 4, b);
    _mm_storeu_ps(dst + 8, c);
    _mm_storeu_ps(dst + 12, d);
}
inline void v4_load_deinterleaved(const float *src, v4 *even, v4 *odd) noexcept
{
    const v4 a = _mm_loadu_ps(src), b = _mm_loadu_ps(src + 4);
    *even = _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
    *odd = _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
}
inline void v4_store_pairs(float *dst, v4 even, v4 odd) noexcept
{
    _mm_storeu_ps(dst, _mm_unpacklo_ps(even, odd));
    _mm_storeu_ps(dst + 4, _mm_unpackhi_ps(even, odd));
}
inline v4 v4_min(v4 a, v4 b) noexcept { return _mm_min_ps(a, b); }
inline void v4_store_i16(int16_t *dst, v4 v) noexcept
{
    const __m128i i = _mm_cvttps_epi32(v);
    _mm_storel_epi64(reinterpret_cast<__m128i *>(dst), _mm_packs_epi32(i, i));
}
inline v4 v4_max(v4 a, v4 b) noexcept { return _mm_max_ps(a, b); }
inline v4 v4_select_lt(v4 a, v4 b, v4 x, v4 y) noexcept
{
    const v4 m = _mm_cmplt_ps(a, b);
    return _mm_or_ps(_mm_and_ps(m, x), _mm_andnot_ps(m, y));
}
inline v4 v4_div(v4 a, v4 b) noexcept { return _mm_div_ps(a, b); }
inline v4 v4_sqrt(v4 x) noexcept { return _mm_sqrt_ps(x); }
#else
// Plain four-float records elsewhere: the same results lane by lane.
struct v4 {
    float l[4];
};
template <typename F> inline v4 v4_map(v4 a, v4 b, F f) noexcept
{
    return v4{{f(a.l[0], b.l[0]), f(a.l[1], b.l[1]), f(a.l[2], b.l[2]), f(a.l[3], b.l[3])}};
}
inline v4 v4_load(const float *p) noexcept { return v4{{p[0], p[1], p[2], p[3]}}; }
inline void v4_store(float *p, v4 v) noexcept
{
    for (int i = 0; i < 4; i++)
        p[i] = v.l[i];
}
inline v4 v4_dup(float x) noexcept { return v4{{x, x, x, x}}; }
inline v4 v4_add(v4 a, v4 b) noexcept { return v4_map(a, b, [](float x, float y) { return x + y; }); }
inline v4 v4_sub(v4 a, v4 b) noexcept { return v4_map(a, b, [](float x, float y) { return x - y; }); }
inline v4 v4_mul(v4 a, v4 b) noexcept { return v4_map(a, b, [](float x, float y) { return x * y; }); }
inline v4 v4_loadu(const float *p) noexcept { return v4_load(p); }
inline void v4_storeu(float *p, v4 v) noexcept { v4_store(p, v); }
inline v4 v4_rev(v4 v) noexcept { return v4{{v.l[3], v.l[2], v.l[1], v.l[0]}}; }
inline void v4_transpose(v4 &a, v4 &b, v4 &c, v4 &d) noexcept
{
    const v4 r[4] = {a, b, c, d};
    v4 *out[4] = {&a, &b, &c, &d};
    for (int i = 0; i < 4; i++)
        *out[i] = v4{{r[0].l[i], r[1].l[i], r[2].l[i], r[3].l[i]}};
}
inline void v4_store_interleaved(float *dst, v4 a, v4 b, v4 c, v4 d) noexcept
{
    for (int i = 0; i < 4; i++) {
        dst[4 * i] = a.l[i];
        dst[4 * i + 1] = b.l[i];
        dst[4 * i + 2] = c.l[i];
        dst[4 * i + 3] = d.l[i];
    }
}
inline void v4_load_deinterleaved(const float *src, v4 *even, v4 *odd) noexcept
{
    *even = v4{{src[0], src[2], src[4], src[6]}};
    *odd = v4{{src[1], src[3], src[5], src[7]}};
}
inline void v4_store_pairs(float *dst, v4 even, v4 odd) noexcept
{
    for (int i = 0; i < 4; i++) {
        dst[2 * i] = even.l[i];
        dst[2 * i + 1] = odd.l[i];
    }
}
inline v4 v4_min(v4 a, v4 b) noexcept { return v4_map(a, b, [](float x, float y) { return x < y ? x : y; }); }
inline void v4_store_i16(int16_t *dst, v4 v) noexcept
{
    for (int i = 0; i < 4; i++)
        dst[i] = int16_t(int(v.l[i]));
}
inline v4 v4_max(v4 a, v4 b) noexcept { return v4_map(a, b, [](float x, float y) { return x > y ? x : y; }); }
inline v4 v4_select_lt(v4 a, v4 b, v4 x, v4 y) noexcept
{
    return v4{{a.l[0] < b.l[0] ? x.l[0] : y.l[0], a.l[1] < b.l[1] ? x.l[1] : y.l[1], a.l[2] < b.l[2] ? x.l[2] : y.l[2],
               a.l[3] < b.l[3] ? x.l[3] : y.l[3]}};
}
inline v4 v4_div(v4 a, v4 b) noexcept { return v4_map(a, b, [](float x, float y) { return x / y; }); }
inline v4 v4_sqrt(v4 x) noexcept { return v4_map(x, x, [](float a, float) { return std::sqrt(a); }); }
#endif
// Sum of the four lanes, in a fixed order.
inline float v4_hsum(v4 v) noexcept
{
    float l[4];
    v4_storeu(l, v);
    return (l[0] + l[1]) + (l[2] + l[3]);
}
// a * b - c * d and a * b + c * d, the two halves of a complex product.
inline v4 v4_mms(v4 a, v4 b, v4 c, v4 d) noexcept { return v4_sub(v4_mul(a, b), v4_mul(c, d)); }
inline v4 v4_mma(v4 a, v4 b, v4 c, v4 d) noexcept { return v4_add(v4_mul(a, b), v4_mul(c, d)); }
