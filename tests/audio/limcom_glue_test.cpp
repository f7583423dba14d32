#include "audio/CG_LimCom_interface.h"
#include "support/alloc_count.h"
#include "support/cycle_tables.h"
#include "support/limcom_params.h"

#include <cmath>
#include <gtest/gtest.h>

namespace {
float tone(int col, int k) { return 0.9f * std::sin(0.3f * float(k) + float(col)); }

// Flows with a limiter are limited in place on the rows of the block (which
// here wrap round the ring), as a separate instance would, without allocating.
TEST(LimComGlue, FlowsAreLimitedInPlaceOnTheRowsOfTheBlock)
{
    reset_cycle_tables();
    const uint32_t ts = 0xFFFFFFF0u;
    for (uint32_t t = ts - 48; t != ts + 96; t++)
        for (int i = 0; i < RTP_DST_MAX; i++)
            *mix_slot(t, i) = tone(i, int(t - ts));
    const limcom_params p = lce(1, 1, 0.3, 4);
    for (int i : {5, 47})
        CG_limcom_init_instance(&rtp_dsts[i].limcom, &p, 1);
    alloc_count_start();
    cg_limcom_run(ts);
    EXPECT_EQ(alloc_count_stop(), 0);
    LimCom_Instance r{};
    CG_limcom_init_instance(&r, &p, 1);
    for (int k = 0; k < 48; k++)
        r.inputBuffer[k] = tone(5, k);
    CG_limcom_process(&r);
    for (int k = 0; k < 48; k++)
        ASSERT_EQ(*mix_slot(ts + uint32_t(k), 5), r.outputBuffer[k]) << k;
    EXPECT_NE(*mix_slot(ts + 3, 47), tone(47, 3));
    EXPECT_EQ(*mix_slot(ts + 3, 4), tone(4, 3));  // disabled flow
    EXPECT_EQ(*mix_slot(ts - 1, 5), tone(5, -1)); // rows outside the block
    EXPECT_EQ(*mix_slot(ts + 48, 5), tone(5, 48));
}
} // namespace
