#include "eaec/eaec.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>

namespace {
struct init_case {
    EAEC_CONFIG cfg;
    EAEC_STATUS st;
    int written_back; }; // frame length after a successful set-up
class EaecInit : public ::testing::TestWithParam<init_case> {};

// Each failing case is also wrong in every field checked later, so the
// status proves the order of the checks. Each accepted set-up writes its
// frame length back and processes two channels of exactly that length.
TEST_P(EaecInit, ChecksInOrderAndFrameSetUp)
{
    EAEC_CONFIG c = GetParam().cfg;
    HANDLE_EAEC_PARAMS params = nullptr; HANDLE_EAEC_STATE state = nullptr;
    ASSERT_EQ(eaec_init(&params, &state, &c), GetParam().st);
    ASSERT_EQ(params != nullptr && state != nullptr, GetParam().st == EAEC_STATUS_OK);
    const int len = GetParam().written_back;
    EXPECT_EQ(c.frame_length, GetParam().st == EAEC_STATUS_OK ? len : GetParam().cfg.frame_length);
    short in[2 * 512];
    INT_PCM out[2 * 512 + 1];
    std::fill(in, in + 2 * 512, short(900));
    out[2 * len] = 0x5a5a;
    for (int f = 0; params && f < 20; f++)
        eaec_processframe(params, state, in, in, out);
    EXPECT_EQ(out[2 * len], 0x5a5a) << "wrote past the frame";
    eaec_done(params, state);
}

constexpr init_case bad(EAEC_CONFIG cfg, EAEC_STATUS st) { return {cfg, st, 0}; }
constexpr init_case ok(int sfreq, int frame_length, int written_back, int aec = -12, int nc = -10, int delay = 20)
{
    return {{sfreq, 2, 2, aec, nc, delay, frame_length}, EAEC_STATUS_OK, written_back};
}
using S = EAEC_STATUS;
INSTANTIATE_TEST_SUITE_P(
    Table, EaecInit,
    ::testing::Values(bad({12345, 9, 9, -81, -21, 401, 320}, S(8)), bad({48000, 1, 1, 1, 0, 0, 0}, S(8)),
                      bad({12345, 9, 9, -12, -21, 401, 320}, S(9)), bad({48000, 1, 1, -12, 1, 0, 0}, S(9)),
                      bad({12345, 9, 9, -12, -10, 401, 320}, S(11)), bad({32000, 9, 9, -12, -10, 20, 480}, S(13)),
                      bad({16000, 9, 9, -12, -10, 20, 512}, S(13)), bad({22050, 9, 9, -12, -10, 20, 0}, S(6)),
                      bad({48000, 9, 9, -12, -10, 20, 256}, S(13)), bad({48000, 9, 9, -12, -10, 20, 320}, S(12)),
                      bad({48000, 3, 3, -12, -10, 20, 0}, S(3)), bad({48000, 3, 1, -12, -10, 20, 0}, S(4)),
                      ok(8000, 0, 80), ok(16000, 0, 160), ok(32000, 0, 320), ok(44100, 0, 441), ok(48000, 0, 480),
                      ok(22050, 256, 256), ok(24000, 256, 256), ok(44100, 480, 480), ok(48000, 512, 512),
                      ok(48000, 0, 480, -80, -20, 400), ok(48000, 0, 480, 0, 0, -5)));

TEST(EaecInterface, DefaultConfigAndLibraryRecord)
{
    EAEC_CONFIG c{1, 2, 3, 4, 5, 6, 7};
    const EAEC_CONFIG want{0, 0, 0, 0, 0, 6, 0};
    eaec_defaultconfig(&c);
    EXPECT_EQ(std::memcmp(&c, &want, sizeof c), 0) << "all but sigdelay zeroed";
    LIB_INFO info[LIB_INFO_MAX] = {};
    info[0].module_id = info[2].module_id = 7;
    ASSERT_EQ(eaec_getLibInfo(info), 0);
    EXPECT_EQ(info[1].module_id, 1); // the platform layer's record takes the first free entry
    const LIB_INFO &e = info[3];
    char line[128];
    snprintf(line, sizeof line, "%d %s|%s|%s %x %u %s", e.module_id, e.title, e.build_date, e.build_time, e.version,
             e.flags, e.versionStr);
    EXPECT_STREQ(line, "24 Torvo EAEC|Oct  1 2014|19:30:44 2010300 0 2.1.3");
    for (LIB_INFO &x : info)
        x.module_id = 5;
    EXPECT_EQ(eaec_getLibInfo(info), -1) << "full";
    EXPECT_EQ(eaec_getLibInfo(nullptr), -1);
}
} // namespace
