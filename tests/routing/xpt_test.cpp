#include "config/pelocfg.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "rtp/rtp_src.h"

#include <arpa/inet.h>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace {
int sockets()
{
    int n = 0;
    for (dlist *l = rtp_sk_all.next; l != &rtp_sk_all; l = l->next)
        n++;
    return n;
}

// State: start-up done, nothing routed, no outgoing stream. Crosspoints
// receive unicast on 127.0.0.1, on a port the kernel hands out.
class XptEmpty : public ::testing::Test {
protected:
    static inline int port;
    void SetUp() override
    {
        const int fd = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{AF_INET, 0, {inet_addr("127.0.0.1")}, {}};
        socklen_t len = sizeof a;
        bind(fd, reinterpret_cast<sockaddr *>(&a), len);
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
        close(fd);
        port = ntohs(a.sin_port);
        mix_inp_init();
        mix_init();
        for (int i = 0; i < RTP_DST_MAX; i++)
            dst_init(&rtp_dsts[i], i);
        rtp_srcs = nullptr;
    }
    void TearDown() override
    {
        debug = 0;
        rtp_srcs = nullptr;
        for (rtp_dst &d : rtp_dsts)
            rtp_ep_close(&d.ep);
        EXPECT_EQ(sockets(), 0);
    }
    static pelod_xpt xp(const char *mix, const char *src, int chn = -1, float gain_dB = 0,
                        const char *bind = "127.0.0.1")
    {
        pelod_xpt x{};
        snprintf(x.mix, sizeof x.mix, "%s", mix);
        snprintf(x.src, sizeof x.src, "%s", src);
        x.chn = chn;
        x.gain_dB = gain_dB;
        x.ep.sa_dst = {AF_INET, htons(uint16_t(port)), {inet_addr("127.0.0.1")}, {}};
        x.ep.sa_bind = {AF_INET, htons(uint16_t(port)), {inet_addr(bind)}, {}};
        return x;
    }
    static bool used(int i) { return rtp_dsts[i].src[0] != '\0'; }
};

TEST_F(XptEmpty, CrosspointsOfOneSourceShareAFlow)
{
    const pelod_xpt a = xp("spk", "s1"), b = xp("line", "s1"), r = xp("spk", "s1", 1);
    ASSERT_EQ(pelod_xpt_add(&a) | pelod_xpt_add(&b) | pelod_xpt_add(&r), 0);
    EXPECT_EQ(mix_gain[1][0], 1.0f);
    EXPECT_EQ(rtp_dsts[1].channel_mode, 1); // another channel: another flow
    EXPECT_EQ(mixouts[0].mode, MIX_OUT_MULTI);
    EXPECT_EQ(pelod_xpt_del(&a) | pelod_xpt_del(&r), 0);
    EXPECT_EQ(mixouts[0].id[0], '\0'); // "spk" pruned
    EXPECT_TRUE(used(0));
    EXPECT_EQ(sockets(), 1);
    EXPECT_EQ(pelod_xpt_del(&b), 0);
    EXPECT_FALSE(used(0));
    EXPECT_EQ(sockets(), 0);
    EXPECT_EQ(pelod_xpt_del(&b), -1);
}

TEST_F(XptEmpty, OverflowOfFlowsAndOfMixOutputs)
{
    pelod_xpt x{};
    testing::internal::CaptureStdout();
    for (int i = 0; i < 49; i++) {
        snprintf(x.mix, sizeof x.mix, "m%d", i % 16);
        snprintf(x.src, sizeof x.src, "s%d", i);
        EXPECT_EQ(pelod_xpt_add(&x), i < 48 ? 0 : -1);
    }
    snprintf(x.mix, sizeof x.mix, "m16");
    EXPECT_EQ(pelod_xpt_add(&x), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "update_flows no mixer input available\nupdate_flows no mixer output available\n");
}

TEST_F(XptEmpty, ModesFollowAddsAndDeletes)
{
    const pelod_xpt a = xp("spk", "a"), b = xp("spk", "b"), c = xp("spk", "c");
    pelod_xpt_add(&a);
    EXPECT_EQ(mixouts[0].mode, 0);
    pelod_xpt_add(&b);
    pelod_xpt_del(&a);
    EXPECT_EQ(mixouts[0].mode, 1);
    pelod_xpt_add(&c); // takes the lowest free flow
    EXPECT_STREQ(rtp_dsts[0].src, "c");
    EXPECT_EQ(mixouts[0].mode, MIX_OUT_MULTI);
    pelod_xpt_del(&b);
    pelod_xpt_del(&c);
    EXPECT_EQ(mixouts[0].mode, MIX_OUT_UNUSED);
}

TEST_F(XptEmpty, GainOfMinus100dBMutesButKeepsTheFlow)
{
    const pelod_xpt mute = xp("spk", "a", -1, -100.0f), soft = xp("spk", "a", -1, -6.0f);
    pelod_xpt_add(&mute);
    EXPECT_EQ(mix_gain[0][0], 0.0f);
    EXPECT_EQ(mixouts[0].mode, MIX_OUT_UNUSED);
    EXPECT_TRUE(used(0));
    pelod_xpt_add(&soft); // a reload that changed only the gain
    EXPECT_FLOAT_EQ(mix_gain[0][0], 0.501187f);
    EXPECT_FALSE(used(1));
}

TEST_F(XptEmpty, InterfaceChangeReopensDestinationChangeDoesNot)
{
    pelod_xpt x = xp("spk", "a");
    pelod_xpt_add(&x);
    rtp_sk *sk = rtp_dsts[0].ep.sk;
    x.ep.sa_dst.sin_addr.s_addr = inet_addr("127.0.0.3");
    pelod_xpt_add(&x);
    EXPECT_EQ(rtp_dsts[0].ep.sk, sk);
    EXPECT_EQ(rtp_dsts[0].ep.sa_dst.sin_addr.s_addr, x.ep.sa_dst.sin_addr.s_addr);
    x = xp("spk", "a", -1, 0, "127.0.0.2");
    debug = 1;
    testing::internal::CaptureStdout();
    pelod_xpt_add(&x);
    const std::string p = std::to_string(port), f = " flow 127.0.0.1:" + p + " #1 on 127.0.0.";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "-" + f + "1 pdly 0 D -> 0\n- sock 127.0.0.1:" + p +
                                                          "\n+ sock 127.0.0.2:" + p + "\n+" + f + "2 pdly 0 D -> 0\n");
}

TEST_F(XptEmpty, PruneKeepsMixesOfOutgoingStreams)
{
    const pelod_xpt a = xp("spk", "a"), b = xp("line", "a"), c = xp("rec", "a");
    pelod_xpt_add(&a);
    pelod_xpt_add(&b);
    pelod_xpt_add(&c);
    rtp_src s{};
    s.nchn = 2;
    s.mix[1] = 1; // mix[0] = 0: "spk"
    rtp_srcs = &s;
    pelod_xpt_del(&a);
    pelod_xpt_del(&b);
    pelod_xpt_del(&c);
    EXPECT_STREQ(mixouts[0].id, "spk");
    EXPECT_STREQ(mixouts[1].id, "line");
    EXPECT_EQ(mixouts[2].id[0], '\0');
    s.nchn = 1;
    debug = 1;
    testing::internal::CaptureStdout();
    mixs_prune();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "- mix  line\n");
}

// The loader gives sound-card crosspoints no endpoint; a second mix of the
// microphone must not wipe the flow's sound-card marker.
TEST_F(XptEmpty, SoundCardFlowKeepsItsMarkerWhenShared)
{
    pelod_xpt a = xp("spk", "alsa:1"), b = xp("line", "alsa:1");
    a.ep = b.ep = rtp_ep_spec{};
    pelod_xpt_add(&a);
    pelod_xpt_add(&b);
    EXPECT_EQ(rtp_dsts[0].ep.sa_dst.sin_family, alsa_src_family);
    EXPECT_EQ(rtp_dsts[0].ep.sa_dst.sin_port, htons(1));
    pelod_xpt_del(&a);
    pelod_xpt_del(&b);
    EXPECT_EQ(rtp_dsts[0].ep.sa_dst.sin_family, 0);
}

TEST(XptDebug, FlowLineNamesChannelAndProcessing)
{
    rtp_dst d{};
    dst_init(&d, 3);
    d.ep.sa_dst = {AF_INET, htons(5004), {inet_addr("239.192.1.2")}, {}};
    d.ep.sa_bind = {AF_INET, htons(5004), {inet_addr("10.0.0.9")}, {}};
    d.pdly = 96;
    auto line = [&d](int chn) {
        d.channel_mode = chn;
        testing::internal::CaptureStdout();
        debug_print_flow('+', &d);
        return testing::internal::GetCapturedStdout();
    };
    EXPECT_EQ(line(1), "+ flow 239.192.1.2:5004 #258 on 10.0.0.9 pdly 96 R -> 3\n");
    EXPECT_EQ(line(3), "+ flow 239.192.1.2:5004 #258 on 10.0.0.9 pdly 96 4 -> 3\n");
    EXPECT_EQ(line(12), "+ flow 239.192.1.2:5004 #258 on 10.0.0.9 pdly 96 ? -> 3\n"); // never past the table
    d.vox = {0.5f, 1000, 1};
    d.eaec_source = 2;
    d.eaec_frame_length = 480;
    EXPECT_EQ(line(-1), "+ flow 239.192.1.2:5004 #258 on 10.0.0.9 pdly 96 D -> 3 ec 2 (frame 480)"
                        " vox(t:0.500000 h:1000 gate:on)\n");
    d.ep.sa_bind.sin_addr.s_addr = INADDR_NONE;
    EXPECT_EQ(line(0), "");
}
} // namespace
