#include "audio/CG_LimCom_interface.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <numbers>
#include <vector>

namespace {
limcom_params lce(double a, double r, double t, double ratio, int enable = 1)
{
    limcom_params p;
    std::memset(&p, 0, sizeof p); // padding too: instances compare it
    p.enable = enable;
    p.ch1 = 1;
    p.attack = a;
    p.release = r;
    p.threshold = t;
    p.ratio = ratio;
    return p;
}

// Runs n samples of x through a one-channel limiter; returns the last output.
template <class F> float run1(LimCom_Instance &l, int n, F x, std::vector<double> *env = nullptr)
{
    float last = 0.0f;
    for (int b = 0; b < n / 48; b++) {
        for (int k = 0; k < 48; k++)
            l.inputBuffer[k] = x(b * 48 + k);
        CG_limcom_process(&l);
        last = l.outputBuffer[47];
        if (env)
            env->push_back(l.instance.m1.DW.Delay_DSTATE);
    }
    return last;
}

class LimCom1ch : public ::testing::Test { // state: enabled, defaults
protected:
    void SetUp() override { init(lce(10, 250, 0.7, 1)); }
    void init(limcom_params p) { CG_limcom_init_instance(&l, &p, 1); }
    LimCom_Instance l{};
};

TEST_F(LimCom1ch, SteadyStateBelowThresholdKeepsTheFixedOutputScale)
{
    const float y = run1(l, 48 * 1000, [](int) { return 0.35f; });
    EXPECT_NEAR(l.instance.m1.DW.Delay_DSTATE, 0.35f / 0.7, 1e-12);
    EXPECT_NEAR(y, 0.35 * 0.25 / 0.7 / 1.0001, 1e-7);
    EXPECT_NEAR(y, 0.12499f, 1e-5f);
}

TEST_F(LimCom1ch, FirstSampleHasTheModelsPrecision)
{
    l.inputBuffer[0] = 0.35f;
    CG_limcom_process(&l);
    const float x = 0.35f;
    const double k = 1.0 / 0.7;
    const double e = std::fabs(x * k) * (1.0 / 480.0);
    EXPECT_EQ(l.outputBuffer[0], float(x * (k * 0.25) * (1.0 / (1.0 + 0.0001))));
    EXPECT_LT(e - 1.0, 0.0001); // below the floor of the over-threshold amount
}

TEST_F(LimCom1ch, AttackAndReleaseFollowTheirTimeConstants)
{
    std::vector<double> env;
    run1(l, 48 * 300, [](int) { return 1.4f; }, &env);
    // 10 ms = 480 samples = 10 blocks
    EXPECT_NEAR(env[9], 2.0 * (1.0 - std::exp(-1.0)), 0.003);
    EXPECT_NEAR(env.back(), 2.0, 1e-6);
    env.clear();
    run1(l, 48 * 250, [](int) { return 0.35f; }, &env);
    // 250 ms from 2.0 toward 0.5
    EXPECT_NEAR(env[249], 0.5 + 1.5 * std::exp(-1.0), 0.003);
}

class LimCom1chRatio : public ::testing::TestWithParam<double> {};
TEST_P(LimCom1chRatio, GainIsOneOverOnePlusRatioTimesTheExcess)
{
    const double R = GetParam();
    LimCom_Instance l{};
    limcom_params p = lce(1, 50, 0.7, R);
    for (double level : {1.4, 2.1, 3.5}) { // 2, 3 and 5 times the threshold
        CG_limcom_init_instance(&l, &p, 1);
        const float y = run1(l, 48 * 200, [&](int) { return float(level); });
        const double excess = level / 0.7 - 1.0;
        EXPECT_NEAR(y, level * 0.25 / 0.7 / (1.0 + R * excess), 1e-6) << "level " << level;
    }
}
INSTANTIATE_TEST_SUITE_P(Ratios, LimCom1chRatio, ::testing::Values(1.0, 2.0, 4.0, 10.0));

// Two-channel model; sines of amplitude a at f Hz.
std::array<float, 96> stereo_block(int b, double f0, double a0, double f1, double a1)
{
    std::array<float, 96> in{};
    for (int k = 0; k < 48; k++) {
        const double t = (b * 48 + k) / 48000.0;
        in[k] = float(a0 * std::sin(2 * std::numbers::pi * f0 * t));
        in[48 + k] = float(a1 * std::sin(2 * std::numbers::pi * f1 * t));
    }
    return in;
}

class LimCom2ch : public ::testing::Test { // state: enabled, defaults
protected:
    void SetUp() override
    {
        limcom_params p = lce(30, 25, 0.7, 1);
        CG_limcom_init_instance(&l, &p, 2);
    }
    // RMS of each output channel over the blocks from `from` to `to`.
    std::array<double, 2> rms(int from, int to, double f0, double a0, double f1, double a1)
    {
        std::array<double, 2> s{};
        for (int b = 0; b < to; b++) {
            const auto in = stereo_block(b, f0, a0, f1, a1);
            std::memcpy(l.inputBuffer, in.data(), sizeof l.inputBuffer);
            CG_limcom_process(&l);
            for (int j = 0; b >= from && j < 96; j++)
                s[j / 48] += double(l.outputBuffer[j]) * l.outputBuffer[j];
        }
        return {std::sqrt(s[0] / (48.0 * (to - from))), std::sqrt(s[1] / (48.0 * (to - from)))};
    }
    // Both smoothers start at 0 (p = 1, strong gain reduction that the
    // 12.5 s release takes seconds to undo); put them where quiet input
    // leaves them.
    void settle_quiet()
    {
        for (int p = 0; p < 2; p++)
            l.instance.m2.DW.Delay_DSTATE[p] = l.instance.m2.DW.Delay_DSTATE_m[p] = -4.0;
    }
    LimCom_Instance l{};
};

TEST_F(LimCom2ch, DirectCurrentIsRemoved)
{
    // A small offset settles to exact zeros. A large one leaves the
    // single-precision filter a slow limit cycle of one unit in the last
    // place of its state (about -48 dB below the offset), as designed.
    for (float dc : {0.01f, 0.5f}) {
        SetUp();
        float worst = 0.0f;
        for (int b = 0; b < 3000; b++) {
            for (float &x : l.inputBuffer)
                x = dc;
            CG_limcom_process(&l);
            for (int j = 0; b >= 1000 && j < 96; j++)
                worst = std::max(worst, std::fabs(l.outputBuffer[j]));
        }
        EXPECT_LT(worst, dc == 0.01f ? 0.0f + 1e-30f : dc * 0.004f) << dc;
    }
}

TEST_F(LimCom2ch, HighPassIsThreeDecibelsDownAtFortyHertz)
{
    // Quiet input and smoothers settled on quiet: the gain is constant, so
    // the output is the high-pass times 0.25 / 0.7 / 1.0001.
    settle_quiet();
    const double scale = 0.25 / 0.7 / 1.0001 * (0.01 / std::sqrt(2.0));
    auto dB = [&](double f) { return 20 * std::log10(rms(500, 1000, f, 0.01, f, 0.01)[0] / scale); };
    EXPECT_NEAR(dB(40), -3.0, 0.1);
    EXPECT_NEAR(dB(20), -18.0, 0.3);
    EXPECT_NEAR(dB(100), -0.02, 0.05);
}

TEST_F(LimCom2ch, BothChannelsGetTheSameGain)
{
    for (int b = 0; b < 300; b++) {
        const auto in = stereo_block(b, 300, 1.2, 300, 0.6); // right = left / 2, exact
        std::memcpy(l.inputBuffer, in.data(), sizeof l.inputBuffer);
        CG_limcom_process(&l);
        for (int k = 0; k < 48; k++)
            ASSERT_EQ(l.outputBuffer[48 + k], 0.5f * l.outputBuffer[k]) << "block " << b;
    }
}

TEST_F(LimCom2ch, LoudLeftChannelReducesTheRightChannelsGain)
{
    settle_quiet();
    const double alone = rms(200, 400, 1000, 0.0, 1000, 0.05)[1];
    SetUp();
    settle_quiet();
    const double linked = rms(200, 400, 1000, 1.4, 1000, 0.05)[1];
    EXPECT_LT(linked, 0.75 * alone); // about -4 dB with the defaults
}

TEST(LimComInit, ConfiguredValuesMapOntoEachModel)
{
    LimCom_Instance l{};
    limcom_params p = lce(4, 2, 0.5, 3);
    CG_limcom_init_instance(&l, &p, 1);
    const P_CG_LimCom_1ch_T &P1 = l.instance.m1.P;
    EXPECT_EQ(P1.Attackms_Gain, 4.0);
    EXPECT_EQ(P1.Releasems_Gain, 2.0);
    EXPECT_EQ(P1.ratio_Gain, 3.0);
    EXPECT_EQ(P1.Saturation1_UpperSat, INFINITY);
    EXPECT_EQ(std::memcmp(&l.current_params, &p, sizeof p), 0);

    CG_limcom_init_instance(&l, &p, 2);
    const P_CG_LimCom_2ch_T &P2 = l.instance.m2.P;
    EXPECT_EQ(P2.PL_Attack_Gain, 4.0); // multiples of the fixed first smoother
    EXPECT_EQ(P2.PL_Release_Gain, 2.0);
    EXPECT_EQ(P2.Attack_Gain, 2.5);
    EXPECT_EQ(P2.Saturation2_UpperSat, INFINITY);
    EXPECT_EQ(CG_limcom_is_enabled(&l), 1);

    CG_limcom_init_instance(&l, nullptr, 2);
    EXPECT_EQ(CG_limcom_is_enabled(&l), 0);
    EXPECT_EQ(l.instance.m2.P.Lim_Threshold_Gain, 0.7);
    EXPECT_EQ(l.instance.m2.P.Saturation1_UpperSat, 0.0); // model not initialised
}

TEST(LimComInit, DisabledInstanceLeavesBothBuffersUntouched)
{
    for (int nchan : {1, 2, 3}) {
        LimCom_Instance l{};
        limcom_params off = lce(10, 250, 0.7, 1, 0), on = lce(10, 250, 0.7, 1, 1);
        CG_limcom_init_instance(&l, nchan == 3 ? &on : &off, nchan);
        for (int j = 0; j < 96; j++)
            l.inputBuffer[j] = l.outputBuffer[j] = float(j) * 0.01f;
        CG_limcom_process(&l);
        for (int j = 0; j < 96; j++)
            ASSERT_TRUE(l.inputBuffer[j] == l.outputBuffer[j] && l.inputBuffer[j] == float(j) * 0.01f);
    }
}

TEST(LimComInit, ReinitialisingRestartsTheEnvelope)
{
    LimCom_Instance l{}, fresh{};
    limcom_params p = lce(10, 250, 0.7, 2);
    CG_limcom_init_instance(&l, &p, 1);
    run1(l, 48 * 100, [](int) { return 1.4f; });
    EXPECT_GT(l.instance.m1.DW.Delay_DSTATE, 1.9);
    CG_limcom_init_instance(&l, &p, 1);
    CG_limcom_init_instance(&fresh, &p, 1);
    EXPECT_EQ(l.instance.m1.DW.Delay_DSTATE, 0.0);
    EXPECT_EQ(run1(l, 48, [](int) { return 1.4f; }), run1(fresh, 48, [](int) { return 1.4f; }));
}
// Fingerprint (FNV-1a of the output bits) of 2000 blocks of a triangle
// wave whose level steps across the threshold: every build, x86 or the
// board's, must give these same bits.
uint64_t fingerprint(int nchan)
{
    LimCom_Instance l{};
    limcom_params p = nchan == 1 ? lce(5, 100, 0.5, 4) : lce(30, 25, 0.5, 4);
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
