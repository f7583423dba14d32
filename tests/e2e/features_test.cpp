// The daemon's features through the built daemon in a network namespace
// of the test's own, all in one run: two streams come in by group (one on
// a channel number, one source-specific), are mixed with their gains and
// clipped, and leave on the sound card (alsa-lib with "hw" redefined as a
// file plugin) and on a channel group; the report file counts what the
// sender caused, voice activity is announced, and a reload of the same
// file re-creates nothing. The test sends and receives RTP itself.
#include "e2e.h"
#include "support/alsa_file.h"

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <poll.h>
#include <sstream>
#include <unistd.h>

namespace {
using texts = std::vector<std::string>;

// Every datagram waiting on fd now, or within wait_ms for the first one.
texts take(int fd, int wait_ms = 0)
{
    texts got;
    pollfd p{fd, POLLIN, 0};
    char buf[2048];
    if (poll(&p, 1, wait_ms) > 0)
        for (ssize_t n; (n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) >= 0;)
            got.emplace_back(buf, size_t(n));
    return got;
}

// Columns of the report's flow row for a source, by the names in the header line.
std::map<std::string, std::string> flow_row(const std::string &report, const std::string &source)
{
    std::istringstream in(report);
    std::vector<std::string> names;
    for (std::string line; std::getline(in, line) && line.rfind("# Outputs", 0) != 0;) {
        std::istringstream words(line);
        std::map<std::string, std::string> row;
        if (line.rfind("## R ", 0) == 0 && names.empty())
            for (std::string w; words >> w;)
                names.push_back(w);
        else if (!names.empty())
            for (size_t i = 0; i < names.size() && words >> row[names[i]]; i++) {
            }
        if (row["Channel"] == source)
            return row;
    }
    return {};
}

float lin(double dB) { return float(std::pow(10.0, dB / 20)); }

// One period of 1 kHz per block, its first sample loud.
const std::vector<int32_t> in = [] {
    std::vector<int32_t> v;
    for (int k = 0; k < 48; k++)
        v.push_back(int32_t(std::lround(0.5 * FULL24 * std::cos(2 * M_PI * k / 48.0))));
    return v;
}();

// Whether a block of 48 samples (stride apart) is the mix of none, either
// or both streams (at -6 and +6 dB, clipped) at the output gain.
bool mixed_block(const int32_t *v, int stride, float out_dB, int *which)
{
    for (int shape = 0; shape < 4; shape++) {
        const float g = (shape & 1 ? lin(-6) : 0.0f) + (shape & 2 ? lin(6) : 0.0f);
        bool all = true;
        for (int k = 0; k < 48 && all; k++) {
            const float m = std::clamp(float(in[size_t(k)]) * float(1.0 / FULL24) * g, -1.0f, 1.0f);
            all = std::abs(v[k * stride] - int32_t(m * (lin(out_dB) * float(FULL24)))) <= 3;
        }
        if (all)
            return *which = shape, true;
    }
    return false;
}

TEST(E2eFeatures, GroupsGainsReportVoxReloadAndSoundCardInOneRun)
{
    SKIP_WITHOUT_NETNS();
    const netns ns("pe2ef");
    ASSERT_TRUE(ns.ok());
    const int net = udp_socket(ns, "127.0.0.1", 5000), other = udp_socket(ns, "127.0.0.2", 0, nullptr, "127.0.0.1"),
              notes = udp_socket(ns, "127.0.0.1", 6100), rx = udp_socket(ns, nullptr, 6000, "239.193.0.7", "127.0.0.1");
    ASSERT_TRUE(net >= 0 && other >= 0 && rx >= 0);
    const alsa_file_card card(std::string(384, '\0')); // outlives the daemon
    // channel -300 is 239.193.1.44, -7 is 239.193.0.7; a playout delay that a
    // late packet of a busy machine still meets
    ns_pelod daemon(ns, "GLB ifs=127.0.0.1\nXPT mix=spk src=-300 pdly=960 gain=-6 vox=1;t=-20;h=0.4\n"
                        "XPT mix=spk src=232.1.2.3:5006;src=127.0.0.1 pdly=960 gain=6\n"
                        "SRC mix=spk:spk rtpa=alsa:0 gainv=0;-6\nSRC mix=spk rtpa=-7:6000 gainv=-3\n",
                    {"--vox-notify-port=6100"});
    ASSERT_TRUE(daemon.up) << daemon.output();
    const std::string report = daemon.path.substr(0, daemon.path.rfind('.')) + ".stat";

    const auto send = [&](int seq) { rtp_send(net, "239.193.1.44", 5004, 96, uint16_t(seq), 48u * seq, 1, pcm24(in)); };
    texts got;
    std::vector<rtp_pkt> out;
    paced_1ms(400, [&](int seq, uint32_t) {
        if (seq < 10 || seq > 12) // a gap of three
            send(seq);
        rtp_send(net, "232.1.2.3", 5006, 96, uint16_t(seq), 48u * seq, 2, pcm24(in));
        rtp_send(other, "232.1.2.3", 5006, 96, uint16_t(seq), 48u * seq, 3, pcm24(std::vector<int32_t>(48, 7000000)));
        if (seq == 200)
            daemon.signal(SIGHUP); // the same file: nothing is re-created, the list is announced again
        for (std::string &t : take(notes))
            got.push_back(std::move(t));
        rtp_drain(rx, out);
    });
    send(399); // a repeat
    const texts talking = {R"({"vox":["-300"]})"};
    EXPECT_EQ(got, (texts{talking[0], talking[0]})) << "start of talk, then the reload's announcement";
    const auto silent = std::chrono::steady_clock::now();
    EXPECT_EQ(take(notes, 2000), texts{R"({"vox":[]})"}) << "end of talk";
    EXPECT_GE(std::chrono::steady_clock::now() - silent, std::chrono::milliseconds(390))
        << "held for 0.4 s after the last loud packet";

    // the first packet only teaches sequence and time, and so does the repeat
    const std::map<std::string, std::string> want = {{"PKTS", "398"}, {"GOOD", "395"}, {"DROP", "3"},
                                                     {"DUPL", "1"},   {"SEQE", "2"},   {"SRST", "1"}};
    std::map<std::string, std::string> row;
    EXPECT_TRUE(wait_for(3000, [&] { return (row = flow_row(read_file(report), "-300"))["PKTS"] == "398"; }))
        << read_file(report);
    for (const auto &[column, value] : want)
        EXPECT_EQ(row[column], value) << column;
    EXPECT_GE(atol(row["SYNC"].c_str()), 1) << "the stream was locked";
    daemon.signal(SIGUSR1);
    const auto zeroed = [&] {
        row = flow_row(read_file(report), "-300");
        for (const char *c : {"SYNC", "PKTS", "SRST", "SEQE", "DROP", "DUPL", "LATE", "GOOD"})
            if (row[c] != "0")
                return false;
        return true;
    };
    EXPECT_TRUE(wait_for(3000, zeroed)) << read_file(report);
    EXPECT_EQ(daemon.stop(), 0) << daemon.output();

    // the group's packets, mono L24 at -3 dB; a group output is held back at
    // first while it listens for another sender
    ASSERT_GT(out.size(), 300u) << daemon.output();
    EXPECT_GE(out[0].seq, 1);
    int both = 0, shape = -1;
    for (const rtp_pkt &p : out) {
        int32_t v[48];
        for (size_t k = 0; k < 48 && 3 * k + 3 <= p.payload.size(); k++)
            v[k] = be24(&p.payload[3 * k]);
        ASSERT_EQ(p.payload.size(), 144u);
        ASSERT_TRUE(mixed_block(v, 1, -3, &shape)) << "packet " << p.seq;
        both += shape == 3;
    }
    EXPECT_GE(both, 250);
    // blocks of 96 interleaved 24-bit words, left at 0 dB and right at -6 dB
    const std::string raw = read_file(card.play_path);
    both = 0;
    for (size_t at = 0; at + 384 <= raw.size(); at += 384) {
        int32_t w[96];
        memcpy(w, raw.data() + at, 384);
        for (int32_t &x : w)
            x = int32_t(uint32_t(x) << 8) >> 8;
        ASSERT_TRUE(mixed_block(w, 2, 0, &shape) && mixed_block(w + 1, 2, -6, &shape)) << "block " << at / 384;
        both += shape == 3;
    }
    EXPECT_GE(both, 250);
    for (int fd : {net, other, notes, rx})
        close(fd);
}

} // namespace
