// The command line into the daemon's globals (the signals and the pid file
// are exercised by every end-to-end run).
#include "daemon/pelod.h"

#include <getopt.h>
#include <gtest/gtest.h>
#include <tuple>

namespace {
TEST(PelodOptions, ValuesReachTheirGlobals)
{
    pelod_cmdline cl{"/dev/ptp0", -1};
    const auto parse = [&](std::vector<std::string> args) {
        optind = opterr = 0; // full getopt reset between calls
        args.insert(args.begin(), "pelod");
        std::vector<char *> av;
        for (std::string &a : args)
            av.push_back(a.data());
        av.push_back(nullptr);
        return pelod_parse_options(int(av.size() - 1), av.data(), &cl);
    };
    EXPECT_EQ(parse({"--vox-notify-port=6000", "-p", "-", "-C", "1", "--sysjitter=0.0035", "-d", "-f", "x.conf"}), 0);
    EXPECT_EQ(std::tuple(vox_notify_port, cl.phc_dev, cl.cpu, opt_sysjitter_ns, debug), std::tuple(6000, static_cast<const char *>(nullptr), 1, 3500000, 1));
    EXPECT_STREQ(pelod_conf_file, "x.conf");
    EXPECT_EQ(parse({"-p", "/dev/ptp1", "-J"}), 0); // "-J" carries no value
    EXPECT_STREQ(cl.phc_dev, "/dev/ptp1");
    EXPECT_EQ(opt_sysjitter_ns, 3500000);
    debug = 0;
}
} // namespace
