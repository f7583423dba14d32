#include "rtp/rtp_src.h"

#include "config/pelocfg.h"
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "support/rtp_wire.h"

#include <arpa/inet.h>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <opus/opus.h>
#include <unistd.h>
#include <vector>

namespace {
using packet = std::vector<uint8_t>;

sockaddr_in loopback(uint16_t port) { return {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}}; }

// State: no stream configured. Streams are built by hand and attached to a
// socket of the test's own, and what they send is read back on 127.0.0.1.
class RtpSendLoopback : public ::testing::Test {
protected:
    sockaddr_in rx_addr{};
    int rx = udp_loopback(&rx_addr);
    rtp_sk sk{};
    std::vector<rtp_src *> made;
    void SetUp() override
    {
        memset(mix_out, 0, sizeof mix_out);
        opus_enc_rtp_ts = 0;
        load_level = 0;
        pelod_ssrc = 0x12345678;
        sk.fd = socket(AF_INET, SOCK_DGRAM, 0);
    }
    void TearDown() override
    {
        for (rtp_src *s : made)
            rtp_src_destroy(s);
        close(sk.fd);
        close(rx);
    }
    rtp_src *stream(int nchn, int ptime = 48, int payload_format = 0)
    {
        rtp_src *s = static_cast<rtp_src *>(calloc(1, sizeof(rtp_src)));
        s->nchn = nchn;
        s->mix[1] = nchn > 1 ? 1 : 0;
        s->gainv[0] = s->gainv[1] = 1.0f;
        s->rtp_pt = RTP_PT_UNSET;
        s->rtp_ptime_samples = ptime;
        s->fmt.payload_format = payload_format;
        s->ep.sa_dst = rx_addr;
        s->ep.sa_bind = loopback(0);
        s->ep.sk = &sk;
        if (payload_format == 1)
            rtp_src_encoder_create(s);
        made.push_back(s);
        return s;
    }
    // Runs `cycles` cycles from rtp_ts; each cycle's packet is there to read at once.
    std::vector<packet> run(rtp_src *s, uint32_t rtp_ts, int cycles)
    {
        std::vector<packet> got;
        packet p(2048);
        for (int c = 0; c < cycles; c++) {
            rtp_send(s, rtp_ts + uint32_t(48 * c));
            for (ssize_t n; (n = recv(rx, p.data(), p.size(), MSG_DONTWAIT)) > 0;)
                got.emplace_back(p.begin(), p.begin() + n);
        }
        return got;
    }
};

TEST_F(RtpSendLoopback, HeaderSequenceTimestampSsrcAndDefaultPayloadTypes)
{
    rtp_src *typed = stream(2);
    typed->rtp_pt = 97;
    typed->rtp_seq = 65535;
    const uint32_t t0 = 0xFFFFFFD0u; // the timestamp wraps on the second cycle
    for (const auto &[s, pt, seq0] : {std::tuple(stream(1), 101, 0), std::tuple(stream(2), 96, 0), std::tuple(typed, 97, 65535)}) {
        const std::vector<packet> got = run(s, t0, 2);
        ASSERT_EQ(got.size(), 2u);
        for (size_t i = 0; i < got.size(); i++)
            EXPECT_EQ(std::tuple(got[i][0] << 8 | got[i][1], be16(&got[i][2]), be32(&got[i][4]), be32(&got[i][8])),
                      std::tuple(0x8000 | pt, uint16_t(seq0 + i), uint32_t(t0 + 48 * i), 0x12345678u));
        EXPECT_EQ(s->ep.tx_pkts, 2);
    }
}

// Frame k carries +v on even and -v on odd frames, and so do the samples.
TEST_F(RtpSendLoopback, PcmIs24BitBigEndianOfGainTimesMixWithoutClipping)
{
    const struct {
        const char *what;
        int nchn, mix1;
        float gain0, gain1, out0, out1, limiter;
        std::vector<int32_t> want; // channels of frame 0
    } cases[] = {
        {"gain, truncated", 2, 1, 1.0f, 0.5f, 0.5f, 0.3f, 0, {0x3FFFFF, 0x133333}},
        {"+6 dB on full scale wraps", 2, 1, 2.0f, 2.0f, 1.0f, 0.75f, 0, {-2, -0x400002}},
        {"mono mix on both channels, -3 dB", 2, 0, 1.0f, 1.0f, 1.0f, 0.25f, 0, {0x5A9DF9, 0x5A9DF9}},
        {"mono mix at -2 dB: -3 dB in double", 2, 0, 0.794328213f, 0.794328213f, 1.0f, 0.0f, 0, {0x47FACD, 0x47FACD}},
        {"mono mix, own gains: no -3 dB", 2, 0, 1.0f, 0.5f, 1.0f, 0.25f, 0, {0x7FFFFF, 0x3FFFFF}},
        {"limiter output replaces the mix", 2, 1, 1.0f, 1.0f, 0.9f, 0.9f, 0.5f, {0x3FFFFF, -0x3FFFFF}},
    };
    for (const auto &c : cases) {
        rtp_src *s = stream(c.nchn);
        s->mix[1] = c.mix1;
        s->gainv[0] = c.gain0;
        s->gainv[1] = c.gain1;
        for (int k = 0; k < MIX_BLOCK; k++) {
            const float sign = k % 2 ? -1.0f : 1.0f;
            mix_out[k * MIX_OUT_MAX] = sign * c.out0;
            mix_out[k * MIX_OUT_MAX + 1] = sign * c.out1;
            s->limcom.outputBuffer[k] = sign * c.limiter;
            s->limcom.outputBuffer[MIX_BLOCK + k] = -sign * c.limiter;
        }
        s->limcom.current_params.enable = c.limiter != 0;
        s->limcom.nchan = 2;
        const std::vector<packet> got = run(s, 0, 1);
        ASSERT_EQ(got.size(), 1u) << c.what;
        for (int k = 0; k < MIX_BLOCK; k++)
            for (int ch = 0; ch < c.nchn; ch++)
                ASSERT_EQ(be24(&got[0][size_t(12 + 3 * (c.nchn * k + ch))]), (k % 2 ? -1 : 1) * c.want[size_t(ch)])
                    << c.what << ", frame " << k << " channel " << ch;
    }
}

// ---- rebuilding by difference ----

src configured(const char *mix, uint16_t port, int payload_format = 0)
{
    src p{};
    snprintf(p.mix, sizeof p.mix, "%s", mix);
    p.fmt = {payload_format, payload_format == 0 ? 24 : 0, 48000, 2};
    p.ep = {loopback(port), loopback(0), 0};
    p.rtp_pt = RTP_PT_UNSET;
    p.rtp_ptime_samples = 48;
    return p;
}

std::vector<rtp_src *> configure(std::initializer_list<src> list)
{
    srcs_used = 0;
    for (const src &p : list)
        srcs[srcs_used++] = p;
    pelod_update_rtp_sources();
    std::vector<rtp_src *> running;
    for (rtp_src *s = rtp_srcs; s; s = s->next)
        running.push_back(s);
    return running;
}

TEST(RtpSourcesUpdate, ReloadKeepsOrReplacesStreamsByIdentity)
{
    configure({});
    mix_init();
    opus_enc_rtp_ts = 0;
    src p = configured("a:b", 5004);
    rtp_src *s = configure({p}).at(0);
    for (uint32_t c = 0; c < 3; c++)
        rtp_send(s, 48 * c);
    configure({p}); // unchanged
    p.gainv_dB[1] = -20.0f;
    p.ep.sa_bind.sin_addr.s_addr = htonl(INADDR_ANY);
    EXPECT_EQ(configure({p}), std::vector({s})); // gain in place, bind address re-bound
    EXPECT_FLOAT_EQ(s->gainv[1], 0.1f);
    EXPECT_EQ(s->ep.sa_bind.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(s->rtp_seq, 3);
    p.ep.ssm_src = htonl(0x0A000001); // a new multicast source is applied in place
    EXPECT_EQ(configure({p}), std::vector({s}));
    EXPECT_EQ(s->ep.ssm_src, htonl(0x0A000001));
    p.rtp_ptime_samples = 96; // identity: replaced, numbering from 0
    ASSERT_EQ(configure({p}).size(), 1u);
    EXPECT_EQ(rtp_srcs->rtp_seq, 0);
    EXPECT_EQ(rtp_srcs->rtp_ptime_samples, 96);
    const std::vector<rtp_src *> v = configure({configured("a", 5004, 1), configured("b", 5006, 1)});
    ASSERT_EQ(v.size(), 2u); // two Opus streams made together start a cycle apart
    rtp_send(v[0], 4800);
    rtp_send(v[1], 4800);
    EXPECT_EQ(v[0]->opus_inbuf_avail, 48);
    EXPECT_EQ(v[1]->opus_inbuf_avail, 0);
    EXPECT_TRUE(configure({}).empty());
    mix_init();
}
} // namespace
