#include "audio/CG_LimCom_interface.h"
#include "support/limcom_params.h"

#include <bit>
#include <cstdlib>
#include <gtest/gtest.h>

namespace {
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
