// Two daemons in two namespaces on one bridge send to one group: the one
// with the higher interface address gives the group up, and takes it again
// when the other stops.
#include "e2e.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

// Packets per sender address that reach fd within ms.
std::map<std::string, int> senders(int fd, int ms)
{
    std::vector<rtp_pkt> got;
    for (int t = 0; t < ms; t += 10) {
        usleep(10000); // the socket buffer holds fewer packets than a second brings
        rtp_drain(fd, got);
    }
    std::map<std::string, int> n;
    for (const rtp_pkt &p : got)
        n[p.from]++;
    return n;
}

TEST(E2eBackoff, HigherAddressGivesTheGroupUpUntilTheOtherStops)
{
    SKIP_WITHOUT_NETNS();
    netns hub("pe2eh"), a("pe2ea"), b("pe2eb");
    ASSERT_TRUE(hub.ok() && a.ok() && b.ok());
    ASSERT_TRUE(netns_bridge(hub, "br0", "10.77.1.254/24"));
    const std::string port_a = netns_bridge_port(hub, "br0", a, "eth0", "10.77.1.1/24");
    const std::string port_b = netns_bridge_port(hub, "br0", b, "eth0", "10.77.1.2/24");
    ASSERT_FALSE(port_a.empty() || port_b.empty());
    const int rx = udp_socket(hub, nullptr, 5004, "239.192.0.9", "10.77.1.254");
    ASSERT_GE(rx, 0);

    // Both start cut off from the bridge, so both end their start-up
    // back-off and send; then they meet.
    ASSERT_EQ(hub.sh("ip link set " + port_a + " nomaster && ip link set " + port_b + " nomaster"), 0);
    // 20 more endpoints: a sender resumes after 21 packets without the
    // other, more than a busy machine's wake-ups ever leave out
    const std::string idle = idle_crosspoints(20);
    ns_pelod low(a, "GLB ifs=10.77.1.1\nSRC mix=m rtpa=239.192.0.9:5004\n" + idle);
    ASSERT_TRUE(low.up) << low.output();
    ns_pelod high(b, "GLB ifs=10.77.1.2\nSRC mix=m rtpa=239.192.0.9:5004\n" + idle);
    ASSERT_TRUE(high.up) << high.output();
    usleep(200000);
    EXPECT_TRUE(senders(rx, 100).empty());
    ASSERT_EQ(hub.sh("ip link set " + port_a + " master br0 && ip link set " + port_b + " master br0"), 0);
    senders(rx, 200);
    std::map<std::string, int> n = senders(rx, 300);
    EXPECT_GE(n["10.77.1.1"], 250);
    EXPECT_EQ(n["10.77.1.2"], 0);

    EXPECT_EQ(low.stop(), 0);
    senders(rx, 100);
    n = senders(rx, 300);
    EXPECT_EQ(n["10.77.1.1"], 0);
    EXPECT_GE(n["10.77.1.2"], 250);
    close(rx);
}

} // namespace
