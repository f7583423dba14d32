// The network data path through the built daemon, in a namespace of the
// test's own: RTP streams in, through crosspoint gains into a mix, and out
// as an outgoing stream. Every input sample carries its own timestamp as
// a code, so the output tells which input sample it is, at which gain and
// how late.
#include "e2e.h"

#include <arpa/inet.h>
#include <cmath>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

// Input value at media time t: a hash, about +-0.5 of full scale.
int32_t code(uint32_t t)
{
    uint32_t h = t * 2654435761u;
    h ^= h >> 13;
    h *= 0x5BD1E995u;
    h ^= h >> 15;
    return int32_t(h & 0x7FFFFF) - 0x400000;
}

float lin(float dB) { return float(std::pow(10.0, double(dB) * 0.05)); }

// An input through the mix (clipped to full scale) and out as L24.
int32_t through(float mixed, float gainv_db)
{
    const float m = mixed > 1.0f ? 1.0f : mixed < -1.0f ? -1.0f : mixed;
    return int32_t(m * (lin(gainv_db) * float(FULL24)));
}
float in24(int32_t v) { return float(v) * float(1.0 / FULL24); }

constexpr int32_t DC = 5033164; // 0.6 of full scale: with +3 dB the peaks clip

struct route_case {
    const char *name;
    std::string conf;      // routes the stream on port 5004 into mix m at -6 dB, m out to port 6000
    const char *send_to;   // where the stream goes, from 127.0.0.1
    const char *out_group; // group the output is sent to; null: 127.0.0.1
    float gainv_db;
    int pdly;
    int first_seq; // of the output: 0, or 1 + load_level for a group (back-off)
    int second;    // 1: a second source sends to the group too; 2: DC into port 5006 at +3 dB
};

const route_case route_cases[] = {
    {"UnicastAutomaticDelay",
     "XPT mix=m src=127.0.0.1:5004 gain=-6\nSRC mix=m rtpa=127.0.0.1:6000 gainv=-3\n", "127.0.0.1", nullptr,
     -3.0f, 144, 0, 0},
    // channel -7 is 239.193.0.7, -300 is 239.193.1.44
    {"ChannelGroupsWithDelayOptionAndMoreEndpoints",
     "GLB ifs=127.0.0.1\nXPT mix=m src=-300;pdly=240 gain=-6\n" + idle_crosspoints(8) + "SRC mix=m rtpa=-7:6000\n",
     "239.193.1.44", "239.193.0.7", 0.0f, 240, 1 + 10, 0},
    {"SourceSpecificGroup",
     "XPT mix=m src=232.1.2.3:5004;src=127.0.0.1 ifa=127.0.0.1 gain=-6\nSRC mix=m rtpa=127.0.0.1:6000\n",
     "232.1.2.3", nullptr, 0.0f, 144, 0, 1},
    // a playout delay that a late packet of a busy machine still meets
    {"TwoInputsAreSummedWithTheirGainsAndClipped",
     "XPT mix=m src=127.0.0.1:5004 gain=-6 pdly=480\nXPT mix=m src=127.0.0.1:5006 gain=3 pdly=480\n"
     "SRC mix=m rtpa=127.0.0.1:6000\n",
     "127.0.0.1", nullptr, 0.0f, 480, 0, 2},
};

void PrintTo(const route_case &c, std::ostream *os) { *os << c.name; }

struct stream {
    int fd;
    const char *to;
    uint16_t port;
    uint32_t ssrc;
    std::function<int32_t(uint32_t)> value;
};

// Sends the streams as 1 ms mono L24 packets for `ms` and collects what
// arrives on rx meanwhile.
std::vector<rtp_pkt> run(int rx, const std::vector<stream> &in, int ms)
{
    std::vector<rtp_pkt> out;
    paced_1ms(ms, [&](int k, uint32_t ts) {
        for (const stream &s : in) {
            std::vector<int32_t> v;
            for (uint32_t i = 0; i < 48; i++)
                v.push_back(s.value(ts + i));
            rtp_send(s.fd, s.to, s.port, 101, uint16_t(k + s.ssrc), ts, s.ssrc, pcm24(v));
        }
        rtp_drain(rx, out);
    });
    usleep(30000);
    rtp_drain(rx, out);
    return out;
}

class E2eRoute : public ::testing::TestWithParam<route_case> {};

TEST_P(E2eRoute, StreamReachesTheOutputWithItsGainAndDelay)
{
    SKIP_WITHOUT_NETNS();
    const route_case &c = GetParam();
    const netns ns("pe2e");
    ASSERT_TRUE(ns.ok());
    const int rx = c.out_group ? udp_socket(ns, nullptr, 6000, c.out_group, "127.0.0.1")
                               : udp_socket(ns, "127.0.0.1", 6000);
    const int tx = udp_socket(ns, "127.0.0.1", 0);
    const int other = udp_socket(ns, "127.0.0.2", 0, nullptr, "127.0.0.1");
    ASSERT_GE(rx, 0);
    ns_pelod pelod(ns, c.conf);
    ASSERT_TRUE(pelod.up) << pelod.output();
    std::vector<stream> in = {{tx, c.send_to, 5004, 0x1111, code}};
    if (c.second == 1)
        in.push_back({other, c.send_to, 5004, 0x2222, [](uint32_t) { return 7000000; }});
    if (c.second == 2)
        in.push_back({tx, "127.0.0.1", 5006, 0x2222, [](uint32_t) { return DC; }});
    const std::vector<rtp_pkt> out = run(rx, in, 600);
    for (int fd : {rx, tx, other})
        close(fd);
    EXPECT_EQ(pelod.stop(), 0);

    ASSERT_FALSE(out.empty()) << pelod.output();
    // packets finished while the first load still runs are held back too
    EXPECT_GE(out[0].seq, c.first_seq);
    EXPECT_LE(out[0].seq, c.first_seq + 10);
    const float dc = c.second == 2 ? in24(DC) * lin(3.0f) : 0.0f;
    const delay_fit f = fit_delay(
        out, [&](uint32_t t) { return through(in24(code(t)) * lin(-6.0f) + dc, c.gainv_db); }, 0, 2000);
    ASSERT_GE(f.matched, 450);
    // a packet that straddles a move of the lock fits no one delay, nor
    // one where either stream begins or ends alone
    EXPECT_LE(f.unmatched, c.second == 2 ? 4 : 2 * int(f.delays.size()));
    // Each packet leaves half a millisecond after its last sample: the lock
    // gives pdly + 24 samples. It moves earlier whenever a late wake-up
    // takes a packet in early (by up to the 2 ms jitter allowance), and
    // only at the start, before the first timely packet, can it be later.
    const int lo = f.delays.begin()->first, d = f.settled();
    EXPECT_GE(lo, c.pdly - 72);
    EXPECT_GE(d, c.pdly - 72);
    EXPECT_LE(d, c.pdly + 24);
    if (c.second == 2) {
        long clipped = 0, samples = 0;
        for (const rtp_pkt &p : out)
            for (int32_t v : l24_channel(p.payload, 1, 0))
                samples++, clipped += v == int32_t(FULL24);
        EXPECT_GT(clipped, samples / 10);
    }
    RecordProperty("delay_samples", d);
    printf("end-to-end delay %s: %d samples settled (%.2f ms), mostly %d, %d..%d; playout delay %d\n", c.name, d,
           d / 48.0, f.mode(), lo, f.delays.rbegin()->first, c.pdly);
}

INSTANTIATE_TEST_SUITE_P(Paths, E2eRoute, ::testing::ValuesIn(route_cases),
                         [](const auto &i) { return std::string(i.param.name); });

} // namespace
