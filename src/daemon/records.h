// The shared records: every record and table that more than one module
// touches, with the capacities that size them. Includes nothing of the
// subsystems, so every module may include it.
//
// Two contexts write these: the supervisor (start-up, loader, routing,
// report; "sup") and the real-time cycle ("rt"). Each field names its one
// writer and, where the other context reads it, the order that makes the
// read safe (see daemon/shared.h for publish/observe, daemon/grace.h for
// the grace period). "init" fields are written before the cycle starts or
// while the record is not linked, and are read-only afterwards.
#pragma once
#include "daemon/dlist.h"
#include "daemon/limcom_model.h"
#include "daemon/shared.h"

#include <cstdint>
#include <netinet/in.h>

struct OpusDecoder;
struct OpusEncoder;
struct eaec_params;
struct eaec_state;
typedef eaec_params *HANDLE_EAEC_PARAMS; // owned by the echo canceller library
typedef eaec_state *HANDLE_EAEC_STATE;

// ---- capacities ----------------------------------------------------------

inline constexpr int MIX_INP_MAX = 48;          // mix inputs = flows
inline constexpr int MIX_OUT_MAX = 16;          // named mix outputs
inline constexpr int MIX_BLOCK = 48;            // samples per block
inline constexpr uint32_t MIX_RING_MASK = 8191; // ring slots - 1
inline constexpr int MIX_ID_LEN = 65;
inline constexpr int RTP_DST_MAX = MIX_INP_MAX;
inline constexpr int EAEC_FRAME_MAX = 480;      // samples of one canceller frame
inline constexpr int SRCS_MAX = 64;             // configured outgoing streams
inline constexpr int RTP_SK_HASH = 32;          // endpoint buckets per socket
inline constexpr int RTP_SK_MGROUPS = 64;       // memberships per socket
inline constexpr int RTP_SRC_PACKET_MAX = 1500; // bytes of a stream's packet buffer

// ---- audio format --------------------------------------------------------

inline constexpr int RTP_FMT_PCM = 0;
inline constexpr int RTP_FMT_OPUS = 1;
inline constexpr int RTP_FMT_NDI = 2;

// Written by the loader into crosspoints and configured streams, copied
// into a flow or stream while it is not linked (sup, init).
struct rtp_fmt {
    int payload_format; // RTP_FMT_PCM ("L24"), RTP_FMT_OPUS, RTP_FMT_NDI (received as PCM)
    int bps;            // 16 or 24
    int samplerate;     // 48000
    int nchan;          // 0: decided per datagram by the default map
};

// ---- sockets and endpoints -----------------------------------------------

// What the configuration produces for one endpoint (sup, loader only).
struct rtp_ep_spec {
    sockaddr_in sa_dst;  // family != AF_INET: no endpoint; address 0: any unicast
    sockaddr_in sa_bind; // address INADDR_NONE: no endpoint
    in_addr_t ssm_src;   // source-specific multicast source, 0 for any-source
};

struct rtp_sk;
struct rtp_dst;

// One endpoint, embedded in a flow or an outgoing stream. rtp_ep_open
// fills the addresses and the back-off before the bucket link, its last
// store; rtp_ep_close unlinks first and lets a grace period pass before
// the link or the socket is reused. The counters and the timing lock
// belong to the cycle; the report reads them unlocked.
struct rtp_ep {
    sockaddr_in sa_dst;   // sup; family 0 after close, alsa_src_family for the sound card (published last)
    sockaddr_in sa_bind;  // sup
    in_addr_t ssm_src;    // sup
    uint32_t if_addr_h;   // sup, before the link; multicast: bind address, host order
    rtp_sk *sk;           // sup (published); not owning; null when unattached; read by other flows' re-lock
    int32_t backoff_cnt;  // sender back-off: armed by sup before the link, then rt only
    dlist rtp_sk_ep_list; // sup; link in one bucket of sk, stored last
    rtp_dst *dst;         // sup, before the link; receiving flow, null for an outgoing stream
    // rt (receive path; zeroed by the cycle on a counter reset)
    rt_counter rx_reset, rx_count, rx_drop, rx_dupl, rx_good, rx_seqe, rx_srst, rx_late;
    uint32_t synt;        // rt; sender timestamp - local media time
    int32_t run;          // rt; timing lock valid
    uint32_t buf_full_ts; // rt
    uint16_t rtp_seq0;    // rt
    uint32_t rtp_ts0;     // rt
    int32_t rtp_run;      // rt
    int32_t ptime_samples; // rt
    uint32_t ahead_wake;  // rt; wake-up that last found the stream ahead
    int32_t ahead;        // rt; 1 while that finding waits for a second one
    uint32_t rx_wait_until; // rt; the last wake-up (its whole ms) that may leave this flow's socket unread
    rt_counter tx_pkts, tx_err; // rt (send path)
};

// One multicast membership of a socket (sup only; the cycle never reads it).
struct mgroup {
    in_addr_t imr_multiaddr; // 0: free slot
    in_addr_t imr_sourceaddr;
};

// A shared UDP socket. Made and fully set up by sup before `all` links it
// into rtp_sk_all (its last store); unlinked, then closed and freed only
// after a grace period.
struct rtp_sk {
    int fd;                 // sup, init; -1 when socket() failed
    sockaddr_in sa_bind;    // sup, init; as bound
    in_addr_t mcif_addr;    // sup, init; multicast interface, 0 for unicast sockets
    dlist all;              // sup; link in rtp_sk_all
    dlist rtp_sk_ep_list_ip_dst_hash[RTP_SK_HASH]; // sup; endpoint buckets the cycle walks
    mgroup mgroups[RTP_SK_MGROUPS]; // sup
    // rt: the one flow endpoint the last drain fed (null: none), whether it
    // fed several, and whether the last wake-up left the socket unread
    rtp_ep *rx_one;
    int32_t rx_mixed, rx_waited;
};

// ---- voice activity and limiter parameters -------------------------------

// Parsed by the loader, copied into a flow before its endpoint opens (sup).
struct pelod_vox_cfg {
    float threshold_lin; // linear level; 0 = detection off
    int holdtime;        // ms = blocks
    int gate;            // mute the flow while inactive
};

// Configured limiter values (tag lce), all zero unless given (sup).
struct limcom_params {
    int enable;       // 1: the limiter is on
    int ch0;          // stream: which entry of its mix pair feeds limiter channel 0
    int ch1;          // the same for limiter channel 1
    double attack;    // one-channel: ms; two-channel: multiple of 2.5 ms
    double release;   // one-channel: ms; two-channel: multiple of 500 ms
    double threshold; // linear amplitude, 1.0 = full scale
    double ratio;
};

// One limiter, embedded in a flow or a stream. sup writes everything but
// the buffers and the model state while enable is 0, then publishes
// current_params.enable last; to change or tear it down, sup publishes
// enable 0 and waits a grace period first. The cycle observes enable and
// then owns the buffers and the model state.
struct LimCom_Instance {
    limcom_params current_params; // sup; as last given, byte for byte; enable published last
    int nchan;               // sup; 1 or 2, anything else: never active
    float inputBuffer[96];   // rt; channel 0: 0..47, channel 1: 48..95
    float outputBuffer[96];  // rt; same layout, valid while enabled
    union {
        CG_LimCom_1ch_Model m1;
        CG_LimCom_2ch_Model m2;
    } instance;              // P: sup (while disabled); DW: rt
};

// ---- flows ---------------------------------------------------------------

// One flow: a received stream or sound-card input with its processing,
// at table position `index` = mix input. sup prepares every field before
// the endpoint opens (or, for the sound card, before the family marker is
// published); to stop it, sup closes the endpoint, clears src, switches
// the canceller and the limiter off and waits a grace period before
// tearing them down.
struct rtp_dst {
    char src[65];           // sup; empty = free, cleared (published) when stopped
    rtp_ep ep;
    rtp_fmt fmt;            // sup, init
    int channel_mode;       // sup, init; chn, -1 when not given
    int index;              // sup, init; position in rtp_dsts = mix input
    uint32_t pdly;          // sup, init; playout delay, samples
    uint32_t last_rtp_time, filled_fence; // rt
    float *pAudioptr;       // sup, init; mix_inp + index
    pelod_vox_cfg vox;      // sup, init
    float vox_sample;       // rt; this block's level (receive path, cleared by the detector)
    int vox_activeto;       // rt; hold counter
    float stats_audio_sample; // peak: raised by rt, reset by the report (sup) -- two writers
    int eaec_source;        // sup; reference mix output, -1: none; published last on set-up, first on tear-down
    int eaec_ref;           // sup only; reference the crosspoint asks for, -1: none
    int eaec_frame_length;  // sup, while eaec_source is -1
    int16_t eaec_mic[EAEC_FRAME_MAX]; // rt
    int16_t eaec_spk[EAEC_FRAME_MAX]; // rt
    int16_t eaec_out[EAEC_FRAME_MAX]; // rt (sup clears it while eaec_source is -1)
    int eaec_pos;           // rt (sup sets the first value while eaec_source is -1)
    HANDLE_EAEC_PARAMS eaec_params; // sup; freed only after eaec_source -1 and a grace period
    HANDLE_EAEC_STATE eaec_state;   // sup; state inside: rt
    LimCom_Instance limcom;
    OpusDecoder *opus_dec;  // sup, before the endpoint opens; destroyed after a grace period
};

// ---- outgoing streams ----------------------------------------------------

// One outgoing stream. sup allocates and fills it, then links it at the
// tail of rtp_srcs (published, the last store); removal unlinks it
// (published) and frees it after a grace period. The packet state is the
// cycle's.
struct rtp_src {
    rtp_src *next;         // sup; published
    char in_mix[130];      // sup, init; configured mix list
    int mix[2];            // sup, init; mix output of channel 0 and 1
    rtp_ep ep;             // dst is null
    uint8_t rtp_pt;        // sup, init; 255: 101 mono, 96 otherwise
    uint16_t rtp_seq;      // rt; of the next packet
    int rtp_ptime_samples; // sup, init
    rt_counter tx_backoff; // rt; finished packets held back by the back-off
    int nchn;              // sup, init; 1, 2 or 3 (third channel: silence in PCM, absent in Opus)
    float gainv[2];        // sup (refreshed on reload, one word each); linear
    rtp_fmt fmt;           // sup, init; payload_format 1: Opus, anything else: L24
    uint8_t packet[RTP_SRC_PACKET_MAX]; // rt
    uint8_t *packet_data;  // rt; write position, null: no packet open
    int packet_nsamples;   // rt; sample frames in the open packet
    LimCom_Instance limcom;
    OpusEncoder *opus_enc; // sup, init; encoder state inside: rt
    float opus_inbuf[960]; // rt; interleaved, one 10 ms frame of at most 2 channels
    int opus_inbuf_avail;  // rt; floats in opus_inbuf
    int bitrate;           // sup, init; 0: encoder default
    int cbr;               // sup, init
};

// ---- configuration records (supervisor only) -----------------------------

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

// ---- mixing core ---------------------------------------------------------

inline constexpr int MIX_OUT_UNUSED = 48; // mode: no input
inline constexpr int MIX_OUT_MULTI = -1;  // mode: two or more inputs

struct mixout {
    int32_t mode;             // sup; MIX_OUT_UNUSED, MIX_OUT_MULTI or the one input
    char id[MIX_ID_LEN];      // sup; mix name, empty = free
    float stats_audio_sample; // peak: raised by rt, reset by the report (sup) -- two writers
};

// ---- the shared tables ---------------------------------------------------

// The ring: sample of input i at RTP time t is mix_inp[(t & 8191) * 48 + i].
// mix_inp (init) points at the first 32 KiB boundary inside mix_inp_storage.
// Written by the cycle only (receive path, microphone, limiter, canceller,
// gate; the mixing step clears what it consumes).
extern float mix_inp_storage[786432];
extern float *mix_inp;
// sup, one word at a time (mix_gain_set); a flow's column is zeroed before
// its endpoint closes.
extern float mix_gain[MIX_OUT_MAX][MIX_INP_MAX];
extern mixout mixouts[MIX_OUT_MAX];
// rt. 96 rows x 16 columns: rows 0..47 the last mixed block (sample k of
// output o at [k * 16 + o]); rows 48..95 scratch for a sound-card limiter's
// output.
extern float mix_out[96 * MIX_OUT_MAX];

extern rtp_dst rtp_dsts[RTP_DST_MAX]; // the flows; see rtp_dst
extern rtp_src *rtp_srcs;             // sup; list head, published; new streams at the tail
extern dlist rtp_sk_all;              // sup; every socket, newest first (links published last)
extern src srcs[SRCS_MAX];            // sup (loader); read by the stream rebuild and the report
extern int srcs_used;                 // sup (loader)
