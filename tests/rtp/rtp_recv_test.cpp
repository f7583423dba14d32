#include "rtp/rtp_recv.h"

#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "support/rtp_wire.h"

#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <opus.h>
#include <string>
#include <tuple>

#if defined(__SANITIZE_ADDRESS__)
// Leak checks need ptrace, which containers often refuse; leaks are not what this build looks for.
extern "C" const char *__asan_default_options() { return "detect_leaks=0"; }
#endif

namespace {
using bytes = std::vector<uint8_t>;

bytes ramp(int32_t base) // 48 distinct mono samples: a 1 ms packet
{
    std::vector<int32_t> v;
    for (int k = 0; k < 48; k++)
        v.push_back(base + k * 4099);
    return pcm24(v);
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
    // Sequence number s with timestamp TS + 48 (s - 10), arriving at L + 48 (s - 10).
    void packet(uint16_t s, const bytes &payload, int pt = 101, bool marker = false)
    {
        feed(ep, rtp_datagram(s, TS + 48 * uint32_t(s - 10), payload, pt, marker), L + 48 * uint32_t(s - 10));
    }
    // seq 10 at L teaches, seq 11 at L + 48 locks: timestamp T then plays at L + 96 + (T - TS)
    void start(const bytes &second = ramp(1), int pt = 101)
    {
        packet(10, ramp(7), pt);
        packet(11, second, pt);
    }
    static float played(uint16_t s) { return slot(L + 96 + 48 * uint32_t(s - 10)); }
    static int written(uint32_t from, int n)
    {
        int w = 0;
        for (int k = 0; k < n; k++)
            w += slot(from + uint32_t(k)) != 0.0f;
        return w;
    }
    std::string counters() const
    {
        return "count " + std::to_string(ep->rx_count) + " good " + std::to_string(ep->rx_good) + " drop " +
               std::to_string(ep->rx_drop) + " dupl " + std::to_string(ep->rx_dupl) + " seqe " +
               std::to_string(ep->rx_seqe) + " srst " + std::to_string(ep->rx_srst) + " reset " +
               std::to_string(ep->rx_reset) + " late " + std::to_string(ep->rx_late);
    }
};

TEST_F(RtpRecvFlow, GapsRepeatsAndMarkers)
{
    start();
    packet(15, ramp(2)); // 12..14 lost
    EXPECT_EQ(played(15), s24f(2)); // by timestamp, with the old packet time
    feed(ep, rtp_datagram(15, TS + 6 * 48, ramp(3)), L + 6 * 48);
    feed(ep, rtp_datagram(15 - 511, TS + 6 * 48, ramp(3)), L + 6 * 48); // the oldest still taken as a repeat
    EXPECT_EQ(played(16), 0.0f);
    packet(16, ramp(4)); // 15 stayed the reference
    EXPECT_EQ(played(16), s24f(4));
    EXPECT_EQ(counters(), "count 6 good 2 drop 3 dupl 2 seqe 3 srst 1 reset 1 late 0");

    packet(17, ramp(5), 101, true); // a marker restarts: nothing played, the lock taught again
    EXPECT_EQ(played(17), 0.0f);
    EXPECT_EQ(ep->ptime_samples, 0);
    packet(18, ramp(6));
    EXPECT_NE(played(18), 0.0f);
    EXPECT_EQ(counters(), "count 8 good 3 drop 3 dupl 2 seqe 3 srst 2 reset 2 late 0");
}

TEST_F(RtpRecvFlow, EarlySenderRelocksLateOneKeepsTheLockFor2Point5Seconds)
{
    start();
    const uint32_t early = L + 38; // seqs 12 and 13 arrive a packet time and 10 samples before they are due
    feed(ep, rtp_datagram(12, TS + 96, ramp(2)), early); // once may be our own stall: played at its timestamp
    EXPECT_EQ(played(12), s24f(2));
    feed(ep, rtp_datagram(13, TS + 144, ramp(3)), early + 48); // ahead on a second wake-up: re-locked
    EXPECT_EQ(slot(early + 144), s24f(3));
    feed(ep, rtp_datagram(14, TS + 192, ramp(4)), early + 48 + 119999); // far behind, within the tolerance
    EXPECT_NE(slot(early + 192), s24f(4)); // its position has passed: counted late, not written
    EXPECT_EQ(counters(), "count 5 good 4 drop 0 dupl 0 seqe 0 srst 1 reset 2 late 1");
    feed(ep, rtp_datagram(15, TS + 240, ramp(5)), early + 48 + 120000); // 2.5 s without a datagram in time
    EXPECT_EQ(ep->rx_reset, 3);
    EXPECT_EQ(slot(early + 48 + 120000 + 96), s24f(5));
}

TEST_F(RtpRecvFlow, HeaderSkipsCsrcAndExtensionAndIgnoresRtcpTypes)
{
    bytes p = rtp_datagram(11, TS + 48, {});
    p[0] |= 0x10 | 2;                                                          // two CSRCs and an extension
    p.insert(p.end(), {1, 2, 3, 4, 5, 6, 7, 8, 0xBE, 0xDE, 0, 1, 9, 9, 9, 9}); // extension of one word
    const bytes s = pcm24({0x400000, 0x200000});
    p.insert(p.end(), s.begin(), s.end());
    packet(10, ramp(1));
    feed(ep, p, L + 48);
    EXPECT_EQ(slot(L + 144), s24f(0x400000));
    EXPECT_EQ(slot(L + 145), s24f(0x200000));
    for (int pt = 64; pt <= 95; pt++)
        packet(12, ramp(1), pt);
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
        {"L24 mono", 24, 1, -1, 101, pcm24({-0x800000, 0x7FFFFF, 1, -1}), {s24f(-0x800000), 1.0f, s24f(1), s24f(-1)}},
        {"L24 right", 24, 2, 1, 101, pcm24({1, 0x123456, 2, -0x123456}), {s24f(0x123456), s24f(-0x123456)}},
        {"L24 down-mix", 24, 2, -1, 101, pcm24({0x7FFFFF, -0x200000}),
         {float(double((float(0x7FFFFF) + float(-0x200000)) * int24_to_float) * 0.707946)}},
        {"L16 second byte", 16, 2, 0, 101, {0x12, 0x34, 0x7F, 0xFF, 0x00, 0x80, 1, 1}, {0x34 * s16, -128 * s16}},
        {"partial frame: zeros past the end", 24, 1, 0, 101, {0, 0, 1, 0x40}, {s24f(1), s24f(0x400000)}},
        {"map: PT 112 is 16-bit stereo", 0, 0, -1, 112, {0, 0x20, 9, 9, 0, 0x30, 9, 9}, {0x20 * s16, 0x30 * s16}},
        {"map: unknown PT is 24-bit stereo", 0, 0, -1, 50, pcm24({4, 6}), {float(double(10 * int24_to_float) * 0.707946)}},
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

// A foreign encoder's Opus stereo, a tone on the left and half of it on
// the right: the down-mix sums the channels at -3 dB, chn=0 takes the left.
TEST(RtpRecvOpus, StereoIsDownMixedOrOneChannelSelected)
{
    mix_inp_init();
    OpusEncoder *enc = opus_encoder_create(48000, 2, OPUS_APPLICATION_AUDIO, nullptr);
    double energy[2] = {};
    float pcm[960];
    uint8_t pkt[1500];
    for (int i = 0; i < 2; i++) {
        dst_init(&rtp_dsts[20 + i], 20 + i);
        rtp_dsts[20 + i].fmt = rtp_fmt{RTP_FMT_OPUS, 16, 48000, 2};
        rtp_dsts[20 + i].channel_mode = i - 1;
        rtp_dsts[20 + i].opus_dec = opus_decoder_create(48000, 2, nullptr);
    }
    for (uint32_t f = 0; f < 20; f++) {
        for (int k = 0; k < 960; k++)
            pcm[k] = (k % 2 ? 0.125f : 0.25f) * std::sin(float(2 * M_PI) * float(k / 2) / 48.0f);
        const int len = opus_encode_float(enc, pcm, 480, pkt, sizeof pkt);
        for (int i = 0; i < 2; i++) {
            mix_inp_opus(pkt, len, 480 * f, &rtp_dsts[20 + i]);
            for (uint32_t k = 0; k < 480 && f >= 10; k++)
                energy[i] += std::pow(*mix_slot(480 * f + k, 20 + i), 2);
        }
    }
    EXPECT_NEAR(10 * std::log10(energy[0] / energy[1]), 20 * std::log10(1.5 * 0.707946), 0.2);
    opus_encoder_destroy(enc);
    for (int i = 0; i < 2; i++)
        opus_decoder_destroy(rtp_dsts[20 + i].opus_dec);
}

// Hostile datagrams: nothing is read outside the received bytes (the sanitizer build checks that), nothing
// is written outside the flows' columns of the ring, and every datagram of a flow counts.
class RtpRecvHostile : public RtpRecvFlow { // state: flows of every format
protected:
    std::vector<rtp_dst *> flows;
    void SetUp() override
    {
        RtpRecvFlow::SetUp();
        const rtp_fmt fmts[] = {{0, 24, 48000, 0}, {0, 24, 48000, 1}, {0, 16, 48000, 2}, {0, 24, 48000, 2},
                                {2, 24, 48000, 8}, {1, 24, 48000, 2}, {1, 24, 48000, 1}};
        int err;
        for (const rtp_fmt &f : fmts) {
            rtp_dst *d = &rtp_dsts[10 + flows.size()];
            dst_init(d, int(10 + flows.size()));
            d->fmt = f;
            d->ep.dst = d;
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
    bytes cc15 = rtp_datagram(3, TS + 96, {1, 2, 3, 4, 5, 6, 7, 8}), ext_cut = rtp_datagram(4, TS + 144, {}),
          ext_long = rtp_datagram(5, TS + 192, {0xBE, 0xDE, 0xFF, 0xFF, 1, 2, 3});
    cc15[0] |= 15;
    ext_cut[0] |= 0x10; // no room for the extension's length word
    ext_long[0] |= 0x10;
    for (const bytes &p : {rtp_datagram(1, TS, ramp(1)), rtp_datagram(2, TS + 48, ramp(2)), bytes{}, bytes{0x80},
                           bytes(11, 0x90), cc15, ext_cut, ext_long, rtp_datagram(6, TS + 240, bytes(3), 72)})
        for (rtp_dst *d : flows)
            feed(&d->ep, p, L + 240);
    for (rtp_dst *d : flows) {
        EXPECT_EQ(d->ep.rx_count, 8); // the three shorter than a header count too
        EXPECT_EQ(d->ep.rx_good, 4);
    }
    expect_ring_clean();
}

// Back-off of a stream that listens on its own group (interface 10.0.0.2):
// a running back-off re-arms on others' datagrams, never on our own.
TEST(RtpBackoff, OthersArmAndReArmOwnDatagramsNever)
{
    pelod_ssrc = 5000;
    const bytes lower = rtp_datagram(1, 0, bytes(20), 96, false, 4999), own = rtp_datagram(1, 0, bytes(20), 96, false, 5000);
    for (const auto &[cnt, src, p, expected] : {std::tuple(7, 0x0A000003u, own, RTP_BACKOFF_ARMED),
                                                std::tuple(7, 0x0A000002u, own, 7), std::tuple(0, 0x0A000002u, own, 0),
                                                std::tuple(0, 0x0A000002u, lower, RTP_BACKOFF_ARMED),
                                                std::tuple(0, 0x0A000001u, own, RTP_BACKOFF_ARMED)}) {
        rtp_ep e{};
        e.if_addr_h = 0x0A000002;
        e.backoff_cnt = cnt;
        rtp_ep_backoff_check(&e, src, p.data(), int(p.size()));
        EXPECT_EQ(e.backoff_cnt, expected) << std::hex << src << " " << cnt;
    }
}

} // namespace
