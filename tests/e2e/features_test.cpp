// The daemon's features through the built daemon in a network namespace
// of the test's own, all in one run: two streams come in by group (one on
// a channel number, one source-specific), are mixed with their gains and
// clipped, and leave on the sound card (alsa-lib with "hw" redefined as a
// file plugin) and on a channel group; the report file counts what the
// sender caused, voice activity is announced, and a reload of the same
// file re-creates nothing. The test sends and receives RTP itself.
#include "support/alsa_file.h"
#include "support/daemon.h"
#include "support/netns.h"
#include "support/rtp_wire.h"

#include <arpa/inet.h>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <sched.h>
#include <sstream>
#include <unistd.h>

namespace {
using texts = std::vector<std::string>;
constexpr double FULL24 = 8388607.0;
in_addr_t ip(const char *a) { return a ? inet_addr(a) : INADDR_ANY; }

// A UDP socket made in ns, bound to bind_addr:port, in `group` on interface
// ifa when given; multicast leaves through ifa (else bind_addr). -1 on failure.
int udp_socket(const netns &ns, const char *bind_addr, uint16_t port, const char *group = nullptr,
               const char *ifa = nullptr)
{
    const netns_scope in(ns);
    const int fd = in.ok() ? socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0) : -1;
    const sockaddr_in a{AF_INET, htons(port), {ip(bind_addr)}, {}};
    const in_addr mcif{ip(ifa ? ifa : bind_addr)};
    const ip_mreq m{{ip(group)}, {ip(ifa)}};
    const int one = 1;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 || bind(fd, reinterpret_cast<const sockaddr *>(&a), sizeof a) != 0 ||
        setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &mcif, sizeof mcif) != 0 ||
        (group && setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof m) != 0)) {
        close(fd);
        return -1;
    }
    return fd;
}

void rtp_send(int fd, const char *to, uint16_t port, uint16_t seq, uint32_t ssrc, const std::vector<int32_t> &v)
{
    const std::vector<uint8_t> p = rtp_datagram(seq, 48u * seq, pcm24(v), 96, false, ssrc);
    const sockaddr_in a{AF_INET, htons(port), {ip(to)}, {}};
    sendto(fd, p.data(), p.size(), 0, reinterpret_cast<const sockaddr *>(&a), sizeof a);
}

// Calls each(k) every millisecond from a low real-time priority when it
// may, half a millisecond after the daemon's wake-ups (whole milliseconds
// of the media clock), as a sender on the media clock sends.
void paced_1ms(int ms, const std::function<void(int)> &each)
{
    const int policy = sched_getscheduler(0);
    sched_param old{}, rt{1};
    sched_getparam(0, &old);
    const bool raised = sched_setscheduler(0, SCHED_FIFO, &rt) == 0;
    const auto now = [] {
        timespec t{};
        clock_gettime(CLOCK_TAI, &t);
        return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
    };
    const int64_t t0 = (now() / 1000000 + 2) * 1000000 + 500000;
    for (int k = 0; k < ms; k++) {
        if (const int64_t wait = t0 + int64_t(k) * 1000000 - now(); wait > 0) {
            const timespec rel{time_t(wait / 1000000000), long(wait % 1000000000)};
            clock_nanosleep(CLOCK_MONOTONIC, 0, &rel, nullptr);
        }
        each(k);
    }
    if (raised)
        sched_setscheduler(0, policy, &old);
}


// Columns PKTS SRST SEQE DROP DUPL GOOD of the report's row for a source
// (SYNC and LATE follow the machine's load).
std::string counters(const std::string &report, const std::string &source)
{
    std::istringstream in(report);
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string w[11], c; // index, R, SYNC .. GOOD, Channel
        for (std::string &x : w)
            words >> x;
        for (int i : {3, 4, 5, 6, 7, 9})
            c += w[i] + (i < 9 ? " " : "");
        if (w[10] == source)
            return c;
    }
    return "";
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
// or both streams (at -6 and +6 dB, clipped) at the output gain, at any
// phase of the tone (a re-lock on a busy machine may move it).
bool mixed_block(const int32_t *v, int stride, float out_dB, int *which)
{
    for (int shape = 0; shape < 4; shape++)
        for (int phase = 0; phase < 48; phase++) {
            const float g = (shape & 1 ? lin(-6) : 0.0f) + (shape & 2 ? lin(6) : 0.0f);
            bool all = true;
            for (int k = 0; k < 48 && all; k++) {
                const float m = std::clamp(float(in[size_t((k + phase) % 48)]) * float(1.0 / FULL24) * g, -1.0f, 1.0f);
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
    pelod_proc daemon("GLB ifs=127.0.0.1\nXPT mix=spk src=-300 pdly=960 gain=-6 vox=1;t=-20;h=0.4\n"
                      "XPT mix=spk src=232.1.2.3:5006;src=127.0.0.1 pdly=960 gain=6\n"
                      "SRC mix=spk:spk rtpa=alsa:0 gainv=0;-6\nSRC mix=spk rtpa=-7:6000 gainv=-3\n");
    ASSERT_TRUE(daemon.start_up({"--vox-notify-port=6100"}, ns.cmd({}))) << daemon.err();
    const std::string report = daemon.path.substr(0, daemon.path.rfind('.')) + ".stat";

    const auto send = [&](int seq) { rtp_send(net, "239.193.1.44", 5004, uint16_t(seq), 1, in); };
    texts got, out; // notifications, the group's datagrams
    paced_1ms(400, [&](int seq) {
        if (seq < 10 || seq > 12) // a gap of three
            send(seq);
        rtp_send(net, "232.1.2.3", 5006, uint16_t(seq), 2, in);
        rtp_send(other, "232.1.2.3", 5006, uint16_t(seq), 3, std::vector<int32_t>(48, 7000000)); // not the source
        if (seq == 200)
            daemon.signal(SIGHUP); // the same file: nothing is re-created, the list is announced again
        for (std::string &t : udp_take(notes))
            got.push_back(std::move(t));
        for (std::string &t : udp_take(rx))
            out.push_back(std::move(t));
    });
    send(399); // a repeat
    EXPECT_EQ(got, texts(2, R"({"vox":["-300"]})")) << "start of talk, then the reload's announcement";
    const auto silent = std::chrono::steady_clock::now();
    EXPECT_EQ(udp_take(notes, 2000), texts{R"({"vox":[]})"}) << "end of talk";
    EXPECT_GE(std::chrono::steady_clock::now() - silent, std::chrono::milliseconds(390))
        << "held for 0.4 s after the last loud packet";

    // the first packet only teaches sequence and time, and so does the repeat
    EXPECT_TRUE(wait_for(3000, [&] { return counters(read_file(report), "-300") == "398 1 2 3 1 395"; }))
        << read_file(report);
    daemon.signal(SIGUSR1);
    EXPECT_TRUE(wait_for(3000, [&] { return counters(read_file(report), "-300") == "0 0 0 0 0 0"; })) << read_file(report);
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait(3000), 0) << daemon.err();

    // the group's packets, mono L24 at -3 dB; a group output is held back at
    // first while it listens for another sender
    ASSERT_GT(out.size(), 300u) << daemon.err();
    EXPECT_GE(be16(reinterpret_cast<const uint8_t *>(out[0].data()) + 2), 1);
    // (a busy machine's stall that moves a lock leaves a block or two of neither)
    int both = 0, shape = -1, neither = 0;
    for (const std::string &p : out) {
        ASSERT_EQ(p.size(), 12u + 144u);
        int32_t v[48];
        for (size_t k = 0; k < 48; k++)
            v[k] = be24(reinterpret_cast<const uint8_t *>(p.data()) + 12 + 3 * k);
        neither += !mixed_block(v, 1, -3, &shape);
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
        neither += !mixed_block(w, 2, 0, &shape) || !mixed_block(w + 1, 2, -6, &shape);
        both += shape == 3;
    }
    EXPECT_GE(both, 250);
    EXPECT_LE(neither, 8) << "the mix of none, either or both, at its gains";
    for (int fd : {net, other, notes, rx})
        close(fd);
}

} // namespace
