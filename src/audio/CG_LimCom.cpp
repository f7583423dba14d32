#include "audio/CG_LimCom.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

static_assert(std::is_standard_layout_v<P_CG_LimCom_1ch_T> && std::is_trivially_copyable_v<P_CG_LimCom_1ch_T>);
static_assert(std::is_standard_layout_v<P_CG_LimCom_2ch_T> && std::is_trivially_copyable_v<P_CG_LimCom_2ch_T>);
static_assert(std::is_trivially_copyable_v<CG_LimCom_1ch_Model> && std::is_trivially_copyable_v<CG_LimCom_2ch_Model>);

const P_CG_LimCom_1ch_T LimCom_1ch_Subsystem_Default_Params = {
    .cg_TC_compute_SampleRate = 48.0,
    .Constant3_Value = 1.0,
    .Lim_Threshold_Gain = 0.7,
    .Delay_InitialCondition = 0.0,
    .Attackms_Gain = 10.0,
    .Releasems_Gain = 250.0,
    .Bias1_Bias = -1.0,
    .Saturation1_UpperSat = 0.0,
    .Saturation1_LowerSat = 0.0001,
    .ratio_Gain = 1.0,
    .Bias_Bias = 1.0,
    .Output_Drive_Gain = 0.25,
    .Input_Drive_Gain = 1.0f,
    .Delay_DelayLength = 1,
};

const P_CG_LimCom_2ch_T LimCom_2ch_Subsystem_Default_Params = {
    .cg_TC_compute_SampleRate = 48.0,
    .cg_TC_compute1_SampleRate = 48.0,
    .Constant3_Value = 1.0,
    .Lim_Threshold_Gain = 0.7,
    .Saturation1_UpperSat = 0.0,
    .Saturation1_LowerSat = 0.0001,
    .Delay_InitialCondition = 0.0,
    .Attack_Gain = 2.5,
    .Release_Gain = 500.0,
    .Delay_InitialCondition_l = 0.0,
    .PL_Attack_Gain = 30.0,
    .PL_Release_Gain = 25.0,
    .Saturation2_UpperSat = 0.0,
    .Saturation2_LowerSat = 0.0001,
    .ratio_Gain = 1.0,
    .Bias_Bias = 1.0,
    .Output_Drive_Gain = 0.25,
    .Input_Drive_Gain = 1.0f,
    .Delay_DelayLength = 1,
    .Delay_DelayLength_o = 1,
};

// High-pass coefficients, exactly as the filter was designed (40 Hz at 48 kHz).
static constexpr float HP_W1 = std::bit_cast<float>(0x3FFF53FBu); // 1.9947504
static constexpr float HP_W2 = std::bit_cast<float>(0x3F7EA9C0u); // 0.9947777, also the z1 pole
static constexpr float HP_GAIN1 = std::bit_cast<float>(0x3F7F546Eu); // 0.99738204
static constexpr float HP_GAIN2 = std::bit_cast<float>(0x3F7F54E0u); // 0.99738884
static_assert(HP_W1 > 1.99475f && HP_W1 < 1.99476f && HP_W2 > 0.994777f && HP_W2 < 0.994778f);
static_assert(HP_GAIN1 > 0.997382f && HP_GAIN1 < 0.997383f && HP_GAIN2 > 0.997388f && HP_GAIN2 < 0.997389f);

static constexpr double INF = std::numeric_limits<double>::infinity();

static double clamp_sat(double v, double lo, double hi) noexcept
{
    if (v > hi)
        return hi;
    if (v < lo)
        return lo;
    return v;
}

// Attack when the target lies above the state, release otherwise (equal
// counts as release).
static double smooth(double s, double target, double att, double rel) noexcept
{
    const double d = target - s;
    return s + d * (d > 0.0 ? att : rel);
}

// The model's power of ten: exact results at the points the model names,
// the library power elsewhere.
static double pow10_model(double x) noexcept
{
    if (x == 0.0)
        return 1.0;
    if (x == 1.0)
        return 10.0;
    if (x == -1.0)
        return 0.1;
    if (x == 2.0)
        return 100.0;
    if (x == 0.5)
        return 3.1622776601683795;
    return std::pow(10.0, x);
}

// Last argument and result of a costly function: below the threshold and
// in steady states the same argument comes back sample after sample, and
// reusing the result is bit-identical to computing it again.
struct Memo {
    double in = std::numeric_limits<double>::quiet_NaN(); // matches nothing
    double out = 0.0;
};

template <class F> static double memo(Memo &m, double x, F f) noexcept
{
    if (!(x == m.in)) {
        m.in = x;
        m.out = f(x);
    }
    return m.out;
}

void CG_LimCom_1ch_initialize(CG_LimCom_1ch_Model *m, float *in, float *out)
{
    m->P.Saturation1_UpperSat = INF;
    m->DW.Delay_DSTATE = m->P.Delay_InitialCondition;
    std::memset(in, 0, LIMCOM_BLOCK * sizeof(float));
    std::memset(out, 0, LIMCOM_BLOCK * sizeof(float));
}

void CG_LimCom_1ch_step(CG_LimCom_1ch_Model *m, const float *in, float *out) noexcept
{
    const P_CG_LimCom_1ch_T &P = m->P;
    const double c3 = P.Constant3_Value;
    const double k = c3 / (c3 * P.Lim_Threshold_Gain);
    const double att = 1.0 / (c3 * P.Attackms_Gain * P.cg_TC_compute_SampleRate);
    const double rel = 1.0 / (P.cg_TC_compute_SampleRate * c3 * P.Releasems_Gain);
    const double f = k * P.Output_Drive_Gain;
    const auto gain = [&](double o) { return c3 / (P.Bias_Bias + o * P.ratio_Gain); };
    Memo g;
    double e = m->DW.Delay_DSTATE;
    for (int n = 0; n < LIMCOM_BLOCK; n++) {
        const float x = in[n] * P.Input_Drive_Gain;
        e = smooth(e, std::fabs(x * k), att, rel);
        const double o = clamp_sat(e + P.Bias1_Bias, P.Saturation1_LowerSat, P.Saturation1_UpperSat);
        out[n] = float(x * f * memo(g, o, gain));
    }
    m->DW.Delay_DSTATE = e;
}

void CG_LimCom_1ch_terminate(CG_LimCom_1ch_Model *) {}

void CG_LimCom_2ch_initialize(CG_LimCom_2ch_Model *m, float *in, float *out)
{
    m->P.Saturation1_UpperSat = INF;
    m->P.Saturation2_UpperSat = INF;
    for (int p = 0; p < 2; p++) {
        m->DW.Delay_DSTATE[p] = m->P.Delay_InitialCondition;
        m->DW.Delay_DSTATE_m[p] = m->P.Delay_InitialCondition_l;
    }
    std::memset(m->DW.DigitalFilter_FILT_STATES, 0, sizeof m->DW.DigitalFilter_FILT_STATES);
    std::memset(in, 0, 2 * LIMCOM_BLOCK * sizeof(float));
    std::memset(out, 0, 2 * LIMCOM_BLOCK * sizeof(float));
}

// Second-order section, then a first-order one; all single precision.
static void high_pass48(float *st, const float *in, float drive, float *xf) noexcept
{
    float w1 = st[0], w2 = st[1], z1 = st[2];
    for (int n = 0; n < LIMCOM_BLOCK; n++) {
        const float w = HP_W1 * w1 - HP_W2 * w2 + HP_GAIN1 * in[n];
        const float u = w - 2.0f * w1 + w2;
        const float z = HP_W2 * z1 + HP_GAIN2 * u;
        xf[n] = (z - z1) * drive;
        w2 = w1;
        w1 = w;
        st[3] = z1; // kept by the model, never read
        z1 = z;
    }
    st[0] = w1;
    st[1] = w2;
    st[2] = z1;
}

struct Smoothers2ch {
    double att1, rel1, att2, rel2;
};

// One detector path: both smoothers over the same log-domain levels q,
// then the gain factor C3 / (Bias + g * R) per sample.
static void gain_path(const P_CG_LimCom_2ch_T &P, const Smoothers2ch &c, const double *q,
                      double *s1, double *s2, double *gain) noexcept
{
    Memo mp, ml;
    double y1 = *s1, y2 = *s2;
    for (int n = 0; n < LIMCOM_BLOCK; n++) {
        y1 = smooth(y1, q[n], c.att1, c.rel1);
        y2 = smooth(y2, q[n], c.att2, c.rel2);
        const double p = memo(mp, y2, pow10_model);
        const double l = memo(ml, y1, pow10_model);
        double g = clamp_sat(l - p, P.Saturation2_LowerSat, P.Saturation2_UpperSat);
        if (g < p)
            g = p;
        gain[n] = P.Constant3_Value / (P.Bias_Bias + g * P.ratio_Gain);
    }
    *s1 = y1;
    *s2 = y2;
}

static bool same_bits(double a, double b) noexcept
{
    return std::bit_cast<uint64_t>(a) == std::bit_cast<uint64_t>(b);
}

void CG_LimCom_2ch_step(CG_LimCom_2ch_Model *m, const float *in, float *out) noexcept
{
    const P_CG_LimCom_2ch_T &P = m->P;
    DW_CG_LimCom_2ch_T &DW = m->DW;
    const double c3 = P.Constant3_Value;
    const double k = c3 / (c3 * P.Lim_Threshold_Gain);

    float xf[2 * LIMCOM_BLOCK];
    high_pass48(&DW.DigitalFilter_FILT_STATES[0], in, P.Input_Drive_Gain, xf);
    high_pass48(&DW.DigitalFilter_FILT_STATES[4], in + LIMCOM_BLOCK, P.Input_Drive_Gain, xf + LIMCOM_BLOCK);

    // Stereo link: the louder channel at each instant drives both paths.
    double q[LIMCOM_BLOCK];
    Memo lg;
    for (int n = 0; n < LIMCOM_BLOCK; n++) {
        const double l0 = std::fabs(xf[n] * k);
        const double l1 = std::fabs(xf[LIMCOM_BLOCK + n] * k);
        const double lvl = l0 >= l1 ? l0 : l1;
        const double over = clamp_sat(lvl - c3, P.Saturation1_LowerSat, P.Saturation1_UpperSat);
        q[n] = memo(lg, over, [](double v) { return std::log10(v); });
    }

    const Smoothers2ch c{
        1.0 / (c3 * P.Attack_Gain * P.cg_TC_compute_SampleRate),
        1.0 / (c3 * P.Release_Gain * P.cg_TC_compute_SampleRate),
        1.0 / (P.cg_TC_compute1_SampleRate * P.PL_Attack_Gain * c3 * P.Attack_Gain),
        1.0 / (P.cg_TC_compute1_SampleRate * P.PL_Release_Gain * c3 * P.Release_Gain),
    };
    double gain[2 * LIMCOM_BLOCK];
    // Both paths smooth the same levels, so equal states give equal
    // results: the second path is then a copy, which halves the powers.
    const bool twins = same_bits(DW.Delay_DSTATE[0], DW.Delay_DSTATE[1]) &&
                       same_bits(DW.Delay_DSTATE_m[0], DW.Delay_DSTATE_m[1]);
    gain_path(P, c, q, &DW.Delay_DSTATE[0], &DW.Delay_DSTATE_m[0], gain);
    if (twins) {
        std::memcpy(gain + LIMCOM_BLOCK, gain, LIMCOM_BLOCK * sizeof(double));
        DW.Delay_DSTATE[1] = DW.Delay_DSTATE[0];
        DW.Delay_DSTATE_m[1] = DW.Delay_DSTATE_m[0];
    } else {
        gain_path(P, c, q, &DW.Delay_DSTATE[1], &DW.Delay_DSTATE_m[1], gain + LIMCOM_BLOCK);
    }

    const double f = k * P.Output_Drive_Gain;
    for (int j = 0; j < 2 * LIMCOM_BLOCK; j++)
        out[j] = float(f * xf[j] * gain[j]);
}

void CG_LimCom_2ch_terminate(CG_LimCom_2ch_Model *) {}
