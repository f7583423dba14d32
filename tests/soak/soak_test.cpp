// Soak: the built daemon in a network namespace of its own with 48 flows
// at 1 ms and 16 streams out, while reloads alternate between two
// configurations, garbage datagrams arrive at a high rate, SIGUSR1 resets
// the counters and half the senders stop and start again. One crosspoint
// (flow 0 into mix "keep") and its stream (127.0.0.2:7000) are in neither
// difference: its samples must be the ramp flow 0 carries, bit for bit,
// without a sequence gap, except next to a report that counts a re-sync, a
// late or lost datagram (counted, printed). The daemon must live through it
// all with flat memory and descriptors, and stop on SIGTERM.
// PELOD_SOAK_SECONDS sets the length (default 150); every loop ends by then.
#include "daemon/mix.h"
#include "support/alsa_file.h"
#include "support/daemon.h"
#include "support/netns.h"
#include "support/rtp_wire.h"

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <gtest/gtest.h>
#include <random>
#include <sched.h>
#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <thread>

namespace {
using clk = std::chrono::steady_clock;
constexpr int FLOWS = 48, STREAMS = 16;
constexpr uint32_t STEP = 7; // flow 0 carries the ramp 7, 14, 21, ... (24 bits)

// Configuration a or b. Both route flow 0 alone into "keep" and send "keep"
// to 127.0.0.2:7000; they differ in everything else. Never more than 48
// inputs: the sound-card crosspoint comes with b, which has 40 flows.
std::string conf(bool a)
{
    std::string s = "GLB ifs=127.0.0.1\nXPT mix=keep src=127.0.0.1:6000 fmt=L24/48000/1\n";
    s += "SRC mix=keep rtpa=127.0.0.2:7000 fmt=L24/48000/1\n";
    for (int i = 1; i < FLOWS; i++) {
        if (!a && i >= 40)
            break; // removed and re-added
        const int mix = a || i % 3 ? 1 + i % 15 : 1 + (i + 1) % 15; // every third moves
        s += "XPT mix=m" + std::to_string(mix) + " src=127.0.0.1:" + std::to_string(6000 + i) +
             " fmt=L24/48000/1 gain=" + (a ? "-6" : "-3") + (i == 10 && !a ? " ecs=m7" : "") +
             (i == 11 ? " lce=1;a=5;r=100;T=0.5;R=4" : "") + "\n";
    }
    s += a ? "SRC mix=m5:m6 rtpa=alsa:0\n" : "XPT mix=m9 src=alsa:0 chn=1\n";
    for (int j = 1; j < STREAMS; j++)
        s += "SRC mix=m" + std::to_string(j) + " rtpa=127.0.0.2:" + std::to_string(7000 + j + (a ? 0 : 100)) +
             " fmt=L24/48000/1\n";
    return s;
}

long rss_kb(pid_t pid)
{
    const std::string s = read_file("/proc/" + std::to_string(pid) + "/status");
    const size_t at = s.find("VmRSS:");
    return at == std::string::npos ? -1 : strtol(s.c_str() + at + 6, nullptr, 10);
}

// Whether the report's re-syncs, the untouched stream's TXERR and TXBACKOFF
// or flow 0's SYNC, SRST, SEQE, DROP, LATE (SIGUSR1 resets) moved since ev.
bool flow0_events(const std::string &report, long ev[2])
{
    const size_t r = report.find("re-synchronizations"), f = report.find("127.0.0.1:6000 "),
                 o = report.find("127.000.000.002:07000\n");
    long n[8] = {};
    if (r == std::string::npos || f == std::string::npos || o == std::string::npos)
        return false;
    sscanf(report.c_str() + report.find(':', r) + 1, "%ld", &n[0]);
    sscanf(report.c_str() + report.rfind('\n', f) + 1, "%*d %*c %ld %*d %ld %ld %ld %*d %ld", &n[1], &n[2], &n[3],
           &n[4], &n[5]);
    sscanf(report.c_str() + report.rfind('\n', o) + 1, "%*d %*c %*d %ld %ld", &n[6], &n[7]);
    const long once = n[0] + n[6] + n[7], flow = n[1] + n[2] + n[3] + n[4] + n[5];
    const bool moved = once > ev[0] || flow > ev[1] || (flow < ev[1] && flow > 0);
    ev[0] = once, ev[1] = flow;
    return moved;
}

int open_fds(pid_t pid)
{
    DIR *d = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    int n = 0;
    while (d && readdir(d))
        n++;
    if (d)
        closedir(d);
    return n - 2;
}

TEST(Soak, ReloadsAndHostileTrafficNeitherKillNorLeak)
{
    SKIP_WITHOUT_NETNS();
    const char *env = getenv("PELOD_SOAK_SECONDS");
    const int seconds = env ? std::max(atoi(env), 30) : 150;
    netns ns("soak");
    ASSERT_TRUE(ns.ok());
    netns_scope inside(ns); // the daemon and every socket below live in ns
    alsa_file_card card(std::string(48000 * 8, '\x11'));
    pelod_proc d(conf(true));
    ASSERT_TRUE(d.start_up());
    const auto t0 = clk::now(), end = t0 + std::chrono::seconds(seconds);
    std::atomic<bool> stop{false}, paused{false};
    std::atomic<long> garbage{0}, reloads{0}, breaks{0}, gaps{0}, checked{0};
    std::vector<std::pair<long, bool>> per_report; // off the ramp since the last report; whether it moved

    std::thread senders([&] { // every flow, one 48-sample datagram per ms, on the media clock
        const sched_param rt{1};
        sched_setscheduler(0, SCHED_FIFO, &rt); // less late on a loaded machine (root)
        const int fd = udp_loopback();
        uint32_t ts = media_clock_now() / 48 * 48;
        uint16_t seq = 0;
        std::vector<int32_t> ramp(48), tone(48, 1 << 20);
        while (!stop) {
            while (int32_t(media_clock_now() - ts) >= 0 && !stop) {
                for (int k = 0; k < 48; k++)
                    ramp[size_t(k)] = int32_t((ts + uint32_t(k)) * STEP & 0x7FFFFF);
                for (int i = 0; i < FLOWS; i++) {
                    if (paused && i >= 20 && i < 40)
                        continue;
                    const auto p = rtp_datagram(seq, ts, pcm24(i ? tone : ramp), 101, false, 0x5000 + uint32_t(i));
                    sockaddr_in to{AF_INET, htons(uint16_t(6000 + i)), {htonl(INADDR_LOOPBACK)}, {}};
                    sendto(fd, p.data(), p.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
                }
                ts += 48;
                seq++;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
        close(fd);
    });
    std::thread hostile([&] { // garbage to every flow but flow 0, and to ports nobody uses
        const int fd = udp_loopback();
        std::mt19937 rng(7);
        uint8_t buf[1500];
        while (!stop) {
            for (int n = 0; n < 200; n++) {
                const size_t len = rng() % sizeof buf;
                for (size_t k = 0; k < len; k++)
                    buf[k] = uint8_t(rng());
                if (len > 1 && rng() % 2)
                    buf[0] = 0x80; // a valid version, so the header is parsed
                sockaddr_in to{AF_INET, htons(uint16_t(6001 + rng() % 60)), {htonl(INADDR_LOOPBACK)}, {}};
                garbage += sendto(fd, buf, len, 0, reinterpret_cast<sockaddr *>(&to), sizeof to) >= 0;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        close(fd);
    });
    std::thread listener([&] { // the untouched stream: no sequence gap, the ramp bit-exact
        sockaddr_in at{AF_INET, htons(7000), {htonl(INADDR_LOOPBACK + 1)}, {}};
        const int fd = socket(AF_INET, SOCK_DGRAM, 0);
        bind(fd, reinterpret_cast<sockaddr *>(&at), sizeof at);
        timeval tv{0, 100000};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        const int big = 4 << 20; // no gap of our own while this thread waits for a processor
        setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof big);
        uint8_t buf[2000];
        int prev_seq = -1;
        int32_t v = -1; // the input sample the next output sample comes from
        const auto played = [](int32_t in) { return f2int32_sat(float(in) * int24_to_float * float_to_int24); };
        while (!stop) {
            const ssize_t n = recv(fd, buf, sizeof buf, 0);
            if (n < 12 || clk::now() - t0 < std::chrono::seconds(3)) // warm-up: the flow locks
                continue;
            const int seq = be16(buf + 2);
            gaps += prev_seq >= 0 && seq != ((prev_seq + 1) & 0xFFFF);
            prev_seq = seq;
            for (ssize_t k = 12; k + 3 <= n; k += 3) {
                const int32_t o = be24(buf + k);
                if (v >= 0) {
                    v = (v + int32_t(STEP)) & 0x7FFFFF;
                    breaks += played(v) != o;
                    checked++;
                }
                if (v < 0 || played(v) != o) // (re)find the input: o or o + 1
                    v = played(o) == o ? o : played(o + 1) == o ? o + 1 : -1;
            }
        }
        close(fd);
    });

    long rss0 = 0, rss1 = 0;
    int fds0 = 0, fds1 = 0;
    bool alive = true;
    std::string report, last;
    long ev[2] = {};
    for (int n = 1; clk::now() < end && alive; n++) {
        // reloads in bursts of 8: a signal skips the daemon's report of that second
        std::this_thread::sleep_for(std::chrono::milliseconds(n % 8 ? 100 : 1200));
        if (n % 40 == 0) { // the same configuration each time; after warm-up
            // before the reload, the least of a few looks: a reload in
            // progress holds the file or a socket for a moment, a leak stays
            int fds = open_fds(d.pid);
            for (int k = 0; k < 5; k++, std::this_thread::sleep_for(std::chrono::milliseconds(20)))
                fds = std::min(fds, open_fds(d.pid));
            (n == 40 ? rss0 : rss1) = rss_kb(d.pid);
            (n == 40 ? fds0 : fds1) = fds;
        }
        ASSERT_EQ(rename(tmp_file(conf(n % 2 == 0)).c_str(), d.path.c_str()), 0);
        d.signal(SIGHUP);
        reloads++;
        if (n % 80 == 20) // the reset may hide what happened since the last report: as if it moved
            d.signal(SIGUSR1), per_report.emplace_back(breaks.exchange(0), true);
        if (n % 40 == 0)
            paused = !paused;
        if ((report = read_file(d.path.substr(0, d.path.rfind('.')) + ".stat")) != last) { // after each quiet second
            const bool moved = flow0_events(last = report, ev);
            per_report.emplace_back(breaks.exchange(0), moved);
        }
        alive = waitpid(d.pid, nullptr, WNOHANG) == 0;
    }
    stop = true;
    for (std::thread *t : {&senders, &hostile, &listener})
        t->join();
    ASSERT_TRUE(alive) << d.err();
    const auto term = clk::now();
    d.signal(SIGTERM);
    EXPECT_EQ(d.wait(2000), 0);
    EXPECT_LT(clk::now() - term, std::chrono::seconds(2));
    EXPECT_GT(per_report.size(), size_t(seconds / 3)) << "reports read";
    long off = 0, windows = 0;
    for (size_t i = 0; i < per_report.size(); i++) {
        const bool moved = per_report[i].second || (i && per_report[i - 1].second) ||
                           (i + 1 < per_report.size() && per_report[i + 1].second);
        off += per_report[i].first;
        windows += per_report[i].second;
        EXPECT_TRUE(moved || per_report[i].first == 0) << per_report[i].first << " off the ramp before report " << i;
    }
    EXPECT_GT(checked, 48L * 1000 * (seconds - 5));
    EXPECT_LT(off, checked / 100) << "more than 1 % off the ramp";
    EXPECT_EQ(fds1, fds0);
    EXPECT_LE(rss1 - rss0, 256) << "kB";
    printf("soak: %d s, %ld reloads, %ld garbage, %ld exact, %ld off the ramp, %ld gaps, %ld moved reports, "
           "RSS %ld -> %ld kB, descriptors %d -> %d\n",
           seconds, reloads.load(), garbage.load(), checked - off, off, gaps.load(), windows, rss0, rss1, fds0, fds1);
}
} // namespace
