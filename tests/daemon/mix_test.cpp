#include "daemon/mix.h"
#include "support/alloc_count.h"
#include "support/cycle_tables.h"

#include <array>
#include <algorithm>
#include <bit>
#include <cmath>
#include <gtest/gtest.h>
#include <random>

namespace {
class MixEmpty : public ::testing::Test { // state: start-up done, nothing routed
protected:
    void SetUp() override { reset_cycle_tables(); }
    static float out(int k, int o) { return mix_out[k * MIX_OUT_MAX + o]; }
};

TEST_F(MixEmpty, ModesFollowTheNonZeroGains)
{
    const std::pair<int, float> steps[] = {{47, 0.5f}, {3, 0.5f}, {47, 0.0f}, {3, 0.0f}, {0, 1.0f}, {1, 1.0f}};
    const int modes[] = {47, MIX_OUT_MULTI, 3, MIX_OUT_UNUSED, 0, MIX_OUT_MULTI};
    EXPECT_EQ(mixouts[0].mode, MIX_OUT_UNUSED);
    for (size_t n = 0; n < std::size(steps); n++) {
        mix_gain_set(0, steps[n].first, steps[n].second);
        EXPECT_EQ(mixouts[0].mode, modes[n]) << n;
    }
}

TEST_F(MixEmpty, SingleMultiAndUnusedOutputsClipAtFullScale)
{
    const uint32_t ts = 1000;
    for (int k = 0; k < 48; k++) {
        *mix_slot(ts + k, 2) = k == 0 ? 0.8f : k == 1 ? -0.8f : k == 2 ? NAN : 0.25f; // a NaN mixes as silence
        *mix_slot(ts + k, 5) = -0.125f;
    }
    mix_gain_set(0, 2, 2.0f); // output 0: one input
    mix_gain_set(1, 2, 2.0f); // output 1: two; output 2: none
    mix_gain_set(1, 5, 0.5f);
    do_dsp(ts);
    const float want[4][3] = {{1, 1, 0}, {-1, -1, 0}, {0, 0, 0}, {0.5f, 0.4375f, 0}}; // k = 0, 1, 2, 3..47
    for (int k = 0; k < 48; k++)
        for (int o = 0; o < 3; o++)
            EXPECT_EQ(out(k, o), want[std::min(k, 3)][o]) << k << " " << o;
}

TEST_F(MixEmpty, ConsumedRowsReadAsSilenceAfterTheRingWraps)
{
    const uint32_t ts = 8192 * 3 - 24; // the block straddles the ring's end
    for (int k = 0; k < 48; k++)
        *mix_slot(ts + k, 7) = 0.5f;
    mix_gain_set(4, 7, 1.0f);
    mix_gain_set(4, 8, 1.0f); // several inputs: the whole row is consumed
    do_dsp(ts);
    EXPECT_EQ(out(47, 4), 0.5f);
    alloc_count_start();
    do_dsp(ts + 8192); // same rows one ring later: nobody wrote them
    EXPECT_EQ(alloc_count_stop(), 0);
    for (int k = 0; k < 48; k++)
        EXPECT_EQ(out(k, 4), 0.0f);
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
    return ((p[0] + q[0]) + (p[1] + q[1])) + ((p[2] + q[2]) + (p[3] + q[3]));
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
        const uint32_t want = std::bit_cast<uint32_t>(dot_reference(a.data(), b.data(), 48));
        ASSERT_EQ(std::bit_cast<uint32_t>(vector64(a.data(), b.data(), 48)), want);
        ASSERT_EQ(std::bit_cast<uint32_t>(vector64_portable(a.data(), b.data(), 48)), want);
    }
}
} // namespace
