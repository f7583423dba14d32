#include "routing/xpt.h"

#include "audio/eaec_glue.h"
#include "daemon/grace.h"
#include "daemon/shared.h"
#include "support/cycle_tables.h"
#include "support/emulation.h"
#include "support/rtp_wire.h"

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace {
// The routing in one line: the used flows ("index:source", "/chn" when
// given), the named mix outputs with their mode (the one input, M for
// several, - for none) and the number of sockets.
std::string routing()
{
    std::string s;
    for (const rtp_dst &d : rtp_dsts)
        if (d.src[0])
            s += std::to_string(d.index) + ":" + d.src + (d.channel_mode < 0 ? "" : "/" + std::to_string(d.channel_mode)) + " ";
    s += "|";
    for (const mixout &m : mixouts)
        if (m.id[0])
            s += " " + std::string(m.id) + "=" +
                 (m.mode == MIX_OUT_MULTI ? "M" : m.mode == MIX_OUT_UNUSED ? "-" : std::to_string(m.mode));
    int n = 0;
    for (dlist *l = rtp_sk_all.next; l != &rtp_sk_all; l = l->next)
        n++;
    return s + " | " + std::to_string(n) + " sk";
}

// From start-up on: crosspoints receiving unicast on 127.0.0.1, on a port
// the kernel hands out, share flows per source and channel.
TEST(Xpt, FlowsAreSharedPerSourceAndChannelAndModesFollow)
{
    reset_cycle_tables();
    const uint16_t port = udp_free_port();
    const auto xp = [&](const char *mix, const char *src, int chn = -1) {
        pelod_xpt x{};
        snprintf(x.mix, sizeof x.mix, "%s", mix);
        snprintf(x.src, sizeof x.src, "%s", src);
        x.chn = chn;
        x.ep.sa_dst = x.ep.sa_bind = {AF_INET, htons(port), {inet_addr("127.0.0.1")}, {}};
        return x;
    };
    const pelod_xpt a = xp("spk", "s1"), r = xp("spk", "s1", 1), b = xp("line", "s1"), c = xp("spk", "s2");
    const struct {
        char op;
        const pelod_xpt *x;
        const char *routing;
    } steps[] = {
        {'+', &a, "0:s1 | spk=0 | 1 sk"},
        {'+', &r, "0:s1 1:s1/1 | spk=M | 1 sk"}, // another channel: another flow
        {'+', &b, "0:s1 1:s1/1 | spk=M line=0 | 1 sk"},
        {'-', &a, "0:s1 1:s1/1 | spk=1 line=0 | 1 sk"},
        {'-', &b, "1:s1/1 | spk=1 | 1 sk"}, // "line" pruned with its last crosspoint
        {'+', &c, "0:s2 1:s1/1 | spk=M | 1 sk"}, // the lowest free flow
        {'-', &r, "0:s2 | spk=0 | 1 sk"},
        {'-', &c, "| | 0 sk"},
    };
    for (const auto &s : steps) {
        EXPECT_EQ(s.op == '+' ? pelod_xpt_add(s.x) : pelod_xpt_del(s.x), 0) << s.routing;
        EXPECT_EQ(routing(), s.routing);
    }
    EXPECT_EQ(pelod_xpt_del(&c), -1);
    // a new destination alone: the socket stays, the endpoint moves to the
    // bucket the cycle looks in for that address
    pelod_xpt a2 = a;
    a2.ep.sa_dst.sin_addr.s_addr = inet_addr("127.0.0.5");
    ASSERT_EQ(pelod_xpt_add(&a) + pelod_xpt_add(&a2), 0);
    const rtp_ep &e = rtp_dsts[0].ep;
    EXPECT_EQ(rtp_sk_ep_list(e.sk, inet_addr("127.0.0.5"))->next, &e.rtp_sk_ep_list) << routing();
    EXPECT_EQ(pelod_xpt_del(&a2), 0);
    close_flow_endpoints();
}

// The cycle may read a free flow while it is re-initialised: its canceller
// reference and its column must never be seen at 0 (flow 0's column).
TEST(XptInit, CycleNeverSeesAHalfClearedFlow)
{
    SKIP_UNDER_EMULATION();
    static rtp_dst d;
    dst_init(&d, 5);
    std::atomic<bool> stop{false};
    std::atomic<long> bad{0};
    std::thread cycle([&] {
        while (!stop)
            bad += observe(d.eaec_source) != -1 || observe(d.index) != 5;
    });
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
    while (std::chrono::steady_clock::now() < end)
        dst_init(&d, 5);
    stop = true;
    cycle.join();
    EXPECT_EQ(bad, 0);
}

// A wake-up that found a flow's canceller running keeps using its objects
// to its end: stopping the flow frees them only after that boundary.
TEST(XptStop, CancellerOutlivesTheWakeUpThatFoundIt)
{
    SKIP_UNDER_EMULATION();
    reset_cycle_tables();
    rtp_dst &d = rtp_dsts[1];
    std::atomic<bool> stop{false};
    std::atomic<long> freed_under_it{0};
    rt_set_alive(1);
    std::thread cycle([&] {
        while (!stop) {
            if (observe(d.eaec_source) >= 0) {
                const HANDLE_EAEC_STATE st = observe(d.eaec_state);
                const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(300);
                while (std::chrono::steady_clock::now() < until) {
                }
                freed_under_it += observe(d.eaec_state) != st;
            }
            rt_cycle_done();
        }
    });
    for (int i = 0; i < 20; i++) {
        dst_eaec_setup(&d, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        dst_flow_stop(&d);
    }
    stop = true;
    cycle.join();
    rt_set_alive(0);
    EXPECT_EQ(freed_under_it, 0);
}
} // namespace
