#include "daemon/mix.h"
#include "daemon/mixrun.h"
#include "daemon/pelod.h"
#include "daemon/vox.h"
#include "routing/xpt.h"
#include "support/alloc_count.h"
#include "support/emulation.h"
#include "support/proc.h"

#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {
using texts = std::vector<std::string>;

// A listener on 127.0.0.1 at a port the kernel hands out.
struct vox_listener {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    uint16_t port = 0;
    vox_listener()
    {
        sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t l = sizeof a;
        bind(fd, reinterpret_cast<sockaddr *>(&a), l);
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &l);
        port = ntohs(a.sin_port);
    }
    ~vox_listener() { close(fd); }
    // Every datagram waiting now, or within wait_ms for the first one.
    texts take(int wait_ms = 0) const
    {
        texts got;
        pollfd p{fd, POLLIN, 0};
        char buf[8192];
        if (poll(&p, 1, wait_ms) > 0)
            for (ssize_t n; (n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) >= 0;)
                got.emplace_back(buf, size_t(n));
        return got;
    }
};

class VoxFlows : public ::testing::Test {
protected:
    vox_listener rx;
    uint32_t ts = 480000;
    void SetUp() override
    {
        mix_inp_init();
        mix_init();
        for (int i = 0; i < RTP_DST_MAX; i++)
            dst_init(&rtp_dsts[i], i);
        vox_notify_pending = 0;
        vox_notify_close();
        vox_notify_port = rx.port;
    }
    void TearDown() override { vox_notify_close(); }
    static rtp_dst &flow(int i, const char *name, float threshold, int holdtime, int gate)
    {
        snprintf(rtp_dsts[i].src, sizeof rtp_dsts[i].src, "%s", name);
        rtp_dsts[i].vox = pelod_vox_cfg{threshold, holdtime, gate};
        return rtp_dsts[i];
    }
    // One block: the flow's 48 ring samples are v, then the detector runs.
    // Returns the flow's first sample as the mixing step would see it.
    float block(int col = 0, float v = 0.0f)
    {
        for (uint32_t k = 0; k < 48; k++)
            *mix_slot(ts + k, col) = v;
        vox_frame(ts);
        ts += 48;
        return *mix_slot(ts - 48, col);
    }
};

TEST_F(VoxFlows, StartAndEndOfEachTalkerSendTheWholeList)
{
    flow(0, "239.192.0.5", 0.1f, 3, 0).vox_sample = 0.2f;
    flow(2, "10.0.0.1:5004", 0.1f, 5, 0);
    const texts want[] = {{R"({"vox":["239.192.0.5"]})"},
                          {R"({"vox":["239.192.0.5","10.0.0.1:5004"]})"},
                          {},
                          {R"({"vox":["10.0.0.1:5004"]})"}, // flow 0 held blocks 1..3
                          {},
                          {},
                          {R"({"vox":[]})"}}; // flow 2 held blocks 2..6
    for (size_t b = 0; b < std::size(want); b++) {
        if (b == 1)
            rtp_dsts[2].vox_sample = 0.1f; // exactly the threshold counts
        block();
        EXPECT_EQ(rx.take(), want[b]) << "block " << b + 1;
    }
}

TEST_F(VoxFlows, GatedFlowIsAudibleForItsHoldTimeAfterOneLoudPacket)
{
    flow(4, "talker", 0.1f, 1000, 1);
    EXPECT_EQ(block(4, 0.3f), 0.0f) << "muted before the packet";
    rtp_dsts[4].vox_sample = 0.3f;
    int audible = 0;
    for (int b = 0; b < 1100; b++)
        audible += block(4, 0.3f) != 0.0f && audible == b;
    EXPECT_EQ(audible, 1000) << "audible for 1000 contiguous blocks from the next";
    EXPECT_EQ(rx.take(), (texts{R"({"vox":["talker"]})", R"({"vox":[]})"}));
}

TEST_F(VoxFlows, GateRemovesTheFlowFromTheMixOfThisBlockOnly)
{
    flow(3, "mic-a", 0.1f, 2, 1);
    mix_gain_set(0, 3, 1.0f);
    mix_gain_set(1, 4, 1.0f);
    int32_t buf[96];
    for (uint32_t k = 0; k < 96; k++)
        *mix_slot(ts + k, 3) = *mix_slot(ts + k, 4) = 0.5f;
    mix_block(ts, buf);
    EXPECT_EQ(mix_out[0], 0.0f);
    EXPECT_EQ(mix_out[1], 0.5f) << "another flow stays";
    EXPECT_EQ(*mix_slot(ts + 48, 3), 0.5f) << "the next block is untouched";
    rtp_dsts[3].vox_sample = 0.5f;
    mix_block(ts + 48, buf);
    EXPECT_EQ(mix_out[47 * MIX_OUT_MAX], 0.5f);
}

TEST_F(VoxFlows, OffFreeOrNegativeNeverActive)
{
    flow(0, "off", 0.0f, 100, 1).vox_sample = 1.0f; // threshold 0: detection off
    rtp_dst &gone = flow(1, "gone", 0.1f, 100, 1);
    gone.src[0] = '\0';
    gone.vox_sample = 1.0f;
    flow(2, "neg", 0.1f, 100, 0);
    for (float v : {-0.2f, -1.0f}) {
        rtp_dsts[2].vox_sample = v; // the level is signed
        EXPECT_EQ(block(0, 0.7f), 0.7f) << "never muted";
        EXPECT_EQ(block(1, 0.7f), 0.7f);
    }
    EXPECT_EQ(rx.take(), texts{});
}

TEST_F(VoxFlows, OnlyTheLastPacketsFirstSampleCounts)
{
    flow(6, "late", 0.1f, 100, 0);
    auto packet = [&](uint32_t at, float first, float rest) { // as the receive path does
        for (uint32_t k = 0; k < 48; k++)
            *mix_slot(at + k, 6) = k ? rest : first;
        rtp_dsts[6].vox_sample = *mix_slot(at, 6);
    };
    packet(ts + 96, 0.9f, 0.9f);
    packet(ts + 144, 0.01f, 0.9f);
    block(6);
    EXPECT_EQ(rx.take(), texts{});
    packet(ts + 96, 0.01f, 0.01f);
    packet(ts + 144, 0.2f, 0.0f);
    block(6);
    EXPECT_EQ(rx.take(), texts{R"({"vox":["late"]})"});
}

TEST_F(VoxFlows, HoldTimeZeroAnnouncesEveryLoudBlockButNeverLists)
{
    flow(0, "zero", 0.1f, 0, 0);
    for (int b = 0; b < 2; b++) {
        rtp_dsts[0].vox_sample = 0.5f;
        block(1);
    }
    block(1);
    EXPECT_EQ(rx.take(), (texts{R"({"vox":[]})", R"({"vox":[]})"}));
}

TEST_F(VoxFlows, LongNamesFitAndNothingIsAllocated)
{
    std::string want = R"({"vox":[)";
    for (int i = 0; i < RTP_DST_MAX; i++) {
        char name[65];
        snprintf(name, sizeof name, "%02d%062d", i, 0); // 64 characters
        flow(i, name, 0.1f, 10, 1).vox_sample = 1.0f;
        want += std::string(i ? ",\"" : "\"") + name + "\"";
    }
    vox_notify(); // makes the socket before counting
    rx.take();
    alloc_count_start();
    vox_frame(ts);
    EXPECT_EQ(alloc_count_stop(), 0);
    EXPECT_EQ(rx.take(), texts{want + "]}"});
    char small[200];
    memset(small, 'x', sizeof small);
    EXPECT_EQ(vox_message(small, 150), 8 + 2 * 66 + 1 + 2) << "whole names only, closed";
    EXPECT_EQ(std::string(small, 143), want.substr(0, 141) + "]}");
}

TEST_F(VoxFlows, SocketFailureKeepsTheNotificationPending)
{
    flow(0, "a", 0.1f, 100, 0).vox_sample = 0.5f;
    rlimit lim{};
    getrlimit(RLIMIT_NOFILE, &lim);
    const rlimit none{0, lim.rlim_max};
    testing::internal::CaptureStderr();
    setrlimit(RLIMIT_NOFILE, &none); // socket() fails
    block(1);
    block(1);
    setrlimit(RLIMIT_NOFILE, &lim);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "pelod: vox_notify: Too many open files\n");
    EXPECT_EQ(vox_notify_pending, 1);
    block(1);
    EXPECT_EQ(rx.take(), texts{R"({"vox":["a"]})"});
    EXPECT_EQ(vox_notify_pending, 0);
}

bool exists(void *path) { return access(static_cast<const char *>(path), F_OK) == 0; }

TEST(VoxDaemon, EveryReloadAnnouncesTheCurrentList)
{
    SKIP_UNDER_EMULATION();
    vox_listener rx;
    const std::string conf = tmp_file("# no routes\n");
    char pid_path[4096];
    pidfile_name(pid_path, sizeof pid_path, conf.c_str());
    bg_proc p;
    ASSERT_TRUE(p.start({PELOD_BIN, "-p", "-", "-f", conf, "--vox-notify-port=" + std::to_string(rx.port)}));
    ASSERT_TRUE(wait_until(3000, exists, pid_path)) << p.err();
    EXPECT_EQ(rx.take(300), texts{}) << "nothing before a change or a reload";
    for (int i = 0; i < 2; i++) {
        p.signal(SIGHUP);
        EXPECT_EQ(rx.take(2000), texts{R"({"vox":[]})"}) << "reload " << i;
    }
    p.signal(SIGTERM);
    EXPECT_EQ(p.wait(), 0);
    unlink(conf.c_str());
}
} // namespace
