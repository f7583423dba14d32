// Echo canceller library interface: configuration, status codes, library
// information and the frame processing calls.
#pragma once
#include <cstdint>

typedef int16_t INT_PCM;

struct EAEC_CONFIG {
    int sfreq;
    int nspk;
    int nmic;
    int aec;          // echo suppression, dB (-80..0)
    int nc;           // noise suppression, dB (-20..0)
    int sigdelay;     // largest echo-path delay, ms (<= 400)
    int frame_length; // 0: chosen by the library and written back
};

enum EAEC_STATUS {
    EAEC_STATUS_OK = 0,
    EAEC_STATUS_OUT_OF_MEMORY = 2,
    EAEC_STATUS_NMIC = 3,
    EAEC_STATUS_NSPK = 4,
    EAEC_STATUS_UNSUPPORTED_SAMP_RATE = 6,
    EAEC_STATUS_RANGE_ECHO_SUPPRESSION = 8,
    EAEC_STATUS_RANGE_NOISE_SUPPRESSION = 9,
    EAEC_STATUS_MAXSIGDELAY = 11,
    EAEC_STATUS_UNSUPPORTED_FRAMELEN = 12,
    EAEC_STATUS_UNSUPPORTED_SAMP_RATE_FRA_LEN = 13,
};

struct eaec_params;
struct eaec_state;
typedef eaec_params *HANDLE_EAEC_PARAMS;
typedef eaec_state *HANDLE_EAEC_STATE;

struct LIB_INFO {
    const char *title;
    const char *build_date;
    const char *build_time;
    int module_id; // 0: free entry
    int version;   // major << 24 | minor << 16 | patch << 8
    unsigned int flags;
    char versionStr[32];
};
inline constexpr int LIB_INFO_MAX = 32;

// [init] The library's start-up hook.
void eaec_lib_startup(void);
// Registers the library records in info[0..31]; -1 when null or full.
int eaec_getLibInfo(LIB_INFO *info);
// Zeroes every field but sigdelay.
void eaec_defaultconfig(EAEC_CONFIG *cfg);
// [sup] Validates cfg, allocates and derives both objects.
EAEC_STATUS eaec_init(HANDLE_EAEC_PARAMS *params, HANDLE_EAEC_STATE *state, EAEC_CONFIG *cfg);
// [rt] One frame: reference spk, microphone mic -> out. Allocates nothing.
void eaec_processframe(const HANDLE_EAEC_PARAMS params, HANDLE_EAEC_STATE state,
                       const short *spk, const short *mic, INT_PCM *out);
// [sup] Frees both objects.
void eaec_done(HANDLE_EAEC_PARAMS params, HANDLE_EAEC_STATE state);
