#include "rtp/rtp_recv.h"

#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "support/alloc_count.h"
#include "support/emulation.h"
#include "support/proc.h"

#include <arpa/inet.h>
#include <chrono>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <opus.h>
#include <random>
#include <tuple>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
// Leak checks need ptrace, which containers often refuse; leaks are not what this build looks for.
extern "C" const char *__asan_default_options() { return "detect_leaks=0"; }
#endif

namespace {
using bytes = std::vector<uint8_t>;

bytes l24(std::vector<int32_t> v)
{
    bytes b;
    for (int32_t x : v)
        b.insert(b.end(), {uint8_t(x >> 16), uint8_t(x >> 8), uint8_t(x)});
    return b;
}
bytes ramp(int32_t base) // 48 distinct mono samples: a 1 ms packet
{
    std::vector<int32_t> v(48);
    for (int k = 0; k < 48; k++)
        v[size_t(k)] = base + k * 4099;
    return l24(v);
}
bytes rtp(uint16_t seq, uint32_t ts, const bytes &payload, int pt = 101, bool marker = false, uint32_t ssrc = 0x1234)
{
    bytes p = {0x80, uint8_t((marker ? 0x80 : 0) | pt), uint8_t(seq >> 8), uint8_t(seq), uint8_t(ts >> 24),
               uint8_t(ts >> 16), uint8_t(ts >> 8), uint8_t(ts), uint8_t(ssrc >> 24), uint8_t(ssrc >> 16),
               uint8_t(ssrc >> 8), uint8_t(ssrc)};
    p.insert(p.end(), payload.begin(), payload.end());
    return p;
}
// From a buffer of exactly the datagram's size, so that the sanitizer build catches any read past it.
void feed(rtp_ep *ep, const bytes &p, uint32_t now)
{
    std::unique_ptr<uint8_t[]> b(new uint8_t[p.size()]);
    if (!p.empty())
        memcpy(b.get(), p.data(), p.size());
    rtp_ep_recv_packet(ep, b.get(), int(p.size()), now);
}
float s24f(int32_t x) { return float(x) * int24_to_float; }

class RtpRecvFlow : public ::testing::Test { // state: one fresh flow, mono L24, automatic delay
protected:
    static constexpr int I = 5;
    static constexpr uint32_t L = 0xFFFFFF00u; // local clock about to wrap
    static constexpr uint32_t TS = 1000;       // the sender's first timestamp
    rtp_dst *dst = &rtp_dsts[I];
    rtp_ep *ep = &dst->ep;

    void SetUp() override
    {
        mix_inp_init();
        memset(mix_inp_storage, 0, sizeof mix_inp_storage);
        dst_init(dst, I);
        dst->fmt = rtp_fmt{RTP_FMT_PCM, 24, 48000, 1};
        dst->channel_mode = -1;
        ep->dst = dst;
        pdly_samples_min = 96;
        pelod_ssrc = 0x40000000;
    }
    static float slot(uint32_t t, int i = I) { return *mix_slot(t, i); }
    // seq 10 at L teaches, seq 11 at L + 48 locks: timestamp T then plays at L + 96 + (T - TS)
    void start(const bytes &second = ramp(1), int pt = 101)
    {
        feed(ep, rtp(10, TS, ramp(7), pt), L);
        feed(ep, rtp(11, TS + 48, second, pt), L + 48);
    }
    static uint32_t at(uint32_t ts) { return L + 96 + (ts - TS); }
    static int written(uint32_t from, int n)
    {
        int w = 0;
        for (int k = 0; k < n; k++)
            w += slot(from + uint32_t(k)) != 0.0f;
        return w;
    }
};

TEST_F(RtpRecvFlow, FirstDatagramPlaysNothingSecondPlaysAtTheLock)
{
    feed(ep, rtp(10, TS, ramp(7)), L);
    EXPECT_EQ(written(L - 200, 1000), 0);
    EXPECT_EQ(ep->rx_srst, 1);
    feed(ep, rtp(11, TS + 48, ramp(1)), L + 48);
    for (int k = 0; k < 48; k++) // one packet before the clock, plus 3 ms
        ASSERT_EQ(slot(L + 144 + k), s24f(1 + k * 4099)) << k;
    EXPECT_EQ(written(L - 200, 1000), 48);
    for (uint16_t s = 12; s < 20; s++) // on time: no further re-lock
        feed(ep, rtp(s, TS + 48 * (s - 10), ramp(s)), L + 48 * (s - 10));
    EXPECT_EQ(slot(at(TS + 48 * 9)), s24f(19));
    EXPECT_EQ(written(L - 200, 1000), 9 * 48);
    EXPECT_EQ(ep->ptime_samples, 48);
    EXPECT_EQ(ep->rx_count, 10);
    EXPECT_EQ(ep->rx_good, 9);
    EXPECT_EQ(ep->rx_reset, 1);
    EXPECT_EQ(ep->rx_late, 0);
}

TEST_F(RtpRecvFlow, GapsRepeatsAndMarkers)
{
    start();
    feed(ep, rtp(15, TS + 5 * 48, ramp(2)), L + 5 * 48); // 12..14 lost
    EXPECT_EQ(ep->rx_drop, 3);
    EXPECT_EQ(ep->rx_seqe, 1);
    EXPECT_EQ(slot(at(TS + 5 * 48)), s24f(2)); // by timestamp, with the old packet time
    feed(ep, rtp(15, TS + 6 * 48, ramp(3)), L + 6 * 48);
    feed(ep, rtp(15 - 511, TS + 6 * 48, ramp(3)), L + 6 * 48); // the oldest still taken as a repeat
    EXPECT_EQ(ep->rx_dupl, 2);
    EXPECT_EQ(ep->rx_seqe, 3);
    EXPECT_EQ(slot(at(TS + 6 * 48)), 0.0f);
    feed(ep, rtp(16, TS + 6 * 48, ramp(4)), L + 6 * 48); // 15 stayed the reference
    EXPECT_EQ(slot(at(TS + 6 * 48)), s24f(4));

    feed(ep, rtp(17, TS + 7 * 48, ramp(5), 101, true), L + 7 * 48);
    EXPECT_EQ(slot(at(TS + 7 * 48)), 0.0f);
    EXPECT_EQ(ep->ptime_samples, 0);
    feed(ep, rtp(18, TS + 8 * 48, ramp(6)), L + 8 * 48);
    EXPECT_NE(slot(at(TS + 8 * 48)), 0.0f);
    EXPECT_EQ(ep->rx_srst, 2);
    EXPECT_EQ(ep->rx_reset, 2);
    EXPECT_EQ(ep->rx_good, 3);
    EXPECT_EQ(ep->rx_count, 8);
}

TEST_F(RtpRecvFlow, EarlySenderRelocksLateOneKeepsTheLockFor2Point5Seconds)
{
    start();
    const uint32_t early = L + 86; // seq 12 arrives 10 samples before it is due
    feed(ep, rtp(12, TS + 96, ramp(2)), early);
    EXPECT_EQ(ep->rx_reset, 2);
    EXPECT_EQ(slot(early - 48 + 144), s24f(2));
    feed(ep, rtp(13, TS + 144, ramp(3)), early + 119999); // far behind, within the tolerance
    EXPECT_EQ(ep->rx_reset, 2);
    EXPECT_EQ(ep->rx_late, 1); // its position has passed: counted, written all the same
    EXPECT_EQ(slot(early + 144), s24f(3));
    feed(ep, rtp(14, TS + 192, ramp(4)), early + 120000); // 2.5 s without a datagram in time
    EXPECT_EQ(ep->rx_reset, 3);
    EXPECT_EQ(ep->rx_late, 1);
    EXPECT_EQ(slot(early + 120000 + 96), s24f(4));
}

TEST_F(RtpRecvFlow, PlayoutDelayFollowsPacketTimeMinimumAndConfiguration)
{
    struct delay_case {
        int32_t ptime, min;
        uint32_t configured, expected;
    };
    for (const delay_case c : {delay_case{48, 96, 0, 144}, delay_case{32, 240, 0, 240}, delay_case{480, 96, 0, 1440},
                               delay_case{480, 2000, 0, 2000}, delay_case{48, 2000, 500, 500}}) {
        SetUp();
        pdly_samples_min = c.min;
        dst->pdly = c.configured;
        const bytes pcm(size_t(c.ptime) * 3, 0x11);
        feed(ep, rtp(1, TS, pcm), L);
        feed(ep, rtp(2, TS + uint32_t(c.ptime), pcm), L + 1000);
        const uint32_t first = L + 1000 - uint32_t(c.ptime) + c.expected;
        EXPECT_TRUE(slot(first - 1) == 0.0f && slot(first) != 0.0f) << c.ptime << " " << c.min;
    }
}

TEST_F(RtpRecvFlow, HeaderSkipsCsrcAndExtensionAndIgnoresRtcpTypes)
{
    bytes p = rtp(11, TS + 48, {});
    p[0] |= 0x10 | 2;                                                      // two CSRCs and an extension
    p.insert(p.end(), {1, 2, 3, 4, 5, 6, 7, 8, 0xBE, 0xDE, 0, 1, 9, 9, 9, 9}); // CSRCs, extension of one word
    const bytes s = l24({0x400000, 0x200000});
    p.insert(p.end(), s.begin(), s.end());
    feed(ep, rtp(10, TS, ramp(1)), L);
    feed(ep, p, L + 48);
    EXPECT_EQ(slot(L + 144), s24f(0x400000));
    EXPECT_EQ(slot(L + 145), s24f(0x200000));
    for (int pt = 64; pt <= 95; pt++)
        feed(ep, rtp(12, TS + 96, ramp(1), pt), L + 96);
    EXPECT_EQ(ep->rx_count, 2);
    EXPECT_EQ(written(L, 400), 2);
}

TEST_F(RtpRecvFlow, PcmWritersScaleSelectDownMixAndFeedTheLevelTap)
{
    struct pcm_case {
        const char *what;
        int bps, nchan, chn, pt;
        bytes payload;
        std::vector<float> expected;
    };
    const float s16 = 256 * int16_to_float;
    const std::vector<pcm_case> cases = {
        {"L24 mono", 24, 1, -1, 101, l24({-0x800000, 0x7FFFFF, 1, -1}), {s24f(-0x800000), 1.0f, s24f(1), s24f(-1)}},
        {"L24 right", 24, 2, 1, 101, l24({1, 0x123456, 2, -0x123456}), {s24f(0x123456), s24f(-0x123456)}},
        {"L24 down-mix", 24, 2, -1, 101, l24({0x7FFFFF, -0x200000}),
         {float(double((float(0x7FFFFF) + float(-0x200000)) * int24_to_float) * 0.707946)}},
        {"L16 second byte", 16, 2, 0, 101, {0x12, 0x34, 0x7F, 0xFF, 0x00, 0x80, 1, 1}, {0x34 * s16, -128 * s16}},
        {"L16 never down-mixed", 16, 2, -1, 101, {0, 0x40, 0, 0x10}, {0x40 * s16}},
        {"partial frame: zeros past the end", 24, 1, 0, 101, {0, 0, 1, 0x40}, {s24f(1), s24f(0x400000)}},
        {"channel beyond the stream", 24, 2, 3, 101, l24({5, 6}), {0.0f}},
        {"map: PT 112 is 16-bit stereo", 0, 0, -1, 112, {0, 0x20, 9, 9, 0, 0x30, 9, 9}, {0x20 * s16, 0x30 * s16}},
        {"map: 144 bytes are mono 24-bit", 0, 0, -1, 112, ramp(3), {s24f(3), s24f(3 + 4099)}},
        {"map: unknown PT is 24-bit stereo", 0, 0, -1, 50, l24({4, 6}), {float(double(10 * int24_to_float) * 0.707946)}},
    };
    for (const pcm_case &c : cases) {
        SetUp();
        dst->fmt = rtp_fmt{RTP_FMT_PCM, c.bps, 48000, c.nchan};
        dst->channel_mode = c.chn;
        start(c.payload, c.pt);
        const size_t n = c.payload.size() == 144 ? 48 : c.expected.size();
        for (size_t k = 0; k < c.expected.size(); k++)
            EXPECT_EQ(slot(L + 144 + uint32_t(k)), c.expected[k]) << c.what << " sample " << k;
        EXPECT_EQ(written(L + 144 + uint32_t(n), 100), 0) << c.what;
        EXPECT_EQ(dst->vox_sample, c.expected[0]) << c.what;
        EXPECT_EQ(dst->stats_audio_sample, std::max(c.expected[0], 0.0f)) << c.what; // signed, not magnitude
    }
}

// A 440 Hz left and 1000 Hz right channel, 10 ms per packet.
bytes opus_packet(OpusEncoder *enc, int n, int channels)
{
    std::vector<float> pcm;
    for (int k = 0; k < 480; k++)
        for (int j = 0; j < channels; j++)
            pcm.push_back(0.4f * std::sin(float(2 * M_PI * (j ? 1000 : 440) * (480 * n + k) / 48000.0)));
    bytes out(1500);
    out.resize(size_t(opus_encode_float(enc, pcm.data(), 480, out.data(), 1500)));
    return out;
}

TEST_F(RtpRecvFlow, OpusDecodesMonoStereoDownMixAndChannelSelectWithoutAllocating)
{
    for (const auto &[channels, chn] : {std::pair(1, -1), std::pair(2, -1), std::pair(2, 1)}) {
        SetUp();
        int err;
        dst->fmt = rtp_fmt{RTP_FMT_OPUS, 24, 48000, channels};
        dst->channel_mode = chn;
        dst->opus_dec = opus_decoder_create(48000, channels, &err);
        OpusDecoder *ref = opus_decoder_create(48000, channels, &err); // decodes what the flow decodes
        OpusEncoder *enc = opus_encoder_create(48000, channels, OPUS_APPLICATION_AUDIO, &err);
        std::vector<bytes> pkts;
        for (int n = 0; n < 3; n++)
            pkts.push_back(rtp(uint16_t(10 + n), TS + 480 * uint32_t(n), opus_packet(enc, n, channels), 96));
        alloc_count_start();
        for (uint32_t n = 0; n < 3; n++)
            rtp_ep_recv_packet(ep, pkts[n].data(), int(pkts[n].size()), L + 480 * n);
        EXPECT_EQ(alloc_count_stop(), 0);
        std::vector<float> w(960);
        for (uint32_t n = 1; n < 3; n++) {
            ASSERT_EQ(opus_decode_float(ref, pkts[n].data() + 12, int(pkts[n].size() - 12), w.data(), 480, 0), 480);
            for (size_t k = 0; k < 480; k++)
                ASSERT_EQ(slot(L + 1440 + 480 * (n - 1) + uint32_t(k)),
                          channels == 1 ? w[k] : chn < 0 ? float(double(w[2 * k] + w[2 * k + 1]) * 0.707946) : w[2 * k + 1])
                    << channels << "/" << chn << " " << k;
        }
        EXPECT_EQ(written(L + 1440 + 960, 200), 0);
        opus_encoder_destroy(enc);
        opus_decoder_destroy(ref);
        opus_decoder_destroy(dst->opus_dec);
    }
}

TEST(RtpBackoff, LowestAddressThenLowestSsrcKeepsTheGroup)
{
    pelod_ssrc = 5000;
    const bytes lower = rtp(1, 0, bytes(20), 96, false, 4999), own = rtp(1, 0, bytes(20), 96, false, 5000);
    for (const auto &[cnt, src, p, expected] : {
             std::tuple(7, 0xFFFFFFFFu, own, RTP_BACKOFF_ARMED), // a running back-off re-arms
             std::tuple(0, 0x0A000003u, lower, 0),                // higher address
             std::tuple(0, 0x0A000001u, own, RTP_BACKOFF_ARMED),  // lower address
             std::tuple(0, 0x0A000002u, lower, RTP_BACKOFF_ARMED), // same address, lower SSRC
             std::tuple(0, 0x0A000002u, own, 0),                  // our own loop-back
             std::tuple(0, 0x0A000002u, bytes(31, 0), 0)}) {      // too short to compare
        rtp_ep e{};
        e.if_addr_h = 0x0A000002;
        e.backoff_cnt = cnt;
        rtp_ep_backoff_check(&e, src, p.data(), int(p.size()));
        EXPECT_EQ(e.backoff_cnt, expected) << std::hex << src;
    }
}

class RtpRecvSocket : public RtpRecvFlow { // state: a socket on 127.0.0.1 with IP_PKTINFO, no endpoints
protected:
    rtp_sk sk{};
    int tx = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    void SetUp() override
    {
        RtpRecvFlow::SetUp();
        sk.fd = socket(AF_INET, SOCK_DGRAM, 0);
        const int on = 1, big = 4 << 20;
        setsockopt(sk.fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
        setsockopt(sk.fd, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof big);
        socklen_t len = sizeof to;
        ASSERT_EQ(bind(sk.fd, reinterpret_cast<sockaddr *>(&to), sizeof to), 0);
        getsockname(sk.fd, reinterpret_cast<sockaddr *>(&to), &len);
        for (dlist &b : sk.rtp_sk_ep_list_ip_dst_hash)
            dlist_init(&b);
    }
    void TearDown() override
    {
        close(sk.fd);
        close(tx);
    }
    rtp_dst *flow(int i, const char *addr, rtp_fmt fmt = {RTP_FMT_PCM, 24, 48000, 1})
    {
        rtp_dst *d = &rtp_dsts[i];
        dst_init(d, i);
        d->fmt = fmt;
        d->channel_mode = -1;
        d->ep.dst = d;
        inet_pton(AF_INET, addr, &d->ep.sa_dst.sin_addr);
        dlist_add_head(rtp_sk_ep_list(&sk, d->ep.sa_dst.sin_addr.s_addr), &d->ep.rtp_sk_ep_list);
        return d;
    }
    void send(const bytes &p)
    {
        ASSERT_EQ(sendto(tx, p.data(), p.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to), ssize_t(p.size()));
    }
};

TEST_F(RtpRecvSocket, ExactAndWildcardEndpointsReceiveOthersDoNot)
{
    rtp_dst *exact = flow(1, "127.0.0.1"), *wild = flow(2, "0.0.0.0"), *other = flow(3, "127.0.0.33"); // bucket 1
    rtp_ep out{}; // an outgoing stream's endpoint on the same destination, sending from 127.0.0.2
    out.sa_dst = exact->ep.sa_dst;
    out.if_addr_h = 0x7F000002;
    dlist_add_head(rtp_sk_ep_list(&sk, out.sa_dst.sin_addr.s_addr), &out.rtp_sk_ep_list);
    send(rtp(1, TS, ramp(1)));
    send(rtp(2, TS + 48, ramp(2)));
    rtp_sk_recvm(&sk, L);
    EXPECT_EQ(slot(L + 96, 1), s24f(2)); // both taken in at L
    EXPECT_EQ(slot(L + 96, 2), s24f(2));
    EXPECT_EQ(other->ep.rx_count, 0);
    EXPECT_EQ(out.backoff_cnt, RTP_BACKOFF_ARMED);

    const int off = 0; // without packet info the destination is 255.255.255.255
    setsockopt(sk.fd, IPPROTO_IP, IP_PKTINFO, &off, sizeof off);
    send(rtp(3, TS + 96, ramp(3)));
    rtp_sk_recvm(&sk, L + 48);
    EXPECT_EQ(exact->ep.rx_count, 2);
    EXPECT_EQ(wild->ep.rx_count, 3);
}

TEST_F(RtpRecvSocket, DrainsAtMost256PerCallWithoutAllocating)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to queue 300 datagrams (SO_RCVBUFFORCE)";
    rtp_dst *d = flow(1, "127.0.0.1");
    for (uint16_t s = 0; s < 300; s++)
        send(rtp(s, TS + 48u * s, ramp(s)));
    alloc_count_start();
    rtp_sk_recvm(&sk, L);
    EXPECT_EQ(alloc_count_stop(), 0);
    EXPECT_EQ(d->ep.rx_count, 256);
    ::testing::internal::CaptureStderr();
    rtp_sk_recvm(&sk, L);
    rtp_sk_recvm(&sk, L); // empty: EAGAIN is silent
    EXPECT_EQ(d->ep.rx_good, 299);
    const int fd = sk.fd;
    sk.fd = -1;
    rtp_sk_recvm(&sk, L);
    sk.fd = fd;
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "pelod: rtp_recvm: Bad file descriptor\n");
}

// Hostile datagrams: nothing is read outside the received bytes (the sanitizer build checks that), nothing
// is written outside the flows' columns of the ring, and only what has a whole fixed header counts.
class RtpRecvHostile : public RtpRecvSocket { // state: flows of every format on one socket
protected:
    std::vector<rtp_dst *> flows;
    void SetUp() override
    {
        RtpRecvSocket::SetUp();
        const rtp_fmt fmts[] = {{0, 24, 48000, 0}, {0, 24, 48000, 1}, {0, 16, 48000, 2}, {0, 24, 48000, 2},
                                {2, 24, 48000, 8}, {1, 24, 48000, 2}, {1, 24, 48000, 1}};
        int err;
        for (const rtp_fmt &f : fmts) {
            rtp_dst *d = flow(10 + int(flows.size()), flows.size() % 2 ? "127.0.0.1" : "0.0.0.0", f);
            d->channel_mode = f.nchan == 8 ? 7 : -1;
            if (f.payload_format == RTP_FMT_OPUS)
                d->opus_dec = opus_decoder_create(48000, f.nchan, &err);
            flows.push_back(d);
        }
    }
    void TearDown() override
    {
        for (rtp_dst *d : flows)
            if (d->opus_dec)
                opus_decoder_destroy(d->opus_dec);
        RtpRecvSocket::TearDown();
    }
    void expect_ring_clean() const
    {
        for (const float &v : mix_inp_storage) {
            const bool in_ring = &v >= mix_inp && &v < mix_inp + 8192 * 48;
            const int col = in_ring ? int((&v - mix_inp) % 48) : -1;
            ASSERT_TRUE(col >= 10 && col < 10 + int(flows.size()) ? std::isfinite(v) : v == 0.0f) << col;
        }
    }
};

TEST_F(RtpRecvHostile, MalformedHeadersCountButReadAndWriteNothingOutside)
{
    bytes cc15 = rtp(3, TS + 96, {1, 2, 3, 4, 5, 6, 7, 8}), ext_cut = rtp(4, TS + 144, {}),
          ext_long = rtp(5, TS + 192, {0xBE, 0xDE, 0xFF, 0xFF, 1, 2, 3});
    cc15[0] |= 15;
    ext_cut[0] |= 0x10; // no room for the extension's length word
    ext_long[0] |= 0x10;
    for (const bytes &p : {rtp(1, TS, ramp(1)), rtp(2, TS + 48, ramp(2)), bytes{}, bytes{0x80}, bytes(11, 0x90), cc15,
                           ext_cut, ext_long, rtp(6, TS + 240, bytes(3), 72)})
        for (rtp_dst *d : flows)
            feed(&d->ep, p, L + 240);
    for (rtp_dst *d : flows) {
        EXPECT_EQ(d->ep.rx_count, 5);
        EXPECT_EQ(d->ep.rx_good, 4);
    }
    expect_ring_clean();
}

TEST_F(RtpRecvHostile, RandomGarbageStaysInsideTheRing)
{
    std::mt19937 rng(4711);
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
    bytes p;
    uint32_t now = L;
    int64_t counted = 0;
    for (int n = 0; n < 20000 && std::chrono::steady_clock::now() < until; n++, now += 48) {
        p.resize(rng() % 3 ? rng() % 1501 : rng() % 40);
        for (uint8_t &b : p)
            b = uint8_t(rng());
        if (n % 4 == 0 && p.size() > 2)
            p[0] &= 0xEF; // often no extension, so that payloads get decoded
        counted += p.size() >= 12 && ((p[1] & 0x7F) < 64 || (p[1] & 0x7F) > 95);
        for (rtp_dst *d : flows)
            feed(&d->ep, p, now);
    }
    for (rtp_dst *d : flows)
        EXPECT_EQ(d->ep.rx_count, counted);
    for (const bytes &q : {bytes{}, bytes(1500, 0x5A), bytes(2000, 0xA5), bytes(7, 0x80)}) // 2000: truncated
        send(q);
    rtp_sk_recvm(&sk, now);
    expect_ring_clean();
}

class PelodTone : public ::testing::Test { // state: a receiving socket on 127.0.0.1
protected:
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    void SetUp() override
    {
        SKIP_UNDER_EMULATION(); // runs the tool
        socklen_t len = sizeof a;
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    }
    void TearDown() override { close(fd); }
    std::vector<bytes> tone(std::vector<std::string> args, size_t n = 100)
    {
        args.insert(args.begin(), std::string(PELOD_TOOLS_DIR) + "/pelod-tone");
        args.push_back("127.0.0.1:" + std::to_string(ntohs(a.sin_port)));
        const run_result r = run_prog(args);
        EXPECT_EQ(r.status, 0) << r.err;
        std::vector<bytes> got; // the tool has ended: all it sent is queued
        bytes b(1500);
        for (ssize_t l; got.size() < n && (l = recv(fd, b.data(), b.size(), MSG_DONTWAIT)) >= 0;)
            got.emplace_back(b.begin(), b.begin() + l);
        return got;
    }
    static uint32_t be32(const uint8_t *p) { return uint32_t(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3]; }
    static int32_t s24(const uint8_t *p) { return int32_t(uint32_t(p[0]) << 24 | p[1] << 16 | p[2] << 8) >> 8; }
};

TEST_F(PelodTone, SendsAToneAsL24StereoOnTheMediaClock)
{
    const std::vector<bytes> got = tone({"-n", "20", "-c", "2", "-f", "1000,1500", "-l", "-6", "-s", "0x1234abcd"});
    timespec now;
    clock_gettime(CLOCK_TAI, &now);
    const uint32_t tai = uint32_t(uint64_t(now.tv_sec) * 48000 + uint64_t(now.tv_nsec) * 3 / 62500);
    ASSERT_EQ(got.size(), 20u);
    for (size_t j = 0; j < got.size(); j++) {
        const uint8_t *p = got[j].data();
        ASSERT_EQ(got[j].size(), 12u + 288);
        EXPECT_EQ(p[1], 96);
        EXPECT_EQ(be32(p + 8), 0x1234abcdu);
        EXPECT_EQ(uint16_t(p[2] << 8 | p[3]), uint16_t((got[0][2] << 8 | got[0][3]) + j));
        EXPECT_EQ(be32(p + 4) - be32(got[0].data() + 4), 48 * j);
        for (int k = 0; k < 96; k++) {
            const double f = k % 2 ? 1500 : 1000, amp = std::pow(10.0, -6 / 20.0);
            ASSERT_NEAR(s24(p + 12 + 3 * k), amp * std::sin(2 * M_PI * f * double(48 * j + k / 2) / 48000) * 8388608, 1.0)
                << j << " " << k;
        }
    }
    const int32_t age = int32_t(tai - be32(got.back().data() + 4)); // the last one left just before
    EXPECT_TRUE(age > 0 && age < 48 * 500) << age;
}

TEST_F(PelodTone, SendsAWavFileUnchangedAndOpusThatDecodes)
{
    bytes wav = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' ', 16, 0, 0, 0, 1, 0, 1, 0,
                 0x80, 0xBB, 0, 0, 0, 0x77, 1, 0, 2, 0, 16, 0, 'd', 'a', 't', 'a', 200, 0, 0, 0};
    const auto sample = [](int k) { return int16_t(k * 300 - 15000); };
    for (int k = 0; k < 100; k++)
        wav.insert(wav.end(), {uint8_t(sample(k)), uint8_t(sample(k) >> 8)});
    const std::string path = tmp_file(std::string(wav.begin(), wav.end()), ".wav");
    std::vector<bytes> got = tone({"-i", path});
    unlink(path.c_str());
    ASSERT_EQ(got.size(), 3u); // 100 samples: two packets and one padded with silence
    for (int k = 0; k < 144; k++)
        ASSERT_EQ(s24(got[size_t(k / 48)].data() + 12 + 3 * (k % 48)), k < 100 ? sample(k) * 256 : 0) << k;

    got = tone({"-F", "opus", "-n", "5"});
    ASSERT_EQ(got.size(), 5u);
    int err;
    OpusDecoder *dec = opus_decoder_create(48000, 1, &err);
    std::vector<float> pcm(5760);
    for (size_t j = 0; j < got.size(); j++) {
        EXPECT_EQ(be32(got[j].data() + 4) - be32(got[0].data() + 4), 480 * j);
        EXPECT_EQ(opus_decode_float(dec, got[j].data() + 12, int(got[j].size() - 12), pcm.data(), 5760, 0), 480);
    }
    opus_decoder_destroy(dec);
}

TEST_F(PelodTone, RejectsBadOptionsWithAReason)
{
    const std::string tool = std::string(PELOD_TOOLS_DIR) + "/pelod-tone";
    for (const std::vector<std::string> &bad : {std::vector<std::string>{"-F", "mp3"}, {"-c", "3"}, {"-F", "opus", "-t", "3"},
                                                {"-c", "2", "-t", "6"}, {"-l", "3"}, {"300000"}}) {
        std::vector<std::string> argv = {tool, "127.0.0.1:9"};
        argv.insert(argv.begin() + 1, bad.begin(), bad.end());
        const run_result r = run_prog(argv);
        EXPECT_EQ(r.status, 1) << bad[0];
        EXPECT_EQ(r.err.rfind("pelod-tone: ", 0), 0u) << r.err;
    }
}
} // namespace
