#include "eaec/eaec_fft.h"
#include "eaec/eaec_v4.h"

#include <cmath>
#include <complex>
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

// Two signals through the single transforms (j = 0, 1) and the pair (j = 2,
// 3) against a direct transform in double precision, then back; at 512 points
// the second is silence, exactly zero from the pair too. On the board: the
// NEON kernels against plain arithmetic, and the output's 16-bit conversion.
TEST(EaecFft, MatchesDirectTransformAndInverts)
{
    eaec_fft_plan plan{};
    alignas(16) static float work[EAEC_FFT_WORK];
    for (int n : {256, 512, 1024}) {
        ASSERT_EQ(eaec_fft_plan_init(&plan, n), 0);
        std::vector<float> x[2], re[4], im[4], y[4];
        uint32_t seed = 7u + uint32_t(n);
        for (int j = 0; j < 4; j++) {
            x[j % 2].resize(size_t(n));
            for (float &v : x[j % 2])
                v = n == 512 && j % 2 ? 0.0f : float(int32_t(seed = seed * 1664525u + 1013904223u) >> 8) / 8388608.0f;
            re[j].resize(size_t(n / 2 + 1));
            im[j].resize(re[j].size());
            y[j].resize(size_t(n));
        }
        eaec_rfft(&plan, x[0].data(), re[0].data(), im[0].data(), work);
        eaec_rfft(&plan, x[1].data(), re[1].data(), im[1].data(), work);
        eaec_rfft_pair(&plan, x[0].data(), x[1].data(), re[2].data(), im[2].data(), re[3].data(), im[3].data(), work);
        for (int j = 0; j < 4; j++) {
            double err = 0.0, ref = 0.0;
            for (size_t k = 0; k <= size_t(n / 2); k++) {
                std::complex<double> dft = 0.0;
                for (size_t t = 0; t < size_t(n); t++)
                    dft += double(x[j % 2][t]) * std::polar(1.0, -2.0 * M_PI * double((k * t) % size_t(n)) / double(n));
                err += std::norm(std::complex<double>(re[j][k], im[j][k]) - dft);
                ref += std::norm(dft);
            }
            EXPECT_LE(err, 1e-12 * ref) << n << " transform " << j; // -120 dB
            im[j][0] = im[j][size_t(n / 2)] = 1.0f; // ignored by the inverses
        }
        eaec_irfft(&plan, re[0].data(), im[0].data(), y[0].data(), work);
        eaec_irfft(&plan, re[1].data(), im[1].data(), y[1].data(), work);
        eaec_irfft_pair(&plan, re[2].data(), im[2].data(), re[3].data(), im[3].data(), y[2].data(), y[3].data(), work);
        for (int j = 0; j < 4; j++)
            for (size_t t = 0; t < size_t(n); t++)
                ASSERT_NEAR(y[j][t], x[j % 2][t], n == 512 && j % 2 ? 0.0f : 1e-6f) << n << " inverse " << j << " sample " << t;
    }
    alignas(16) const float in[4] = {-32768.0f, -2.7f, 2.7f, 32767.0f};
    int16_t out[4];
    v4_store_i16(out, v4_load(in)); // towards zero
    EXPECT_EQ(std::vector<int16_t>(out, out + 4), (std::vector<int16_t>{-32768, -2, 2, 32767}));
}
