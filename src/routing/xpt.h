// Crosspoints into flows (the 48 mix inputs) and named mix outputs:
// sharing, start and stop of flows, and the gains in the matrix.
#pragma once
#include "audio/CG_LimCom_interface.h"
#include "daemon/mix.h"
#include "daemon/records.h"
#include "daemon/vox.h"
#include "rtp/rtp_recv.h"
#include "rtp/rtp_sk.h"

#include <cstdint>

// [sup] Routes a crosspoint. Returns 0, or -1 after printing
// "update_flows no mixer output available" / "... input available".
// A crosspoint without a source gets no flow (-1, nothing printed).
int pelod_xpt_add(const pelod_xpt *x);
// [sup] Unroutes a crosspoint; stops its flow when no gain is left.
// Returns -1 when no flow serves it.
int pelod_xpt_del(const pelod_xpt *x);
// [init][sup] Zeroes flow dst for table position ch.
void dst_init(rtp_dst *dst, int ch);
// [sup] 1 when flow dst (in use) serves crosspoint x; may create the mix
// output that x's echo canceller names.
int match_xpt_dst(const pelod_xpt *x, const rtp_dst *dst);
// 1 when the flow's column has a non-zero gain.
int dst_in_use(const rtp_dst *dst);
int dst_imix_inp(const rtp_dst *dst);
// [sup] Prepares a flow and opens its endpoint last.
void dst_flow_start(rtp_dst *dst, const pelod_xpt *x);
// [sup] Closes a flow's endpoint and marks it free; switches off its
// canceller and limiter, and only after a grace period ends the canceller,
// resets the limiter and destroys the Opus decoder.
void dst_flow_stop(rtp_dst *dst);
// [sup] Debug line of a flow ("+"/"-").
void debug_print_flow(int change_mark, const rtp_dst *dst);
