#include "audio/alsa.h"
#include "config/pelocfg.h"
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "rtp/rtp_src.h"
#include "stats/pelostats.h"
#include "support/proc.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timex.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

namespace {
sockaddr_in sa(const char *ip, int port, sa_family_t family = AF_INET)
{
    sockaddr_in a{};
    a.sin_family = family;
    a.sin_port = htons(uint16_t(port));
    a.sin_addr.s_addr = inet_addr(ip);
    return a;
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);)
        out.push_back(l);
    return out;
}

std::string rjust(const std::string &s, size_t w) { return s.size() >= w ? s : std::string(w - s.size(), ' ') + s; }

// The CPUs this process may use, as the report lists them.
std::string own_cpus(int *count)
{
    cpu_set_t set;
    sched_getaffinity(0, sizeof set, &set);
    std::string list;
    *count = 0;
    for (int c = 0; c < CPU_SETSIZE; c++)
        if (CPU_ISSET(c, &set)) {
            list += (list.empty() ? "" : ",") + std::to_string(c);
            ++*count;
        }
    return list;
}

// Start-up state of every table the report reads.
void reset_tables()
{
    mix_inp_init();
    mix_init();
    for (int i = 0; i < RTP_DST_MAX; i++)
        dst_init(&rtp_dsts[i], i);
    rtp_srcs = nullptr;
    srcs_used = 0;
    alsa_cap_samples = alsa_cap_err = alsa_cap_low = alsa_cap_xrun = alsa_cap_reread = 0;
    alsa_ply_or = alsa_ply_rewrite = 0;
    alsa_cap_peak = 0;
}

class StatsReport : public ::testing::Test {
protected:
    std::string conf = "/nonexistent/dir.d/pelodstatstest" + std::to_string(getpid()) + ".conf";
    std::string final_name = "/tmp/pelodstatstest" + std::to_string(getpid()) + ".stat";
    std::string tmp_name = "/tmp/~pelodstatstest" + std::to_string(getpid()) + ".stat";
    std::string victim = "/tmp/pelodstatsvictim" + std::to_string(getpid());
    std::vector<rtp_src> streams;

    void SetUp() override
    {
        reset_tables();
        pelod_stats_init(conf.c_str());
    }
    void TearDown() override
    {
        reset_tables();
        for (const std::string &f : {final_name, tmp_name, victim})
            unlink(f.c_str());
    }
    // Links n zeroed streams as the list rtp_srcs.
    void make_streams(size_t n)
    {
        streams.assign(n, rtp_src{});
        for (size_t i = 0; i + 1 < n; i++)
            streams[i].next = &streams[i + 1];
        rtp_srcs = n ? &streams[0] : nullptr;
    }
    std::string print()
    {
        pelod_stats_print(rtp_dsts, rtp_srcs, time_resync_, mix_gain, mixouts);
        return read_file(final_name);
    }
    int time_resync_ = 0;
};

TEST(StatsFileNames, FromTheConfigurationFilesBaseName)
{
    const struct {
        const char *conf, *tmp, *final_name;
    } cases[] = {
        {"/etc/pelod.conf", "/tmp/~pelod.stat", "/tmp/pelod.stat"},
        {"noext", "/tmp/~noext.stat", "/tmp/noext.stat"},
        {"/x/y/studio.cfg.txt", "/tmp/~studio.cfg.stat", "/tmp/studio.cfg.stat"},
        {"rel/dir.d/plain", "/tmp/~plain.stat", "/tmp/plain.stat"},
        {"/etc/", "/tmp/~.stat", "/tmp/.stat"},
    };
    for (const auto &c : cases) {
        pelod_stats_init(c.conf);
        EXPECT_STREQ(pelostats_tmp_name, c.tmp) << c.conf;
        EXPECT_STREQ(pelostats_name, c.final_name) << c.conf;
    }
    std::string huge(10000, 'a');
    pelod_stats_init(huge.c_str());
    EXPECT_EQ(strlen(pelostats_name), sizeof pelostats_name - 1);
}

TEST(StatsJitter, MaximaOverOneFiveAndFifteenMinutes)
{
    pelod_stats_init("/etc/pelod.conf");
    auto us = [] {
        return std::vector<unsigned long>{jitt_max_1s / 1000, jitt_max_1min / 1000, jitt_max_5min / 1000,
                                          jitt_max_15min / 1000};
    };
    for (int s = 0; s < 30; s++)
        pelod_stats_period(5000);
    pelod_stats_period(20000);
    EXPECT_EQ(us(), (std::vector<unsigned long>{20, 20, 20, 20}));
    for (int s = 0; s < 59; s++)
        pelod_stats_period(5000);
    EXPECT_EQ(us(), (std::vector<unsigned long>{5, 20, 20, 20})) << "the peak is still the 60th entry";
    for (int s = 0; s < 2; s++)
        pelod_stats_period(5000);
    EXPECT_EQ(us(), (std::vector<unsigned long>{5, 5, 20, 20}));
    for (int s = 61; s < 300; s++)
        pelod_stats_period(5000);
    EXPECT_EQ(us(), (std::vector<unsigned long>{5, 5, 5, 20}));
    for (int s = 300; s < 900; s++) // the ring wraps on the way
        pelod_stats_period(5999);
    EXPECT_EQ(us(), (std::vector<unsigned long>{5, 5, 5, 5}));
    pelod_stats_period(1000000);
    pelod_stats_period(0);
    EXPECT_EQ(us(), (std::vector<unsigned long>{0, 1000, 1000, 1000}));
}

TEST(StatsJitter, UlmaxLooksOnlyBeforeLast)
{
    const unsigned long v[] = {9, 1, 3, 2, 7};
    EXPECT_EQ(ulmax(v + 4, 3), 3u);
    EXPECT_EQ(ulmax(v + 5, 5), 9u);
    EXPECT_EQ(ulmax(v + 5, 0), 0u);
}

TEST(StatsHelpers, AudioLevelDigits)
{
    const struct {
        float sample;
        int digit;
    } cases[] = {
        {0.0f, 0}, {-0.5f, 0}, {1e-30f, 1}, {0.002f, 1}, {0.003f, 1}, {0.0031f, 2}, {0.01f, 3},
        {0.05f, 5}, {0.079f, 5}, {0.2f, 7}, {0.355f, 8}, {0.36f, 9}, {0.5f, 9}, {7.0f, 9},
        {std::nanf(""), 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(audiovol10(c.sample), c.digit) << c.sample;
}

TEST(StatsHelpers, SchedulingPolicyNames)
{
    const char *want[] = {"OTHER (normal)", "FIFO (real-time)", "RR (real-time)", "BATCH (normal)",
                          "???",            "IDLE (normal)",    "???"};
    for (int p = 0; p < 7; p++)
        EXPECT_STREQ(get_sched_policy_str(p), want[p]) << p;
    EXPECT_STREQ(get_sched_policy_str(-1), "???");
}

TEST(StatsHelpers, ChannelNumbersOfTheChannelRange)
{
    char buf[16];
    const struct {
        const char *ip, *text;
    } cases[] = {{"239.192.1.2", "258"},     {"239.192.0.0", "0"},   {"239.192.127.255", "32767"},
                 {"239.192.128.0", "-"},     {"10.0.0.1", "-"},      {"239.191.255.255", "-"}};
    for (const auto &c : cases) {
        EXPECT_EQ(ip2vtch(buf, sizeof buf, ntohl(inet_addr(c.ip))), int(strlen(c.text))) << c.ip;
        EXPECT_STREQ(buf, c.text) << c.ip;
    }
}

TEST(StatsHelpers, CpuListIsCutWholeAndNeverOverrun)
{
    int count = 0;
    const std::string all = own_cpus(&count);
    char buf[300];
    int n_count = -1;
    EXPECT_EQ(get_cpu_affinity(0, buf, sizeof buf, &n_count), int(all.size()));
    EXPECT_EQ(buf, all);
    EXPECT_EQ(n_count, count);

    // room for the first number only: no partial number, no trailing comma
    const std::string first = all.substr(0, all.find(','));
    char small[32];
    memset(small, 'x', sizeof small);
    const int room = int(first.size()) + 2;
    EXPECT_EQ(get_cpu_affinity(0, small, room, &n_count), int(first.size()));
    EXPECT_STREQ(small, first.c_str());
    EXPECT_EQ(small[room], 'x');
    EXPECT_EQ(get_cpu_affinity(0, small, 0, &n_count), 0);
    EXPECT_EQ(n_count, count);

    testing::internal::CaptureStderr();
    EXPECT_EQ(get_cpu_affinity(0x3fffffff, buf, sizeof buf, &n_count), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "pelod: sched_getaffinity: No such process\n");
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(n_count, 0);
}

TEST_F(StatsReport, ConstructedStateLineByLine)
{
    pelod_stats_period(20500);
    pelod_stats_period(3999);
    time_resync_ = 3;
    pelostats.mix_run_pid = getpid();
    pelostats.clk_id = CLOCK_MONOTONIC;
    pelostats.phc_dev = "/dev/ptp0";
    ASSERT_EQ(sched_getscheduler(0), SCHED_OTHER);

    strcpy(mixouts[0].id, "main");
    mixouts[0].mode = 0;
    mixouts[0].stats_audio_sample = 0.5f;
    strcpy(mixouts[1].id, "aux");
    mixouts[1].mode = 2;
    mixouts[1].stats_audio_sample = 0.002f;
    strcpy(mixouts[2].id, "spare");
    const std::string long_mix(64, 'm');
    strcpy(mixouts[3].id, long_mix.c_str());
    mixouts[3].mode = -1;
    mixouts[3].stats_audio_sample = 0.01f;

    rtp_dst &f0 = rtp_dsts[0];
    strcpy(f0.src, "239.192.0.7");
    f0.ep.sa_bind = sa("192.168.1.10", 5004);
    f0.ep.run = 1;
    f0.stats_audio_sample = 0.05f;
    f0.ep.rx_reset = 1;
    f0.ep.rx_count = 123456;
    f0.ep.rx_srst = 2;
    f0.ep.rx_seqe = 3;
    f0.ep.rx_drop = 4;
    f0.ep.rx_dupl = 5;
    f0.ep.rx_late = 6;
    f0.ep.rx_good = 123440;
    mix_gain[0][0] = 1.0f;
    mix_gain[3][0] = 0.5f;

    rtp_dst &mic = rtp_dsts[1]; // a sound-card input has no bind half: not listed
    strcpy(mic.src, "alsa:0");
    mic.ep.sa_dst.sin_family = alsa_src_family;
    mic.stats_audio_sample = 0.3f;
    mix_gain[2][1] = 1.0f;

    rtp_dst &f2 = rtp_dsts[2];
    strcpy(f2.src, "10.1.2.3:5006;pdly=480;fmt=L16/48000/2");
    f2.ep.sa_bind = sa("0.0.0.0", 5006);
    f2.ep.rx_count = 7;
    f2.stats_audio_sample = 0.9f; // not running: shown as '-'
    mix_gain[1][2] = 1.0f;

    rtp_dst &f5 = rtp_dsts[5]; // bind address all-ones: no endpoint
    strcpy(f5.src, "nowhere");
    f5.ep.sa_bind = sa("255.255.255.255", 5004);

    rtp_dst &f47 = rtp_dsts[47];
    strcpy(f47.src, "239.192.0.47");
    f47.ep.sa_bind = sa("192.168.1.10", 5004);
    f47.ep.run = 1;
    f47.ep.rx_count = 1099511627776;
    f47.ep.rx_good = 1099511627775;

    make_streams(6);
    rtp_src &s0 = streams[0];
    s0.ep.sa_dst = sa("239.192.1.2", 5004);
    s0.ep.sa_bind = sa("192.168.1.10", 5004);
    s0.nchn = 2;
    s0.mix[0] = 0;
    s0.mix[1] = 1;
    s0.ep.tx_pkts = 1000;
    s0.ep.tx_err = 1;
    s0.tx_backoff = 2;
    streams[1].ep.sa_dst.sin_family = alsa_src_family; // loudspeaker: not listed, still numbered
    streams[1].nchn = 2;
    rtp_src &s2 = streams[2];
    s2.ep.sa_dst = sa("10.0.0.1", 6000);
    s2.ep.sa_bind = sa("0.0.0.0", 6000);
    s2.nchn = 1;
    s2.mix[0] = 3;
    s2.ep.backoff_cnt = 1000000;
    s2.tx_backoff = 77;
    rtp_src &s3 = streams[3];
    s3.ep.sa_dst = sa("239.192.127.255", 5004);
    s3.ep.sa_bind = sa("192.168.1.10", 5008);
    streams[4].ep.sa_dst = sa("239.192.0.9", 5004);
    streams[4].ep.sa_bind = sa("255.255.255.255", 5004);
    rtp_src &s5 = streams[5];
    s5.ep.sa_dst = sa("239.192.128.1", 5004);
    s5.ep.sa_bind = sa("192.168.1.10", 5004);
    s5.nchn = 3;
    s5.mix[0] = 15;
    s5.mix[1] = 14;
    srcs_used = 6;

    alsa_cap_samples = 48000;
    alsa_cap_err = 1;
    alsa_cap_low = 2;
    alsa_cap_xrun = 1;
    alsa_cap_reread = 3;
    alsa_ply_or = 4;
    alsa_ply_rewrite = 5;

    int ncpu = 0;
    const std::string cpus = own_cpus(&ncpu);
    const std::vector<std::string> want = {
        "System time re-synchronizations                      :        3",
        "Real-time scheduling jitter (1s 1min 5min 15min) [us]: 3 20 20 20",
        "DSP scheduling policy " + rjust("(pid " + std::to_string(getpid()) + ")", 26) + "     : 0 OTHER (normal)",
        "DSP CPU affinity                    (CPU count " + rjust(std::to_string(ncpu), 4) + ") : " + cpus,
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
        "03 *          0          0          0 ----- 32767 192.168.001.010:05008 239.192.127.255:05004",
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
    const std::string text = print();
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\n');
    const std::vector<std::string> got = lines_of(text);
    for (size_t i = 0; i < std::max(got.size(), want.size()); i++)
        EXPECT_EQ(i < got.size() ? got[i] : "<missing>", i < want.size() ? want[i] : "<extra>") << "line " << i + 1;

    // the meters shown are reset for the next second, listed or not
    for (const rtp_dst &d : rtp_dsts)
        EXPECT_EQ(d.stats_audio_sample, 0.0f) << d.index;
    for (const mixout &m : mixouts)
        EXPECT_EQ(m.stats_audio_sample, 0.0f);
    EXPECT_EQ(access(tmp_name.c_str(), F_OK), -1) << "the temporary file is renamed";
}

TEST_F(StatsReport, ClockLineFollowsTheMediaClock)
{
    timex tx{};
    adjtimex(&tx);
    pelostats.clk_id = CLOCK_TAI;
    EXPECT_EQ(lines_of(print())[4],
              "Media clock TAI / TAI offset [seconds from UTC]      : TAI (UTC +" + std::to_string(tx.tai) + "s)");
    pelostats.clk_id = CLOCK_MONOTONIC;
    pelostats.phc_dev = nullptr;
    EXPECT_EQ(lines_of(print())[4], "") << "no clock line: the legend's empty line follows";
}

TEST_F(StatsReport, ReportIsReadOnlyAndReplacedAsAWhole)
{
    print();
    struct stat st{};
    ASSERT_EQ(stat(final_name.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0444u);
    ino_t first = st.st_ino;
    print();
    ASSERT_EQ(stat(final_name.c_str(), &st), 0);
    EXPECT_NE(st.st_ino, first) << "a new file is renamed over the old one";
}

TEST_F(StatsReport, PlantedLinksAndFilesAreNeverWrittenThrough)
{
    const std::string precious = "precious\n";
    const std::string victim_path = victim;
    {
        FILE *f = fopen(victim_path.c_str(), "w");
        ASSERT_NE(f, nullptr);
        fputs(precious.c_str(), f);
        fclose(f);
    }
    ASSERT_EQ(symlink(victim_path.c_str(), tmp_name.c_str()), 0);
    std::string text = print();
    EXPECT_EQ(read_file(victim_path), precious) << "symbolic link at the temporary name";
    EXPECT_NE(text.find("# Inputs"), std::string::npos);
    struct stat st{};
    ASSERT_EQ(lstat(final_name.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));

    ASSERT_EQ(link(victim_path.c_str(), tmp_name.c_str()), 0);
    print();
    EXPECT_EQ(read_file(victim_path), precious) << "hard link at the temporary name";

    unlink(final_name.c_str());
    ASSERT_EQ(symlink(victim_path.c_str(), final_name.c_str()), 0);
    text = print();
    EXPECT_EQ(read_file(victim_path), precious) << "symbolic link at the report's name";
    ASSERT_EQ(lstat(final_name.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_NE(text.find("# Inputs"), std::string::npos);
}

TEST_F(StatsReport, NothingIsWrittenBeforeInit)
{
    pelostats_name[0] = '\0';
    rtp_dsts[3].stats_audio_sample = 0.5f;
    print();
    EXPECT_EQ(access(final_name.c_str(), F_OK), -1);
    EXPECT_EQ(rtp_dsts[3].stats_audio_sample, 0.5f);
}

TEST_F(StatsReport, FullTablesWithLongNamesNeverOverrunTheBuffer)
{
    for (int i = 0; i < RTP_DST_MAX; i++) {
        rtp_dst &d = rtp_dsts[i];
        memset(d.src, 'a' + i % 26, sizeof d.src - 1);
        d.ep.sa_bind = sa("192.168.1.10", 5004);
        d.ep.rx_reset = d.ep.rx_count = d.ep.rx_srst = d.ep.rx_seqe = INT64_MAX;
        d.ep.rx_drop = d.ep.rx_dupl = d.ep.rx_late = d.ep.rx_good = -1;
    }
    for (int o = 0; o < MIX_OUT_MAX; o++) {
        memset(mixouts[o].id, 'z', sizeof mixouts[o].id - 1);
        mixouts[o].mode = -1;
    }
    make_streams(64);
    for (rtp_src &s : streams) {
        s.ep.sa_dst = sa("239.192.127.255", 65535);
        s.ep.sa_bind = sa("192.168.100.100", 65535);
        s.nchn = 2;
        s.mix[0] = s.mix[1] = -2147483647;
        s.ep.tx_pkts = s.ep.tx_err = s.tx_backoff = -1;
    }
    srcs_used = SRCS_MAX;
    alsa_cap_samples = alsa_cap_err = alsa_cap_low = alsa_cap_xrun = alsa_cap_reread = ~0ul;

    std::vector<char> whole(PELOSTATS_BUF_LEN);
    const int full = pelod_stats_compose(whole.data(), whole.size(), rtp_dsts, rtp_srcs, 0, mix_gain, mixouts);
    const std::string text(whole.data(), size_t(full));
    EXPECT_EQ(text.size(), strlen(whole.data()));
    EXPECT_NE(text.find("ALSA Playback: overruns 0 rewrites 0\n"), std::string::npos) << "the whole report fits";
    EXPECT_LT(full, PELOSTATS_BUF_LEN / 2);
    EXPECT_EQ(lines_of(text).size(), 4u + 8 + 5 + 48 + 5 + 64 + 5 + 16 + 3);

    for (size_t room : {size_t(0), size_t(1), size_t(2), size_t(100), size_t(4000), size_t(full)}) {
        std::vector<char> buf(room + 64, '#');
        const int n = pelod_stats_compose(buf.data(), room, rtp_dsts, rtp_srcs, 0, mix_gain, mixouts);
        EXPECT_LE(size_t(n) + 1, std::max<size_t>(room, 1)) << room;
        if (room > 0) {
            EXPECT_EQ(buf[size_t(n)], '\0') << room;
            EXPECT_EQ(std::string(buf.data(), size_t(n)), text.substr(0, size_t(n))) << room;
        }
        for (size_t k = room; k < buf.size(); k++)
            ASSERT_EQ(buf[k], '#') << "written past " << room << " at " << k;
    }
}

// Messages the report sends to the system log, caught on /dev/log when no
// log daemon owns it.
class StatsSyslog : public StatsReport {
protected:
    int fd = -1;
    void SetUp() override
    {
        StatsReport::SetUp();
        if (access("/dev/log", F_OK) == 0)
            GTEST_SKIP() << "a log daemon owns /dev/log";
        fd = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        strcpy(a.sun_path, "/dev/log");
        if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
            close(fd);
            fd = -1;
            GTEST_SKIP() << "/dev/log taken meanwhile";
        }
        closelog(); // connect afresh to this socket
    }
    void TearDown() override
    {
        if (fd >= 0) {
            closelog();
            close(fd);
            unlink("/dev/log");
        }
        StatsReport::TearDown();
    }
    // The text after "<program>: " of every message of this process.
    std::vector<std::string> messages()
    {
        std::vector<std::string> got;
        const std::string tag = std::string(program_invocation_short_name) + ": ";
        char buf[2048];
        for (ssize_t n; (n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0;) {
            const std::string m(buf, size_t(n));
            const size_t at = m.find(tag);
            if (at != std::string::npos)
                got.push_back(m.substr(at + tag.size()));
        }
        return got;
    }
};

TEST_F(StatsSyslog, EverySecondLogsJitterAndSoundCardCounters)
{
    alsa_cap_samples = 96000;
    alsa_cap_err = 1;
    alsa_cap_low = 2;
    alsa_cap_xrun = 3;
    alsa_cap_reread = 4;
    alsa_cap_peak = -5;
    alsa_ply_or = 6;
    alsa_ply_rewrite = 7;
    pelod_stats_period(20999);
    EXPECT_EQ(messages(), (std::vector<std::string>{
                              "jitter (1s 1min 5min 15min) [us]: 20 20 20 20\n",
                              "         alsa cap samples 96000 err 1 lowbuf 2 xruns 3 rereads 4 peak(S32) -5",
                              "         alsa play overruns 6 rewrite 7",
                          }));
    EXPECT_EQ(alsa_cap_peak, 0) << "the peak is per second";
    EXPECT_EQ(alsa_cap_samples, 96000u) << "the counters are cumulative";
}

bool file_there(void *path) { return access(static_cast<const char *>(path), F_OK) == 0; }

TEST(StatsDaemon, WritesTheReportEverySecond)
{
    const std::string conf = tmp_file("# nothing routed\n", ".statconf");
    std::string base = conf.substr(conf.rfind('/') + 1);
    base = base.substr(0, base.rfind('.'));
    const std::string report = "/tmp/" + base + ".stat";
    unlink(report.c_str());
    bg_proc p;
    ASSERT_TRUE(p.start({PELOD_BIN, "-p", "-", "-f", conf}));
    ASSERT_TRUE(wait_until(3500, file_there, const_cast<char *>(report.c_str()))) << p.err();
    const std::vector<std::string> l = lines_of(read_file(report));
    ASSERT_GE(l.size(), 30u);
    EXPECT_EQ(l[0].substr(0, 55), "System time re-synchronizations                      : ");
    EXPECT_GE(std::stoi(l[0].substr(55)), 1) << "the cycle's first wake-up re-synchronises";
    EXPECT_EQ(l[2].find("DSP scheduling policy"), 0u);
    EXPECT_NE(l[2].find("(pid "), std::string::npos);
    EXPECT_EQ(l[4].find("Media clock TAI / TAI offset [seconds from UTC]      : TAI (UTC +"), 0u) << l[4];
    EXPECT_EQ(l[17], "------------------------------------------------------------------------------------------ oooooooooooooooo");
    EXPECT_EQ(l[19], "# Outputs (0)");
    EXPECT_EQ(l.back().find("ALSA Playback: overruns "), 0u);
    struct stat first{}, later{};
    stat(report.c_str(), &first);
    usleep(1300000);
    stat(report.c_str(), &later);
    EXPECT_NE(first.st_ino, later.st_ino) << "rewritten once a second";
    p.signal(SIGTERM);
    EXPECT_EQ(p.wait(), 0);
    EXPECT_EQ(access(report.c_str(), F_OK), 0) << "left in place at exit";
    unlink(report.c_str());
    unlink(conf.c_str());
}
} // namespace
