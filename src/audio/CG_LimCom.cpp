#include "audio/CG_LimCom.h"

const P_CG_LimCom_1ch_T LimCom_1ch_Subsystem_Default_Params = {};
const P_CG_LimCom_2ch_T LimCom_2ch_Subsystem_Default_Params = {};

void CG_LimCom_1ch_initialize(CG_LimCom_1ch_Model *, float *, float *) {}
void CG_LimCom_1ch_step(CG_LimCom_1ch_Model *, const float *, float *) noexcept {}
void CG_LimCom_1ch_terminate(CG_LimCom_1ch_Model *) {}
void CG_LimCom_2ch_initialize(CG_LimCom_2ch_Model *, float *, float *) {}
void CG_LimCom_2ch_step(CG_LimCom_2ch_Model *, const float *, float *) noexcept {}
void CG_LimCom_2ch_terminate(CG_LimCom_2ch_Model *) {}
