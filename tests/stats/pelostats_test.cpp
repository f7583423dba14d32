#include "audio/alsa.h"
#include "config/pelocfg.h"
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "rtp/rtp_src.h"
#include "stats/pelostats.h"
#include "support/emulation.h"
#include "support/proc.h"

#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {
using lines = std::vector<std::string>;

sockaddr_in sa(const char *ip, int port)
{
    return sockaddr_in{AF_INET, htons(uint16_t(port)), {inet_addr(ip)}, {}};
}

lines lines_of(const std::string &text)
{
    lines out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);)
        out.push_back(l);
    return out;
}

class StatsReport : public ::testing::Test {
protected:
    const std::string base = "pelodstatstest" + std::to_string(getpid());
    const std::string final_name = "/tmp/" + base + ".stat", tmp_name = "/tmp/~" + base + ".stat";
    const std::string victim = "/tmp/pelodstatsvictim" + std::to_string(getpid());
    std::vector<rtp_src> streams;

    void SetUp() override
    {
        mix_inp_init();
        mix_init();
        for (int i = 0; i < RTP_DST_MAX; i++)
            dst_init(&rtp_dsts[i], i);
        srcs_used = 0;
        alsa_cap_samples = alsa_cap_err = alsa_cap_low = alsa_cap_xrun = alsa_cap_reread = 0;
        alsa_ply_or = alsa_ply_rewrite = 0;
        pelod_stats_init(("/no/such.dir/" + base + ".conf").c_str());
    }
    void TearDown() override
    {
        for (const std::string &f : {final_name, tmp_name, victim})
            unlink(f.c_str());
    }
    static rtp_dst &in(int i, const char *src, const char *bind_ip, int port, int run, float level)
    {
        rtp_dst &d = rtp_dsts[i];
        snprintf(d.src, sizeof d.src, "%s", src);
        d.ep.sa_bind = sa(bind_ip, port);
        d.ep.run = run;
        d.stats_audio_sample = level;
        return d;
    }
    rtp_src &out(size_t i, const char *dst_ip, const char *bind_ip, int port, int nchn, int m0, int m1)
    {
        rtp_src &s = streams[i];
        s.ep.sa_dst = sa(dst_ip, port);
        s.ep.sa_bind = sa(bind_ip, port);
        s.nchn = nchn;
        s.mix[0] = m0;
        s.mix[1] = m1;
        return s;
    }
    void link_streams(size_t n)
    {
        streams.assign(n, rtp_src{});
        for (size_t i = 0; i + 1 < n; i++)
            streams[i].next = &streams[i + 1];
    }
    std::string print(int time_resync = 0)
    {
        pelod_stats_print(rtp_dsts, streams.empty() ? nullptr : streams.data(), time_resync, mix_gain, mixouts);
        return read_file(final_name);
    }
};

TEST(StatsFileNames, FromTheConfigurationFilesBaseName)
{
    const char *cases[][3] = {{"/etc/pelod.conf", "/tmp/~pelod.stat", "/tmp/pelod.stat"},
                              {"noext", "/tmp/~noext.stat", "/tmp/noext.stat"},
                              {"/x/y/studio.cfg.txt", "/tmp/~studio.cfg.stat", "/tmp/studio.cfg.stat"},
                              {"rel/dir.d/plain", "/tmp/~plain.stat", "/tmp/plain.stat"}};
    for (const auto &c : cases) {
        pelod_stats_init(c[0]);
        EXPECT_STREQ(pelostats_tmp_name, c[1]);
        EXPECT_STREQ(pelostats_name, c[2]);
    }
}

TEST(StatsJitter, MaximaOfTheLastMinuteFiveAndFifteen)
{
    pelod_stats_init("/etc/pelod.conf");
    auto seconds = [](int n, unsigned long ns) {
        for (int s = 0; s < n; s++)
            pelod_stats_period(ns);
        return lines{std::to_string(jitt_max_1s / 1000), std::to_string(jitt_max_1min / 1000),
                     std::to_string(jitt_max_5min / 1000), std::to_string(jitt_max_15min / 1000)};
    };
    seconds(30, 5000);
    EXPECT_EQ(seconds(1, 20000), (lines{"20", "20", "20", "20"}));
    EXPECT_EQ(seconds(59, 5000), (lines{"5", "20", "20", "20"})) << "still within the minute";
    EXPECT_EQ(seconds(2, 5000), (lines{"5", "5", "20", "20"}));
    EXPECT_EQ(seconds(239, 5000), (lines{"5", "5", "5", "20"}));
    EXPECT_EQ(seconds(600, 5999), (lines{"5", "5", "5", "5"})) << "across the wrap of the ring";
}

TEST(StatsLevel, AudioLevelDigits)
{
    const std::pair<float, int> cases[] = {{0.0f, 0},  {-0.5f, 0},  {1e-30f, 1}, {0.002f, 1}, {0.003f, 1},
                                           {0.05f, 5}, {0.355f, 8}, {0.36f, 9},  {0.5f, 9}};
    for (const auto &[sample, digit] : cases)
        EXPECT_EQ(audiovol10(sample), digit) << sample;
}

TEST_F(StatsReport, ConstructedStateLineByLine)
{
    pelod_stats_period(20500);
    pelod_stats_period(3999);
    pelostats = {getpid(), CLOCK_MONOTONIC, "/dev/ptp0"};
    const std::string long_mix(64, 'm');
    const std::pair<const char *, int> outs[] = {{"main", 0}, {"aux", 2}, {"spare", 48}, {long_mix.c_str(), -1}};
    const float out_levels[] = {0.5f, 0.002f, 0.0f, 0.01f};
    for (int o = 0; o < 4; o++) {
        strcpy(mixouts[o].id, outs[o].first);
        mixouts[o].mode = outs[o].second;
        mixouts[o].stats_audio_sample = out_levels[o];
    }
    rtp_ep &e0 = in(0, "239.192.0.7", "192.168.1.10", 5004, 1, 0.05f).ep;
    // SYNC 1, PKTS 123456, DROP 4, DUPL 5, GOOD 123440, SEQE 3, SRST 2, LATE 6 (declaration order)
    e0 = rtp_ep{e0.sa_dst, e0.sa_bind, 0, 0, nullptr, 0, {}, nullptr, 1, 123456, 4, 5, 123440, 3, 2, 6};
    e0.run = 1;
    mix_gain[0][0] = 1.0f;
    mix_gain[3][0] = 0.5f;
    in(1, "alsa:0", "0.0.0.0", 0, 0, 0.3f).ep.sa_bind = sockaddr_in{}; // sound card: no bind half
    in(2, "10.1.2.3:5006;pdly=480;fmt=L16/48000/2", "0.0.0.0", 5006, 0, 0.9f).ep.rx_count = 7;
    mix_gain[1][2] = 1.0f;
    in(5, "nowhere", "255.255.255.255", 5004, 1, 0.0f);
    rtp_ep &e47 = in(47, "239.192.0.47", "192.168.1.10", 5004, 1, 0.0f).ep;
    e47.rx_count = 1099511627776;
    e47.rx_good = 1099511627775;

    link_streams(6);
    rtp_src &s0 = out(0, "239.192.1.2", "192.168.1.10", 5004, 2, 0, 1);
    s0.ep.tx_pkts = 1000;
    s0.ep.tx_err = 1;
    s0.tx_backoff = 2;
    streams[1].ep.sa_dst.sin_family = alsa_src_family; // loudspeaker: numbered, not listed
    rtp_src &s2 = out(2, "10.0.0.1", "0.0.0.0", 6000, 1, 3, 0);
    s2.ep.backoff_cnt = 1000000;
    s2.tx_backoff = 77;
    out(3, "239.192.127.255", "192.168.1.10", 5008, 0, 0, 0);
    out(4, "239.192.0.9", "255.255.255.255", 5004, 1, 0, 0);
    out(5, "239.192.128.1", "192.168.1.10", 5004, 3, 15, 14);
    srcs_used = 6;
    alsa_cap_samples = 48000;
    alsa_cap_err = alsa_cap_xrun = 1;
    alsa_cap_low = 2;
    alsa_cap_reread = 3;
    alsa_ply_or = 4;
    alsa_ply_rewrite = 5;

    std::string cpus;
    cpu_set_t set;
    sched_getaffinity(0, sizeof set, &set);
    for (int c = 0; c < CPU_SETSIZE; c++)
        if (CPU_ISSET(c, &set))
            cpus += (cpus.empty() ? "" : ",") + std::to_string(c);
    char pid_line[200], cpu_line[400];
    snprintf(pid_line, sizeof pid_line, "DSP scheduling policy %26s     : 0 OTHER (normal)",
             ("(pid " + std::to_string(getpid()) + ")").c_str());
    snprintf(cpu_line, sizeof cpu_line, "DSP CPU affinity                    (CPU count %4d) : %s", CPU_COUNT(&set),
             cpus.c_str());
    ASSERT_EQ(sched_getscheduler(0), SCHED_OTHER);

    const lines want = {
        "System time re-synchronizations                      :        3",
        "Real-time scheduling jitter (1s 1min 5min 15min) [us]: 3 20 20 20",
        pid_line,
        cpu_line,
        "Media clock PHC (Programmable Hardware Clock) device : /dev/ptp0",
        "",
        "I/O statistics  R    - running/active (- down, * active, 0-9 audio level)                  Matrix",
        "                VTCH - Vantrel channel number",
        "                SYNC - stream resynchronization      TXERR - transmit errors",
        "                PKTS - packets sent/received         TXBACKOFF - out dupl channel          S-single",
        "                SRST - stream reset                  LATE - packet arrived too late        M-multiple",
        "                GOOD - good packets                  SEQE - RTP sequence errors            o-unused",
        "                DROP - dropped/lost/missing packets  DUPL - duplicate packets",
        "",
        "# Inputs",
        "",
        "## R   SYNC       PKTS   SRST   SEQE   DROP   DUPL   LATE       GOOD Channel               0123456789012345",
        "------------------------------------------------------------------------------------------ SSoMoooooooooooo",
        "00 5      1     123456      2      3      4      5      6     123440           239.192.0.7 +--+------------",
        "02 -      0          7      0      0      0      0      0          0 10.1.2.3:5006;pdly=480;fmt=L16/48000/2 -+--------------",
        "47 0      0 1099511627776      0      0      0      0      0 1099511627775          239.192.0.47 ----------------",
        "",
        "# Outputs (6)",
        "",
        "## R       PKTS      TXERR  TXBACKOFF Outs(Mix) VTCH# From                  To                   ",
        "---------------------------------------------------------------------------------------------",
        "00 *       1000          1          2 00,01   258 192.168.001.010:05004 239.192.001.002:05004",
        "02 -          0          0         77    03     - 000.000.000.000:06000 010.000.000.001:06000",
        "03 *          0          0          0 ----- 32767 192.168.001.010:05008 239.192.127.255:05008",
        "05 *          0          0          0 15,14     - 192.168.001.010:05004 239.192.128.001:05004",
        "",
        "# Mixouts",
        "",
        "## R ID",
        "-------------------",
        "00 9 main",
        "01 1 aux",
        "02 0 spare",
        "03 3 " + long_mix,
        "",
        "ALSA Capture : samples 48000 err 1 underruns 2 xruns 1 rereads 3",
        "ALSA Playback: overruns 4 rewrites 5",
    };
    const std::string text = print(3);
    EXPECT_EQ(text.back(), '\n');
    const lines got = lines_of(text);
    for (size_t i = 0; i < std::max(got.size(), want.size()); i++)
        EXPECT_EQ(i < got.size() ? got[i] : "<missing>", i < want.size() ? want[i] : "<extra>") << "line " << i + 1;
    for (const rtp_dst &d : rtp_dsts)
        EXPECT_EQ(d.stats_audio_sample, 0.0f) << "meters restart, listed or not: flow " << d.index;
    for (const mixout &m : mixouts)
        EXPECT_EQ(m.stats_audio_sample, 0.0f);
}

TEST_F(StatsReport, PlantedLinksAreNeverWrittenThrough)
{
    FILE *f = fopen(victim.c_str(), "w");
    fputs("precious\n", f);
    fclose(f);
    auto check = [&](const char *what) {
        EXPECT_NE(print().find("# Inputs"), std::string::npos) << what;
        EXPECT_EQ(read_file(victim), "precious\n") << what;
        struct stat st{};
        EXPECT_EQ(lstat(final_name.c_str(), &st), 0);
        EXPECT_TRUE(S_ISREG(st.st_mode) && (st.st_mode & 0777) == 0444) << what;
        EXPECT_NE(access(tmp_name.c_str(), F_OK), 0) << what;
    };
    ASSERT_EQ(symlink(victim.c_str(), tmp_name.c_str()), 0);
    check("symbolic link at the temporary name");
    ASSERT_EQ(link(victim.c_str(), tmp_name.c_str()), 0);
    check("hard link at the temporary name");
    unlink(final_name.c_str());
    ASSERT_EQ(symlink(victim.c_str(), final_name.c_str()), 0);
    check("symbolic link at the report's name");
}

TEST_F(StatsReport, FullTablesWithLongNamesNeverOverrunTheBuffer)
{
    for (rtp_dst &d : rtp_dsts) {
        in(d.index, std::string(64, char('a' + d.index % 26)).c_str(), "192.168.1.10", 5004, 1, 0.0f);
        d.ep.rx_count = d.ep.rx_good = INT64_MAX;
        d.ep.rx_drop = d.ep.rx_late = -1;
    }
    for (mixout &m : mixouts)
        memset(m.id, 'z', sizeof m.id - 1);
    link_streams(SRCS_MAX);
    for (size_t i = 0; i < streams.size(); i++)
        out(i, "239.192.127.255", "192.168.100.100", 65535, 2, INT32_MIN, -1).ep.tx_pkts = -1;
    srcs_used = SRCS_MAX;
    std::vector<char> whole(PELOSTATS_BUF_LEN);
    const int full = pelod_stats_compose(whole.data(), whole.size(), rtp_dsts, streams.data(), 0, mix_gain, mixouts);
    const std::string text(whole.data());
    EXPECT_EQ(text.size(), size_t(full));
    EXPECT_LT(full, PELOSTATS_BUF_LEN / 2);
    EXPECT_EQ(lines_of(text).size(), 12u + 5 + 48 + 5 + 64 + 5 + 16 + 3) << "the whole report";
    for (size_t room : {0, 1, 100, 4000, 12000}) {
        std::vector<char> buf(room + 64, '#');
        const size_t n = size_t(pelod_stats_compose(buf.data(), room, rtp_dsts, streams.data(), 0, mix_gain, mixouts));
        EXPECT_EQ(std::string(buf.data(), n), text.substr(0, std::min(n, room ? room - 1 : 0))) << room;
        EXPECT_EQ(std::string(buf.data() + room, 64), std::string(64, '#')) << "written past " << room;
    }
}

bool exists(void *path) { return access(static_cast<const char *>(path), F_OK) == 0; }

TEST(StatsDaemon, WritesTheReportEverySecond)
{
    SKIP_UNDER_EMULATION();
    const std::string conf = tmp_file("# nothing routed\n");
    const std::string report = "/tmp" + conf.substr(conf.rfind('/'), conf.rfind('.') - conf.rfind('/')) + ".stat";
    bg_proc p;
    ASSERT_TRUE(p.start({PELOD_BIN, "-p", "-", "-f", conf}));
    ASSERT_TRUE(wait_until(3500, exists, const_cast<char *>(report.c_str()))) << p.err();
    const lines l = lines_of(read_file(report));
    ASSERT_EQ(l.size(), 31u);
    EXPECT_GE(std::stoi(l[0].substr(55)), 1) << "the cycle's first wake-up re-synchronises";
    EXPECT_EQ(l[4].rfind("Media clock TAI / TAI offset [seconds from UTC]      : TAI (UTC +", 0), 0u) << l[4];
    EXPECT_EQ(l[19], "# Outputs (0)");
    struct stat first{}, later{};
    stat(report.c_str(), &first);
    usleep(1300000);
    stat(report.c_str(), &later);
    EXPECT_NE(first.st_ino, later.st_ino) << "replaced once a second";
    p.signal(SIGTERM);
    EXPECT_EQ(p.wait(), 0);
    unlink(report.c_str());
    unlink(conf.c_str());
}
} // namespace
