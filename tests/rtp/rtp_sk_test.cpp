#include "rtp/rtp_sk.h"
#include "support/cycle_tables.h"

#include "daemon/grace.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "rtp/rtp_src.h"
#include "support/emulation.h"
#include "support/proc.h"
#include "support/rtp_wire.h"

#include <arpa/inet.h>
#include <atomic>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <string>
#include <thread>
#include <unistd.h>

namespace {
in_addr_t ip(const char *a) { return inet_addr(a); }

rtp_ep_spec endpoint(const char *dst, int port, const char *bind, const char *ssm = "0.0.0.0")
{
    const sockaddr_in d{AF_INET, htons(uint16_t(port)), {ip(dst)}, {}}, b{AF_INET, d.sin_port, {ip(bind)}, {}};
    return {d, b, ip(ssm)};
}

int sockets()
{
    int n = 0;
    for (dlist *l = rtp_sk_all.next; l != &rtp_sk_all; l = l->next)
        n++;
    return n;
}

std::string sh(const std::string &cmd) { return run_prog({"/bin/sh", "-c", cmd}).out; }

// State: no socket, no outgoing stream; flows as at start-up. Endpoints
// are those of flows, since only flows and streams keep a socket alive.
class RtpSk : public ::testing::Test {
protected:
    const int port = udp_free_port();
    const std::string p = std::to_string(port);
    void SetUp() override
    {
        ASSERT_TRUE(dlist_empty(&rtp_sk_all));
        reset_cycle_tables();
    }
    void TearDown() override
    {
        debug = 0;
        close_flow_endpoints();
        EXPECT_EQ(sockets(), 0);
    }
    static void open(int i, const rtp_ep_spec &s) { rtp_ep_open(&rtp_dsts[i].ep, &s, &rtp_dsts[i]); }
    static void shut(int i) { rtp_ep_close(&rtp_dsts[i].ep); }
    static rtp_sk *sk(int i) { return rtp_dsts[i].ep.sk; }
};

// The cycle may be inside recvmmsg on the socket: it is unlinked at once
// but closed only after the cycle has completed a wake-up.
TEST_F(RtpSk, SocketIsClosedOnlyAfterTheCycleBoundary)
{
    SKIP_UNDER_EMULATION();
    open(0, endpoint("127.0.0.1", port, "127.0.0.1"));
    const int fd = sk(0)->fd;
    std::atomic<int> open_when_unlinked{-1};
    rt_set_alive(1);
    std::thread cycle([&] {
        while (std::atomic_ref<dlist *>(rtp_sk_all.next).load() != &rtp_sk_all)
            usleep(50);
        open_when_unlinked = fcntl(fd, F_GETFD) == 0;
        rt_cycle_done();
    });
    shut(0);
    cycle.join();
    rt_set_alive(0);
    EXPECT_EQ(open_when_unlinked, 1);
}

// Multicast runs in a network namespace of the test's own with a veth
// pair: pv0 10.9.0.1 and pv1 10.9.1.1.
class RtpSkMcast : public RtpSk {
protected:
    int home = -1;
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "multicast membership tests need root (they make a network namespace)";
        if (under_emulation()) // qemu-user lacks IP_MULTICAST_ALL and the 4-byte IP_MULTICAST_IF
            GTEST_SKIP() << "multicast options are not translated under emulation";
        RtpSk::SetUp();
        home = ::open("/proc/self/ns/net", O_RDONLY);
        ASSERT_EQ(unshare(CLONE_NEWNET), 0);
        ASSERT_EQ(system("ip link add pv0 type veth peer name pv1 && ip addr add 10.9.0.1/24 dev pv0 &&"
                         " ip addr add 10.9.1.1/24 dev pv1 && ip link set pv0 up && ip link set pv1 up"), 0);
        debug = 1;
        testing::internal::CaptureStdout();
    }
    void TearDown() override
    {
        if (home < 0)
            return;
        testing::internal::GetCapturedStdout();
        RtpSk::TearDown();
        setns(home, CLONE_NEWNET);
        close(home);
    }
    // Sends one datagram to G out of pv0 and says whether fd received it.
    bool arrives(int fd, const char *G) const
    {
        const int tx = socket(AF_INET, SOCK_DGRAM, 0);
        const in_addr_t ifa = ip("10.9.0.1");
        setsockopt(tx, IPPROTO_IP, IP_MULTICAST_IF, &ifa, sizeof ifa);
        const sockaddr_in to{AF_INET, htons(uint16_t(port)), {ip(G)}, {}};
        sendto(tx, "x", 1, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
        close(tx);
        pollfd pf{fd, POLLIN, 0};
        char b[4];
        return poll(&pf, 1, 200) == 1 && recv(fd, b, sizeof b, MSG_DONTWAIT) == 1;
    }
    // The debug lines so far; capturing goes on.
    static std::string debug_lines()
    {
        const std::string s = testing::internal::GetCapturedStdout();
        testing::internal::CaptureStdout();
        return s;
    }
};

TEST_F(RtpSkMcast, GroupIsJoinedOnceAndLeftWithTheLastEndpoint)
{
    open(0, endpoint("239.192.0.5", port, "10.9.0.1"));
    open(1, endpoint("239.192.0.5", port, "10.9.0.1"));
    open(2, endpoint("239.192.0.6", port, "10.9.0.1"));
    const int fd = sk(0)->fd;
    shut(0);
    EXPECT_TRUE(arrives(fd, "239.192.0.5"));
    shut(1);
    EXPECT_EQ(sh("ip maddr show dev pv0").find("239.192.0.5"), std::string::npos);
    EXPECT_FALSE(arrives(fd, "239.192.0.5"));
    EXPECT_TRUE(arrives(fd, "239.192.0.6"));
    shut(2);
    const std::string m = " on 10.9.0.1\n", s = " sock 0.0.0.0:" + p + " mcif 10.9.0.1\n";
    EXPECT_EQ(debug_lines(), "+" + s + "+ mgrp 239.192.0.5 #5" + m + "+ mgrp 239.192.0.6 #6" + m + "- mgrp 239.192.0.5 #5" +
                                 m + "- mgrp 239.192.0.6 #6" + m + "-" + s);
}

} // namespace
