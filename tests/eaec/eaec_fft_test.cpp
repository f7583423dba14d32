#include "eaec/eaec_fft.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

namespace {
// A plain O(n^2) transform in double precision as the reference.
void naive_dft(const std::vector<float> &x, std::vector<double> &re, std::vector<double> &im)
{
    const size_t n = x.size();
    re.assign(n / 2 + 1, 0.0);
    im.assign(n / 2 + 1, 0.0);
    for (size_t k = 0; k <= n / 2; k++)
        for (size_t t = 0; t < n; t++) {
            const double a = -2.0 * M_PI * double((k * t) % n) / double(n);
            re[k] += x[t] * std::cos(a);
            im[k] += x[t] * std::sin(a);
        }
}

std::vector<float> noise(size_t n, uint32_t seed)
{
    std::vector<float> x(n);
    for (float &v : x) {
        seed = seed * 1664525u + 1013904223u;
        v = float(int32_t(seed) >> 8) / 8388608.0f;
    }
    return x;
}

// Forward against the direct transform, then back to the signal.
TEST(EaecFft, MatchesDirectTransformAndInverts)
{
    eaec_fft_plan plan{};
    alignas(16) std::array<float, EAEC_FFT_WORK> work{};
    EXPECT_EQ(eaec_fft_plan_init(&plan, 128), -1);
    EXPECT_EQ(eaec_fft_plan_init(&plan, 960), -1);
    for (int n : {256, 512, 1024}) {
        ASSERT_EQ(eaec_fft_plan_init(&plan, n), 0);
        const std::vector<float> x = noise(size_t(n), 7u + uint32_t(n));
        std::vector<double> rr, ri;
        naive_dft(x, rr, ri);
        std::vector<float> re(size_t(n / 2 + 1)), im(size_t(n / 2 + 1)), y(static_cast<size_t>(n));
        eaec_rfft(&plan, x.data(), re.data(), im.data(), work.data());
        double err = 0.0, ref = 0.0;
        for (size_t k = 0; k <= size_t(n / 2); k++) {
            err += std::pow(re[k] - rr[k], 2) + std::pow(im[k] - ri[k], 2);
            ref += rr[k] * rr[k] + ri[k] * ri[k];
        }
        EXPECT_LT(10.0 * std::log10(err / ref), -120.0) << n;
        eaec_irfft(&plan, re.data(), im.data(), y.data(), work.data());
        for (size_t t = 0; t < size_t(n); t++)
            ASSERT_NEAR(y[t], x[t], 1e-6f) << n << " sample " << t;
    }
}
} // namespace
