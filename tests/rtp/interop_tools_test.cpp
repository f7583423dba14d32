// pelod-sdp: the descriptions follow what the send path puts on the wire.
#include "support/emulation.h"
#include "support/proc.h"

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

} // namespace
