#include "rtp/rtp_sk.h"

#include "daemon/grace.h"
#include "routing/xpt.h"
#include "support/cycle_tables.h"
#include "support/emulation.h"
#include "support/rtp_wire.h"

#include <arpa/inet.h>
#include <atomic>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

namespace {
// The cycle may be inside recvmmsg on a flow's socket: it is unlinked at
// once but closed only after the cycle has completed a wake-up.
TEST(RtpSk, SocketIsClosedOnlyAfterTheCycleBoundary)
{
    SKIP_UNDER_EMULATION();
    reset_cycle_tables();
    const sockaddr_in a{AF_INET, htons(udp_free_port()), {inet_addr("127.0.0.1")}, {}};
    const rtp_ep_spec ends{a, a, 0};
    rtp_ep_open(&rtp_dsts[0].ep, &ends, &rtp_dsts[0]);
    const int fd = rtp_dsts[0].ep.sk->fd;
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
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "closed after the boundary";
}
} // namespace
