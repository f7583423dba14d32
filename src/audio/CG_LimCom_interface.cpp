#include "audio/CG_LimCom_interface.h"

#include "daemon/grace.h"
#include "daemon/mix.h"
#include "daemon/shared.h"

#include <cmath>
#include <cstddef>
#include <cstring>
#include <type_traits>

static_assert(std::is_standard_layout_v<limcom_params> && std::is_trivially_copyable_v<limcom_params>);
static_assert(std::is_standard_layout_v<LimCom_Instance> && std::is_trivially_copyable_v<LimCom_Instance>);
static_assert(offsetof(LimCom_Instance, current_params) == 0 && offsetof(limcom_params, enable) == 0);
static_assert(LIMCOM_BLOCK == MIX_BLOCK);

static int &enable_word(const LimCom_Instance *inst) noexcept
{
    // the word is only ever stored by the supervisor; the cycle just loads it
    return const_cast<int &>(inst->current_params.enable);
}

void CG_limcom_init(void) {}

static bool same_bits(double a, double b) { return memcmp(&a, &b, sizeof a) == 0; }

bool limcom_params_equal(const limcom_params &a, const limcom_params &b)
{
    return a.enable == b.enable && a.ch0 == b.ch0 && a.ch1 == b.ch1 && same_bits(a.attack, b.attack) &&
           same_bits(a.release, b.release) && same_bits(a.threshold, b.threshold) && same_bits(a.ratio, b.ratio);
}

void CG_limcom_disable(LimCom_Instance *inst)
{
    publish(enable_word(inst), 0);
}

// Everything but the enable word, which stays 0 here: the caller
// publishes it last.
static void limcom_setup(LimCom_Instance *inst, const limcom_params *params, int nchan)
{
    constexpr size_t after_enable = offsetof(limcom_params, ch0);
    std::memset(reinterpret_cast<char *>(inst) + after_enable, 0, sizeof *inst - after_enable);
    inst->nchan = nchan;
    if (nchan == 1)
        inst->instance.m1.P = LimCom_1ch_Subsystem_Default_Params;
    else if (nchan == 2)
        inst->instance.m2.P = LimCom_2ch_Subsystem_Default_Params;
    if (!params)
        return;
    // byte for byte (padding included): flows and streams compare it so
    std::memcpy(reinterpret_cast<char *>(&inst->current_params) + after_enable,
                reinterpret_cast<const char *>(params) + after_enable, sizeof *params - after_enable);
    if (nchan == 1) {
        P_CG_LimCom_1ch_T &P = inst->instance.m1.P;
        P.Attackms_Gain = params->attack;
        P.Releasems_Gain = params->release;
        P.Lim_Threshold_Gain = params->threshold;
        P.ratio_Gain = params->ratio;
        if (params->enable)
            CG_LimCom_1ch_initialize(&inst->instance.m1, inst->inputBuffer, inst->outputBuffer);
    } else if (nchan == 2) {
        P_CG_LimCom_2ch_T &P = inst->instance.m2.P;
        P.PL_Attack_Gain = params->attack; // multiples of the first smoother's times
        P.PL_Release_Gain = params->release;
        P.Lim_Threshold_Gain = params->threshold;
        P.ratio_Gain = params->ratio;
        if (params->enable)
            CG_LimCom_2ch_initialize(&inst->instance.m2, inst->inputBuffer, inst->outputBuffer);
    }
}

void CG_limcom_init_instance(LimCom_Instance *inst, const limcom_params *params, int nchan)
{
    if (observe(enable_word(inst))) {
        CG_limcom_disable(inst);
        grace_wait(); // on time-out the cycle is stuck; going on is all we can do
    }
    limcom_setup(inst, params, nchan);
    if (params)
        publish(enable_word(inst), params->enable); // last: the cycle may use it now
}

int CG_limcom_is_enabled(const LimCom_Instance *inst) noexcept
{
    return observe(enable_word(inst));
}

void CG_limcom_process(LimCom_Instance *inst) noexcept
{
    if (!CG_limcom_is_enabled(inst))
        return;
    if (inst->nchan == 1)
        CG_LimCom_1ch_step(&inst->instance.m1, inst->inputBuffer, inst->outputBuffer);
    else if (inst->nchan == 2)
        CG_LimCom_2ch_step(&inst->instance.m2, inst->inputBuffer, inst->outputBuffer);
}

static bool limcom_active(const LimCom_Instance *inst) noexcept
{
    return CG_limcom_is_enabled(inst) && (inst->nchan == 1 || inst->nchan == 2);
}

static float finite_or_zero(float v) noexcept
{
    return std::isfinite(v) ? v : 0.0f;
}

void cg_limcom_run(uint32_t rtp_ts) noexcept
{
    rt_context_check("cg_limcom_run");
    for (int i = 0; i < RTP_DST_MAX; i++) {
        LimCom_Instance *l = &rtp_dsts[i].limcom;
        if (!limcom_active(l))
            continue;
        for (int k = 0; k < LIMCOM_BLOCK; k++)
            // one NaN or absurd value would stay in the limiter's state
            l->inputBuffer[k] = sample_bound(*mix_slot(rtp_ts + uint32_t(k), i));
        CG_limcom_process(l);
        for (int k = 0; k < LIMCOM_BLOCK; k++)
            *mix_slot(rtp_ts + uint32_t(k), i) = finite_or_zero(l->outputBuffer[k]);
    }
}

static void feed_channel(float *dst, int mix) noexcept
{
    if (mix < 0 || mix >= MIX_OUT_MAX) {
        std::memset(dst, 0, LIMCOM_BLOCK * sizeof(float));
        return;
    }
    for (int k = 0; k < LIMCOM_BLOCK; k++)
        dst[k] = mix_out[k * MIX_OUT_MAX + mix];
}

void cg_limcom_run_src(rtp_src *s) noexcept
{
    LimCom_Instance *l = &s->limcom;
    if (!limcom_active(l))
        return;
    // a stream's mix pair has two entries, and only the first when mono
    const unsigned pair_mask = s->nchn > 1 ? 1u : 0u;
    const limcom_params &p = l->current_params;
    feed_channel(l->inputBuffer, s->mix[unsigned(p.ch0) & pair_mask]);
    if (l->nchan == 2)
        feed_channel(l->inputBuffer + LIMCOM_BLOCK, s->mix[unsigned(p.ch1) & pair_mask]);
    CG_limcom_process(l);
    for (int j = 0; j < LIMCOM_BLOCK * l->nchan; j++)
        l->outputBuffer[j] = finite_or_zero(l->outputBuffer[j]);
}
