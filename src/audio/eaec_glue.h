// The echo canceller on flows: library start-up, per-flow set-up and the
// per-cycle gathering of 48-sample blocks into frames.
//
// A flow with a canceller has its mix input replaced, in place in the
// ring, by the canceller's output one frame (480 samples) later; the
// reference is the chosen mix output of the previous block (mix_out).
#pragma once
#include <cstdint>

struct rtp_dst;

// [init] Runs the library's start-up hook and, under "-d", prints one
// "eaec lib: <title> <version> (<version number>) <date> <time>" line per
// registered library record.
void eaec_lib_init();
// [sup] Gives flow dst a canceller referenced to mix output `source`, or
// none for -1; nothing happens when the reference is unchanged. A running
// canceller is first disabled (eaec_source -1, published), then freed
// after grace_wait(); the new one is fully set up (objects, frame length,
// position 0, a silent output frame) before eaec_source is published.
// When the library refuses (eaec_init status), the flow is left without a
// canceller and "pelod: eaec_init status N" goes to standard error. This
// is also the tear-down the routing uses (source -1).
void dst_eaec_setup(rtp_dst *dst, int source);
// [sup] Frees flow dst's canceller objects. The caller has published
// eaec_source -1 and waited a grace period since (dst_eaec_setup(dst, -1)
// does both; a caller tearing down more than the canceller may share one
// grace period).
void dst_eaec_free(rtp_dst *dst);
// [rt] For every flow with a canceller: stores this block's reference and
// microphone samples as 16-bit (held at full scale, a NaN as 0, then
// truncated like f2int16), puts the
// output of the previous frame back at the same ring positions, and
// processes the frame when its 480 samples are complete.
void eaec_run(uint32_t rtp_ts) noexcept;
