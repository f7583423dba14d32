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
#include <poll.h>
#include <unistd.h>
#include <vector>

namespace {

using packet = std::vector<uint8_t>;

uint32_t be32(const uint8_t *b) { return uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3]; }
uint16_t be16(const uint8_t *b) { return uint16_t(b[0] << 8 | b[1]); }
uint32_t l24(const uint8_t *b) { return uint32_t(b[0]) << 16 | uint32_t(b[1]) << 8 | b[2]; }

sockaddr_in loopback(uint16_t port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

// A receiving UDP socket on 127.0.0.1 with a port the kernel hands out.
struct udp_rx {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr = loopback(0);
    udp_rx()
    {
        socklen_t l = sizeof addr;
        bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
        getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &l);
    }
    ~udp_rx() { close(fd); }
    // Loopback sends are queued before sendto returns; the wait is a margin.
    packet next(int timeout_ms = 100)
    {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, timeout_ms) != 1)
            return {};
        packet b(2048);
        const ssize_t n = recv(fd, b.data(), b.size(), 0);
        b.resize(n > 0 ? size_t(n) : 0);
        return b;
    }
    int drain()
    {
        int n = 0;
        while (!next(0).empty())
            n++;
        return n;
    }
};

void fill_mix_out(int o, float v)
{
    for (int k = 0; k < MIX_BLOCK; k++)
        mix_out[k * MIX_OUT_MAX + o] = v;
}

// State: no stream configured; the test builds stream records by hand and
// attaches them to a socket of its own, so the send path runs on its own.
class RtpSendLoopback : public ::testing::Test {
protected:
    void SetUp() override
    {
        memset(mix_out, 0, sizeof mix_out);
        opus_enc_rtp_ts = 0;
        load_level = 0;
        pelod_ssrc = 0x12345678;
        sk = static_cast<rtp_sk *>(calloc(1, sizeof(rtp_sk)));
        sk->fd = socket(AF_INET, SOCK_DGRAM, 0);
    }
    void TearDown() override
    {
        for (rtp_src *s : made)
            rtp_src_destroy(s);
        close(sk->fd);
        free(sk);
    }
    rtp_src *stream(int nchn, int ptime = 48, int payload_format = 0)
    {
        rtp_src *s = static_cast<rtp_src *>(calloc(1, sizeof(rtp_src)));
        s->nchn = nchn;
        s->mix[0] = 0;
        s->mix[1] = nchn > 1 ? 1 : 0;
        s->gainv[0] = s->gainv[1] = 1.0f;
        s->rtp_pt = RTP_PT_UNSET;
        s->rtp_ptime_samples = ptime;
        s->fmt.payload_format = payload_format;
        s->ep.sa_dst = rx.addr;
        s->ep.sa_bind = loopback(0);
        s->ep.sk = sk;
        if (payload_format == 1) {
            EXPECT_EQ(rtp_src_encoder_create(s), 0);
        }
        made.push_back(s);
        return s;
    }
    // Runs the stream for `cycles` cycles from rtp_ts and collects what it sent.
    std::vector<packet> run(rtp_src *s, uint32_t rtp_ts, int cycles)
    {
        std::vector<packet> got;
        for (int c = 0; c < cycles; c++) {
            rtp_send(s, rtp_ts + uint32_t(48 * c));
            for (packet p = rx.next(0); !p.empty(); p = rx.next(0))
                got.push_back(p);
        }
        return got;
    }
    udp_rx rx;
    rtp_sk *sk = nullptr;
    std::vector<rtp_src *> made;
};

TEST_F(RtpSendLoopback, HeaderCarriesVersionPayloadTypeSequenceTimestampAndSsrc)
{
    rtp_src *mono = stream(1), *stereo = stream(2), *typed = stream(2);
    typed->rtp_pt = 97;
    const uint32_t t0 = 0xFFFFFFD0u; // the timestamp wraps on the next cycle
    const struct {
        rtp_src *s;
        uint8_t pt;
    } cases[] = {{mono, 101}, {stereo, 96}, {typed, 97}};
    for (const auto &c : cases) {
        const std::vector<packet> got = run(c.s, t0, 2);
        ASSERT_EQ(got.size(), 2u);
        for (size_t i = 0; i < got.size(); i++) {
            const uint8_t *h = got[i].data();
            EXPECT_EQ(h[0], 0x80);
            EXPECT_EQ(h[1], c.pt);
            EXPECT_EQ(be16(h + 2), i);
            EXPECT_EQ(be32(h + 4), uint32_t(t0 + 48 * i));
            EXPECT_EQ(be32(h + 8), 0x12345678u);
        }
        EXPECT_EQ(c.s->ep.tx_pkts, 2);
    }
}

TEST_F(RtpSendLoopback, OneMillisecondPacketsHold144BytesPerChannel)
{
    for (int nchn : {1, 2, 3}) {
        const std::vector<packet> got = run(stream(nchn), 4800, 3);
        ASSERT_EQ(got.size(), 3u) << nchn;
        for (const packet &p : got)
            EXPECT_EQ(p.size(), size_t(12 + 144 * nchn)) << nchn;
    }
}

TEST_F(RtpSendLoopback, SequenceNumberWrapsAndCountsHeldBackPackets)
{
    rtp_src *s = stream(1);
    s->rtp_seq = 65535;
    std::vector<packet> got = run(s, 0, 2);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(be16(got[0].data() + 2), 65535);
    EXPECT_EQ(be16(got[1].data() + 2), 0);
}

TEST_F(RtpSendLoopback, LongerPacketTimeCollectsBlocksUnderOneTimestamp)
{
    rtp_src *s = stream(2, 240); // 5 ms
    std::vector<packet> got = run(s, 960, 4);
    EXPECT_TRUE(got.empty());
    got = run(s, 960 + 4 * 48, 2);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].size(), size_t(12 + 5 * 288));
    EXPECT_EQ(be32(got[0].data() + 4), 960u);
    EXPECT_EQ(s->packet_nsamples, 48); // the next packet is open, one block in
    EXPECT_EQ(s->rtp_seq, 1);
}

TEST_F(RtpSendLoopback, FullPacketIsSentBeforeThePacketTime)
{
    // 10 ms of stereo L24 does not fit a datagram: 1452 bytes end the packet
    std::vector<packet> got = run(stream(2, 480), 0, 10);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].size(), 1452u);
    EXPECT_EQ(be32(got[1].data() + 4), 240u);
    // three channels would pass the buffer end on the fourth block
    got = run(stream(3, 480), 0, 6);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].size(), size_t(12 + 3 * 432));
}

TEST_F(RtpSendLoopback, PcmIsBigEndian24BitOfGainTimesSample)
{
    rtp_src *s = stream(2);
    s->gainv[1] = 0.5f;
    const std::array<float, 4> left = {0.5f, -0.5f, 1.0f, -1.0f};
    const std::array<uint32_t, 4> want_left = {0x3FFFFF, 0xC00001, 0x7FFFFF, 0x800001};
    for (int k = 0; k < MIX_BLOCK; k++) {
        mix_out[k * MIX_OUT_MAX + 0] = left[size_t(k) % 4];
        mix_out[k * MIX_OUT_MAX + 1] = 0.3f;
    }
    const std::vector<packet> got = run(s, 0, 1);
    ASSERT_EQ(got.size(), 1u);
    const uint8_t *pl = got[0].data() + 12;
    for (int k = 0; k < MIX_BLOCK; k++) {
        EXPECT_EQ(l24(pl + 6 * k), want_left[size_t(k) % 4]) << k;
        EXPECT_EQ(l24(pl + 6 * k + 3), 0x133333u) << k; // 0.5 * 8388607 * 0.3 truncated
    }
}

TEST_F(RtpSendLoopback, ValuesBeyondFullScaleWrapInsteadOfClipping)
{
    rtp_src *s = stream(1);
    s->gainv[0] = 2.0f; // +6 dB on a full-scale mix
    fill_mix_out(0, 1.0f);
    std::vector<packet> got = run(s, 0, 1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(l24(got[0].data() + 12), 0xFFFFFEu); // 16777214: reads as -2
    fill_mix_out(0, 0.75f);
    got = run(s, 48, 1);
    EXPECT_EQ(l24(got[0].data() + 12), 0xBFFFFEu); // the sign flips
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
        EXPECT_EQ(l24(got[0].data() + 12 + 6 * k), 0x5A9DF9u); // 0.707946 * full scale
        EXPECT_EQ(l24(got[0].data() + 15 + 6 * k), 0x5A9DF9u);
    }
    s->gainv[1] = 0.5f; // different gains: each channel at its own gain
    got = run(s, 48, 1);
    EXPECT_EQ(l24(got[0].data() + 12), 0x7FFFFFu);
    EXPECT_EQ(l24(got[0].data() + 15), 0x3FFFFFu);
}

TEST_F(RtpSendLoopback, ThirdChannelIsSilent)
{
    fill_mix_out(0, 0.5f);
    fill_mix_out(1, 0.5f);
    const std::vector<packet> got = run(stream(3), 0, 1);
    ASSERT_EQ(got.size(), 1u);
    for (int k = 0; k < MIX_BLOCK; k++)
        EXPECT_EQ(l24(got[0].data() + 12 + 9 * k + 6), 0u);
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
    EXPECT_EQ(l24(got[0].data() + 12), 0x3FFFFFu);
    EXPECT_EQ(l24(got[0].data() + 15), 0xC00001u);
}

TEST_F(RtpSendLoopback, MulticastBackoffHoldsBackOnePlusLoadLevelPackets)
{
    rtp_src *s = stream(1);
    s->ep.backoff_cnt = RTP_BACKOFF_ARMED; // as opened for a multicast group
    load_level = 3;
    std::vector<packet> got = run(s, 0, 4);
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(s->tx_backoff, 4);
    EXPECT_EQ(s->ep.backoff_cnt, 0);
    got = run(s, 4 * 48, 2);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(be16(got[0].data() + 2), 4); // held-back packets used their numbers
    EXPECT_EQ(s->ep.tx_pkts, 2);

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

TEST_F(RtpSendLoopback, UnattachedOrFailedEndpointSendsNothingButKeepsNumbering)
{
    rtp_src *s = stream(1);
    s->ep.sk = nullptr;
    EXPECT_TRUE(run(s, 0, 2).empty());
    s->ep.sk = sk;
    s->ep.sa_bind.sin_addr.s_addr = INADDR_NONE;
    EXPECT_TRUE(run(s, 0, 1).empty());
    s->ep.sa_bind = loopback(0);
    s->ep.sa_dst.sin_family = 0; // closed
    EXPECT_TRUE(run(s, 0, 1).empty());
    s->ep.sa_dst.sin_family = AF_INET;
    EXPECT_EQ(s->ep.tx_pkts + s->ep.tx_err, 0);
    const std::vector<packet> got = run(s, 0, 1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(be16(got[0].data() + 2), 4);
}

TEST_F(RtpSendLoopback, RefusedSendCountsAnError)
{
    rtp_src *s = stream(1);
    s->ep.sa_dst.sin_addr.s_addr = INADDR_BROADCAST; // no SO_BROADCAST: refused locally
    run(s, 0, 2);
    EXPECT_EQ(s->ep.tx_err, 2);
    EXPECT_EQ(s->ep.tx_pkts, 0);
}

TEST_F(RtpSendLoopback, SendPathDoesNotAllocate)
{
    rtp_src *pcm = stream(2, 96), *opus = stream(2, 48, 1);
    fill_mix_out(0, 0.25f);
    alloc_count_start();
    for (uint32_t c = 0; c < 30; c++) { // several Opus frames and PCM packets
        rtp_send(pcm, 48 * c);
        rtp_send(opus, 48 * c);
    }
    EXPECT_EQ(alloc_count_stop(), 0);
    EXPECT_EQ(pcm->ep.tx_pkts, 15);
    EXPECT_GE(opus->ep.tx_pkts, 2);
}

// One 1 kHz sine block for cycle c (a whole number of periods per 1 ms).
void sine_block(int o, float amp)
{
    for (int k = 0; k < MIX_BLOCK; k++)
        mix_out[k * MIX_OUT_MAX + o] = amp * float(std::sin(2.0 * M_PI * k / 48.0));
}

TEST_F(RtpSendLoopback, OpusStreamsBeginFramesInDifferentCyclesAndDecodeToTheLevel)
{
    rtp_src *a = stream(1, 48, 1), *b = stream(1, 48, 1);
    b->gainv[0] = 0.5f;
    sine_block(0, 0.5f);
    std::vector<std::pair<int, packet>> sent; // (0 a / 1 b, packet)
    const uint32_t t0 = 96000;
    for (int c = 0; c < 200; c++) {
        const uint32_t ts = t0 + uint32_t(48 * c);
        int i = 0;
        for (rtp_src *s : {a, b}) {
            rtp_send(s, ts);
            for (packet p = rx.next(0); !p.empty(); p = rx.next(0))
                sent.emplace_back(i, p);
            i++;
        }
        if (c == 9) { // a's first frame is complete, b's is one cycle behind
            ASSERT_EQ(sent.size(), 1u);
            EXPECT_EQ(sent[0].first, 0);
        }
    }
    // b deferred its first frame by one cycle; its packets finish a cycle later
    ASSERT_GE(sent.size(), 39u);
    EXPECT_EQ(be32(sent[0].second.data() + 4), t0);
    EXPECT_EQ(be32(sent[1].second.data() + 4), t0); // opened before the deferral
    EXPECT_EQ(be32(sent[3].second.data() + 4), t0 + 528);

    int err = 0;
    OpusDecoder *dec[2] = {opus_decoder_create(48000, 1, &err), opus_decoder_create(48000, 1, &err)};
    double energy[2] = {0, 0};
    int n[2] = {0, 0}, frames[2] = {0, 0};
    for (const auto &[i, p] : sent) {
        EXPECT_EQ(p[1], 101);
        std::array<float, 480> pcm{};
        const int got = opus_decode_float(dec[i], p.data() + 12, int(p.size() - 12), pcm.data(), 480, 0);
        ASSERT_EQ(got, 480);
        if (++frames[i] > 5) // past the encoder's start-up
            for (float v : pcm) {
                energy[i] += double(v) * v;
                n[i]++;
            }
    }
    for (OpusDecoder *d : dec)
        opus_decoder_destroy(d);
    const double rms_a = std::sqrt(energy[0] / n[0]), rms_b = std::sqrt(energy[1] / n[1]);
    EXPECT_NEAR(20 * std::log10(rms_a / (0.5 / M_SQRT2)), 0.0, 1.0);
    EXPECT_NEAR(20 * std::log10(rms_b / (0.25 / M_SQRT2)), 0.0, 1.0);
}

TEST_F(RtpSendLoopback, OpusPacketTimeCollectsFramesBackToBack)
{
    rtp_src *s = stream(2, 960, 1);
    sine_block(0, 0.5f);
    sine_block(1, 0.5f);
    const std::vector<packet> got = run(s, 4800, 40);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(be32(got[1].data() + 4), 4800u + 960);
    EXPECT_EQ(got[0][1], 96);
}

TEST(RtpSrcDebug, LineNamesAddressesFormatAndMixes)
{
    rtp_src s{};
    src p{};
    snprintf(p.mix, sizeof p.mix, "left:right");
    p.fmt.payload_format = 0;
    s.ep.sa_dst = loopback(5004);
    s.ep.sa_dst.sin_addr.s_addr = inet_addr("239.192.1.5");
    s.ep.sa_bind = loopback(5004);
    s.ep.sa_bind.sin_addr.s_addr = inet_addr("192.168.1.10");
    s.mix[0] = 2;
    s.mix[1] = 3;
    testing::internal::CaptureStdout();
    debug_print_src('+', &s, &p);
    debug_print_src('-', &s, nullptr);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, std::string("+ src  239.192.1.5:5004 #261 on 192.168.1.10 ") + payload_format_str(0) +
                       " <- left:right (2,3)\n- src  239.192.1.5:5004 #261 on 192.168.1.10  <-  (2,3)\n");
}

TEST(RtpSrcDebug, OpusAndLimiterDetails)
{
    rtp_src s{};
    s.nchn = 1;
    s.cbr = 1;
    s.bitrate = 24000;
    s.ep.sa_dst.sin_family = alsa_src_family;
    s.limcom.current_params = {1, 0, 1, 0, 0, 0, 0};
    ASSERT_EQ(rtp_src_encoder_create(&s), 0);
    testing::internal::CaptureStdout();
    debug_print_src('+', &s, nullptr);
    const std::string out = testing::internal::GetCapturedStdout();
    opus_encoder_destroy(s.opus_enc);
    EXPECT_EQ(out, "+ src ALSA (24000CBR Complexity:2 FEC:n Prediction:y) <-  (0,0)\n"
                   "  : limiter compressor for channels 0,1\n");
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

// State: no stream running, mix outputs free, no source configured.
class RtpSourcesUpdate : public ::testing::Test {
protected:
    void SetUp() override
    {
        srcs_used = 0;
        pelod_update_rtp_sources();
        mix_init();
        opus_enc_rtp_ts = 0;
    }
    void TearDown() override
    {
        srcs_used = 0;
        pelod_update_rtp_sources();
        mix_init();
    }
    // The creation pass needs routing's mix outputs and the socket layer.
    bool routing_and_sockets_present()
    {
        const int probe = mix_ref("probe");
        mix_init();
        rtp_ep ep{};
        const rtp_ep_spec spec{rx.addr, loopback(0), 0};
        rtp_ep_open(&ep, &spec, nullptr);
        const bool open = ep.sa_dst.sin_family == AF_INET;
        rtp_ep_close(&ep);
        return probe >= 0 && open;
    }
    void configure(std::initializer_list<src> list)
    {
        srcs_used = 0;
        for (const src &p : list)
            srcs[srcs_used++] = p;
        pelod_update_rtp_sources();
    }
    udp_rx rx;
};

TEST_F(RtpSourcesUpdate, MixListWithoutOutputIsRefusedWithAMessage)
{
    for (int o = 0; o < MIX_OUT_MAX; o++)
        snprintf(mixouts[o].id, sizeof mixouts[o].id, "m%d", o);
    testing::internal::CaptureStdout();
    configure({configured("newmix", 5004), configured("m1:", 5006), configured(",m2", 5008)});
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "+ src  newmix out of output channels\n"
                   "+ src  m1: out of output channels\n"
                   "+ src  ,m2 out of output channels\n");
    EXPECT_EQ(rtp_srcs, nullptr);
}

TEST_F(RtpSourcesUpdate, MixListGivesChannelCountPayloadTypeAndGains)
{
    if (!routing_and_sockets_present())
        GTEST_SKIP() << "needs routing's mix_ref and the socket layer";
    src one = configured("a", 5004), two = configured("a:b", 5006), three = configured("a,b;", 5008),
        four = configured("a b c", 5010);
    two.gainv_dB[0] = -6.0f;
    two.gainv_dB[1] = -100.0f;
    configure({one, two, three, four});
    const std::vector<rtp_src *> v = running();
    ASSERT_EQ(v.size(), 4u);
    EXPECT_EQ(v[0]->nchn, 1);
    EXPECT_EQ(v[1]->nchn, 2);
    EXPECT_EQ(v[2]->nchn, 3);
    EXPECT_EQ(v[3]->nchn, 3);
    EXPECT_EQ(v[1]->mix[0], v[0]->mix[0]);
    EXPECT_NE(v[1]->mix[1], v[1]->mix[0]);
    EXPECT_NEAR(v[1]->gainv[0], 0.501187f, 1e-6);
    EXPECT_EQ(v[1]->gainv[1], 0.0f);
    EXPECT_EQ(v[0]->gainv[0], 1.0f);
}

TEST_F(RtpSourcesUpdate, ReloadKeepsStreamsAndAppliesGainsInPlace)
{
    if (!routing_and_sockets_present())
        GTEST_SKIP() << "needs routing's mix_ref and the socket layer";
    src p = configured("a:b", ntohs(rx.addr.sin_port));
    configure({p});
    rtp_src *s = rtp_srcs;
    ASSERT_NE(s, nullptr);
    for (uint32_t c = 0; c < 3; c++)
        rtp_send(s, 48 * c);
    configure({p}); // unchanged
    ASSERT_EQ(rtp_srcs, s);
    EXPECT_EQ(s->rtp_seq, 3);
    p.gainv_dB[1] = -20.0f;
    configure({p});
    ASSERT_EQ(rtp_srcs, s);
    EXPECT_FLOAT_EQ(s->gainv[1], 0.1f);
    p.ep.sa_bind.sin_addr.s_addr = htonl(INADDR_ANY); // bind only: re-bound
    configure({p});
    ASSERT_EQ(rtp_srcs, s);
    EXPECT_EQ(s->ep.sa_bind.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(s->rtp_seq, 3);
    p.ep.sa_dst.sin_port = htons(ntohs(p.ep.sa_dst.sin_port) + 1); // destination: replaced
    configure({p});
    ASSERT_NE(rtp_srcs, nullptr);
    EXPECT_EQ(rtp_srcs->rtp_seq, 0);
    EXPECT_EQ(rtp_srcs->next, nullptr);
    configure({});
    EXPECT_EQ(rtp_srcs, nullptr);
}

TEST_F(RtpSourcesUpdate, NewStreamsJoinAtTheTailAndIdentityCoversFormatAndPacketTime)
{
    if (!routing_and_sockets_present())
        GTEST_SKIP() << "needs routing's mix_ref and the socket layer";
    src a = configured("a", 5004), b = configured("b", 5004, 1);
    configure({a});
    rtp_src *first = rtp_srcs;
    configure({b, a});
    std::vector<rtp_src *> v = running();
    ASSERT_EQ(v.size(), 2u);
    EXPECT_EQ(v[0], first);
    EXPECT_NE(v[1]->opus_enc, nullptr);
    a.rtp_ptime_samples = 96;
    configure({b, a});
    v = running();
    ASSERT_EQ(v.size(), 2u);
    EXPECT_EQ(v[1]->rtp_ptime_samples, 96);
}

TEST_F(RtpSourcesUpdate, TwoOpusStreamsCreatedTogetherStartInConsecutiveCycles)
{
    if (!routing_and_sockets_present())
        GTEST_SKIP() << "needs routing's mix_ref and the socket layer";
    configure({configured("a", 5004, 1), configured("b", 5006, 1)});
    const std::vector<rtp_src *> v = running();
    ASSERT_EQ(v.size(), 2u);
    rtp_send(v[0], 4800);
    rtp_send(v[1], 4800);
    EXPECT_EQ(v[0]->opus_inbuf_avail, 48);
    EXPECT_EQ(v[1]->opus_inbuf_avail, 0);
    rtp_send(v[0], 4848);
    rtp_send(v[1], 4848);
    EXPECT_EQ(v[1]->opus_inbuf_avail, 48);
}

} // namespace
