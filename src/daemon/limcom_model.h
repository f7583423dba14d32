// Plain records of the two limiter/compressor models: parameter sets and
// states, embedded by value in every limiter instance. Kept in the bottom
// layer so the flow and stream records can hold them; the models' code and
// their defaults live with the limiter (audio/CG_LimCom.h). The generated
// block names (Attack_Gain, Delay_DSTATE) are kept as the model has them.
#pragma once
#include <cstdint>

inline constexpr int LIMCOM_BLOCK = 48; // samples per channel and block

// One-channel model. Envelope e follows |x| / T with the attack time
// (rising) or the release time (falling, or equal); the gain is
// 1 / (Bias_Bias + R * clamp(e - 1)), and every output is also scaled by
// Output_Drive_Gain / T. Double precision apart from the input drive.
struct P_CG_LimCom_1ch_T {
    double cg_TC_compute_SampleRate; // samples per ms
    double Constant3_Value;          // C3
    double Lim_Threshold_Gain;       // threshold T, linear
    double Delay_InitialCondition;   // initial envelope
    double Attackms_Gain;            // attack, ms
    double Releasems_Gain;           // release, ms
    double Bias1_Bias;               // -1: envelope above the threshold
    double Saturation1_UpperSat;     // +inf once initialised
    double Saturation1_LowerSat;
    double ratio_Gain;               // R
    double Bias_Bias;
    double Output_Drive_Gain;
    float Input_Drive_Gain;          // single precision
    uint32_t Delay_DelayLength;      // 1: no look-ahead
};

struct DW_CG_LimCom_1ch_T {
    double Delay_DSTATE; // the envelope
};

struct CG_LimCom_1ch_Model {
    P_CG_LimCom_1ch_T P;
    DW_CG_LimCom_1ch_T DW;
};

// Two-channel, stereo-linked model: a 40 Hz third-order high-pass per
// channel (single precision), then one detector on the louder channel at
// each instant, smoothed in the log domain by two smoothers; the second
// one's times are PL_Attack_Gain / PL_Release_Gain times the first one's.
struct P_CG_LimCom_2ch_T {
    double cg_TC_compute_SampleRate;  // samples per ms, first smoother
    double cg_TC_compute1_SampleRate; // samples per ms, second smoother
    double Constant3_Value;           // C3
    double Lim_Threshold_Gain;        // threshold T, linear
    double Saturation1_UpperSat;      // +inf once initialised
    double Saturation1_LowerSat;      // floor before the logarithm
    double Delay_InitialCondition;    // first smoother
    double Attack_Gain;               // first smoother attack, ms
    double Release_Gain;              // first smoother release, ms
    double Delay_InitialCondition_l;  // second smoother
    double PL_Attack_Gain;            // second attack, multiple of Attack_Gain
    double PL_Release_Gain;           // second release, multiple of Release_Gain
    double Saturation2_UpperSat;      // +inf once initialised
    double Saturation2_LowerSat;      // floor of the gain-control value
    double ratio_Gain;                // R
    double Bias_Bias;
    double Output_Drive_Gain;
    float Input_Drive_Gain;           // single precision
    uint32_t Delay_DelayLength;
    uint32_t Delay_DelayLength_o;
};

struct DW_CG_LimCom_2ch_T {
    double Delay_DSTATE[2];              // first smoother, path A and B
    double Delay_DSTATE_m[2];            // second smoother, path A and B
    float DigitalFilter_FILT_STATES[8];  // high-pass: w1 w2 z1 z2 of ch 0, then ch 1
};

struct CG_LimCom_2ch_Model {
    P_CG_LimCom_2ch_T P;
    DW_CG_LimCom_2ch_T DW;
};
