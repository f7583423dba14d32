#include "audio/eaec_glue.h"

#include "daemon/grace.h"
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "daemon/shared.h"
#include "eaec/eaec.h"

#include <algorithm>
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

// The block of a canceller's frame (and of an Opus stream's encoder call)
// comes round every 10 blocks, where its block counter wraps to 0. A new
// canceller starts its counter where it wraps farthest from the others',
// so that frames are not processed in the same wake-up. The cycle moves
// the counters on meanwhile, all alike: their differences stay.
static int eaec_first_pos(const rtp_dst *dst, int frame_length)
{
    const int blocks = frame_length / MIX_BLOCK;
    bool busy[EAEC_FRAME_MAX / MIX_BLOCK] = {};
    for (const rtp_dst &o : rtp_dsts)
        if (&o != dst && observe(o.eaec_source) >= 0 && o.eaec_frame_length == frame_length)
            busy[observe(o.eaec_pos) / MIX_BLOCK % blocks] = true;
    for (const rtp_src *s = rtp_srcs; s; s = s->next)
        if (s->fmt.payload_format == RTP_FMT_OPUS && s->opus_enc)
            busy[observe(s->opus_inbuf_avail) / (MIX_BLOCK * (s->nchn == 1 ? 1 : 2)) % blocks] = true;
    int best = 0, best_gap = -1;
    for (int c = 0; c < blocks; c++) { // the counter farthest from every busy one, 0 on a tie
        int gap = blocks;
        for (int b = 0; b < blocks; b++)
            if (busy[b])
                gap = std::min(gap, std::min((c - b + blocks) % blocks, (b - c + blocks) % blocks));
        if (gap > best_gap) {
            best = c;
            best_gap = gap;
        }
    }
    return best * MIX_BLOCK;
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
    dst->eaec_pos = eaec_first_pos(dst, cfg.frame_length);
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
