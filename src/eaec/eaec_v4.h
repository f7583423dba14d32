// Four float lanes for the canceller's per-bin and FFT loops: NEON q
// registers on the board (intrinsics: GCC keeps generic float vectors off
// NEON there, NEON not being IEEE-exact for denormals), GCC vectors (SSE)
// elsewhere. Every pointer handed to v4_load/v4_store is 16-byte aligned;
// the u forms and the (de)interleaving ones take any float pointer.
#pragma once
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
#else
typedef float v4 __attribute__((vector_size(16)));
inline v4 v4_load(const float *p) noexcept { return *reinterpret_cast<const v4 *>(p); }
inline void v4_store(float *p, v4 v) noexcept { *reinterpret_cast<v4 *>(p) = v; }
inline v4 v4_dup(float x) noexcept { return v4{x, x, x, x}; }
inline v4 v4_add(v4 a, v4 b) noexcept { return a + b; }
inline v4 v4_sub(v4 a, v4 b) noexcept { return a - b; }
inline v4 v4_mul(v4 a, v4 b) noexcept { return a * b; }
inline v4 v4_loadu(const float *p) noexcept
{
    v4 v;
    __builtin_memcpy(&v, p, sizeof v);
    return v;
}
inline void v4_storeu(float *p, v4 v) noexcept { __builtin_memcpy(p, &v, sizeof v); }
typedef int v4i __attribute__((vector_size(16)));
inline v4 v4_rev(v4 v) noexcept { return __builtin_shuffle(v, v4i{3, 2, 1, 0}); }
inline void v4_store_interleaved(float *dst, v4 a, v4 b, v4 c, v4 d) noexcept
{
    const v4 ab_lo = __builtin_shuffle(a, b, v4i{0, 4, 1, 5}), ab_hi = __builtin_shuffle(a, b, v4i{2, 6, 3, 7});
    const v4 cd_lo = __builtin_shuffle(c, d, v4i{0, 4, 1, 5}), cd_hi = __builtin_shuffle(c, d, v4i{2, 6, 3, 7});
    v4_storeu(dst, __builtin_shuffle(ab_lo, cd_lo, v4i{0, 1, 4, 5}));
    v4_storeu(dst + 4, __builtin_shuffle(ab_lo, cd_lo, v4i{2, 3, 6, 7}));
    v4_storeu(dst + 8, __builtin_shuffle(ab_hi, cd_hi, v4i{0, 1, 4, 5}));
    v4_storeu(dst + 12, __builtin_shuffle(ab_hi, cd_hi, v4i{2, 3, 6, 7}));
}
inline void v4_load_deinterleaved(const float *src, v4 *even, v4 *odd) noexcept
{
    const v4 a = v4_loadu(src), b = v4_loadu(src + 4);
    *even = __builtin_shuffle(a, b, v4i{0, 2, 4, 6});
    *odd = __builtin_shuffle(a, b, v4i{1, 3, 5, 7});
}
inline void v4_store_pairs(float *dst, v4 even, v4 odd) noexcept
{
    v4_storeu(dst, __builtin_shuffle(even, odd, v4i{0, 4, 1, 5}));
    v4_storeu(dst + 4, __builtin_shuffle(even, odd, v4i{2, 6, 3, 7}));
}
#endif
#if defined(__ARM_NEON)
inline v4 v4_min(v4 a, v4 b) noexcept { return vminq_f32(a, b); }
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
#else
inline v4 v4_min(v4 a, v4 b) noexcept { return a < b ? a : b; }
inline v4 v4_max(v4 a, v4 b) noexcept { return a > b ? a : b; }
inline v4 v4_select_lt(v4 a, v4 b, v4 x, v4 y) noexcept { return a < b ? x : y; }
inline v4 v4_div(v4 a, v4 b) noexcept { return a / b; }
inline v4 v4_sqrt(v4 x) noexcept
{
#if defined(__SSE__)
    return __builtin_ia32_sqrtps(x);
#else
    return v4{__builtin_sqrtf(x[0]), __builtin_sqrtf(x[1]), __builtin_sqrtf(x[2]), __builtin_sqrtf(x[3])};
#endif
}
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
