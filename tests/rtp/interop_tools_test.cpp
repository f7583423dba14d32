// The tools for other RTP software: pelod-sdp's descriptions follow what
// the send path puts on the wire, and the jitter probe asks for the delay
// a bursty sender needs.
#include "support/emulation.h"
#include "support/proc.h"
#include "support/rtp_wire.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

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

TEST(PelodListenProbe, AsksForTheDelayOfASendersBursts)
{
    SKIP_UNDER_EMULATION();
    const uint16_t port = udp_free_port();
    bg_proc probe;
    ASSERT_TRUE(probe.start({tools + "/pelod-listen", "-q", "-j", "-n", "400", "-t", "5",
                             "127.0.0.1:" + std::to_string(port)}));
    usleep(300000);
    sockaddr_in to{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const uint32_t ts0 = media_clock_now() - 480;
    for (int k = 0; k < 400; k++) { // ten 1 ms datagrams at once, every 10 ms
        if (k % 10 == 0)
            usleep(10000);
        const std::vector<uint8_t> d = rtp_datagram(uint16_t(k), ts0 + 48u * uint32_t(k), pcm24(std::vector<int32_t>(48)));
        sendto(fd, d.data(), d.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    }
    close(fd);
    ASSERT_EQ(probe.wait(8000), 0) << probe.err();
    const size_t at = probe.out().find("pdly_100=");
    const int pdly = at == std::string::npos ? -1 : std::stoi(probe.out().substr(at + 9));
    // Where the lock settles inside a burst depends on when the probe's
    // wake-ups fall, so the need lies between 7 and 9 ms; a probe that
    // ignored the lag would ask for about nothing.
    EXPECT_GE(pdly, 5 * 48) << "the first of a burst waits for the last";
    EXPECT_LT(pdly, 8192) << probe.out(); // stalls of a busy machine only add
}

} // namespace
