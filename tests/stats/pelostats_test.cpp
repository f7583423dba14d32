#include "stats/pelostats.h"

#include "audio/alsa.h"
#include "config/pelocfg.h"
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "rtp/rtp_src.h"
#include "support/proc.h"

#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>
#include <tuple>
#include <unistd.h>

namespace {

sockaddr_in sa(const char *ip, int port) { return {AF_INET, htons(uint16_t(port)), {inet_addr(ip)}, {}}; }

TEST(StatsJitter, MaximaOfTheLastMinuteFiveAndFifteen)
{
    pelod_stats_init("/etc/pelod.conf");
    auto seconds = [](int n, unsigned long ns) {
        for (int s = 0; s < n; s++)
            pelod_stats_period(ns);
        return std::to_string(jitt_max_1s / 1000) + " " + std::to_string(jitt_max_1min / 1000) + " " +
               std::to_string(jitt_max_5min / 1000) + " " + std::to_string(jitt_max_15min / 1000);
    };
    seconds(30, 5000);
    EXPECT_EQ(seconds(1, 20000), "20 20 20 20");
    // each window holds the peak for exactly its length
    EXPECT_EQ(seconds(59, 5000), "5 20 20 20");
    EXPECT_EQ(seconds(1, 5000), "5 5 20 20");
    EXPECT_EQ(seconds(239, 5000), "5 5 20 20");
    EXPECT_EQ(seconds(1, 5000), "5 5 5 20");
    EXPECT_EQ(seconds(599, 5000), "5 5 5 20");
    EXPECT_EQ(seconds(1, 5000), "5 5 5 5");
    EXPECT_EQ(seconds(600, 5999), "5 5 5 5") << "across the wrap of the ring";
}

// Every column of the report from a constructed state: flows, streams and
// mix outputs, with the values the golden file holds.
TEST(StatsReport, ConstructedStateMatchesTheGoldenFile)
{
    const std::string base = "pelodstatstest" + std::to_string(getpid()), report = "/tmp/" + base + ".stat";
    mix_inp_init();
    mix_init();
    for (int i = 0; i < RTP_DST_MAX; i++)
        dst_init(&rtp_dsts[i], i);
    pelod_stats_init(("/no/such.dir/" + base + ".conf").c_str());
    const auto in = [](int i, const char *src, const char *bind_ip, int port, int run, float level) -> rtp_ep & {
        rtp_dst &d = rtp_dsts[i];
        snprintf(d.src, sizeof d.src, "%s", src);
        d.ep.sa_bind = sa(bind_ip, port);
        d.ep.run = run;
        d.stats_audio_sample = level;
        return d.ep;
    };
    std::vector<rtp_src> streams(6); // linked in order; stream i sends from bind_ip to dst_ip
    for (size_t k = 0; k + 1 < streams.size(); k++)
        streams[k].next = &streams[k + 1];
    const auto out = [&](size_t i, const char *dst_ip, const char *bind_ip, int port, int nchn, int m0, int m1) -> rtp_src & {
        rtp_src &s = streams[i];
        s.ep.sa_dst = sa(dst_ip, port);
        s.ep.sa_bind = sa(bind_ip, port);
        s.nchn = nchn;
        s.mix[0] = m0;
        s.mix[1] = m1;
        return s;
    };
    pelod_stats_period(20500);
    pelod_stats_period(3999);
    pelostats = {getpid(), CLOCK_MONOTONIC, "/dev/ptp0"};
    const std::string long_mix(64, 'm');
    const char *ids[] = {"main", "aux", "spare", long_mix.c_str()};
    const int modes[] = {0, 2, 48, -1};
    const float out_levels[] = {0.5f, 0.002f, 0.0f, 0.01f};
    for (int o = 0; o < 4; o++) {
        strcpy(mixouts[o].id, ids[o]);
        mixouts[o].mode = modes[o];
        mixouts[o].stats_audio_sample = out_levels[o];
    }
    rtp_ep &e0 = in(0, "239.192.0.7", "192.168.1.10", 5004, 1, 0.05f); // in the order of the columns
    std::tie(e0.rx_reset, e0.rx_count, e0.rx_srst, e0.rx_seqe, e0.rx_drop, e0.rx_dupl, e0.rx_late, e0.rx_good) =
        std::tuple(1, 123456, 2, 3, 4, 5, 6, 123440);
    mix_gain[0][0] = 1.0f;
    mix_gain[3][0] = 0.5f;
    in(1, "alsa:0", "0.0.0.0", 0, 0, 0.3f).sa_bind = sockaddr_in{}; // sound card: no bind half, not listed
    in(2, "10.1.2.3:5006;pdly=480;fmt=L16/48000/2", "0.0.0.0", 5006, 0, 0.9f).rx_count = 7;
    mix_gain[1][2] = 1.0f;
    in(5, "nowhere", "255.255.255.255", 5004, 1, 0.0f); // no endpoint: not listed
    rtp_ep &e47 = in(47, "239.192.0.47", "192.168.1.10", 5004, 1, 0.0f);
    e47.rx_count = 1099511627776;
    e47.rx_good = 1099511627775;

    rtp_src &s0 = out(0, "239.192.1.2", "192.168.1.10", 5004, 2, 0, 1);
    std::tie(s0.ep.tx_pkts, s0.ep.tx_err, s0.tx_backoff) = std::tuple(1000, 1, 2);
    streams[1].ep.sa_dst.sin_family = alsa_src_family; // loudspeaker: numbered, not listed
    rtp_src &s2 = out(2, "10.0.0.1", "0.0.0.0", 6000, 1, 3, 0);
    std::tie(s2.ep.backoff_cnt, s2.tx_backoff) = std::tuple(1000000, 77);
    out(3, "239.192.127.255", "192.168.1.10", 5008, 0, 0, 0);
    out(4, "239.192.0.9", "255.255.255.255", 5004, 1, 0, 0); // no endpoint: not listed
    out(5, "239.192.128.1", "192.168.1.10", 5004, 3, 15, 14);
    srcs_used = 6;
    std::tie(alsa_cap_samples, alsa_cap_err, alsa_cap_low, alsa_cap_xrun, alsa_cap_reread, alsa_ply_or,
             alsa_ply_rewrite, alsa_loop_cut) = std::tuple(48000, 1, 2, 1, 3, 4, 5, 6);

    // the scheduling and CPU lines vary with the machine: their values are masked
    pelod_stats_print(rtp_dsts, streams.data(), 3, mix_gain, mixouts);
    std::string text = read_file(report);
    unlink(report.c_str());
    for (const char *mark : {"DSP scheduling policy", "DSP CPU affinity"}) {
        const size_t at = text.find(mark), end = text.find('\n', at);
        ASSERT_NE(end, std::string::npos) << text;
        text.replace(at + strlen(mark), end - at - strlen(mark), mark[4] == 's' ? " (pid)" : " (CPUs)");
    }
    EXPECT_EQ(text, read_file(PELOD_SOURCE_DIR "/tests/stats/report.golden"));
    for (const rtp_dst &d : rtp_dsts)
        EXPECT_EQ(d.stats_audio_sample, 0.0f) << "meters restart, listed or not: flow " << d.index;
    for (const mixout &m : mixouts)
        EXPECT_EQ(m.stats_audio_sample, 0.0f);
}

} // namespace
