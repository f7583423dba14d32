#include "daemon/grace.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "rtp/rtp_sk.h"
#include "rtp/rtp_src.h"

#include <arpa/inet.h>
#include <atomic>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>

namespace {
in_addr_t ip(const char *a) { return inet_addr(a); }

rtp_ep_spec ep_spec(const char *dst, int port, const char *bind, in_addr_t ssm = 0)
{
    rtp_ep_spec s{};
    s.sa_dst.sin_family = s.sa_bind.sin_family = AF_INET;
    s.sa_dst.sin_port = s.sa_bind.sin_port = htons(uint16_t(port));
    s.sa_dst.sin_addr.s_addr = ip(dst);
    s.sa_bind.sin_addr.s_addr = ip(bind);
    s.ssm_src = ssm;
    return s;
}

int sockets()
{
    int n = 0;
    for (dlist *l = rtp_sk_all.next; l != &rtp_sk_all; l = l->next)
        n++;
    return n;
}

int free_port()
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{AF_INET, 0, {ip("127.0.0.1")}, {}};
    socklen_t len = sizeof a;
    bind(fd, reinterpret_cast<sockaddr *>(&a), len);
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

// State: no socket, no endpoint, no outgoing stream; flows as at start-up.
class RtpSk : public ::testing::Test {
protected:
    int port = free_port();
    void SetUp() override
    {
        ASSERT_TRUE(dlist_empty(&rtp_sk_all));
        for (int i = 0; i < RTP_DST_MAX; i++)
            dst_init(&rtp_dsts[i], i);
        rtp_srcs = nullptr;
        debug = 0;
    }
    void TearDown() override
    {
        debug = 0;
        for (rtp_dst &d : rtp_dsts)
            rtp_ep_close(&d.ep);
        EXPECT_EQ(sockets(), 0);
    }
    static void open(int i, const rtp_ep_spec &s) { rtp_ep_open(&rtp_dsts[i].ep, &s, &rtp_dsts[i]); }
    static rtp_sk *sk(int i) { return rtp_dsts[i].ep.sk; }
};

TEST(RtpSkHash, BucketIsLowFiveBitsOfTheHostOrderAddress)
{
    rtp_sk sk{};
    EXPECT_EQ(rtp_sk_ep_list(&sk, ip("239.192.0.37")), &sk.rtp_sk_ep_list_ip_dst_hash[5]);
    EXPECT_EQ(rtp_sk_ep_list(&sk, ip("10.0.0.0")), rtp_sk_ep_list(&sk, ip("0.0.0.0")));
    EXPECT_TRUE(in_addr_is_mcast(ip("224.0.0.1")) && in_addr_is_mcast(ip("239.255.255.255")));
    EXPECT_FALSE(in_addr_is_mcast(ip("223.255.255.255")) || in_addr_is_mcast(ip("240.0.0.0")));
}

TEST_F(RtpSk, SocketCarriesEveryOption)
{
    open(0, ep_spec("127.0.0.1", port, "127.0.0.1"));
    ASSERT_NE(sk(0), nullptr);
    const int fd = sk(0)->fd;
    auto opt = [fd](int level, int name) {
        int v = -1;
        socklen_t l = sizeof v;
        getsockopt(fd, level, name, &v, &l);
        return l == 1 ? int(uint8_t(v)) : v;
    };
    EXPECT_EQ(opt(SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(opt(SOL_SOCKET, SO_NO_CHECK), 1);
    EXPECT_EQ(opt(IPPROTO_IP, IP_MULTICAST_LOOP), 1);
    EXPECT_EQ(opt(IPPROTO_IP, IP_MULTICAST_ALL), 0);
    EXPECT_EQ(opt(IPPROTO_IP, IP_PKTINFO), 1);
    EXPECT_EQ(opt(IPPROTO_IP, IP_MULTICAST_TTL), 64);
    EXPECT_EQ(opt(IPPROTO_IP, IP_TOS), 0x88);
    sockaddr_in a{};
    socklen_t l = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &l);
    EXPECT_EQ(a.sin_addr.s_addr, ip("127.0.0.1"));
    EXPECT_EQ(ntohs(a.sin_port), port);
}

TEST_F(RtpSk, BindFailureIsReportedAndTheSocketStillMade)
{
    const sockaddr_in a{AF_INET, htons(4000), {ip("192.0.2.1")}, {}}; // not ours
    testing::internal::CaptureStderr();
    const int fd = rtp_socket(&a, 1, 0);
    const std::string err = testing::internal::GetCapturedStderr();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(err, "rtp_socket bind(" + std::to_string(fd) + ", 192.0.2.1:4000) err=99\n");
    close(fd);
}

TEST_F(RtpSk, EqualBindSharesASocketAndBucketsByDestination)
{
    open(0, ep_spec("127.0.0.1", port, "127.0.0.1"));
    open(1, ep_spec("0.0.0.0", port, "127.0.0.1")); // wildcard destination
    open(2, ep_spec("127.0.0.1", port, "127.0.0.2"));
    EXPECT_EQ(sockets(), 2);
    EXPECT_EQ(sk(0), sk(1));
    EXPECT_NE(sk(0), sk(2));
    EXPECT_EQ(sk(0)->rtp_sk_ep_list_ip_dst_hash[1].next, &rtp_dsts[0].ep.rtp_sk_ep_list);
    EXPECT_EQ(sk(0)->rtp_sk_ep_list_ip_dst_hash[0].next, &rtp_dsts[1].ep.rtp_sk_ep_list);
    EXPECT_EQ(rtp_dsts[1].ep.dst, &rtp_dsts[1]);
    EXPECT_EQ(rtp_dsts[0].ep.backoff_cnt, 0);
    rtp_ep_close(&rtp_dsts[0].ep);
    EXPECT_EQ(sockets(), 2);
    EXPECT_EQ(rtp_dsts[0].ep.sa_dst.sin_family, 0);
    rtp_ep_close(&rtp_dsts[1].ep);
    EXPECT_EQ(sockets(), 1);
}

TEST_F(RtpSk, NoEndpointOpensNothing)
{
    open(0, ep_spec("127.0.0.1", port, "255.255.255.255"));
    rtp_ep_spec s = ep_spec("127.0.0.1", port, "127.0.0.1");
    s.sa_dst.sin_family = 0;
    open(1, s);
    EXPECT_EQ(sockets(), 0);
    EXPECT_EQ(sk(0), nullptr);
    EXPECT_EQ(sk(1), nullptr);
}

TEST_F(RtpSk, OutgoingStreamKeepsTheSocket)
{
    rtp_src s{};
    rtp_srcs = &s;
    const rtp_ep_spec e = ep_spec("127.0.0.1", port, "127.0.0.1");
    rtp_ep_open(&s.ep, &e, nullptr);
    open(0, e);
    ASSERT_EQ(sk(0), s.ep.sk);
    const int fd = s.ep.sk->fd;
    rtp_ep_close(&rtp_dsts[0].ep);
    EXPECT_EQ(sockets(), 1);
    EXPECT_EQ(fcntl(fd, F_GETFD), 0);
    rtp_ep_close(&s.ep);
    EXPECT_EQ(sockets(), 0);
    rtp_srcs = nullptr;
}

TEST_F(RtpSk, DebugLinesForSocketsAndBuckets)
{
    debug = 1;
    testing::internal::CaptureStdout();
    open(0, ep_spec("127.0.0.1", port, "127.0.0.1"));
    open(1, ep_spec("0.0.0.0", port, "127.0.0.1"));
    debug_print_sk(sk(0));
    rtp_ep_close(&rtp_dsts[0].ep);
    rtp_ep_close(&rtp_dsts[1].ep);
    const std::string p = std::to_string(port);
    char e0[32], e1[32];
    snprintf(e0, sizeof e0, "%lX", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(&rtp_dsts[0].ep)));
    snprintf(e1, sizeof e1, "%lX", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(&rtp_dsts[1].ep)));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "+ sock 127.0.0.1:" + p + "\nSK 127.0.0.1:" + p + ":\nSK 127.0.0.1:" + p + " #00: " + e1 +
                  "|0.0.0.0:" + p + "@127.0.0.1:" + p + "\nSK 127.0.0.1:" + p + " #01: " + e0 + "|127.0.0.1:" + p +
                  "@127.0.0.1:" + p + "\n- sock 127.0.0.1:" + p + "\n");
}

// The cycle may be inside recvmmsg on the socket: it is unlinked at once
// but closed only after the cycle has completed a wake-up.
TEST_F(RtpSk, SocketIsClosedOnlyAfterTheCycleBoundary)
{
    open(0, ep_spec("127.0.0.1", port, "127.0.0.1"));
    const int fd = sk(0)->fd;
    std::atomic<int> open_when_unlinked{-1};
    rt_set_alive(1);
    std::thread cycle([&] {
        while (std::atomic_ref<dlist *>(rtp_sk_all.next).load() != &rtp_sk_all)
            usleep(50);
        open_when_unlinked = fcntl(fd, F_GETFD) == 0;
        rt_cycle_done();
    });
    rtp_ep_close(&rtp_dsts[0].ep);
    cycle.join();
    rt_set_alive(0);
    EXPECT_EQ(open_when_unlinked, 1);
}

// Multicast runs in a network namespace of its own with two interfaces
// (a veth pair): pv0 10.9.0.1 and pv1 10.9.1.1.
class RtpSkMcast : public RtpSk {
protected:
    int home = -1;
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "multicast membership tests need root (they make a network namespace)";
        RtpSk::SetUp();
        home = ::open("/proc/self/ns/net", O_RDONLY);
        ASSERT_EQ(unshare(CLONE_NEWNET), 0);
        ASSERT_EQ(system("ip link add pv0 type veth peer name pv1 && ip addr add 10.9.0.1/24 dev pv0 &&"
                         " ip addr add 10.9.1.1/24 dev pv1 && ip link set pv0 up && ip link set pv1 up"),
                  0);
    }
    void TearDown() override
    {
        if (home < 0)
            return;
        RtpSk::TearDown();
        setns(home, CLONE_NEWNET);
        close(home);
    }
    // Sockets of this namespace joined to G on dev (/proc/net/igmp).
    static int igmp_users(const char *dev, const char *G)
    {
        char hex[9];
        snprintf(hex, sizeof hex, "%08X", ip(G));
        std::ifstream f("/proc/thread-self/net/igmp");
        std::string line, cur;
        while (std::getline(f, line)) {
            std::istringstream ls(line);
            std::string a, b;
            ls >> a >> b;
            if (line[0] != '\t')
                cur = b;
            else if (cur == dev && a == hex)
                return std::stoi(b);
        }
        return 0;
    }
    // Source-specific inclusions of (G, S) (/proc/net/mcfilter).
    static int ssm_includes(const char *G, const char *S)
    {
        char want[32];
        snprintf(want, sizeof want, "0x%08x 0x%08x", ntohl(ip(G)), ntohl(ip(S)));
        std::ifstream f("/proc/thread-self/net/mcfilter");
        std::string line;
        while (std::getline(f, line))
            if (auto p = line.find(want); p != std::string::npos)
                return std::stoi(line.substr(p + 22));
        return 0;
    }
    // Sends one datagram to G from pv0 and says whether fd received it.
    bool arrives(int fd, const char *G)
    {
        const int tx = socket(AF_INET, SOCK_DGRAM, 0);
        const in_addr_t ifa = ip("10.9.0.1");
        setsockopt(tx, IPPROTO_IP, IP_MULTICAST_IF, &ifa, sizeof ifa);
        const sockaddr_in to{AF_INET, htons(uint16_t(port)), {ip(G)}, {}};
        sendto(tx, "x", 1, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
        close(tx);
        pollfd p{fd, POLLIN, 0};
        char b[16];
        return poll(&p, 1, 200) == 1 && recv(fd, b, sizeof b, MSG_DONTWAIT) == 1;
    }
};

TEST_F(RtpSkMcast, OneSocketPerPortAndInterface)
{
    open(0, ep_spec("239.192.0.5", port, "10.9.0.1"));
    open(1, ep_spec("239.192.0.6", port, "10.9.0.1"));
    open(2, ep_spec("239.192.0.5", port, "10.9.1.1"));
    EXPECT_EQ(sockets(), 2);
    ASSERT_EQ(sk(0), sk(1));
    EXPECT_EQ(sk(0)->sa_bind.sin_addr.s_addr, INADDR_ANY);
    EXPECT_EQ(sk(0)->mcif_addr, ip("10.9.0.1"));
    EXPECT_EQ(sk(2)->mcif_addr, ip("10.9.1.1"));
    EXPECT_EQ(rtp_dsts[0].ep.if_addr_h, 0x0A090001u);
    EXPECT_EQ(rtp_dsts[0].ep.backoff_cnt, RTP_BACKOFF_ARMED);
    EXPECT_EQ(igmp_users("pv0", "239.192.0.5"), 1);
    EXPECT_EQ(igmp_users("pv0", "239.192.0.6"), 1);
    EXPECT_EQ(igmp_users("pv1", "239.192.0.5"), 1);
}

TEST_F(RtpSkMcast, GroupIsJoinedOnceAndLeftWithTheLastEndpoint)
{
    debug = 1;
    testing::internal::CaptureStdout();
    open(0, ep_spec("239.192.0.5", port, "10.9.0.1"));
    open(1, ep_spec("239.192.0.5", port, "10.9.0.1"));
    open(2, ep_spec("239.192.0.6", port, "10.9.0.1"));
    const int fd = sk(0)->fd;
    EXPECT_EQ(igmp_users("pv0", "239.192.0.5"), 1);
    EXPECT_TRUE(arrives(fd, "239.192.0.5"));
    rtp_ep_close(&rtp_dsts[0].ep);
    EXPECT_TRUE(arrives(fd, "239.192.0.5"));
    rtp_ep_close(&rtp_dsts[1].ep);
    EXPECT_EQ(igmp_users("pv0", "239.192.0.5"), 0);
    EXPECT_FALSE(arrives(fd, "239.192.0.5")); // also: no other socket's groups (IP_MULTICAST_ALL 0)
    EXPECT_TRUE(arrives(fd, "239.192.0.6"));
    rtp_ep_close(&rtp_dsts[2].ep);
    const std::string p = std::to_string(port);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "+ sock 0.0.0.0:" + p + " mcif 10.9.0.1\n+ mgrp 239.192.0.5 #5 on 10.9.0.1\n"
              "+ mgrp 239.192.0.6 #6 on 10.9.0.1\n- mgrp 239.192.0.5 #5 on 10.9.0.1\n"
              "- mgrp 239.192.0.6 #6 on 10.9.0.1\n- sock 0.0.0.0:" + p + " mcif 10.9.0.1\n");
}

TEST_F(RtpSkMcast, SourceSpecificPairsAreSeparateMemberships)
{
    debug = 1;
    testing::internal::CaptureStdout();
    open(0, ep_spec("232.1.2.3", port, "10.9.0.1", ip("10.9.0.7")));
    open(1, ep_spec("232.1.2.3", port, "10.9.0.1", ip("10.9.0.7")));
    open(2, ep_spec("232.1.2.3", port, "10.9.0.1", ip("10.9.0.8")));
    EXPECT_EQ(ssm_includes("232.1.2.3", "10.9.0.7"), 1);
    EXPECT_EQ(ssm_includes("232.1.2.3", "10.9.0.8"), 1);
    rtp_ep_close(&rtp_dsts[2].ep);
    EXPECT_EQ(ssm_includes("232.1.2.3", "10.9.0.8"), 0);
    EXPECT_EQ(ssm_includes("232.1.2.3", "10.9.0.7"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "+ sock 0.0.0.0:" + std::to_string(port) + " mcif 10.9.0.1\n"
              "+ mgrp 232.1.2.3 from 10.9.0.7 on 10.9.0.1\n+ mgrp 232.1.2.3 from 10.9.0.8 on 10.9.0.1\n"
              "- mgrp 232.1.2.3 from 10.9.0.8 on 10.9.0.1\n");
}

TEST_F(RtpSkMcast, StreamSentToAGroupListensToIt)
{
    rtp_src s{};
    rtp_srcs = &s;
    const rtp_ep_spec e = ep_spec("239.192.1.1", port, "10.9.0.1");
    rtp_ep_open(&s.ep, &e, nullptr);
    open(0, e);
    rtp_ep_close(&rtp_dsts[0].ep);
    EXPECT_EQ(igmp_users("pv0", "239.192.1.1"), 1);
    EXPECT_TRUE(arrives(s.ep.sk->fd, "239.192.1.1"));
    rtp_ep_close(&s.ep);
    rtp_srcs = nullptr;
}
} // namespace
