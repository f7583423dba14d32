// The configuration file: GLB, XPT and SRC lines turned into crosspoints
// and outgoing-stream records, applied to the running daemon by difference.
#pragma once
#include "audio/CG_LimCom_interface.h"
#include "daemon/dlist.h"
#include "daemon/vox.h"
#include "rtp/rtp_recv.h"
#include "rtp/rtp_sk.h"

#include <cstdint>

inline constexpr int SRCS_MAX = 64;
inline constexpr int CFG_LINE_LEN = 2050;

// One crosspoint: a source (stream or sound-card input) into a named mix.
struct pelod_xpt {
    char mix[65];
    char src[65];         // address/channel/"alsa:<n>" with ;src= ;fmt= ;pdly=
    rtp_fmt fmt;
    int chn;              // -1: not given
    int pdly;             // samples; default 48 for "alsa:", else 0
    float gain_dB;
    pelod_vox_cfg vox;
    char eaec_mix[65];    // "ecs": echo canceller reference mix
    ::limcom_params limcom_params;
    rtp_ep_spec ep;
};

// One outgoing stream as configured.
struct src {
    char mix[130];
    char rtpa[65];
    rtp_fmt fmt;
    rtp_ep_spec ep;
    uint8_t rtp_pt;        // 255: default
    int rtp_ptime_samples; // ptime (ms) * 48
    float gainv_dB[2];
    ::limcom_params limcom_params;
    int bitrate;
    int cbr;
};

// A crosspoint list node, owned by the loader.
struct xpt {
    pelod_xpt x;
    dlist link;
};

extern src srcs[SRCS_MAX];
extern int srcs_used;
extern char ifs[40];
extern dlist xpts, xpts_del, xpts_new;

// [sup] Reads fname and applies it. Returns errno after the load (the
// open error when the file cannot be opened: then everything is removed).
int pelocfg_load(const char *fname);
// [sup] One line each. Return 0, or -1 when nothing could be stored.
int pelocfg_load_glb(const char *cmd);
int pelocfg_load_xpt(const char *cmd);
int pelocfg_load_src(const char *cmd);
// [sup] Parses "L24/48000/2"-style text into fmt; warnings name `tag`.
void rtp_fmt_parse(rtp_fmt *fmt, const char *rtpmap_fmt, const char *tag);
// [sup] "1;a=..;r=..;T=..;R=..;i=01" into lcp.
void pelocfg_limcom(limcom_params *lcp, const char *s);
// [sup] "1;t=..;h=..;g=.." into vox.
void pelocfg_vox(pelod_vox_cfg *vox, const char *s);
// [sup] Fills nep endpoint records from an address and an interface text.
void rtpa2ep(const char *rtpa, const char *ifa, rtp_ep_spec *eps, int nep);
