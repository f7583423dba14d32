#include "eaec/eaec_fft.h"

#include <cmath>
#include <complex>
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

// Forward against a direct transform in double precision, then back to the
// signal; on the board this checks the NEON kernels against plain
// arithmetic.
TEST(EaecFft, MatchesDirectTransformAndInverts)
{
    eaec_fft_plan plan{};
    alignas(16) static float work[EAEC_FFT_WORK];
    for (int n : {256, 512, 1024}) {
        ASSERT_EQ(eaec_fft_plan_init(&plan, n), 0);
        std::vector<float> x(static_cast<size_t>(n)), re(size_t(n / 2 + 1)), im(re.size()), y(x.size());
        uint32_t seed = 7u + uint32_t(n);
        for (float &v : x)
            v = float(int32_t(seed = seed * 1664525u + 1013904223u) >> 8) / 8388608.0f;
        eaec_rfft(&plan, x.data(), re.data(), im.data(), work);
        double err = 0.0, ref = 0.0;
        for (size_t k = 0; k <= size_t(n / 2); k++) {
            std::complex<double> dft = 0.0;
            for (size_t t = 0; t < size_t(n); t++)
                dft += double(x[t]) * std::polar(1.0, -2.0 * M_PI * double((k * t) % size_t(n)) / double(n));
            err += std::norm(std::complex<double>(re[k], im[k]) - dft);
            ref += std::norm(dft);
        }
        EXPECT_LT(10.0 * std::log10(err / ref), -120.0) << n;
        eaec_irfft(&plan, re.data(), im.data(), y.data(), work);
        for (size_t t = 0; t < size_t(n); t++)
            ASSERT_NEAR(y[t], x[t], 1e-6f) << n << " sample " << t;
    }
}
