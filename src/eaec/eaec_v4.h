// Four float lanes for the canceller's per-bin and FFT loops: NEON q
// registers on the board (intrinsics: GCC keeps generic float vectors off
// NEON there, NEON not being IEEE-exact for denormals), GCC vectors (SSE)
// elsewhere. Every pointer handed to v4_load/v4_store is 16-byte aligned.
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
#else
typedef float v4 __attribute__((vector_size(16)));
inline v4 v4_load(const float *p) noexcept { return *reinterpret_cast<const v4 *>(p); }
inline void v4_store(float *p, v4 v) noexcept { *reinterpret_cast<v4 *>(p) = v; }
inline v4 v4_dup(float x) noexcept { return v4{x, x, x, x}; }
inline v4 v4_add(v4 a, v4 b) noexcept { return a + b; }
inline v4 v4_sub(v4 a, v4 b) noexcept { return a - b; }
inline v4 v4_mul(v4 a, v4 b) noexcept { return a * b; }
#endif
// a * b - c * d and a * b + c * d, the two halves of a complex product.
inline v4 v4_mms(v4 a, v4 b, v4 c, v4 d) noexcept { return v4_sub(v4_mul(a, b), v4_mul(c, d)); }
inline v4 v4_mma(v4 a, v4 b, v4 c, v4 d) noexcept { return v4_add(v4_mul(a, b), v4_mul(c, d)); }
