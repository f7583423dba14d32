// The sound-card module on the real library, with "hw" redefined through
// ALSA_CONFIG_PATH as a file plugin over the null device: playback goes to
// a file, capture comes from a file, and the device never fills or drains,
// so every block played is written ALSA_LOOP_MAX times and every read is
// repeated that often.
#include "audio/alsa.h"
#include "support/alsa_file.h"
#include "support/proc.h"

#include <array>
#include <gtest/gtest.h>

namespace {
// Raw capture word i of block b: 24 bits, bit 23 set on odd i.
int32_t raw_word(int b, int i) { return (b << 12 | i) | (i % 2 ? 0x800000 : 0); }

TEST(AlsaFilePlugin, BlocksGoToAndComeFromTheFiles)
{
    std::string words;
    for (int b = 0; b < 40; b++)
        for (int i = 0; i < 96; i++) {
            const int32_t w = raw_word(b, i);
            words.append(reinterpret_cast<const char *>(&w), 4);
        }
    const alsa_file_card card(words);
    alsa_ply_rewrite = alsa_cap_reread = alsa_loop_cut = alsa_cap_samples = 0;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    ASSERT_EQ(alsa_open(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr(), "");
    std::string want;
    std::array<int32_t, 96> b;
    for (int n = 1; n <= 3; n++) {
        for (int i = 0; i < 96; i++)
            b[size_t(i)] = n * 100000 - i * 997 * (i % 2 ? 1 : -1);
        for (int k = 0; k < ALSA_LOOP_MAX; k++)
            want.append(reinterpret_cast<const char *>(b.data()), sizeof b);
        EXPECT_EQ(alsa_play48(b.data()), 48);
    }
    for (int call = 1; call <= 2; call++) {
        EXPECT_EQ(alsa_rec48(b.data()), 48);
        const int last = call * ALSA_LOOP_MAX - 1; // the newest block read, sign-extended
        for (int i = 0; i < 96; i++)
            ASSERT_EQ(b[size_t(i)], raw_word(last, i) | (i % 2 ? int32_t(0xFF000000u) : 0)) << call << " " << i;
    }
    EXPECT_EQ(alsa_loop_cut, 5u);
    EXPECT_EQ(alsa_cap_samples, 48u * 2 * ALSA_LOOP_MAX);
    alsa_close(); // flushes the plugin's file
    EXPECT_TRUE(read_file(card.play_path) == want);
}
} // namespace
