// One block of the cycle against the PCM double: what reaches the
// loudspeaker, and what the microphone flows receive.
#include "audio/alsa.h"
#include "daemon/mixrun.h"
#include "daemon/pelod.h"
#include "fake_pcm.h"
#include "support/capture.h"
#include "support/cycle_tables.h"

#include <gtest/gtest.h>

namespace {
using block = std::array<int32_t, 96>;
constexpr uint32_t TS = 96000;

class AlsaCycle : public ::testing::Test { // state: card open, nothing routed, microphone flow 4
protected:
    void SetUp() override
    {
        alsa_close();
        fake_pcm_reset();
        ASSERT_EQ(captured(alsa_open).status, 0);
        reset_cycle_tables();
        rtp_dsts[4].ep.sa_dst.sin_family = alsa_src_family;
        rtp_dsts[4].pdly = 48;
        fake_play.avail = {384, 0};
        buf.fill(0x00123456);
    }
    void TearDown() override
    {
        alsa_close();
        reset_cycle_tables();
    }
    block buf;
};

TEST_F(AlsaCycle, WithoutASoundCardSourceSilenceIsPlayedAndTheMicrophoneHeard)
{
    for (int k = 0; k < 96; k++)
        fake_cap.capture.push_back(k % 2 ? 0x00FFFFFF : k * 100);
    fake_cap.avail = {384, 0};
    mix_block(TS, buf.data());
    EXPECT_EQ(fake_play.written, std::vector<block>{block{}});
    for (int k = 0; k < 48; k++)
        EXPECT_EQ(*mix_slot(TS + 48 + uint32_t(k), 4), float(k * 200) * int24_to_float) << k;
    EXPECT_EQ(buf[1], -1); // the buffer ends holding the captured block
}

// Of two sound-card sources the last is played; with nothing captured the
// buffer keeps that block, and the microphone flow takes it.
TEST_F(AlsaCycle, TheLastSourceIsPlayedAndHeardWhenNothingIsCaptured)
{
    static rtp_src first, last;
    first = last = rtp_src{};
    for (rtp_src *s : {&first, &last}) {
        s->ep.sa_dst.sin_family = alsa_src_family;
        s->nchn = 1;
        s->gainv[0] = s->gainv[1] = 1.0f;
    }
    first.mix[0] = 1;
    last.mix[0] = 3;
    first.next = &last;
    rtp_srcs = &first;
    for (int k = 0; k < 48; k++) {
        mix_out[k * MIX_OUT_MAX + 1] = 0.5f;
        mix_out[k * MIX_OUT_MAX + 3] = -0.25f;
    }
    fake_cap.avail = {48};
    mix_block(TS, buf.data());
    block played;
    played.fill(-2097151);
    EXPECT_EQ(fake_play.written, std::vector<block>{played});
    EXPECT_EQ(fake_cap.count("readi"), 0);
    EXPECT_EQ(*mix_slot(TS + 48, 4), float(-2097151) * int24_to_float);
}
} // namespace
