// The two limiter/compressor models: parameter sets, states and entry
// points of the one-channel and the stereo-linked model.
#pragma once
#include <cstdint>

struct P_CG_LimCom_1ch_T {
    double cg_TC_compute_SampleRate;
    double Constant3_Value;
    double Lim_Threshold_Gain;
    double Delay_InitialCondition;
    double Attackms_Gain;
    double Releasems_Gain;
    double Bias1_Bias;
    double Saturation1_UpperSat;
    double Saturation1_LowerSat;
    double ratio_Gain;
    double Bias_Bias;
    double Output_Drive_Gain;
    float Input_Drive_Gain;
    uint32_t Delay_DelayLength;
};

struct DW_CG_LimCom_1ch_T {
    double Delay_DSTATE;
};

struct CG_LimCom_1ch_Model {
    P_CG_LimCom_1ch_T P;
    DW_CG_LimCom_1ch_T DW;
};

struct P_CG_LimCom_2ch_T {
    double cg_TC_compute_SampleRate;
    double cg_TC_compute1_SampleRate;
    double Constant3_Value;
    double Lim_Threshold_Gain;
    double Saturation1_UpperSat;
    double Saturation1_LowerSat;
    double Delay_InitialCondition;
    double Attack_Gain;
    double Release_Gain;
    double Delay_InitialCondition_l;
    double PL_Attack_Gain;
    double PL_Release_Gain;
    double Saturation2_UpperSat;
    double Saturation2_LowerSat;
    double ratio_Gain;
    double Bias_Bias;
    double Output_Drive_Gain;
    float Input_Drive_Gain;
    uint32_t Delay_DelayLength;
    uint32_t Delay_DelayLength_o;
};

struct DW_CG_LimCom_2ch_T {
    double Delay_DSTATE[2];
    double Delay_DSTATE_m[2];
    float DigitalFilter_FILT_STATES[8];
};

struct CG_LimCom_2ch_Model {
    P_CG_LimCom_2ch_T P;
    DW_CG_LimCom_2ch_T DW;
};

extern const P_CG_LimCom_1ch_T LimCom_1ch_Subsystem_Default_Params;
extern const P_CG_LimCom_2ch_T LimCom_2ch_Subsystem_Default_Params;

void CG_LimCom_1ch_initialize(CG_LimCom_1ch_Model *m, float *in, float *out);
void CG_LimCom_1ch_step(CG_LimCom_1ch_Model *m, const float *in, float *out) noexcept;
void CG_LimCom_1ch_terminate(CG_LimCom_1ch_Model *m);
void CG_LimCom_2ch_initialize(CG_LimCom_2ch_Model *m, float *in, float *out);
void CG_LimCom_2ch_step(CG_LimCom_2ch_Model *m, const float *in, float *out) noexcept;
void CG_LimCom_2ch_terminate(CG_LimCom_2ch_Model *m);
