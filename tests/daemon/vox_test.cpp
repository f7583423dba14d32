#include "daemon/mixrun.h"
#include "daemon/pelod.h"
#include "daemon/vox.h"
#include "support/cycle_tables.h"
#include "support/emulation.h"
#include "support/rtp_wire.h"

#include <arpa/inet.h>
#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

namespace {
using texts = std::vector<std::string>;

// The notifications go to a listener on 127.0.0.1 at a port the kernel hands out.
class VoxFlows : public ::testing::Test {
protected:
    sockaddr_in at{};
    int fd = udp_loopback(&at);
    uint32_t ts = 480000;
    void SetUp() override
    {
        reset_cycle_tables();
        vox_notify_pending = 0;
        vox_notify_close();
        vox_notify_port = ntohs(at.sin_port);
    }
    void TearDown() override
    {
        vox_notify_close();
        close(fd);
    }
    static rtp_dst &flow(int i, const char *name, float threshold, int holdtime, int gate)
    {
        snprintf(rtp_dsts[i].src, sizeof rtp_dsts[i].src, "%s", name);
        rtp_dsts[i].vox = pelod_vox_cfg{threshold, holdtime, gate};
        return rtp_dsts[i];
    }
    // Every notification waiting now, or within wait_ms for the first one.
    texts take(int wait_ms = 0) const { return udp_take(fd, wait_ms); }
};

TEST_F(VoxFlows, StartAndEndOfEachTalkerSendTheWholeList)
{
    flow(0, "239.192.0.5", 0.1f, 3, 0).vox_sample = 0.2f;
    flow(2, "10.0.0.1:5004", 0.1f, 5, 0);
    // flow 0 is held in blocks 1..3, flow 2 in blocks 2..6
    const texts want[] = {{R"({"vox":["239.192.0.5"]})"}, {R"({"vox":["239.192.0.5","10.0.0.1:5004"]})"}, {},
                          {R"({"vox":["10.0.0.1:5004"]})"}, {}, {}, {R"({"vox":[]})"}};
    for (size_t b = 0; b < std::size(want); b++) {
        if (b == 1)
            rtp_dsts[2].vox_sample = 0.1f; // exactly the threshold counts
        vox_frame(ts += 48);
        EXPECT_EQ(take(), want[b]) << "block " << b + 1;
    }
}

// A gated flow is muted before mixing while inactive (this block's rows
// only), and mixed for exactly its hold time from the block that sees a
// loud packet.
TEST_F(VoxFlows, GatedFlowIsMixedOnlyForItsHoldTimeAfterALoudPacket)
{
    flow(3, "talker", 0.1f, 1000, 1);
    mix_gain_set(0, 3, 1.0f);
    int32_t buf[96];
    std::vector<int> mixed;
    for (int b = 0; b < 1100; b++, ts += 48) {
        for (uint32_t k = 0; k < 96; k++)
            *mix_slot(ts + k, 3) = 0.5f;
        if (b == 1)
            rtp_dsts[3].vox_sample = 0.3f;
        mix_block(ts, buf);
        ASSERT_EQ(mix_out[0], mix_out[47 * MIX_OUT_MAX]) << b;
        ASSERT_EQ(*mix_slot(ts + 48, 3), 0.5f) << b;
        if (mix_out[0] != 0.0f)
            mixed.push_back(b);
    }
    EXPECT_EQ(std::tuple(mixed.size(), mixed.front(), mixed.back()), std::tuple(1000u, 1, 1000));
    EXPECT_EQ(take(), (texts{R"({"vox":["talker"]})", R"({"vox":[]})"}));
}

// A reload asks for a notification while the cycle runs its detector: the
// request is never lost to the cycle's own write of its pending flag.
TEST_F(VoxFlows, RequestFromAReloadIsNeverLost)
{
    SKIP_UNDER_EMULATION();
    std::atomic<bool> stop{false};
    std::thread cycle([&] {
        for (uint32_t t = ts; !stop; t += 48)
            vox_frame(t);
    });
    int heard = 0;
    for (int n = 0; n < 200; n++) {
        vox_notify_request();
        heard += !take(200).empty();
    }
    stop = true;
    cycle.join();
    EXPECT_EQ(heard, 200);
}
} // namespace
