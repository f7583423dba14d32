#include "daemon/mix.h"

#include "daemon/pelod.h"

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <type_traits>
#if defined(__ARM_NEON)
#include <arm_neon.h>
#endif

static_assert(std::is_standard_layout_v<mixout> && std::is_trivially_copyable_v<mixout>);

alignas(64) float mix_inp_storage[786432];
float *mix_inp;
float mix_gain[MIX_OUT_MAX][MIX_INP_MAX];
mixout mixouts[MIX_OUT_MAX];
float mix_out[96 * MIX_OUT_MAX];

const float float_to_int16 = 32767.0f;
const float float_to_int24 = 8388607.0f;
const float float_to_int32 = 2147483648.0f;
const float int16_to_float = std::bit_cast<float>(0x38000100u);
const float int24_to_float = std::bit_cast<float>(0x34000001u);
const float int32_to_float = std::bit_cast<float>(0x30000000u);

static_assert(sizeof(mix_inp_storage) >= 8192 * 48 * sizeof(float) + 32768);

void mix_inp_init()
{
    auto a = reinterpret_cast<uintptr_t>(mix_inp_storage);
    mix_inp = reinterpret_cast<float *>((a + 32767) & ~uintptr_t{32767});
}

void mix_init()
{
    std::memset(mix_gain, 0, sizeof mix_gain);
    std::memset(mixouts, 0, sizeof mixouts);
    for (mixout &m : mixouts)
        m.mode = MIX_OUT_UNUSED;
}

float int16_norm(int32_t x) noexcept { return float(x) * int16_to_float; }
float int24_norm(int32_t x) noexcept { return float(x) * int24_to_float; }

int32_t f2int32_sat(float x) noexcept
{
    if (!(x == x))
        return 0;
    if (x >= 2147483648.0f)
        return INT32_MAX;
    if (x <= -2147483648.0f)
        return INT32_MIN;
    return int32_t(x);
}

int32_t f2int24(float x) noexcept { return f2int32_sat(x * float_to_int24); }
int16_t f2int16(float x) noexcept { return int16_t(uint16_t(uint32_t(f2int32_sat(x * float_to_int16)))); }

float dB2lin(double dB) { return float(std::pow(10.0, dB * 0.05)); }

float gain_lin(float dB)
{
    if (!(dB > -100.0f))
        return 0.0f;
    return dB2lin(dB < 100.0f ? dB : 100.0f);
}

void mix_gain_set(int imix_out, int imix_inp, float g)
{
    mix_gain[imix_out][imix_inp] = g;
    calc_mix_mode(imix_out);
}

void calc_mix_mode(int imix)
{
    const float *row = mix_gain[imix];
    int first = 0;
    while (first < MIX_INP_MAX && row[first] == 0.0f)
        first++;
    int mode = first;
    if (first < MIX_INP_MAX - 1) {
        for (int i = MIX_INP_MAX - 1; i > first; i--)
            if (row[i] != 0.0f) {
                mode = MIX_OUT_MULTI;
                break;
            }
    }
    mixouts[imix].mode = mode;
}

// Two 4-lane accumulators, lanes added pairwise at the end: the order every
// implementation must follow so results compare bit for bit.
float vector64_portable(const float *a, const float *b, size_t n) noexcept
{
    float acc0[4] = {0, 0, 0, 0}, acc1[4] = {0, 0, 0, 0};
    for (size_t j = 0; j < n; j += 8)
        for (int l = 0; l < 4; l++) {
            acc0[l] += a[j + l] * b[j + l];
            acc1[l] += a[j + 4 + l] * b[j + 4 + l];
        }
    float s[4];
    for (int l = 0; l < 4; l++)
        s[l] = acc0[l] + acc1[l];
    return (s[0] + s[1]) + (s[2] + s[3]);
}

// The start-up line names the vector path of the target board.
const char *const vector64_impl = "NEON";

#if defined(__ARM_NEON)
float vector64(const float *a, const float *b, size_t n) noexcept
{
    float32x4_t acc0 = vdupq_n_f32(0.0f), acc1 = vdupq_n_f32(0.0f);
    for (size_t j = 0; j < n; j += 8) {
        // separate multiply and add: a fused multiply-add would round once
        // and differ from the portable order
        acc0 = vaddq_f32(acc0, vmulq_f32(vld1q_f32(a + j), vld1q_f32(b + j)));
        acc1 = vaddq_f32(acc1, vmulq_f32(vld1q_f32(a + j + 4), vld1q_f32(b + j + 4)));
    }
    float32x4_t s = vaddq_f32(acc0, acc1);
    float32x2_t p = vpadd_f32(vget_low_f32(s), vget_high_f32(s));
    return vget_lane_f32(p, 0) + vget_lane_f32(p, 1);
}
#else
float vector64(const float *a, const float *b, size_t n) noexcept
{
    return vector64_portable(a, b, n);
}
#endif

static float mix_clamp(float v) noexcept
{
    if (v > 1.0f)
        return 1.0f;
    if (!(v == v))
        return 0.0f; // a NaN would stick in every later gain stage
    return v < -1.0f ? -1.0f : v;
}

void do_dsp(uint32_t rtp_ts) noexcept
{
    // Output by output, so an unused output costs one column of zeros and
    // its mode is looked at once per block, not once per sample.
    for (int o = 0; o < MIX_OUT_MAX; o++) {
        const int m = mixouts[o].mode;
        float *out = mix_out + o;
        if (m == MIX_OUT_MULTI) {
            for (int k = 0; k < MIX_BLOCK; k++)
                out[k * MIX_OUT_MAX] = mix_clamp(vector64(mix_slot(rtp_ts + uint32_t(k), 0), mix_gain[o], MIX_INP_MAX));
        } else if (m >= 0 && m < MIX_INP_MAX) {
            for (int k = 0; k < MIX_BLOCK; k++)
                out[k * MIX_OUT_MAX] = mix_clamp(*mix_slot(rtp_ts + uint32_t(k), m) * mix_gain[o][m]);
        } else {
            for (int k = 0; k < MIX_BLOCK; k++)
                out[k * MIX_OUT_MAX] = 0.0f;
        }
    }
    for (int k = 0; k < MIX_BLOCK; k++)
        std::memset(mix_slot(rtp_ts + uint32_t(k), 0), 0, MIX_INP_MAX * sizeof(float)); // consumed
}

int mix_ref(const char *id)
{
    for (int i = 0; i < MIX_OUT_MAX; i++)
        if (strcmp(mixouts[i].id, id) == 0)
            return i;
    for (int i = 0; i < MIX_OUT_MAX; i++)
        if (mixouts[i].id[0] == '\0') {
            snprintf(mixouts[i].id, sizeof mixouts[i].id, "%s", id);
            if (debug)
                printf("+ mix  %s\n", id);
            return i;
        }
    return -1;
}

static bool mix_used_by_stream(int j)
{
    for (const rtp_src *s = rtp_srcs; s; s = s->next)
        if ((s->nchn > 0 && s->mix[0] == j) || (s->nchn != 1 && s->mix[1] == j))
            return true;
    return false;
}

void mixs_prune()
{
    for (int j = 0; j < MIX_OUT_MAX; j++) {
        if (mixouts[j].id[0] == '\0')
            continue;
        bool gain = false;
        for (float g : mix_gain[j])
            gain = gain || g != 0.0f;
        if (gain || mix_used_by_stream(j))
            continue;
        if (debug)
            printf("- mix  %s\n", mixouts[j].id);
        mixouts[j].id[0] = '\0';
    }
}
