#include "audio/CG_LimCom_interface.h"
#include "support/limcom_params.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <numbers>
#include <tuple>
#include <vector>

namespace {
// Runs n samples of x through a one-channel limiter; returns the last
// output, and appends the envelope after each block to env.
template <class F> float run1(LimCom_Instance &l, int n, F x, std::vector<double> *env = nullptr)
{
    for (int b = 0; b < n / 48; b++) {
        for (int k = 0; k < 48; k++)
            l.inputBuffer[k] = x(b * 48 + k);
        CG_limcom_process(&l);
        if (env)
            env->push_back(l.instance.m1.DW.Delay_DSTATE);
    }
    return l.outputBuffer[47];
}
float constant(int) { return 0.35f; }

class LimCom1ch : public ::testing::Test { // state: enabled, defaults
protected:
    void SetUp() override
    {
        const limcom_params p = lce(10, 250, 0.7, 1);
        CG_limcom_init_instance(&l, &p, 1);
    }
    LimCom_Instance l{};
};

TEST_F(LimCom1ch, AttackAndReleaseFollowTheirTimeConstants)
{
    std::vector<double> env;
    run1(l, 48 * 300, [](int) { return 1.4f; }, &env);
    EXPECT_NEAR(env[9], 2.0 * (1.0 - std::exp(-1.0)), 0.003); // 10 ms = 10 blocks
    EXPECT_NEAR(env.back(), 2.0, 1e-6);
    env.clear();
    run1(l, 48 * 250, constant, &env);
    EXPECT_NEAR(env[249], 0.5 + 1.5 * std::exp(-1.0), 0.003); // 250 ms from 2.0 toward 0.5
}

class LimCom1chRatio : public ::testing::TestWithParam<double> {};
TEST_P(LimCom1chRatio, GainIsOneOverOnePlusRatioTimesTheExcess)
{
    const double R = GetParam();
    LimCom_Instance l{};
    const limcom_params p = lce(1, 50, 0.7, R);
    for (double level : {1.4, 2.1, 3.5}) { // 2, 3 and 5 times the threshold
        CG_limcom_init_instance(&l, &p, 1);
        const float y = run1(l, 48 * 200, [&](int) { return float(level); });
        EXPECT_NEAR(y, level * 0.25 / 0.7 / (1.0 + R * (level / 0.7 - 1.0)), 1e-6) << "level " << level;
    }
}
INSTANTIATE_TEST_SUITE_P(Ratios, LimCom1chRatio, ::testing::Values(1.0, 2.0, 4.0, 10.0));

// Fingerprint (FNV-1a of the output bits) of 2000 blocks of a triangle
// wave whose level steps across the threshold: every build, x86 or the
// board's, must give these same bits.
uint64_t fingerprint(int nchan)
{
    LimCom_Instance l{};
    const limcom_params p = nchan == 1 ? lce(5, 100, 0.5, 4) : lce(30, 25, 0.5, 4);
    CG_limcom_init_instance(&l, &p, nchan);
    uint64_t h = 1469598103934665603ull;
    for (int b = 0; b < 2000; b++) {
        for (int j = 0; j < 96; j++) {
            const int t = b * 48 + j % 48 + 17 * (j / 48);
            const float level = 0.25f * float(1 + (t / 4800 + j / 48) % 3);
            l.inputBuffer[j] = level * float(std::abs(t % 64 - 32) - 16) / 16.0f;
        }
        CG_limcom_process(&l);
        for (int j = 0; j < 48 * nchan; j++)
            h = (h ^ std::bit_cast<uint32_t>(l.outputBuffer[j])) * 1099511628211ull;
    }
    return h;
}

TEST(LimComGolden, OutputBitsAreTheSameOnEveryBuild)
{
    EXPECT_EQ(fingerprint(1), 0x611993bc8e6871b2ull);
    EXPECT_EQ(fingerprint(2), 0x8b16deb5eb25ebe3ull);
}
} // namespace
