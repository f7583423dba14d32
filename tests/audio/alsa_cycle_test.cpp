// One block of the cycle against the PCM double: what reaches the
// loudspeaker, and what the microphone flows receive.
#include "audio/alsa.h"
#include "daemon/mix.h"
#include "daemon/mixrun.h"
#include "daemon/pelod.h"
#include "fake_pcm.h"
#include "routing/xpt.h"
#include "rtp/rtp_src.h"

#include <array>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

namespace {
using block = std::array<int32_t, 96>;
constexpr uint32_t TS = 96000;

class AlsaCycle : public ::testing::Test { // state: card open, no routes, one microphone flow
protected:
    void SetUp() override
    {
        alsa_close();
        fake_pcm_reset();
        testing::internal::CaptureStdout();
        ASSERT_EQ(alsa_open(), 0);
        testing::internal::GetCapturedStdout();
        mix_inp_init();
        memset(mix_inp, 0, 8192 * MIX_INP_MAX * sizeof(float));
        memset(mix_out, 0, sizeof mix_out);
        mix_init();
        for (int i = 0; i < RTP_DST_MAX; i++)
            dst_init(&rtp_dsts[i], i);
        rtp_dsts[4].ep.sa_dst.sin_family = alsa_src_family;
        rtp_dsts[4].pdly = 48;
        rtp_srcs = nullptr;
        fake_play.avail = {384, 0};
        fake_cap.avail = {384, 0};
        for (int k = 0; k < 96; k++)
            captured[size_t(k)] = k % 2 ? 0x00FFFFFF : k * 100;
        buf.fill(0x00123456);
    }
    void TearDown() override
    {
        rtp_srcs = nullptr;
        alsa_close();
        for (int i = 0; i < RTP_DST_MAX; i++)
            dst_init(&rtp_dsts[i], i);
    }
    std::unique_ptr<rtp_src> card_source(int mix, float gain)
    {
        auto s = std::make_unique<rtp_src>();
        s->ep.sa_dst.sin_family = alsa_src_family;
        s->mix[0] = s->mix[1] = mix;
        s->nchn = 1;
        s->gainv[0] = s->gainv[1] = gain;
        return s;
    }
    std::vector<int32_t> played() const
    {
        return fake_play.written.empty() ? std::vector<int32_t>{} : fake_play.written[0];
    }
    block captured{};
    block buf{};
};

TEST_F(AlsaCycle, WithoutASoundCardSourceSilenceIsPlayedAndTheMicrophoneStillHeard)
{
    fake_cap.capture.assign(captured.begin(), captured.end());
    mix_block(TS, buf.data());
    EXPECT_EQ(played(), std::vector<int32_t>(96, 0));
    for (int k = 0; k < 48; k++)
        EXPECT_EQ(*mix_slot(TS + 48 + uint32_t(k), 4), float(k * 200) * int24_to_float) << k;
    EXPECT_EQ(buf[1], -1); // the buffer ends holding the captured block
}

TEST_F(AlsaCycle, TheLastSoundCardSourceIsPlayed)
{
    for (int k = 0; k < 48; k++) {
        mix_out[k * MIX_OUT_MAX + 1] = 0.5f;
        mix_out[k * MIX_OUT_MAX + 3] = 0.25f;
    }
    auto first = card_source(1, 1.0f);
    auto last = card_source(3, 1.0f);
    first->next = last.get();
    rtp_srcs = first.get();
    mix_block(TS, buf.data());
    EXPECT_EQ(played(), std::vector<int32_t>(96, 2097151));
}

// With no data waiting, the buffer keeps the block just played, and the
// microphone flows take that.
TEST_F(AlsaCycle, NothingCapturedLeavesThePlayedBlockForTheMicrophone)
{
    for (int k = 0; k < 48; k++)
        mix_out[k * MIX_OUT_MAX + 2] = -0.5f;
    auto s = card_source(2, 1.0f);
    rtp_srcs = s.get();
    fake_cap.avail = {48};
    mix_block(TS, buf.data());
    EXPECT_EQ(fake_cap.count("readi"), 0);
    EXPECT_EQ(*mix_slot(TS + 48, 4), float(-4194303) * int24_to_float);
}
} // namespace
