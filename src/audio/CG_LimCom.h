// The two limiter/compressor models: defaults and entry points of the
// one-channel and the stereo-linked model (their parameter and state
// records are in daemon/limcom_model.h). Both work on 48-sample blocks and
// keep their states across blocks, so a signal cut into blocks is smoothed
// exactly as if it were continuous.
#pragma once
#include "daemon/limcom_model.h"

#include <cstdint>

// Defaults copied into an instance before the configured values; the
// upper saturation limits are stored 0 and become +inf on initialisation.
extern const P_CG_LimCom_1ch_T LimCom_1ch_Subsystem_Default_Params;
extern const P_CG_LimCom_2ch_T LimCom_2ch_Subsystem_Default_Params;

// [sup] Keeps m->P (sets the upper limits to +inf), resets the states to
// their initial conditions and clears in[] and out[] (48 floats per
// channel: 48 for the one-channel, 96 for the two-channel model).
void CG_LimCom_1ch_initialize(CG_LimCom_1ch_Model *m, float *in, float *out);
// [rt] One block: in[0..47] -> out[0..47]. in and out may be the same.
void CG_LimCom_1ch_step(CG_LimCom_1ch_Model *m, const float *in, float *out) noexcept;
// Nothing to release.
void CG_LimCom_1ch_terminate(CG_LimCom_1ch_Model *m);

void CG_LimCom_2ch_initialize(CG_LimCom_2ch_Model *m, float *in, float *out);
// [rt] One block: channel 0 in[0..47], channel 1 in[48..95] -> out, same
// layout. in and out may be the same.
void CG_LimCom_2ch_step(CG_LimCom_2ch_Model *m, const float *in, float *out) noexcept;
void CG_LimCom_2ch_terminate(CG_LimCom_2ch_Model *m);
