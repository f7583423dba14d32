// The echo canceller on flows: library start-up, per-flow set-up and the
// per-cycle gathering of 48-sample blocks into 480-sample frames.
#pragma once
#include <cstdint>

struct rtp_dst;

// [init] Library start-up hook and the "eaec lib:" lines under "-d".
void eaec_lib_init();
// [sup] Gives flow dst a canceller referenced to mix output `source`
// (-1: none); tears down the old one after a grace period.
void dst_eaec_setup(rtp_dst *dst, int source);
// [rt] Every flow with a canceller: swap this block in, process a frame
// each 480 samples.
void eaec_run(uint32_t rtp_ts) noexcept;
