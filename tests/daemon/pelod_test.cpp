// The command line, the pid file and the process lifecycle, mostly through
// the built daemon.
#include "daemon/pelod.h"
#include "support/emulation.h"
#include "support/proc.h"

#include <csignal>
#include <cstring>
#include <getopt.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
const std::string usage_tail = "-D | --daemonize   Daemonize / run in background\n";

class PelodOptions : public ::testing::Test { // state: globals at their start values
protected:
    void SetUp() override
    {
        optind = 0; // full getopt reset between cases
        opterr = 0;
        vox_notify_port = 5000;
        opt_sysjitter_ns = 2000000;
        debug = 0;
        pelod_conf_file = "/etc/pelod.conf";
    }
    int parse(std::vector<std::string> args)
    {
        optind = 0;
        args.insert(args.begin(), "pelod");
        std::vector<char *> av;
        for (std::string &a : args)
            av.push_back(a.data());
        av.push_back(nullptr);
        store = std::move(args);
        testing::internal::CaptureStdout();
        const int r = pelod_parse_options(int(store.size()), av.data(), &cl);
        printed = testing::internal::GetCapturedStdout();
        return r;
    }
    pelod_cmdline cl{"/dev/ptp0", -1};
    std::vector<std::string> store;
    std::string printed;
};

TEST_F(PelodOptions, ValuesReachTheirGlobals)
{
    EXPECT_EQ(parse({"--vox-notify-port=6000", "-p", "-", "-C", "1", "--sysjitter=0.0035", "-d", "-f", "x.conf"}), 0);
    EXPECT_EQ(vox_notify_port, 6000);
    EXPECT_EQ(cl.phc_dev, nullptr);
    EXPECT_EQ(cl.cpu, 1);
    EXPECT_EQ(opt_sysjitter_ns, 3500000);
    EXPECT_EQ(debug, 1);
    EXPECT_STREQ(pelod_conf_file, "x.conf");
    EXPECT_EQ(printed, "");
}

TEST_F(PelodOptions, AnyDeviceStartingWithDashMeansTheSystemClock)
{
    EXPECT_EQ(parse({"--phc-dev=-none"}), 0);
    EXPECT_EQ(cl.phc_dev, nullptr);
    EXPECT_EQ(parse({"-p", "/dev/ptp1"}), 0);
    EXPECT_STREQ(cl.phc_dev, "/dev/ptp1");
}

TEST_F(PelodOptions, ShortJitterOptionCarriesNoValue)
{
    EXPECT_EQ(parse({"-J"}), 0);
    EXPECT_EQ(opt_sysjitter_ns, 2000000);
    EXPECT_EQ(parse({"--sysjitter=0.0005"}), 0);
    EXPECT_EQ(opt_sysjitter_ns, 500000);
}

TEST_F(PelodOptions, HelpNamesTheTableEntryAtTheResetIndex)
{
    EXPECT_EQ(parse({"-h"}), 1);
    EXPECT_EQ(printed.rfind("pelod unrecognized option: daemonize\n\npelod options\n" + usage_tail, 0), 0u)
        << printed;
    EXPECT_EQ(parse({"--help"}), 1);
    EXPECT_EQ(printed.rfind("pelod unrecognized option: help\n\npelod options\n", 0), 0u) << printed;
}

TEST_F(PelodOptions, UnknownOptionsAndPPrintTheUsageOnly)
{
    for (std::vector<std::string> a : {std::vector<std::string>{"-P", "1"}, {"--bogus"}, {"-x"}}) {
        EXPECT_EQ(parse(a), 1);
        EXPECT_EQ(printed.rfind("pelod options\n" + usage_tail, 0), 0u) << printed;
    }
}

TEST(PelodPidFile, NamedAfterTheConfigurationFile)
{
    char buf[256];
    pidfile_name(buf, sizeof buf, "/etc/pelod.conf");
    EXPECT_STREQ(buf, "/var/run/pelod.pid");
    pidfile_name(buf, sizeof buf, "/x/y/studio.cfg.txt");
    EXPECT_STREQ(buf, "/var/run/studio.cfg.pid");
    pidfile_name(buf, sizeof buf, "noext");
    EXPECT_STREQ(buf, "/var/run/noext.pid");
    pidfile_name(buf, sizeof buf, "/a.b/plain");
    EXPECT_STREQ(buf, "/var/run/plain.pid");
}

TEST(PelodSsrc, IsTheWeakMonotonicSum)
{
    const uint32_t s = rtp_generate_ssrc();
    EXPECT_LE(s, 7140u);
}

TEST(PelodBinary, UsageExitsWithZeroAndFullText)
{
    SKIP_UNDER_EMULATION();
    const run_result r = run_prog({PELOD_BIN, "-P", "1"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, std::string(PELOD_BIN) +
                         " options\n"
                         "-D | --daemonize   Daemonize / run in background\n"
                         "-f | --file=FILE   Specify the configuration file. (default: /etc/pelod.conf)\n"
                         "-p | --phc-dev=X   Programmable Hardware Clock device (e.g. /dev/ptp0)\n"
                         "                   \"-\" - use the system clock\n"
                         "-C | --cpu=X       CPU affinity\n"
                         "-J | --sysjitter=X Max system jitter [s] (default: 0.002 i.e. 2ms)\n"
                         "-d | --debug       Print debugging information\n"
                         "-h | --help        Show help\n");
}

TEST(PelodBinary, MissingClockDeviceFailsWithStatusOne)
{
    SKIP_UNDER_EMULATION();
    const run_result r = run_prog({PELOD_BIN, "-p", "/dev/nonexistent-ptp", "-f", "/nonexistent.conf"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("pelod: open(PHC_CLOCK): No such file or directory"), std::string::npos) << r.err;
}

TEST(PelodBinary, DebugLineShowsTheMinimumPlayoutDelay)
{
    SKIP_UNDER_EMULATION();
    const std::string conf = tmp_file("# empty\n");
    for (auto [arg, want] : {std::pair{"--sysjitter=0.0035", "jitter:3500000ns minoffs:144samples"},
                             std::pair{"--sysjitter=0.0005", "jitter:500000ns minoffs:0samples"}}) {
        bg_proc p;
        ASSERT_TRUE(p.start({PELOD_BIN, "-p", "-", "-d", arg, "-f", conf}));
        EXPECT_TRUE(wait_until(3000, [](void *pp) {
            return static_cast<bg_proc *>(pp)->out().find("libopus") != std::string::npos;
        }, &p));
        p.signal(SIGTERM);
        EXPECT_EQ(p.wait(), 0);
        EXPECT_NE(p.out().find(std::string("pelod clock:SYSTEM ") + want + " vector64:NEON"), std::string::npos)
            << p.out();
    }
    unlink(conf.c_str());
}

bool file_exists(void *path) { return access(static_cast<const char *>(path), F_OK) == 0; }

TEST(PelodLifecycle, SignalsReloadResetAndStopCleanly)
{
    SKIP_UNDER_EMULATION();
    const std::string conf = tmp_file("# nothing routed\n", ".lifecycle.conf");
    char pid_path[512];
    pidfile_name(pid_path, sizeof pid_path, conf.c_str());
    bg_proc p;
    ASSERT_TRUE(p.start({PELOD_BIN, "-p", "-", "-d", "-f", conf}));
    ASSERT_TRUE(wait_until(3000, file_exists, pid_path)) << "no pid file " << pid_path;
    usleep(50000);
    EXPECT_EQ(read_file(pid_path), std::to_string(p.pid) + "\n");

    p.signal(SIGHUP);
    EXPECT_TRUE(wait_until(3000, [](void *pp) {
        return static_cast<bg_proc *>(pp)->out().find("HUP received. Config reloading.\n") != std::string::npos;
    }, &p)) << p.out();
    p.signal(SIGUSR1);
    usleep(100000);
    p.signal(SIGTERM);
    EXPECT_EQ(p.wait(), 0);
    EXPECT_NE(p.err().find("DSP exited with status 0\n"), std::string::npos) << p.err();
    const std::string out = p.out();
    const size_t j = out.find("jitter max ");
    ASSERT_NE(j, std::string::npos) << out;
    EXPECT_NE(out.find("ns\n", j), std::string::npos);
    EXPECT_FALSE(file_exists(pid_path));
    unlink(conf.c_str());
}
} // namespace
