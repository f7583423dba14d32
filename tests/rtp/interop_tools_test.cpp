// The tools for other RTP software: pelod-sdp's descriptions follow what
// the send path puts on the wire; pelod-tone's streams reach pelod-listen
// whole, in every format, at their level.
#include "support/emulation.h"
#include "support/proc.h"
#include "support/rtp_wire.h"

#include <gtest/gtest.h>

namespace {

const std::string tools = std::string(PELOD_TOOLS_DIR);

TEST(PelodSdp, DescribesWhatEachStreamSends)
{
    SKIP_UNDER_EMULATION();
    const daemon_conf conf("GLB ifs=10.0.0.2\nSRC mix=a rtpa=alsa:0\nSRC mix=a rtpa=10.0.0.9:6000\n"
                           "SRC mix=a:b rtpa=239.1.2.3:6002 ptime=10\nSRC mix=a:b rtpa=232.1.2.3:6004 fmt=opus/48000/2 "
                           "pt=98 br=64000\n");
    const struct { const char *stream; std::vector<const char *> lines; } rows[] = {
        {"1", {"c=IN IP4 10.0.0.9\r\n", "m=audio 6000 RTP/AVP 101\r\n", "a=rtpmap:101 L24/48000/1\r\n",
               "a=ptime:1\r\n", "a=ts-refclk:local\r\n", "a=mediaclk:direct=0\r\n"}},
        // two channels of 10 ms would overflow a datagram: 5 ms are sent
        {"239.1.2.3", {"c=IN IP4 239.1.2.3/64\r\n", "a=rtpmap:96 L24/48000/2\r\n", "a=ptime:5\r\n"}},
        {"3", {"a=source-filter: incl IN IP4 232.1.2.3 10.0.0.2\r\n", "a=rtpmap:98 opus/48000/2\r\n",
               "a=fmtp:98 sprop-stereo=1; maxaveragebitrate=64000\r\n", "a=ptime:10\r\n"}},
    };
    for (const auto &r : rows) {
        const run_result o = run_prog({tools + "/pelod-sdp", "-p", "-", "-f", conf.path, "-s", r.stream});
        ASSERT_EQ(o.status, 0) << o.err;
        EXPECT_EQ(o.out.find("v=0"), o.out.rfind("v=0")) << "one stream";
        for (const char *l : r.lines)
            EXPECT_NE(o.out.find(l), std::string::npos) << r.stream << ": " << l << o.out;
    }
}

TEST(PelodToneToListen, EachFormatArrivesWholeAtItsLevel)
{
    SKIP_UNDER_EMULATION();
    const struct {
        std::vector<std::string> tone, listen;
        const char *want;
    } rows[] = {
        {{"-l", "-12"}, {}, "pt=101 format=L24 channels=1 ptime=48 "},
        {{"-F", "L16", "-c", "2", "-f", "1000,500", "-l", "-12"}, {}, "pt=112 format=L16 channels=2 ptime=48 "},
        {{"-F", "opus", "-c", "2", "-l", "-12"}, {"-f", "opus/2"}, "pt=96 format=opus channels=2 ptime=480 "},
    };
    for (const auto &r : rows) {
        const std::string at = "127.0.0.1:" + std::to_string(udp_free_port());
        std::vector<std::string> listen = {tools + "/pelod-listen", "-q", "-t", "1.5", at}, tone = {tools + "/pelod-tone", "-q", "-d", "1"};
        listen.insert(listen.begin() + 1, r.listen.begin(), r.listen.end());
        tone.insert(tone.end(), r.tone.begin(), r.tone.end());
        tone.push_back(at);
        bg_proc l;
        ASSERT_TRUE(l.start(listen));
        ASSERT_TRUE(wait_for(2000, [&] { return l.err().find("listening on") != std::string::npos; }));
        EXPECT_EQ(run_prog(tone).status, 0);
        ASSERT_EQ(l.wait(4000), 0) << l.err();
        for (const char *w : {r.want, " lost=0 gaps=0 ", " bad=0 "})
            EXPECT_NE(l.out().find(w), std::string::npos) << w << "\n" << l.out();
        const size_t rms = l.out().find("rms_dbfs=");
        EXPECT_NEAR(rms == std::string::npos ? 0.0 : std::stod(l.out().substr(rms + 9)), -15.0, 0.2) << l.out();
    }
}

} // namespace
