#include "eaec/eaec.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {
struct init_case {
    EAEC_CONFIG cfg;
    EAEC_STATUS st;
    int written_back; // frame length after a successful set-up
};

class EaecInit : public ::testing::TestWithParam<init_case> {
protected:
    void TearDown() override { eaec_done(params, state); }
    HANDLE_EAEC_PARAMS params = nullptr;
    HANDLE_EAEC_STATE state = nullptr;
};

// Each failing case is wrong in the checked field and in every field checked
// later, so the status also proves the order of the checks. Each accepted
// set-up (the frame table and the inclusive range ends) writes its frame
// length back and processes frames of exactly that length (two channels, so
// the output is one frame per microphone).
TEST_P(EaecInit, ChecksInOrderAndFrameSetUp)
{
    EAEC_CONFIG c = GetParam().cfg;
    ASSERT_EQ(eaec_init(&params, &state, &c), GetParam().st);
    ASSERT_EQ(params != nullptr && state != nullptr, GetParam().st == EAEC_STATUS_OK);
    if (GetParam().st != EAEC_STATUS_OK)
        return;
    const int len = GetParam().written_back;
    EXPECT_EQ(c.frame_length, len);
    short in[2 * 512];
    INT_PCM out[2 * 512 + 1];
    for (int i = 0; i < 2 * 512; i++)
        in[i] = short((i * 37) % 2000 - 1000);
    out[c.nmic * len] = 0x5a5a;
    for (int f = 0; f < 20; f++)
        eaec_processframe(params, state, in, in, out);
    EXPECT_EQ(out[c.nmic * len], 0x5a5a) << "wrote past the frame";
}

constexpr init_case bad(EAEC_CONFIG cfg, EAEC_STATUS st) { return {cfg, st, 0}; }
constexpr init_case ok(int sfreq, int frame_length, int written_back, int aec = -12, int nc = -10, int sigdelay = 20)
{
    return {{sfreq, 2, 2, aec, nc, sigdelay, frame_length}, EAEC_STATUS_OK, written_back};
}

INSTANTIATE_TEST_SUITE_P(
    Table, EaecInit,
    ::testing::Values(bad({12345, 9, 9, -81, -21, 401, 320}, EAEC_STATUS_RANGE_ECHO_SUPPRESSION),
                      bad({48000, 1, 1, 1, 0, 0, 0}, EAEC_STATUS_RANGE_ECHO_SUPPRESSION),
                      bad({12345, 9, 9, -12, -21, 401, 320}, EAEC_STATUS_RANGE_NOISE_SUPPRESSION),
                      bad({48000, 1, 1, -12, 1, 0, 0}, EAEC_STATUS_RANGE_NOISE_SUPPRESSION),
                      bad({12345, 9, 9, -12, -10, 401, 320}, EAEC_STATUS_MAXSIGDELAY),
                      bad({32000, 9, 9, -12, -10, 20, 480}, EAEC_STATUS_UNSUPPORTED_SAMP_RATE_FRA_LEN),
                      bad({16000, 9, 9, -12, -10, 20, 512}, EAEC_STATUS_UNSUPPORTED_SAMP_RATE_FRA_LEN),
                      bad({22050, 9, 9, -12, -10, 20, 0}, EAEC_STATUS_UNSUPPORTED_SAMP_RATE),
                      bad({48000, 9, 9, -12, -10, 20, 256}, EAEC_STATUS_UNSUPPORTED_SAMP_RATE_FRA_LEN),
                      bad({48000, 9, 9, -12, -10, 20, 320}, EAEC_STATUS_UNSUPPORTED_FRAMELEN),
                      bad({48000, 3, 3, -12, -10, 20, 0}, EAEC_STATUS_NMIC), // nmic before nspk
                      bad({48000, 1, 0, -12, -10, 20, 0}, EAEC_STATUS_NMIC),
                      bad({48000, 3, 1, -12, -10, 20, 0}, EAEC_STATUS_NSPK), ok(8000, 0, 80),
                      ok(16000, 0, 160), ok(32000, 0, 320), ok(44100, 0, 441), ok(48000, 0, 480),
                      ok(22050, 256, 256), ok(24000, 256, 256), ok(44100, 480, 480), ok(48000, 480, 480),
                      ok(44100, 512, 512), ok(48000, 512, 512), ok(48000, 0, 480, -80, -20, 400),
                      ok(48000, 0, 480, 0, 0, -5)));

TEST(EaecDefaultConfig, ZeroesAllButSigdelay)
{
    EAEC_CONFIG c{1, 2, 3, 4, 5, 6, 7};
    const EAEC_CONFIG want{0, 0, 0, 0, 0, 6, 0};
    eaec_defaultconfig(&c);
    EXPECT_EQ(std::memcmp(&c, &want, sizeof c), 0);
}

TEST(EaecLibInfo, RecordTakesTheFirstFreeEntry)
{
    LIB_INFO info[LIB_INFO_MAX] = {};
    info[0].module_id = 7;
    info[2].module_id = 9;
    ASSERT_EQ(eaec_getLibInfo(info), 0);
    EXPECT_EQ(info[0].module_id, 7);
    EXPECT_EQ(info[1].module_id, 1); // the platform layer's own record
    EXPECT_EQ(info[2].module_id, 9);
    const LIB_INFO &e = info[3];
    EXPECT_EQ(e.module_id, 24);
    EXPECT_STREQ(e.title, "Torvo EAEC");
    EXPECT_STREQ(e.build_date, "Oct  1 2014");
    EXPECT_STREQ(e.build_time, "19:30:44");
    EXPECT_EQ(e.version, 0x02010300);
    EXPECT_EQ(e.flags, 0u);
    EXPECT_STREQ(e.versionStr, "2.1.3");
    // A full array and none at all fail; the last free entry is taken.
    for (LIB_INFO &e : info)
        e.module_id = 5;
    EXPECT_EQ(eaec_getLibInfo(info), -1);
    EXPECT_EQ(eaec_getLibInfo(nullptr), -1);
    info[LIB_INFO_MAX - 1].module_id = 0;
    info[3].module_id = 1; // platform record already there: not added again
    ASSERT_EQ(eaec_getLibInfo(info), 0);
    EXPECT_EQ(info[LIB_INFO_MAX - 1].module_id, 24);
}
} // namespace
