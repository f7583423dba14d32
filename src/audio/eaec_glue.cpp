#include "audio/eaec_glue.h"

#include "daemon/grace.h"
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "daemon/shared.h"
#include "eaec/eaec.h"

#include <cstdio>
#include <cstring>

void eaec_lib_init()
{
    eaec_lib_startup();
    LIB_INFO info[LIB_INFO_MAX] = {};
    for (LIB_INFO &e : info)
        e.module_id = 0;
    if (eaec_getLibInfo(info) != 0 || !debug)
        return;
    for (const LIB_INFO &e : info)
        if (e.module_id != 0)
            printf("eaec lib: %s %s (%d) %s %s\n", e.title, e.versionStr, e.version, e.build_date,
                   e.build_time);
}

void dst_eaec_free(rtp_dst *dst)
{
    eaec_done(dst->eaec_params, dst->eaec_state);
    dst->eaec_params = nullptr;
    dst->eaec_state = nullptr;
}

void dst_eaec_setup(rtp_dst *dst, int source)
{
    if (source == dst->eaec_source)
        return;
    if (dst->eaec_source != -1) {
        publish(dst->eaec_source, -1);
        grace_wait(); // the cycle may be inside this flow's frame
        dst_eaec_free(dst);
    }
    if (source < 0)
        return;
    if (source >= MIX_OUT_MAX) {
        fprintf(stderr, "pelod: eaec reference %d is not a mix output\n", source);
        return;
    }
    EAEC_CONFIG cfg{};
    eaec_defaultconfig(&cfg);
    cfg.sfreq = PELOD_RATE;
    cfg.nspk = 1;
    cfg.nmic = 1;
    cfg.aec = -12;
    cfg.nc = -10;
    cfg.sigdelay = 20;
    cfg.frame_length = 0;
    HANDLE_EAEC_PARAMS params = nullptr;
    HANDLE_EAEC_STATE state = nullptr;
    const EAEC_STATUS st = eaec_init(&params, &state, &cfg);
    if (st != EAEC_STATUS_OK || cfg.frame_length <= 0 || cfg.frame_length > EAEC_FRAME_MAX ||
        cfg.frame_length % MIX_BLOCK != 0) {
        // Without its objects the flow must not reach the frame processor.
        if (st == EAEC_STATUS_OK)
            eaec_done(params, state);
        fprintf(stderr, "pelod: eaec_init status %d (frame %d), flow %d has no echo canceller\n", int(st),
                cfg.frame_length, dst->index);
        return;
    }
    dst->eaec_params = params;
    dst->eaec_state = state;
    dst->eaec_frame_length = cfg.frame_length;
    dst->eaec_pos = 0;
    memset(dst->eaec_mic, 0, sizeof dst->eaec_mic);
    memset(dst->eaec_spk, 0, sizeof dst->eaec_spk);
    memset(dst->eaec_out, 0, sizeof dst->eaec_out); // the first frame played out is silence
    publish(dst->eaec_source, source);               // last: the cycle may run it from now on
}

void eaec_run(uint32_t rtp_ts) noexcept
{
    rt_context_check("eaec_run");
    for (rtp_dst &d : rtp_dsts) {
        const int source = observe(d.eaec_source);
        if (source < 0)
            continue;
        const int pos = d.eaec_pos;
        for (int k = 0; k < MIX_BLOCK; k++) {
            float *slot = mix_slot(rtp_ts + uint32_t(k), d.index);
            // beyond full scale the 16-bit samples would wrap around
            d.eaec_spk[pos + k] = f2int16(sample_bound(mix_out[k * MIX_OUT_MAX + source], 1.0f));
            d.eaec_mic[pos + k] = f2int16(sample_bound(*slot, 1.0f));
            *slot = float(d.eaec_out[pos + k]) * int16_to_float;
        }
        if (pos + MIX_BLOCK >= d.eaec_frame_length) {
            eaec_processframe(d.eaec_params, d.eaec_state, d.eaec_spk, d.eaec_mic, d.eaec_out);
            d.eaec_pos = 0;
        } else {
            d.eaec_pos = pos + MIX_BLOCK;
        }
    }
}
