#include "eaec/eaec.h"

#include "eaec/eaec_core.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

static_assert(std::is_standard_layout_v<EAEC_CONFIG> && std::is_trivially_copyable_v<EAEC_CONFIG>);
static_assert(std::is_standard_layout_v<LIB_INFO> && std::is_trivially_copyable_v<LIB_INFO>);
static_assert(sizeof(EAEC_STATUS) == sizeof(int));

namespace {
constexpr int EAEC_MODULE_ID = 24;
constexpr int EAEC_PLATFORM_MODULE_ID = 1;
constexpr int EAEC_VERSION_MAJOR = 2, EAEC_VERSION_MINOR = 1, EAEC_VERSION_PATCH = 3;
constexpr const char *EAEC_BUILD_DATE = "Oct  1 2014";
constexpr const char *EAEC_BUILD_TIME = "19:30:44";

int lib_info_free_slot(const LIB_INFO *info)
{
    for (int i = 0; i < LIB_INFO_MAX; i++)
        if (info[i].module_id == 0)
            return i;
    return -1;
}

void lib_info_fill(LIB_INFO *e, const char *title, int module_id, int major, int minor, int patch)
{
    e->title = title;
    e->build_date = EAEC_BUILD_DATE;
    e->build_time = EAEC_BUILD_TIME;
    e->module_id = module_id;
    e->version = (major << 24) | (minor << 16) | (patch << 8);
    e->flags = 0;
    snprintf(e->versionStr, sizeof e->versionStr, "%d.%d.%d", major, minor, patch);
}

// The platform layer's own record, registered once per array.
void platform_get_lib_info(LIB_INFO *info)
{
    for (int i = 0; i < LIB_INFO_MAX; i++)
        if (info[i].module_id == EAEC_PLATFORM_MODULE_ID)
            return;
    const int i = lib_info_free_slot(info);
    if (i >= 0)
        lib_info_fill(&info[i], "EAEC platform", EAEC_PLATFORM_MODULE_ID, 1, 0, 0);
}

// The frame set-up table: hop and FFT size for a rate and frame length,
// or the status that rejects them.
EAEC_STATUS frame_setup(int sfreq, int frame_length, int *hop, int *nfft)
{
    if (frame_length == 0) {
        switch (sfreq) {
        case 8000: *hop = 80; *nfft = 256; return EAEC_STATUS_OK;
        case 16000: *hop = 160; *nfft = 512; return EAEC_STATUS_OK;
        case 32000: *hop = 320; *nfft = 1024; return EAEC_STATUS_OK;
        case 44100: *hop = 441; *nfft = 1024; return EAEC_STATUS_OK;
        case 48000: *hop = 480; *nfft = 1024; return EAEC_STATUS_OK;
        default: return EAEC_STATUS_UNSUPPORTED_SAMP_RATE;
        }
    }
    if (frame_length == 256) {
        if (sfreq != 22050 && sfreq != 24000)
            return EAEC_STATUS_UNSUPPORTED_SAMP_RATE_FRA_LEN;
        *hop = 256;
        *nfft = 512;
        return EAEC_STATUS_OK;
    }
    if (frame_length == 480 || frame_length == 512) {
        *hop = frame_length; // the rate was checked before the table
        *nfft = 1024;
        return EAEC_STATUS_OK;
    }
    return EAEC_STATUS_UNSUPPORTED_FRAMELEN;
}
} // namespace

int eaec_getLibInfo(LIB_INFO *info)
{
    if (!info)
        return -1;
    platform_get_lib_info(info);
    const int i = lib_info_free_slot(info);
    if (i < 0)
        return -1;
    lib_info_fill(&info[i], "Torvo EAEC", EAEC_MODULE_ID, EAEC_VERSION_MAJOR, EAEC_VERSION_MINOR,
                  EAEC_VERSION_PATCH);
    return 0;
}

void eaec_defaultconfig(EAEC_CONFIG *cfg)
{
    cfg->sfreq = 0;
    cfg->nspk = 0;
    cfg->nmic = 0;
    cfg->aec = 0;
    cfg->nc = 0;
    cfg->frame_length = 0;
}

EAEC_STATUS eaec_init(HANDLE_EAEC_PARAMS *params, HANDLE_EAEC_STATE *state, EAEC_CONFIG *cfg)
{
    if (cfg->aec < -80 || cfg->aec > 0)
        return EAEC_STATUS_RANGE_ECHO_SUPPRESSION;
    if (cfg->nc < -20 || cfg->nc > 0)
        return EAEC_STATUS_RANGE_NOISE_SUPPRESSION;
    if (cfg->sigdelay > 400)
        return EAEC_STATUS_MAXSIGDELAY;
    if ((cfg->frame_length == 480 || cfg->frame_length == 512) && cfg->sfreq != 44100 &&
        cfg->sfreq != 48000)
        return EAEC_STATUS_UNSUPPORTED_SAMP_RATE_FRA_LEN;
    int hop = 0, nfft = 0;
    const EAEC_STATUS st = frame_setup(cfg->sfreq, cfg->frame_length, &hop, &nfft);
    if (st != EAEC_STATUS_OK)
        return st;
    if (cfg->nmic != 1 && cfg->nmic != 2)
        return EAEC_STATUS_NMIC;
    if (cfg->nspk != 1 && cfg->nspk != 2)
        return EAEC_STATUS_NSPK;

    auto *p = static_cast<eaec_params *>(eaec_calloc(sizeof(eaec_params)));
    if (!p)
        return EAEC_STATUS_OUT_OF_MEMORY;
    auto *s = static_cast<eaec_state *>(eaec_calloc(sizeof(eaec_state)));
    if (!s) {
        eaec_free(p);
        return EAEC_STATUS_OUT_OF_MEMORY;
    }
    eaec_derive(p, cfg, hop, nfft);
    // The state's buffers are sized by the derived partition count; a
    // failure here is reported like the objects' own.
    if (eaec_alloc_state(p, s) != 0) {
        eaec_free_state(p, s);
        eaec_free(s);
        eaec_free(p);
        return EAEC_STATUS_OUT_OF_MEMORY;
    }
    eaec_reset_state(p, s);
    *params = p;
    *state = s;
    if (cfg->frame_length == 0)
        cfg->frame_length = hop;
    return EAEC_STATUS_OK;
}

void eaec_done(HANDLE_EAEC_PARAMS params, HANDLE_EAEC_STATE state)
{
    if (state) {
        if (params)
            eaec_free_state(params, state);
        eaec_free(state);
    }
    eaec_free(params);
}
