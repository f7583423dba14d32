// Crosspoints into flows (the 48 mix inputs) and named mix outputs:
// sharing, start and stop of flows, and the gains in the matrix.
#pragma once
#include "audio/CG_LimCom_interface.h"
#include "daemon/mix.h"
#include "daemon/vox.h"
#include "eaec/eaec.h"
#include "rtp/rtp_recv.h"
#include "rtp/rtp_sk.h"

#include <cstdint>

struct OpusDecoder;
struct pelod_xpt;

inline constexpr int RTP_DST_MAX = MIX_INP_MAX;
inline constexpr int EAEC_FRAME_MAX = 480;

// One flow: a received stream or sound-card input with its processing.
struct rtp_dst {
    char src[65];           // empty = free
    rtp_ep ep;
    rtp_fmt fmt;
    int channel_mode;       // chn; -1 when not given
    int index;              // position in rtp_dsts = mix input
    uint32_t pdly;          // playout delay, samples
    uint32_t last_rtp_time, filled_fence;
    float *pAudioptr;       // mix_inp + index
    pelod_vox_cfg vox;
    float vox_sample;
    int vox_activeto;
    float stats_audio_sample;
    int eaec_source;        // reference mix output, -1: none
    int eaec_ref;           // reference the crosspoint asks for (supervisor only), -1: none
    int eaec_frame_length;
    int16_t eaec_mic[EAEC_FRAME_MAX];
    int16_t eaec_spk[EAEC_FRAME_MAX];
    int16_t eaec_out[EAEC_FRAME_MAX];
    int eaec_pos;
    HANDLE_EAEC_PARAMS eaec_params;
    HANDLE_EAEC_STATE eaec_state;
    LimCom_Instance limcom;
    OpusDecoder *opus_dec;
};

extern rtp_dst rtp_dsts[RTP_DST_MAX];

// [sup] Routes a crosspoint. Returns 0, or -1 after printing
// "update_flows no mixer output available" / "... input available".
// A crosspoint without a source gets no flow (-1, nothing printed).
int pelod_xpt_add(const pelod_xpt *x);
// [sup] Unroutes a crosspoint; stops its flow when no gain is left.
// Returns -1 when no flow serves it.
int pelod_xpt_del(const pelod_xpt *x);
// [init][sup] Zeroes flow dst for table position ch.
void dst_init(rtp_dst *dst, int ch);
// [sup] Mix output named id, created in the lowest free slot; -1 if full.
int mix_ref(const char *id);
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
// [sup] Frees mix outputs with no gain and no outgoing stream.
void mixs_prune();
// [sup] Debug line of a flow ("+"/"-").
void debug_print_flow(int change_mark, const rtp_dst *dst);
