// pelod-check over a file of broken lines: each problem is reported on its
// own line with the right level, and nothing is reported for good lines.
#include "support/emulation.h"
#include "support/proc.h"

#include <gtest/gtest.h>
#include <map>
#include <sstream>

namespace {

struct broken_line {
    std::string text;
    const char *expect; // "" for a good line
};

const std::string check_tool = std::string(PELOD_TOOLS_DIR) + "/pelod-check";

TEST(PelodCheck, ReportsEveryBrokenLineWithItsLevel)
{
    SKIP_UNDER_EMULATION();
    const std::string x70(70, 'm');
    const broken_line table[] = {
        {"XPT mix=spk src=239.192.0.1 gain=-6", ""},
        {"XPT mix=spk src=239.192.0.2 gian=-6", "warning: unknown tag 'gian' (nearest: gain)"},
        {"XPT mix=spk src=239.192.0.3 gain=-6 gain=-3", "warning: gain given again"},
        {"XPT mix=spk src=239.192.0.4:70000", "warning: src: port 70000 is out of 1..65535"},
        {"XPT mix=spk src=239.192.0.5 pdly=abc", "warning: pdly=abc is not a number"},
        {"XPT mix=spk src=nowhere", "error: src=nowhere is no valid address"},
        {"XPT mix=spk src=239.192.0.7 gain=800", "error: gain=800 overflows"},
        {"XPT mix=spk src=239.192.0.9 gain=-3", ""},
        {"XPT mix=spk src=239.192.0.9 gain=-6", "error: the same crosspoint as line 8"},
        {"XPT mix=" + x70 + "a src=239.192.0.11", "warning: value of mix is 71 characters"},
        {"XPT mix=" + x70 + "b src=239.192.0.12", "error: mix name cut to 64"},
        {"XPT mix=spk src=239.192.0.13 fmt=opus", "warning: fmt=opus names no channel count"},
        {"XPT mix=spk src=239.192.0.14 ecs=nomix", "warning: mix 'nomix' is fed by no crosspoint"},
        {"XPT\tmix=spk src=239.192.0.15", "warning: 'XPT' is not a line keyword"},
        {"XPT mix=spk src=239.192.0.16\tgain=-100", "warning: control byte 0x09 at column 29"},
        {std::string("XPT mix=spk src=239.192.0.17 \0gain=-100", 39), "error: NUL byte at column 30"},
        {"# " + std::string(2047, 'c') + "XPT mix=spk src=239.192.0.18", "error: line longer than 2049"},
        {"SRC rtpa=239.192.1.1", "error: SRC without mix"},
        {"XPT mix=spk src=alsa:0 ecs=spk", "warning: ecs on a sound-card source"},
    };
    std::string text;
    for (const broken_line &l : table)
        text += l.text + "\n";
    const daemon_conf file(text);
    const std::string &conf = file.path;
    const run_result r = run_prog({check_tool, conf});

    std::map<int, std::string> got; // line -> its messages
    std::istringstream out(r.out);
    for (std::string l; std::getline(out, l);) {
        ASSERT_EQ(l.rfind(conf + ":", 0), 0u) << l;
        got[std::stoi(l.substr(conf.size() + 1))] += l + "\n";
    }
    for (size_t i = 0; i < std::size(table); i++) {
        const int line = int(i) + 1;
        if (*table[i].expect == '\0')
            EXPECT_EQ(got.count(line), 0u) << got[line];
        else
            EXPECT_NE(got[line].find(table[i].expect), std::string::npos)
                << "line " << line << " wants \"" << table[i].expect << "\", got:\n" << got[line];
        got.erase(line);
    }
    EXPECT_TRUE(got.empty()) << got.begin()->second;
    EXPECT_EQ(r.status, 2);
}

} // namespace
