#include "daemon/mix.h"
#include "support/alloc_count.h"

#include <array>
#include <bit>
#include <cstring>
#include <gtest/gtest.h>
#include <random>

namespace {
class MixEmpty : public ::testing::Test { // state: start-up done, nothing routed
protected:
    void SetUp() override
    {
        mix_inp_init();
        std::memset(mix_inp, 0, 8192 * 48 * sizeof(float));
        mix_init();
    }
    static float out(int k, int o) { return mix_out[k * MIX_OUT_MAX + o]; }
};

TEST(MixConstants, BitPatternsAreExact)
{
    EXPECT_EQ(std::bit_cast<uint32_t>(int16_to_float), 0x38000100u);
    EXPECT_EQ(std::bit_cast<uint32_t>(int24_to_float), 0x34000001u);
    EXPECT_EQ(std::bit_cast<uint32_t>(int32_to_float), 0x30000000u);
    EXPECT_EQ(float_to_int24, 8388607.0f);
    EXPECT_EQ(float_to_int32, 2147483648.0f);
}

TEST(MixConstants, RingIsAlignedInsideItsStorage)
{
    mix_inp_init();
    EXPECT_EQ(reinterpret_cast<uintptr_t>(mix_inp) % 32768, 0u);
    EXPECT_GE(mix_inp, mix_inp_storage);
    EXPECT_LE(mix_inp + 8192 * 48, mix_inp_storage + std::size(mix_inp_storage));
}

TEST(MixConversions, SaturateAndTruncate)
{
    EXPECT_EQ(f2int24(1.0f), 8388607);
    EXPECT_EQ(f2int24(-0.99999994f), -8388606); // truncated toward zero
    EXPECT_EQ(f2int24(1000.0f), INT32_MAX);
    EXPECT_EQ(f2int24(-1000.0f), INT32_MIN);
    EXPECT_EQ(f2int16(1.0f), 32767);
    EXPECT_EQ(f2int16(1.5f), int16_t(49150 - 65536)); // no 16-bit saturation: wraps
    EXPECT_EQ(dB2lin(0.0f), 1.0f);
    EXPECT_NEAR(dB2lin(-6.0f), 0.501187f, 1e-6);
    EXPECT_EQ(dB2lin(-20.0f), float(std::pow(10.0, -1.0)));
}

TEST_F(MixEmpty, ModesFollowTheNonZeroGains)
{
    EXPECT_EQ(mixouts[0].mode, MIX_OUT_UNUSED);
    mix_gain_set(0, 47, 0.5f);
    EXPECT_EQ(mixouts[0].mode, 47);
    mix_gain_set(0, 3, 0.5f);
    EXPECT_EQ(mixouts[0].mode, MIX_OUT_MULTI);
    mix_gain_set(0, 47, 0.0f);
    EXPECT_EQ(mixouts[0].mode, 3);
    mix_gain_set(0, 3, 0.0f);
    EXPECT_EQ(mixouts[0].mode, MIX_OUT_UNUSED);
    mix_gain_set(1, 0, 1.0f);
    mix_gain_set(1, 1, 1.0f);
    EXPECT_EQ(mixouts[1].mode, MIX_OUT_MULTI);
}

TEST_F(MixEmpty, SingleMultiAndUnusedOutputs)
{
    const uint32_t ts = 1000;
    for (int k = 0; k < 48; k++) {
        *mix_slot(ts + k, 2) = 0.25f;
        *mix_slot(ts + k, 5) = -0.125f;
    }
    mix_gain_set(0, 2, 2.0f);  // single
    mix_gain_set(1, 2, 1.0f);  // multi
    mix_gain_set(1, 5, 0.5f);
    do_dsp(ts);
    for (int k = 0; k < 48; k++) {
        EXPECT_EQ(out(k, 0), 0.5f);
        EXPECT_EQ(out(k, 1), 0.25f - 0.0625f);
        EXPECT_EQ(out(k, 2), 0.0f);
    }
}

TEST_F(MixEmpty, OutputsClipAtFullScale)
{
    *mix_slot(10, 0) = 0.8f;
    *mix_slot(11, 0) = -0.8f;
    mix_gain_set(0, 0, 2.0f);
    mix_gain_set(1, 0, 2.0f);
    mix_gain_set(1, 1, 1.0f);
    do_dsp(10);
    EXPECT_EQ(out(0, 0), 1.0f);
    EXPECT_EQ(out(1, 0), -1.0f);
    EXPECT_EQ(out(0, 1), 1.0f);
    EXPECT_EQ(out(1, 1), -1.0f);
}

TEST_F(MixEmpty, ConsumedRowsReadAsSilenceAfterTheRingWraps)
{
    const uint32_t ts = 8192 * 3 - 24; // the block straddles the ring's end
    for (int k = 0; k < 48; k++)
        *mix_slot(ts + k, 7) = 0.5f;
    mix_gain_set(4, 7, 1.0f);
    do_dsp(ts);
    EXPECT_EQ(out(47, 4), 0.5f);
    do_dsp(ts + 8192); // same rows one ring later: nobody wrote them
    for (int k = 0; k < 48; k++)
        EXPECT_EQ(out(k, 4), 0.0f);
}

TEST_F(MixEmpty, MixingAllocatesNothing)
{
    mix_gain_set(0, 1, 1.0f);
    mix_gain_set(0, 2, 1.0f);
    alloc_count_start();
    do_dsp(0);
    EXPECT_EQ(alloc_count_stop(), 0);
}

// The dot product in the documented order: the NEON path and the portable
// path must both give exactly these bits.
float dot_reference(const float *a, const float *b, size_t n)
{
    std::array<float, 4> p{}, q{};
    for (size_t j = 0; j < n; j += 8)
        for (size_t l = 0; l < 4; l++) {
            p[l] = p[l] + a[j + l] * b[j + l];
            q[l] = q[l] + a[j + 4 + l] * b[j + 4 + l];
        }
    const float s0 = p[0] + q[0], s1 = p[1] + q[1], s2 = p[2] + q[2], s3 = p[3] + q[3];
    return (s0 + s1) + (s2 + s3);
}

TEST(Vector64, MatchesTheReferenceOrderBitForBit)
{
    std::mt19937 rng(42);
    std::uniform_real_distribution<float> d(-1.0f, 1.0f);
    for (int trial = 0; trial < 2000; trial++) {
        std::array<float, 48> a, b;
        for (size_t i = 0; i < 48; i++) {
            a[i] = d(rng);
            b[i] = d(rng) * float(1 << (trial % 8));
        }
        const float want = dot_reference(a.data(), b.data(), 48);
        ASSERT_EQ(std::bit_cast<uint32_t>(vector64(a.data(), b.data(), 48)), std::bit_cast<uint32_t>(want));
        ASSERT_EQ(std::bit_cast<uint32_t>(vector64_portable(a.data(), b.data(), 48)),
                  std::bit_cast<uint32_t>(want));
    }
}
} // namespace
