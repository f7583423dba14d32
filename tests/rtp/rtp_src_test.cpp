#include "config/pelocfg.h"
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "rtp/rtp_src.h"
#include "support/alloc_count.h"

#include <arpa/inet.h>
#include <array>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <opus/opus.h>
#include <unistd.h>
#include <vector>

namespace {

using packet = std::vector<uint8_t>;

uint32_t be32(const packet &b, int at) { return uint32_t(b[at]) << 24 | uint32_t(b[at + 1]) << 16 | uint32_t(b[at + 2]) << 8 | b[at + 3]; }
uint16_t be16(const packet &b, int at) { return uint16_t(b[at] << 8 | b[at + 1]); }
uint32_t l24(const packet &b, int at) { return uint32_t(b[at]) << 16 | uint32_t(b[at + 1]) << 8 | b[at + 2]; }

sockaddr_in loopback(uint16_t port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

void fill_mix_out(int o, float v)
{
    for (int k = 0; k < MIX_BLOCK; k++)
        mix_out[k * MIX_OUT_MAX + o] = v;
}

// State: no stream configured. Streams are built by hand and attached to a
// socket of the test's own, and what they send is read back on 127.0.0.1.
class RtpSendLoopback : public ::testing::Test {
protected:
    void SetUp() override
    {
        memset(mix_out, 0, sizeof mix_out);
        opus_enc_rtp_ts = 0;
        load_level = 0;
        pelod_ssrc = 0x12345678;
        sk.fd = socket(AF_INET, SOCK_DGRAM, 0);
        socklen_t l = sizeof rx_addr;
        bind(rx, reinterpret_cast<sockaddr *>(&rx_addr), sizeof rx_addr);
        getsockname(rx, reinterpret_cast<sockaddr *>(&rx_addr), &l);
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
    // Runs `cycles` cycles from rtp_ts; loopback sends are queued before
    // sendto returns, so each cycle's packet is there to read at once.
    std::vector<packet> run(rtp_src *s, uint32_t rtp_ts, int cycles)
    {
        std::vector<packet> got;
        for (int c = 0; c < cycles; c++) {
            rtp_send(s, rtp_ts + uint32_t(48 * c));
            for (packet p(2048);; p.resize(2048)) {
                const ssize_t n = recv(rx, p.data(), p.size(), MSG_DONTWAIT);
                if (n <= 0)
                    break;
                p.resize(size_t(n));
                got.push_back(p);
            }
        }
        return got;
    }
    int rx = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in rx_addr = loopback(0);
    rtp_sk sk{};
    std::vector<rtp_src *> made;
};

TEST_F(RtpSendLoopback, HeaderSequenceTimestampSsrcAndDefaultPayloadTypes)
{
    rtp_src *typed = stream(2);
    typed->rtp_pt = 97;
    typed->rtp_seq = 65535;
    const uint32_t t0 = 0xFFFFFFD0u; // the timestamp wraps on the second cycle
    const struct {
        rtp_src *s;
        uint8_t pt;
        uint16_t seq0;
    } cases[] = {{stream(1), 101, 0}, {stream(2), 96, 0}, {typed, 97, 65535}};
    for (const auto &c : cases) {
        const std::vector<packet> got = run(c.s, t0, 2);
        ASSERT_EQ(got.size(), 2u);
        for (size_t i = 0; i < got.size(); i++) {
            EXPECT_EQ(got[i][0], 0x80);
            EXPECT_EQ(got[i][1], c.pt);
            EXPECT_EQ(be16(got[i], 2), uint16_t(c.seq0 + i));
            EXPECT_EQ(be32(got[i], 4), uint32_t(t0 + 48 * i));
            EXPECT_EQ(be32(got[i], 8), 0x12345678u);
        }
        EXPECT_EQ(c.s->ep.tx_pkts, 2);
    }
}

TEST_F(RtpSendLoopback, PacketSizesFollowChannelsPacketTimeAndTheDatagramLimit)
{
    const struct {
        int nchn, ptime, cycles;
        size_t packets, bytes;
        uint32_t second_ts;
    } cases[] = {
        {1, 48, 3, 3, 12 + 144, 48},         {2, 48, 3, 3, 12 + 288, 48},
        {3, 48, 3, 3, 12 + 432, 48},         {2, 240, 10, 2, 12 + 5 * 288, 240},
        {2, 480, 10, 2, 1452, 240},          // 1452 bytes end a packet early
        {3, 480, 6, 2, 12 + 3 * 432, 144},   // a fourth block would not fit
    };
    for (const auto &c : cases) {
        const std::vector<packet> got = run(stream(c.nchn, c.ptime), 0, c.cycles);
        ASSERT_EQ(got.size(), c.packets) << c.nchn << "/" << c.ptime;
        EXPECT_EQ(got[0].size(), c.bytes) << c.nchn << "/" << c.ptime;
        EXPECT_EQ(be32(got[1], 4), c.second_ts) << c.nchn << "/" << c.ptime;
    }
}

TEST_F(RtpSendLoopback, PcmIsBigEndian24BitOfGainTimesSampleAndWrapsBeyondFullScale)
{
    rtp_src *s = stream(2);
    s->gainv[1] = 0.5f;
    const std::array<float, 4> left = {0.5f, -0.5f, 1.0f, -1.0f};
    const std::array<uint32_t, 4> want_left = {0x3FFFFF, 0xC00001, 0x7FFFFF, 0x800001};
    for (int k = 0; k < MIX_BLOCK; k++) {
        mix_out[k * MIX_OUT_MAX + 0] = left[size_t(k) % 4];
        mix_out[k * MIX_OUT_MAX + 1] = 0.3f;
    }
    std::vector<packet> got = run(s, 0, 1);
    ASSERT_EQ(got.size(), 1u);
    for (int k = 0; k < MIX_BLOCK; k++) {
        EXPECT_EQ(l24(got[0], 12 + 6 * k), want_left[size_t(k) % 4]) << k;
        EXPECT_EQ(l24(got[0], 15 + 6 * k), 0x133333u) << k; // 0.5 * 8388607 * 0.3, truncated
    }
    s->gainv[0] = 2.0f; // +6 dB on a full-scale mix: no clipping, the value wraps
    fill_mix_out(0, 1.0f);
    got = run(s, 48, 1);
    EXPECT_EQ(l24(got[0], 12), 0xFFFFFEu); // 16777214 reads as -2
    fill_mix_out(0, 0.75f);
    got = run(s, 96, 1);
    EXPECT_EQ(l24(got[0], 12), 0xBFFFFEu); // the sign flips
}

TEST_F(RtpSendLoopback, MonoMixOnTwoChannelsIsSentThreeDecibelsLowerOnBoth)
{
    rtp_src *s = stream(2);
    s->mix[1] = 0;
    fill_mix_out(0, 1.0f);
    fill_mix_out(1, 0.25f); // not used: both channels carry mix output 0
    std::vector<packet> got = run(s, 0, 1);
    ASSERT_EQ(got.size(), 1u);
    for (int k = 0; k < MIX_BLOCK; k++) {
        EXPECT_EQ(l24(got[0], 12 + 6 * k), 0x5A9DF9u); // float(0.707946) * 8388607
        EXPECT_EQ(l24(got[0], 15 + 6 * k), 0x5A9DF9u);
    }
    s->gainv[1] = 0.5f; // different gains: each channel at its own gain
    got = run(s, 48, 1);
    EXPECT_EQ(l24(got[0], 12), 0x7FFFFFu);
    EXPECT_EQ(l24(got[0], 15), 0x3FFFFFu);
    // three channels: the third has no mix output and is silent
    fill_mix_out(1, 0.5f);
    got = run(stream(3), 0, 1);
    EXPECT_EQ(l24(got[0], 12 + 6), 0u);
    EXPECT_EQ(l24(got[0], 12 + 9 + 6), 0u);
}

TEST_F(RtpSendLoopback, EnabledLimiterOutputReplacesTheMixOutputs)
{
    rtp_src *s = stream(2);
    fill_mix_out(0, 0.9f);
    fill_mix_out(1, 0.9f);
    s->limcom.current_params.enable = 1;
    s->limcom.nchan = 2;
    for (int k = 0; k < MIX_BLOCK; k++) {
        s->limcom.outputBuffer[k] = 0.5f;
        s->limcom.outputBuffer[48 + k] = -0.5f;
    }
    const std::vector<packet> got = run(s, 0, 1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(l24(got[0], 12), 0x3FFFFFu);
    EXPECT_EQ(l24(got[0], 15), 0xC00001u);
}

TEST_F(RtpSendLoopback, MulticastBackoffHoldsBackOnePlusLoadLevelPackets)
{
    rtp_src *s = stream(1);
    s->ep.backoff_cnt = RTP_BACKOFF_ARMED; // as opened for a multicast group
    load_level = 3;
    EXPECT_TRUE(run(s, 0, 4).empty());
    EXPECT_EQ(s->tx_backoff, 4);
    std::vector<packet> got = run(s, 4 * 48, 2);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(be16(got[0], 2), 4); // held-back packets used their numbers

    // another sender re-arms it; while a reload runs the count stays armed
    s->ep.backoff_cnt = RTP_BACKOFF_ARMED;
    load_level = LOAD_LEVEL_UNKNOWN;
    EXPECT_TRUE(run(s, 0, 3).empty());
    EXPECT_EQ(s->ep.backoff_cnt, RTP_BACKOFF_ARMED);
    load_level = 0;
    EXPECT_TRUE(run(s, 0, 1).empty());
    EXPECT_EQ(run(s, 0, 1).size(), 1u);
    EXPECT_EQ(s->tx_backoff, 4 + 4);
}

TEST_F(RtpSendLoopback, ClosedOrUnattachedEndpointSendsNothingRefusedSendCountsAnError)
{
    rtp_src *s = stream(1);
    s->ep.sk = nullptr;
    EXPECT_TRUE(run(s, 0, 1).empty());
    s->ep.sk = &sk;
    s->ep.sa_bind.sin_addr.s_addr = INADDR_NONE;
    EXPECT_TRUE(run(s, 0, 1).empty());
    s->ep.sa_bind = loopback(0);
    s->ep.sa_dst.sin_family = 0; // closed
    EXPECT_TRUE(run(s, 0, 1).empty());
    s->ep.sa_dst.sin_family = AF_INET;
    EXPECT_EQ(s->ep.tx_pkts + s->ep.tx_err, 0);
    ASSERT_EQ(run(s, 0, 1).size(), 1u);
    EXPECT_EQ(s->rtp_seq, 4);
    s->ep.sa_dst.sin_addr.s_addr = INADDR_BROADCAST; // no SO_BROADCAST: refused locally
    run(s, 0, 2);
    EXPECT_EQ(s->ep.tx_err, 2);
    EXPECT_EQ(s->ep.tx_pkts, 1);
}

TEST_F(RtpSendLoopback, SendPathDoesNotAllocate)
{
    rtp_src *pcm = stream(2, 96), *opus = stream(2, 48, 1);
    fill_mix_out(0, 0.25f);
    alloc_count_start();
    for (uint32_t c = 1; c < 30; c++) { // several Opus frames and PCM packets
        rtp_send(pcm, 48 * c);
        rtp_send(opus, 48 * c);
    }
    EXPECT_EQ(alloc_count_stop(), 0);
    EXPECT_EQ(pcm->ep.tx_pkts, 14);
    EXPECT_EQ(opus->ep.tx_pkts, 2);
}

TEST_F(RtpSendLoopback, OpusStreamsBeginFramesInDifferentCyclesAndDecodeToTheLevel)
{
    rtp_src *a = stream(1, 48, 1), *b = stream(1, 48, 1);
    b->gainv[0] = 0.5f;
    for (int k = 0; k < MIX_BLOCK; k++) // 1 kHz: one period per block
        mix_out[k * MIX_OUT_MAX] = 0.5f * float(std::sin(2.0 * M_PI * k / 48.0));
    std::vector<std::pair<int, packet>> sent; // (0: a, 1: b)
    const uint32_t t0 = 96000;
    for (int c = 0; c < 200; c++)
        for (int i : {0, 1})
            for (packet &p : run(i ? b : a, t0 + uint32_t(48 * c), 1))
                sent.emplace_back(i, p);
    // a completes its frames in cycles 9, 19, ...; b waited one cycle and
    // follows each a cycle later (its first packet was opened before waiting)
    ASSERT_EQ(sent.size(), 39u);
    EXPECT_EQ(sent[0].first, 0);
    EXPECT_EQ(sent[1].first, 1);
    EXPECT_EQ(be32(sent[1].second, 4), t0);
    EXPECT_EQ(be32(sent[2].second, 4), t0 + 480);
    EXPECT_EQ(be32(sent[3].second, 4), t0 + 528);

    int err = 0;
    OpusDecoder *dec[2] = {opus_decoder_create(48000, 1, &err), opus_decoder_create(48000, 1, &err)};
    std::array<double, 2> energy{}, n{};
    std::array<int, 2> frames{};
    for (const auto &[i, p] : sent) {
        EXPECT_EQ(p[1], 101);
        std::array<float, 480> pcm{};
        ASSERT_EQ(opus_decode_float(dec[i], p.data() + 12, int(p.size() - 12), pcm.data(), 480, 0), 480);
        if (++frames[size_t(i)] > 5) // past the encoder's start-up
            for (float v : pcm) {
                energy[size_t(i)] += double(v) * v;
                n[size_t(i)]++;
            }
    }
    for (OpusDecoder *d : dec)
        opus_decoder_destroy(d);
    EXPECT_NEAR(20 * std::log10(std::sqrt(energy[0] / n[0]) / (0.5 / M_SQRT2)), 0.0, 1.0);
    EXPECT_NEAR(20 * std::log10(std::sqrt(energy[1] / n[1]) / (0.25 / M_SQRT2)), 0.0, 1.0);
}

// ---- rebuilding by difference ----

src configured(const char *mix, uint16_t port, int payload_format = 0)
{
    src p{};
    snprintf(p.mix, sizeof p.mix, "%s", mix);
    p.fmt = {payload_format, payload_format == 0 ? 24 : 0, 48000, 2};
    p.ep.sa_dst = loopback(port);
    p.ep.sa_bind = loopback(0);
    p.rtp_pt = RTP_PT_UNSET;
    p.rtp_ptime_samples = 48;
    return p;
}

std::vector<rtp_src *> running()
{
    std::vector<rtp_src *> v;
    for (rtp_src *s = rtp_srcs; s; s = s->next)
        v.push_back(s);
    return v;
}

void configure(std::initializer_list<src> list)
{
    srcs_used = 0;
    for (const src &p : list)
        srcs[srcs_used++] = p;
    pelod_update_rtp_sources();
}

// State: no stream running, every mix output free.
class RtpSourcesUpdate : public ::testing::Test {
protected:
    void SetUp() override
    {
        configure({});
        mix_init();
        opus_enc_rtp_ts = 0;
    }
    void TearDown() override { SetUp(); }
    // The creation pass needs routing's mix outputs and the socket layer.
    static bool routing_and_sockets_present()
    {
        const int probe = mix_ref("probe");
        mix_init();
        rtp_ep ep{};
        const rtp_ep_spec eps{loopback(5004), loopback(0), 0};
        rtp_ep_open(&ep, &eps, nullptr);
        const bool open = ep.sa_dst.sin_family == AF_INET;
        rtp_ep_close(&ep);
        return probe >= 0 && open;
    }
};

TEST_F(RtpSourcesUpdate, MixListWithoutOutputIsRefusedWithAMessage)
{
    for (int o = 0; o < MIX_OUT_MAX; o++)
        snprintf(mixouts[o].id, sizeof mixouts[o].id, "m%d", o);
    testing::internal::CaptureStdout();
    configure({configured("newmix", 5004), configured("m1:", 5006), configured(",m2", 5008)});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "+ src  newmix out of output channels\n"
                                                      "+ src  m1: out of output channels\n"
                                                      "+ src  ,m2 out of output channels\n");
    EXPECT_EQ(rtp_srcs, nullptr);
}

TEST_F(RtpSourcesUpdate, MixListGivesChannelsAndNewStreamsJoinAtTheTail)
{
    if (!routing_and_sockets_present())
        GTEST_SKIP() << "needs routing's mix_ref and the socket layer";
    src two = configured("a:b", 5006);
    two.gainv_dB[0] = -6.0f;
    two.gainv_dB[1] = -100.0f;
    configure({configured("a", 5004), two, configured("a,b;", 5008), configured("a b c", 5010)});
    std::vector<rtp_src *> v = running();
    ASSERT_EQ(v.size(), 4u);
    EXPECT_EQ(v[0]->nchn, 1);
    EXPECT_EQ(v[1]->nchn, 2);
    EXPECT_EQ(v[2]->nchn, 3);
    EXPECT_EQ(v[3]->nchn, 3);
    EXPECT_EQ(v[1]->mix[0], v[0]->mix[0]);
    EXPECT_NE(v[1]->mix[1], v[1]->mix[0]);
    EXPECT_NEAR(v[1]->gainv[0], 0.501187f, 1e-6);
    EXPECT_EQ(v[1]->gainv[1], 0.0f); // -100 dB is off

    src opus = configured("a", 5004, 1);
    configure({opus, configured("a", 5004)}); // kept first, the Opus one appended
    const std::vector<rtp_src *> w = running();
    ASSERT_EQ(w.size(), 2u);
    EXPECT_EQ(w[0], v[0]);
    EXPECT_NE(w[1]->opus_enc, nullptr);
}

TEST_F(RtpSourcesUpdate, ReloadKeepsOrReplacesStreamsByIdentity)
{
    if (!routing_and_sockets_present())
        GTEST_SKIP() << "needs routing's mix_ref and the socket layer";
    src p = configured("a:b", 5004);
    configure({p});
    rtp_src *s = rtp_srcs;
    ASSERT_NE(s, nullptr);
    for (uint32_t c = 0; c < 3; c++)
        rtp_send(s, 48 * c);
    configure({p}); // unchanged
    p.gainv_dB[1] = -20.0f;
    configure({p}); // gain: in place
    EXPECT_FLOAT_EQ(s->gainv[1], 0.1f);
    p.ep.sa_bind.sin_addr.s_addr = htonl(INADDR_ANY);
    configure({p}); // bind address: re-bound
    ASSERT_EQ(rtp_srcs, s);
    EXPECT_EQ(s->ep.sa_bind.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(s->rtp_seq, 3);
    p.rtp_ptime_samples = 96; // identity: replaced, numbering from 0
    configure({p});
    ASSERT_EQ(running().size(), 1u);
    EXPECT_EQ(rtp_srcs->rtp_seq, 0);
    EXPECT_EQ(rtp_srcs->rtp_ptime_samples, 96);
    configure({configured("a", 5004, 1), configured("b", 5006, 1)});
    const std::vector<rtp_src *> v = running();
    ASSERT_EQ(v.size(), 2u); // two Opus streams made together start a cycle apart
    rtp_send(v[0], 4800);
    rtp_send(v[1], 4800);
    EXPECT_EQ(v[0]->opus_inbuf_avail, 48);
    EXPECT_EQ(v[1]->opus_inbuf_avail, 0);
    configure({});
    EXPECT_EQ(rtp_srcs, nullptr);
}

} // namespace
