// Outgoing streams: one or two mix outputs sent as RTP (24-bit PCM or
// Opus), rebuilt by difference from the configured sources on every load.
#pragma once
#include "audio/CG_LimCom_interface.h"
#include "rtp/rtp_recv.h"
#include "rtp/rtp_sk.h"

#include <cstdint>

struct OpusEncoder;
struct src;

struct rtp_src {
    rtp_src *next;
    char in_mix[130];      // configured mix list
    int mix[2];            // mix output of channel 0 and 1
    rtp_ep ep;             // dst is null
    uint8_t rtp_pt;        // 255: 101 mono, 96 otherwise
    uint16_t rtp_seq;
    int rtp_ptime_samples;
    int64_t tx_backoff;
    int nchn;              // 1, 2 or 3
    float gainv[2];
    rtp_fmt fmt;
    uint8_t packet[1500];
    uint8_t *packet_data;  // null: no packet open
    int packet_nsamples;
    LimCom_Instance limcom;
    OpusEncoder *opus_enc;
    float opus_inbuf[960];
    int opus_inbuf_avail;
    int bitrate;
    int cbr;
};

extern rtp_src *rtp_srcs;        // list head; new streams at the tail
extern uint32_t opus_enc_rtp_ts; // cycle that last began an Opus frame

// [sup] Brings rtp_srcs in line with srcs[0..srcs_used-1]. Removed streams
// are freed after a grace period.
void pelod_update_rtp_sources();
// [sup] 0 when stream s has the identity of configured source p.
int rtp_src_cmp(const rtp_src *s, const src *p);
// [rt] One cycle of one stream: append 48 samples, send a full packet.
void rtp_send(rtp_src *s, uint32_t rtp_ts) noexcept;
// [sup] Debug line of a stream; p may be null.
void debug_print_src(int change_mark, const rtp_src *s, const src *p);
