// The command line, the pid file and the process lifecycle, mostly through
// the built daemon.
#include "daemon/pelod.h"
#include "support/daemon.h"
#include "support/emulation.h"

#include <csignal>
#include <getopt.h>
#include <gtest/gtest.h>

namespace {
class PelodOptions : public ::testing::Test { // state: globals at their start values
protected:
    void SetUp() override
    {
        vox_notify_port = 5000;
        opt_sysjitter_ns = 2000000;
        debug = 0;
        pelod_conf_file = "/etc/pelod.conf";
    }
    int parse(std::vector<std::string> args)
    {
        optind = 0; // full getopt reset between calls
        opterr = 0;
        args.insert(args.begin(), "pelod");
        std::vector<char *> av;
        for (std::string &a : args)
            av.push_back(a.data());
        av.push_back(nullptr);
        store = std::move(args); // optarg points into it
        testing::internal::CaptureStdout();
        const int r = pelod_parse_options(int(av.size() - 1), av.data(), &cl);
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
    EXPECT_EQ(parse({"-p", "/dev/ptp1", "-J"}), 0); // "-J" carries no value
    EXPECT_STREQ(cl.phc_dev, "/dev/ptp1");
    EXPECT_EQ(opt_sysjitter_ns, 3500000);
    EXPECT_EQ(parse({"--phc-dev=-none"}), 0); // any device starting with '-' is the system clock
    EXPECT_EQ(cl.phc_dev, nullptr);
}

TEST(PelodLifecycle, SignalsReloadResetAndStopCleanly)
{
    SKIP_UNDER_EMULATION();
    pelod_proc p("# nothing routed\n", ".lifecycle.conf");
    ASSERT_TRUE(p.start_up({"-d"})) << "no pid file " << p.pid_path();
    EXPECT_TRUE(wait_for(1000, [&] { return read_file(p.pid_path()) == std::to_string(p.pid) + "\n"; }));
    p.signal(SIGHUP);
    EXPECT_TRUE(wait_for(3000, [&] { return p.out().find("HUP received. Config reloading.\n") != std::string::npos; }))
        << p.out();
    p.signal(SIGUSR1);
    usleep(100000);
    p.signal(SIGTERM);
    EXPECT_EQ(p.wait(), 0);
    EXPECT_NE(p.err().find("DSP exited with status 0\n"), std::string::npos) << p.err();
    const std::string out = p.out();
    const size_t j = out.find("jitter max ");
    ASSERT_NE(j, std::string::npos) << out;
    EXPECT_NE(out.find("ns\n", j), std::string::npos);
    EXPECT_NE(access(p.pid_path().c_str(), F_OK), 0) << "pid file removed";
}
} // namespace
