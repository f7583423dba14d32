#include "eaec/eaec.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {
// The daemon's configuration: every check passes.
EAEC_CONFIG daemon_config() { return EAEC_CONFIG{48000, 1, 1, -12, -10, 20, 0}; }

class EaecInit : public ::testing::Test {
protected:
    void TearDown() override
    {
        if (params || state)
            eaec_done(params, state);
    }
    EAEC_STATUS init(EAEC_CONFIG cfg)
    {
        last = cfg;
        return eaec_init(&params, &state, &last);
    }
    HANDLE_EAEC_PARAMS params = nullptr;
    HANDLE_EAEC_STATE state = nullptr;
    EAEC_CONFIG last{};
};

TEST_F(EaecInit, DaemonConfigurationChoosesFrame480)
{
    EXPECT_EQ(init(daemon_config()), EAEC_STATUS_OK);
    EXPECT_EQ(last.frame_length, 480);
    EXPECT_NE(params, nullptr);
    EXPECT_NE(state, nullptr);
}

// Each case is wrong in the checked field and in every field checked
// later, so the status also proves the order of the checks.
struct order_case {
    const char *what;
    EAEC_CONFIG cfg;
    EAEC_STATUS st;
};

class EaecInitOrder : public EaecInit, public ::testing::WithParamInterface<order_case> {};

TEST_P(EaecInitOrder, FirstFailingCheckWins)
{
    EXPECT_EQ(init(GetParam().cfg), GetParam().st) << GetParam().what;
    EXPECT_EQ(params, nullptr);
    EXPECT_EQ(state, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Checks, EaecInitOrder,
    ::testing::Values(
        order_case{"aec -81", {12345, 9, 9, -81, -21, 401, 320}, EAEC_STATUS_RANGE_ECHO_SUPPRESSION},
        order_case{"aec 1", {48000, 1, 1, 1, 0, 0, 0}, EAEC_STATUS_RANGE_ECHO_SUPPRESSION},
        order_case{"nc -21", {12345, 9, 9, -12, -21, 401, 320}, EAEC_STATUS_RANGE_NOISE_SUPPRESSION},
        order_case{"nc 1", {48000, 1, 1, -12, 1, 0, 0}, EAEC_STATUS_RANGE_NOISE_SUPPRESSION},
        order_case{"sigdelay 401", {12345, 9, 9, -12, -10, 401, 320}, EAEC_STATUS_MAXSIGDELAY},
        order_case{"480 at 32 kHz", {32000, 9, 9, -12, -10, 20, 480}, EAEC_STATUS_UNSUPPORTED_SAMP_RATE_FRA_LEN},
        order_case{"512 at 16 kHz", {16000, 9, 9, -12, -10, 20, 512}, EAEC_STATUS_UNSUPPORTED_SAMP_RATE_FRA_LEN},
        order_case{"0 at 22050", {22050, 9, 9, -12, -10, 20, 0}, EAEC_STATUS_UNSUPPORTED_SAMP_RATE},
        order_case{"256 at 48 kHz", {48000, 9, 9, -12, -10, 20, 256}, EAEC_STATUS_UNSUPPORTED_SAMP_RATE_FRA_LEN},
        order_case{"frame 320", {48000, 9, 9, -12, -10, 20, 320}, EAEC_STATUS_UNSUPPORTED_FRAMELEN},
        order_case{"nmic 3 before nspk", {48000, 3, 3, -12, -10, 20, 0}, EAEC_STATUS_NMIC},
        order_case{"nmic 0", {48000, 1, 0, -12, -10, 20, 0}, EAEC_STATUS_NMIC},
        order_case{"nspk 3", {48000, 3, 1, -12, -10, 20, 0}, EAEC_STATUS_NSPK}),
    [](const ::testing::TestParamInfo<order_case> &i) { return "Case" + std::to_string(i.index); });

TEST_F(EaecInit, SigdelayLimitsAreInclusiveAndNegativePasses)
{
    EAEC_CONFIG c = daemon_config();
    c.sigdelay = 400;
    EXPECT_EQ(init(c), EAEC_STATUS_OK);
    eaec_done(params, state);
    params = nullptr;
    state = nullptr;
    c.sigdelay = -5;
    EXPECT_EQ(init(c), EAEC_STATUS_OK);
}

TEST_F(EaecInit, RangeEndsPass)
{
    EAEC_CONFIG c = daemon_config();
    c.aec = -80;
    c.nc = -20;
    EXPECT_EQ(init(c), EAEC_STATUS_OK);
    eaec_done(params, state);
    params = nullptr;
    state = nullptr;
    c.aec = 0;
    c.nc = 0;
    EXPECT_EQ(init(c), EAEC_STATUS_OK);
}

// The frame set-up table: accepted rate/length pairs and what comes back.
struct setup_case {
    int sfreq, frame_length, written_back;
};

class EaecFrameSetup : public EaecInit, public ::testing::WithParamInterface<setup_case> {};

TEST_P(EaecFrameSetup, AcceptsAndWritesBack)
{
    EAEC_CONFIG c{GetParam().sfreq, 1, 1, -12, -10, 20, GetParam().frame_length};
    ASSERT_EQ(init(c), EAEC_STATUS_OK);
    EXPECT_EQ(last.frame_length, GetParam().written_back);
}

INSTANTIATE_TEST_SUITE_P(Table, EaecFrameSetup,
                         ::testing::Values(setup_case{8000, 0, 80}, setup_case{16000, 0, 160},
                                           setup_case{32000, 0, 320}, setup_case{44100, 0, 441},
                                           setup_case{48000, 0, 480}, setup_case{22050, 256, 256},
                                           setup_case{24000, 256, 256}, setup_case{44100, 480, 480},
                                           setup_case{48000, 480, 480}, setup_case{44100, 512, 512},
                                           setup_case{48000, 512, 512}));

TEST_F(EaecInit, EveryFrameSetupProcessesAFrameOfItsLength)
{
    // Two microphones and speakers too: the output is one frame per channel.
    for (setup_case sc : {setup_case{8000, 0, 80}, setup_case{24000, 256, 256}, setup_case{44100, 0, 441},
                          setup_case{48000, 512, 512}}) {
        EAEC_CONFIG c{sc.sfreq, 2, 2, -12, -10, 20, sc.frame_length};
        ASSERT_EQ(init(c), EAEC_STATUS_OK);
        short in[2 * 512];
        INT_PCM out[2 * 512 + 1];
        for (int i = 0; i < 2 * 512; i++)
            in[i] = short((i * 37) % 2000 - 1000);
        out[2 * sc.written_back] = 0x5a5a;
        for (int f = 0; f < 20; f++)
            eaec_processframe(params, state, in, in, out);
        EXPECT_EQ(out[2 * sc.written_back], 0x5a5a) << "wrote past the frame at " << sc.sfreq;
        eaec_done(params, state);
        params = nullptr;
        state = nullptr;
    }
}

TEST(EaecDefaultConfig, ZeroesAllButSigdelay)
{
    EAEC_CONFIG c{1, 2, 3, 4, 5, 6, 7};
    eaec_defaultconfig(&c);
    EXPECT_EQ(c.sfreq, 0);
    EXPECT_EQ(c.nspk, 0);
    EXPECT_EQ(c.nmic, 0);
    EXPECT_EQ(c.aec, 0);
    EXPECT_EQ(c.nc, 0);
    EXPECT_EQ(c.frame_length, 0);
    EXPECT_EQ(c.sigdelay, 6);
}

class EaecLibInfo : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::memset(info, 0, sizeof info);
    }
    const LIB_INFO *find(int id) const
    {
        for (const LIB_INFO &e : info)
            if (e.module_id == id)
                return &e;
        return nullptr;
    }
    LIB_INFO info[LIB_INFO_MAX];
};

TEST_F(EaecLibInfo, RegistersTheCancellerRecord)
{
    ASSERT_EQ(eaec_getLibInfo(info), 0);
    const LIB_INFO *e = find(24);
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(e->title, "Torvo EAEC");
    EXPECT_STREQ(e->build_date, "Oct  1 2014");
    EXPECT_STREQ(e->build_time, "19:30:44");
    EXPECT_EQ(e->version, 0x02010300);
    EXPECT_EQ(e->version, 33620736);
    EXPECT_EQ(e->flags, 0u);
    EXPECT_STREQ(e->versionStr, "2.1.3");
}

TEST_F(EaecLibInfo, TakesTheFirstFreeEntryAfterThePlatformRecord)
{
    info[0].module_id = 7;
    info[2].module_id = 9;
    ASSERT_EQ(eaec_getLibInfo(info), 0);
    EXPECT_EQ(info[0].module_id, 7);
    EXPECT_EQ(info[1].module_id, 1); // the platform layer's own record
    EXPECT_EQ(info[2].module_id, 9);
    EXPECT_EQ(info[3].module_id, 24);
}

TEST_F(EaecLibInfo, FullArrayAndNullFail)
{
    for (LIB_INFO &e : info)
        e.module_id = 5;
    EXPECT_EQ(eaec_getLibInfo(info), -1);
    EXPECT_EQ(eaec_getLibInfo(nullptr), -1);
}

TEST_F(EaecLibInfo, LastFreeEntryHoldsTheCanceller)
{
    for (LIB_INFO &e : info)
        e.module_id = 5;
    info[LIB_INFO_MAX - 1].module_id = 0;
    info[3].module_id = 1; // platform record already there: not added again
    ASSERT_EQ(eaec_getLibInfo(info), 0);
    EXPECT_EQ(info[LIB_INFO_MAX - 1].module_id, 24);
}
} // namespace
