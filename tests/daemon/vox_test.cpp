#include "daemon/mix.h"
#include "daemon/mixrun.h"
#include "daemon/pelod.h"
#include "daemon/vox.h"
#include "routing/xpt.h"
#include "support/alloc_count.h"
#include "support/proc.h"

#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {
// A local listener on a port the kernel hands out.
struct vox_listener {
    int fd = -1;
    uint16_t port = 0;
    vox_listener()
    {
        fd = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
        socklen_t l = sizeof a;
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &l);
        port = ntohs(a.sin_port);
    }
    ~vox_listener() { close(fd); }
    // Every datagram waiting now (or within wait_ms for the first one).
    std::vector<std::string> take(int wait_ms = 0) const
    {
        std::vector<std::string> got;
        pollfd p{fd, POLLIN, 0};
        if (wait_ms > 0 && poll(&p, 1, wait_ms) <= 0)
            return got;
        char buf[8192];
        for (;;) {
            const ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
            if (n < 0)
                return got;
            got.emplace_back(buf, size_t(n));
        }
    }
};

using texts = std::vector<std::string>;

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
        memset(mix_inp_storage, 0, sizeof mix_inp_storage);
        vox_notify_pending = 0;
        vox_notify_close();
        vox_notify_port = rx.port;
    }
    void TearDown() override
    {
        vox_notify_close();
        vox_notify_port = 5000;
        for (int i = 0; i < RTP_DST_MAX; i++)
            dst_init(&rtp_dsts[i], i);
    }
    static rtp_dst &flow(int i, const char *name, float threshold, int holdtime, int gate)
    {
        rtp_dst &d = rtp_dsts[i];
        snprintf(d.src, sizeof d.src, "%s", name);
        d.vox = pelod_vox_cfg{threshold, holdtime, gate};
        return d;
    }
    // One block: fill the flow's ring samples, then run the detector.
    void block(int col = -1, float v = 0.0f)
    {
        if (col >= 0)
            for (uint32_t k = 0; k < 48; k++)
                *mix_slot(ts + k, col) = v;
        vox_frame(ts);
        ts += 48;
    }
    float sample(uint32_t t, int col) const { return *mix_slot(t, col); }
};

TEST_F(VoxFlows, StartAndEndOfEachTalkerAreAnnouncedWithTheWholeList)
{
    flow(0, "239.192.0.5", 0.1f, 3, 0);
    flow(2, "10.0.0.1:5004", 0.1f, 5, 0);

    rtp_dsts[0].vox_sample = 0.2f;
    block(); // block 1: flow 0 starts, held for 3 blocks
    EXPECT_EQ(rx.take(), texts{R"({"vox":["239.192.0.5"]})"});
    rtp_dsts[2].vox_sample = 0.1f; // exactly the threshold counts
    block(); // block 2: flow 2 starts, held for 5 blocks
    EXPECT_EQ(rx.take(), texts{R"({"vox":["239.192.0.5","10.0.0.1:5004"]})"});
    block();
    EXPECT_EQ(rx.take(), texts{});
    block(); // block 4: flow 0's hold has run out
    EXPECT_EQ(rx.take(), texts{R"({"vox":["10.0.0.1:5004"]})"});
    block();
    block();
    EXPECT_EQ(rx.take(), texts{});
    block(); // block 7: flow 2's hold has run out
    const texts last = rx.take();
    ASSERT_EQ(last.size(), 1u);
    EXPECT_EQ(last[0], R"({"vox":[]})");
    EXPECT_EQ(last[0].size(), 10u);
    EXPECT_EQ(vox_notify_pending, 0);
}

TEST_F(VoxFlows, ALoudPacketRestartsTheHold)
{
    flow(1, "a", 0.05f, 4, 0);
    rtp_dsts[1].vox_sample = 0.5f;
    block();
    block();
    block();
    rtp_dsts[1].vox_sample = 0.5f; // again before the hold ran out: no message
    block();
    EXPECT_EQ(rx.take(), texts{R"({"vox":["a"]})"});
    for (int b = 0; b < 3; b++)
        block();
    EXPECT_EQ(rx.take(), texts{});
    block();
    EXPECT_EQ(rx.take(), texts{R"({"vox":[]})"});
}

TEST_F(VoxFlows, GatedFlowIsAudibleForItsHoldTimeAfterOneLoudPacket)
{
    flow(4, "talker", 0.1f, 1000, 1);
    block(4, 0.3f);
    EXPECT_EQ(sample(ts - 48, 4), 0.0f) << "silent before the packet";

    int audible = 0;
    rtp_dsts[4].vox_sample = 0.3f;
    for (int b = 0; b < 1100; b++) {
        block(4, 0.3f);
        if (sample(ts - 48, 4) != 0.0f) {
            EXPECT_EQ(audible, b) << "audible blocks must be contiguous from the first";
            audible++;
        }
    }
    EXPECT_EQ(audible, 1000);
    EXPECT_EQ(rx.take(), (texts{R"({"vox":["talker"]})", R"({"vox":[]})"}));
}

TEST_F(VoxFlows, GateClearsOnlyThisBlockOfThisFlow)
{
    flow(5, "quiet", 0.1f, 10, 1);
    for (uint32_t k = 0; k < 96; k++)
        for (int c : {4, 5, 6})
            *mix_slot(ts + k, c) = 0.25f;
    vox_frame(ts);
    for (uint32_t k = 0; k < 48; k++) {
        EXPECT_EQ(sample(ts + k, 5), 0.0f) << k;
        EXPECT_EQ(sample(ts + k, 4), 0.25f) << k;
        EXPECT_EQ(sample(ts + k, 6), 0.25f) << k;
        EXPECT_EQ(sample(ts + 48 + k, 5), 0.25f) << k;
    }
}

TEST_F(VoxFlows, GateActsBeforeMixing)
{
    flow(3, "mic-a", 0.1f, 2, 1);
    mix_gain_set(0, 3, 1.0f);
    int32_t buf[96];
    for (uint32_t k = 0; k < 48; k++)
        *mix_slot(ts + k, 3) = 0.5f;
    mix_block(ts, buf);
    EXPECT_EQ(mix_out[0], 0.0f) << "an inactive gated flow is removed from the mix";

    ts += 48;
    for (uint32_t k = 0; k < 48; k++)
        *mix_slot(ts + k, 3) = 0.5f;
    rtp_dsts[3].vox_sample = 0.5f;
    mix_block(ts, buf);
    EXPECT_EQ(mix_out[0], 0.5f);
    EXPECT_EQ(mix_out[47 * MIX_OUT_MAX], 0.5f);
}

TEST_F(VoxFlows, ThresholdZeroIsNeverListedNorMuted)
{
    flow(0, "off", 0.0f, 100, 1);
    flow(1, "on", 0.1f, 100, 0);
    rtp_dsts[0].vox_sample = 1.0f;
    block(0, 0.7f);
    EXPECT_EQ(rx.take(), texts{});
    EXPECT_EQ(sample(ts - 48, 0), 0.7f);
    rtp_dsts[1].vox_sample = 1.0f;
    block(0, 0.7f);
    EXPECT_EQ(rx.take(), texts{R"({"vox":["on"]})"});
    EXPECT_EQ(sample(ts - 48, 0), 0.7f);
}

TEST_F(VoxFlows, FreeFlowsAreSkippedWhateverTheirSettings)
{
    rtp_dst &d = flow(7, "gone", 0.1f, 100, 1);
    d.src[0] = '\0';
    d.vox_sample = 1.0f;
    block(7, 0.6f);
    EXPECT_EQ(rx.take(), texts{});
    EXPECT_EQ(sample(ts - 48, 7), 0.6f);
}

TEST_F(VoxFlows, NegativeSamplesNeverMakeAFlowActive)
{
    flow(2, "neg", 0.1f, 100, 0);
    for (float v : {-0.2f, -1.0f, -0.1f}) {
        rtp_dsts[2].vox_sample = v;
        block();
    }
    EXPECT_EQ(rx.take(), texts{});
    EXPECT_EQ(rtp_dsts[2].vox_activeto, 0);
}

TEST_F(VoxFlows, OnlyTheLastPacketsFirstSampleCounts)
{
    // As the receive path does: after writing a packet's samples into the
    // ring, the level becomes the ring value at the packet's first sample.
    flow(6, "late", 0.1f, 100, 0);
    auto packet = [&](uint32_t at, float first, float rest) {
        *mix_slot(at, 6) = first;
        for (uint32_t k = 1; k < 48; k++)
            *mix_slot(at + k, 6) = rest;
        rtp_dsts[6].vox_sample = *mix_slot(at, 6);
    };
    packet(ts + 96, 0.9f, 0.9f);
    packet(ts + 144, 0.01f, 0.9f); // loud, but not at its first sample
    block();
    EXPECT_EQ(rx.take(), texts{});
    packet(ts + 96, 0.01f, 0.01f);
    packet(ts + 144, 0.2f, 0.0f);
    block();
    EXPECT_EQ(rx.take(), texts{R"({"vox":["late"]})"});
}

TEST_F(VoxFlows, HoldTimeZeroAnnouncesEveryLoudBlockButNeverLists)
{
    flow(0, "zero", 0.1f, 0, 0);
    for (int b = 0; b < 3; b++) {
        rtp_dsts[0].vox_sample = 0.5f;
        block();
    }
    block();
    EXPECT_EQ(rx.take(), (texts{R"({"vox":[]})", R"({"vox":[]})", R"({"vox":[]})"}));
}

TEST_F(VoxFlows, PendingNotificationSendsTheCurrentListOnce)
{
    flow(0, "a", 0.1f, 100, 0).vox_activeto = 50;
    flow(9, "b", 0.1f, 100, 0);
    vox_notify_pending = 1; // as after a reload
    block();
    EXPECT_EQ(rx.take(), texts{R"({"vox":["a"]})"});
    EXPECT_EQ(vox_notify_pending, 0);
    block();
    EXPECT_EQ(rx.take(), texts{});
}

TEST_F(VoxFlows, FortyEightLongNamesFitTheDatagram)
{
    std::string expect = "{\"vox\":[";
    for (int i = 0; i < RTP_DST_MAX; i++) {
        char name[65];
        snprintf(name, sizeof name, "%02d%062d", i, 0); // 64 characters
        flow(i, name, 0.1f, 10, 0).vox_sample = 1.0f;
        expect += std::string(i ? "," : "") + "\"" + name + "\"";
    }
    expect += "]}";
    block();
    const texts got = rx.take();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].size(), size_t(8 + 48 * 66 + 47 + 2));
    EXPECT_EQ(got[0], expect);
    EXPECT_LE(int(got[0].size()), VOX_MSG_MAX);

    // a short buffer gets whole names only, always closed, never overrun
    char small[200];
    memset(small, 'x', sizeof small);
    const int n = vox_message(small, 150); // room for two names and the closing
    ASSERT_EQ(n, 8 + 2 * 66 + 1 + 2);
    EXPECT_EQ(std::string(small, size_t(n)), expect.substr(0, size_t(n) - 2) + "]}");
    EXPECT_EQ(small[n], 'x');
    EXPECT_EQ(vox_message(small, 9), 0);
}

TEST_F(VoxFlows, DetectionAndNotificationDoNotAllocate)
{
    flow(0, "a", 0.1f, 2, 1);
    vox_notify(); // the socket is made outside the count
    rx.take();
    alloc_count_start();
    rtp_dsts[0].vox_sample = 0.5f;
    for (int b = 0; b < 4; b++)
        vox_frame(ts + uint32_t(48 * b));
    const long n = alloc_count_stop();
    EXPECT_EQ(n, 0);
    EXPECT_EQ(rx.take().size(), 2u);
}

TEST_F(VoxFlows, SocketFailureIsReportedOnceAndRetriedEveryBlock)
{
    flow(0, "a", 0.1f, 100, 0);
    FILE *err = tmpfile();
    ASSERT_NE(err, nullptr);
    const int saved_err = dup(STDERR_FILENO);
    rlimit lim{};
    getrlimit(RLIMIT_NOFILE, &lim);
    const rlimit none{0, lim.rlim_max};

    fflush(stderr);
    dup2(fileno(err), STDERR_FILENO);
    setrlimit(RLIMIT_NOFILE, &none); // no new descriptor: socket() fails
    rtp_dsts[0].vox_sample = 0.5f;
    block();
    const int pending_after_failure = vox_notify_pending;
    block();
    block();
    setrlimit(RLIMIT_NOFILE, &lim);
    dup2(saved_err, STDERR_FILENO);
    close(saved_err);

    EXPECT_EQ(pending_after_failure, 1);
    EXPECT_EQ(vox_notify_pending, 1);
    EXPECT_EQ(rx.take(), texts{});
    rewind(err);
    char text[256] = {};
    const size_t n = fread(text, 1, sizeof text - 1, err);
    fclose(err);
    EXPECT_EQ(std::string(text, n), "pelod: vox_notify: Too many open files\n");

    block(); // descriptors are available again: the list goes out
    EXPECT_EQ(rx.take(), texts{R"({"vox":["a"]})"});
    EXPECT_EQ(vox_notify_pending, 0);
}

bool pid_file_there(void *path) { return access(static_cast<const char *>(path), F_OK) == 0; }

TEST(VoxDaemon, ReloadAnnouncesTheCurrentListAgain)
{
    vox_listener rx;
    const std::string conf = tmp_file("# no routes\n");
    char pid_path[4096];
    pidfile_name(pid_path, sizeof pid_path, conf.c_str());
    bg_proc p;
    ASSERT_TRUE(p.start({PELOD_BIN, "-p", "-", "-f", conf, "--vox-notify-port=" + std::to_string(rx.port)}));
    ASSERT_TRUE(wait_until(3000, pid_file_there, pid_path)) << p.err();
    EXPECT_EQ(rx.take(300), texts{}) << "nothing is announced before a change or a reload";

    for (int i = 0; i < 2; i++) {
        p.signal(SIGHUP);
        EXPECT_EQ(rx.take(2000), texts{R"({"vox":[]})"}) << "reload " << i;
    }
    p.signal(SIGTERM);
    EXPECT_EQ(p.wait(), 0);
    unlink(conf.c_str());
}
} // namespace
