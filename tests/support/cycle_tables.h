// The tables the real-time cycle reads, as start-up leaves them: an empty
// ring and outputs, no gains, every flow free, no outgoing stream.
#pragma once
#include "daemon/mix.h"
#include "routing/xpt.h"
#include "rtp/rtp_sk.h"
#include "rtp/rtp_src.h"

#include <cstring>

inline void reset_cycle_tables()
{
    mix_inp_init();
    std::memset(mix_inp, 0, 8192 * MIX_INP_MAX * sizeof(float));
    std::memset(mix_out, 0, sizeof mix_out);
    mix_init();
    for (int i = 0; i < RTP_DST_MAX; i++)
        dst_init(&rtp_dsts[i], i);
    rtp_srcs = nullptr;
}

// Closes every flow's endpoint, as the sockets' and routing's tests end:
// afterwards no socket should be left.
inline void close_flow_endpoints()
{
    rtp_srcs = nullptr;
    for (rtp_dst &d : rtp_dsts)
        rtp_ep_close(&d.ep);
}
