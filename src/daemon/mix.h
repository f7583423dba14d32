// Mixing core: the mix input ring indexed by RTP time, the gain matrix of
// 16 outputs by 48 inputs, and the per-block mixing step.
#pragma once
#include "daemon/records.h"

#include <cstddef>
#include <cstdint>

extern const float float_to_int16; // 32767.0
extern const float float_to_int24; // 8388607.0
extern const float float_to_int32; // 2147483648.0
extern const float int16_to_float; // 1/32767, bits 0x38000100
extern const float int24_to_float; // 1/8388607, bits 0x34000001
extern const float int32_to_float; // 2^-31, bits 0x30000000

// [init] Aligns mix_inp inside mix_inp_storage.
void mix_inp_init();
// [init] Clears the gains and outputs; every output's mode becomes 48.
void mix_init();
// [rt] The ring slot of input i at RTP time t.
inline float *mix_slot(uint32_t t, int i) noexcept
{ return mix_inp + (t & MIX_RING_MASK) * MIX_INP_MAX + i; }

float int16_norm(int32_t x) noexcept;
float int24_norm(int32_t x) noexcept;
// x * 8388607 as int32, truncated toward zero, saturating.
int32_t f2int24(float x) noexcept;
// x * 32767 as int32 (truncated, saturating), then its low 16 bits.
int16_t f2int16(float x) noexcept;
// Float to int32, truncated toward zero, saturating at the int32 range.
int32_t f2int32_sat(float x) noexcept;

// [sup][rt] 10^(dB * 0.05) in double precision, rounded to float.
float dB2lin(double dB);
// [sup] A configured gain as a factor: -100 dB or less (and a NaN) mutes,
// more than +100 dB is held at +100 dB, so no gain is ever infinite.
float gain_lin(float dB);

// Largest magnitude a ring sample may have: 6 dB above full scale, which
// no sane input reaches (PCM and the microphone stay within full scale).
inline constexpr float SAMPLE_BOUND = 2.0f;
// [rt] v held within +-bound, a NaN as 0; v itself whenever it is inside.
inline float sample_bound(float v, float bound = SAMPLE_BOUND) noexcept
{
    if (!(v == v))
        return 0.0f;
    return v > bound ? bound : v < -bound ? -bound : v;
}
// [sup] Sets one gain and recomputes that output's mode.
void mix_gain_set(int imix_out, int imix_inp, float g);
// [sup] Recomputes mixouts[imix].mode from row imix of mix_gain.
void calc_mix_mode(int imix);
// [sup] Mix output named id, created in the lowest free slot; -1 if full.
int mix_ref(const char *id);
// [sup] Frees mix outputs with no gain and no outgoing stream.
void mixs_prune();
// [rt] Dot product of n floats (n a multiple of 8) in the fixed order of
// two 4-lane accumulators; NEON where available, bit-identical portable
// code elsewhere.
float vector64(const float *a, const float *b, size_t n) noexcept;
float vector64_portable(const float *a, const float *b, size_t n) noexcept;
// Name of the vector implementation in use, for the start-up line.
extern const char *const vector64_impl;
// [rt] Mixes the block at rtp_ts into mix_out rows 0..47 and clears the
// consumed ring rows.
void do_dsp(uint32_t rtp_ts) noexcept;
