// Limiter/compressor interface: one instance per flow and per outgoing
// stream, a one-channel or a stereo-linked model, 48-sample blocks.
#pragma once
#include "audio/CG_LimCom.h"

#include <cstdint>

struct limcom_params {
    int enable;
    int ch0;         // source: which of its mix outputs feeds limiter channel 0
    int ch1;
    double attack;
    double release;
    double threshold; // linear amplitude
    double ratio;
};

struct LimCom_Instance {
    limcom_params current_params;
    int nchan;               // 1 or 2; anything else: never active
    float inputBuffer[96];   // channel 0: 0..47, channel 1: 48..95
    float outputBuffer[96];
    union {
        CG_LimCom_1ch_Model m1;
        CG_LimCom_2ch_Model m2;
    } instance;
};

// [init] Module start-up; nothing to do.
void CG_limcom_init(void);
// [sup] Clears and (re)initialises inst; params may be null (inactive).
void CG_limcom_init_instance(LimCom_Instance *inst, const limcom_params *params, int nchan);
// current_params.enable
int CG_limcom_is_enabled(const LimCom_Instance *inst) noexcept;
// [rt] One block inputBuffer -> outputBuffer when enabled.
void CG_limcom_process(LimCom_Instance *inst) noexcept;

struct rtp_src;
// [rt] Limits every enabled flow in place in the ring rows of rtp_ts.
void cg_limcom_run(uint32_t rtp_ts) noexcept;
// [rt] Feeds a stream's mix outputs through its limiter, when enabled.
void cg_limcom_run_src(rtp_src *s) noexcept;
