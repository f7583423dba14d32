// The configuration file: GLB, XPT and SRC lines turned into crosspoints
// and outgoing-stream records, applied to the running daemon by difference.
#pragma once
#include "audio/CG_LimCom_interface.h"
#include "daemon/records.h"
#include "daemon/vox.h"
#include "rtp/rtp_recv.h"
#include "rtp/rtp_sk.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

inline constexpr int CFG_LINE_LEN = 2050;

extern char ifs[40];
extern dlist xpts, xpts_del, xpts_new;

// [sup] Reads fname and applies it by difference, in this order: every
// crosspoint that is gone is deleted (pelod_xpt_del), the outgoing streams
// are rebuilt from srcs (pelod_update_rtp_sources), then new or changed
// crosspoints are added (pelod_xpt_add) in the reverse of their file order.
// Unchanged crosspoints are not touched. A file that cannot be opened is
// reported and loads as an empty one: everything is removed. Returns errno
// after the load (the open error in that case).
int pelocfg_load(const char *fname);
// [sup] One line each, with or without its keyword. GLB sets ifs (ignored
// once 64 SRC lines are stored). XPT queues its crosspoint in xpts, xpts_new
// or reuses a node of xpts_del; -1 when no node could be allocated. SRC
// fills the next srcs entry; -1 when all 64 are used.
int pelocfg_load_glb(const char *cmd);
int pelocfg_load_xpt(const char *cmd);
int pelocfg_load_src(const char *cmd);
// [sup] Parses "L24/48000/2", "L24.48000.2" or "L24/2" into fmt; other texts
// clear it. Prints a warning naming `tag` for each field it corrects.
void rtp_fmt_parse(rtp_fmt *fmt, const char *rtpmap_fmt, const char *tag);
// [sup] "1;a=..;r=..;T=..;R=..;i=01" into lcp; fields not given are kept.
void pelocfg_limcom(limcom_params *lcp, const char *s);
// [sup] "1;t=dB;h=s;g=0|1" into vox (threshold 0: detection off).
void pelocfg_vox(pelod_vox_cfg *vox, const char *s);
// [sup] Fills eps[0..nep-1] from an address text ("239.1.2.3:5004",
// channel number, vts:// URL, with ";src=" naming the multicast sender)
// and an interface text (empty: 0.0.0.0). All zero when either is no
// valid address.
void rtpa2ep(const char *rtpa, const char *ifa, rtp_ep_spec *eps, int nep);

// [sup] The reading half of a load, which touches no running state: every
// running crosspoint becomes a deletion candidate (xpts_del), srcs and ifs
// are emptied, and f's lines go through the line handlers into xpts,
// xpts_new and srcs. pelocfg_load applies what it leaves; the checker only
// looks at it.
void pelocfg_read(FILE *f);
// [sup] 1 when a and b are the same crosspoint for a reload: source, mix,
// channel, playout delay, voice activity, canceller mix and limiter
// (gain, endpoint and format are not compared).
int pelocfg_xpt_same(const pelod_xpt *a, const pelod_xpt *b);

// What a load sees beyond the records it makes, for the configuration
// checker (tools/pelod-check). The daemon leaves pelocfg_obs null and stays
// as quiet as ever; any member may be null.
struct pelocfg_observer {
    // Every piece fgets returns, before its handler: `bytes` read (NUL
    // bytes included, line end included), `cut` when the buffer filled
    // before the line end, so the rest comes as the next piece.
    void (*piece)(const char *raw, size_t bytes, bool cut);
    // A handler looked tag up in its line: value is where it starts (null:
    // absent), buf_size the buffer it is copied into, 0 for a number.
    void (*tag)(const char *tag, const char *value, size_t buf_size);
    // A handler's warning text (printed on standard output otherwise).
    void (*warn)(const char *text);
    // After the handler of a GLB, XPT or SRC line, with its result.
    void (*done)(int result);
};
extern const pelocfg_observer *pelocfg_obs;
