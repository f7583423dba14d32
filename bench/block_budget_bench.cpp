// Time per wake-up of the real cycle: the receive drain of one datagram
// per network flow, then one block (outgoing streams with their limiters
// and encoders, sound-card render and microphone, flow limiters, echo
// cancellers, voice activity, mixing). Routing comes from a configuration
// file, as the daemon loads it. Datagrams are sent before each timed
// wake-up; the outgoing streams send to sockets that are never read.
// There is no sound card here: its two calls per block return at once.
// Wall time per wake-up, and the context's own CPU time, which leaves out
// what other tasks (and other real-time tasks) took meanwhile.
#include "audio/CG_LimCom_interface.h"
#include "audio/eaec_glue.h"
#include "config/pelocfg.h"
#include "daemon/mix.h"
#include "daemon/mixrun.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "rtp/rtp_recv.h"
#include "rtp/rtp_sk.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int FLOW_PORT = 7100, OUT_PORT = 7400;
constexpr const char *LCE = " lce=1;a=5;r=100;T=0.5;R=4";

struct terminal {
    const char *name;
    int net_flows, limited_flows, ec_flows;
    int pcm_out, opus_out, out_channels, limited_out;
};

std::string config(const terminal &t)
{
    std::string c = "GLB ifs=127.0.0.1\n";
    for (int i = 0; i < t.net_flows; i++) {
        c += "XPT mix=m" + std::to_string(i % 16) + " src=127.0.0.1:" + std::to_string(FLOW_PORT + i) +
             " fmt=L24/48000/1 gain=-6";
        if (i < t.limited_flows)
            c += LCE;
        if (i < t.ec_flows) // the microphone flow below takes no canceller: network flows do
            c += " ecs=m15";
        c += "\n";
    }
    c += "XPT mix=m0 src=alsa:0 chn=0 ecs=m1\n"; // the microphone: a sound-card flow takes no canceller
    c += "SRC mix=m1:m1 rtpa=alsa:0\n";
    const int outs = t.pcm_out + t.opus_out;
    for (int o = 0; o < outs; o++) {
        const std::string mix = "m" + std::to_string(o % 16);
        c += "SRC mix=" + mix + (t.out_channels == 2 ? ":" + mix : "") + " rtpa=127.0.0.1:" +
             std::to_string(OUT_PORT + o) + " ifa=127.0.0.1:" + std::to_string(OUT_PORT + 100 + o) +
             (o < t.pcm_out ? " fmt=L24/48000/" : " fmt=Opus/48000/") + std::to_string(t.out_channels);
        if (o < t.limited_out)
            c += LCE;
        c += "\n";
    }
    return c;
}

int64_t ns_now(clockid_t clk = CLOCK_MONOTONIC)
{
    timespec ts;
    clock_gettime(clk, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void run(const terminal &t, int wakeups)
{
    const std::string text = config(t);
    char path[] = "/tmp/pelod-budget-XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0 || write(fd, text.data(), text.size()) != ssize_t(text.size())) {
        perror("block_budget: config");
        exit(1);
    }
    close(fd);
    pelocfg_load(path);
    unlink(path);

    // sinks for the outgoing streams, never read: full queues drop
    std::vector<int> sinks;
    for (int o = 0; o < t.pcm_out + t.opus_out; o++) {
        const int s = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{AF_INET, htons(uint16_t(OUT_PORT + o)), {htonl(INADDR_LOOPBACK)}, {}};
        const int small = 4096;
        setsockopt(s, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a);
        sinks.push_back(s);
    }
    const int tx = socket(AF_INET, SOCK_DGRAM, 0);
    std::vector<uint8_t> pkt(12 + 144);
    std::vector<int64_t> all, rx_only, cpu;
    int32_t buf[2 * MIX_BLOCK];
    timespec tnow;
    clock_gettime(CLOCK_TAI, &tnow);
    uint32_t rtp_ts = mix_rtp_ts(tnow) / 48 * 48;
    for (int w = 0; w < wakeups; w++, rtp_ts += MIX_BLOCK) {
        for (int i = 0; i < t.net_flows; i++) { // one 1 ms datagram per flow, stamped as our block
            const uint32_t ts = rtp_ts - MIX_BLOCK;
            const uint8_t h[12] = {0x80, 96, uint8_t(w >> 8), uint8_t(w), uint8_t(ts >> 24), uint8_t(ts >> 16),
                                   uint8_t(ts >> 8), uint8_t(ts), 0, 0, 0, uint8_t(i)};
            memcpy(pkt.data(), h, sizeof h);
            for (int k = 0; k < 144; k++)
                pkt[size_t(12 + k)] = uint8_t((w * 7 + k * 13 + i) & 0x3F);
            sockaddr_in to{AF_INET, htons(uint16_t(FLOW_PORT + i)), {htonl(INADDR_LOOPBACK)}, {}};
            sendto(tx, pkt.data(), pkt.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
        }
        const int64_t c0 = ns_now(CLOCK_THREAD_CPUTIME_ID);
        const int64_t t0 = ns_now();
        rtp_recv_all(rtp_rx_punctual(rtp_ts));
        const int64_t t1 = ns_now();
        mix_block(rtp_ts, buf);
        const int64_t t2 = ns_now();
        cpu.push_back(ns_now(CLOCK_THREAD_CPUTIME_ID) - c0);
        all.push_back(t2 - t0);
        rx_only.push_back(t1 - t0);
    }
    int64_t datagrams = 0;
    for (const rtp_dst &d : rtp_dsts)
        datagrams += d.ep.rx_count;
    auto pct = [](std::vector<int64_t> v, double p) {
        std::sort(v.begin(), v.end());
        return double(v[size_t(double(v.size() - 1) * p)]) / 1000.0;
    };
    // Work that comes round every 10 blocks (canceller frames, Opus encoder
    // calls) shows in the median CPU time of each block of the period, which
    // stalls and stolen time hardly move: the heaviest one is the figure.
    double heaviest = 0;
    for (int phase = 0; phase < 10; phase++) {
        std::vector<int64_t> v;
        for (size_t w = size_t(phase); w < cpu.size(); w += 10)
            v.push_back(cpu[w]);
        heaviest = std::max(heaviest, pct(v, 0.5));
    }
    printf("| %s | %d | %.1f | %.1f | %.1f | %.1f / %.1f | %.1f | %.1f | %.1f | %lld |\n", t.name, wakeups,
           pct(all, 0.5), pct(all, 0.99), pct(all, 1.0), pct(cpu, 0.99), pct(cpu, 1.0), heaviest, pct(rx_only, 0.5),
           pct(rx_only, 0.99), (long long)datagrams);
}

} // namespace

int main(int argc, char **argv)
{
    const int wakeups = argc > 1 ? atoi(argv[1]) : 20000;
    const terminal terminals[] = {
        // name, network flows, flow limiters, echo cancellers, PCM out, Opus out, channels, limited out
        {"typical: 3 network flows + microphone, 2 PCM out, 1 limiter, 1 echo canceller", 3, 1, 1, 2, 0, 1, 0},
        {"full: 47 network flows + microphone, 12 PCM + 4 Opus stereo out, 16 limiters, 2 echo cancellers", 47, 0,
         2, 12, 4, 2, 16},
    };
    printf("| terminal | wake-ups | median µs | p99 µs | worst µs | CPU p99 / worst µs | CPU median of the heaviest block "
           "of 10 µs | receive median µs | receive p99 µs | datagrams |\n");
    printf("|---|---|---|---|---|---|---|---|---|---|\n");
    fflush(stdout);
    for (const terminal &t : terminals) {
        const pid_t pid = fork(); // each terminal in a fresh process, as a daemon starts
        if (pid == 0) {
            mix_inp_init();
            pelod_ssrc = 0x12345678;
            eaec_lib_init();
            CG_limcom_init();
            dlist_init(&rtp_sk_all);
            for (int i = 0; i < RTP_DST_MAX; i++)
                dst_init(&rtp_dsts[i], i);
            mix_init();
            // as the real-time context runs: first in line for the processor, no page faults, no denormals
            sched_param sp{};
            sp.sched_priority = 50;
            if (sched_setscheduler(0, SCHED_FIFO, &sp) != 0)
                perror("block_budget: SCHED_FIFO (times include preemption)");
            mlockall(MCL_CURRENT | MCL_FUTURE);
            rt_flush_denormals();
            run(t, wakeups);
            fflush(stdout);
            _exit(0);
        }
        int status = 0;
        waitpid(pid, &status, 0);
    }
    return 0;
}
