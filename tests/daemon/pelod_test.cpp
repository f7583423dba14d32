// The command line into the daemon's globals (the signals and the pid file
// are exercised by every end-to-end run).
#include "daemon/pelod.h"

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

} // namespace
