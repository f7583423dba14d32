// Receive path: drains every socket once per wake-up, tracks sequence and
// timing per endpoint and writes decoded samples into the mix input ring
// at their playout position. Also owns the audio format record, the
// default payload map and the playout delay rule.
#pragma once
#include "daemon/records.h"
#include "rtp/rtp_sk.h"

#include <cstdint>

struct vantrel_rtpmap_entry {
    int channels;
    int bits_per_sample;
};
inline constexpr int RTPMAP_PT_FIRST = 96;
inline constexpr int RTPMAP_SIZE = 23;
extern const vantrel_rtpmap_entry rtpmap[RTPMAP_SIZE]; // PT 96..118

inline constexpr int RTP_RECV_BATCH = 256;   // datagrams per drain
inline constexpr int RTP_MTU = 1500;         // receive buffer per datagram
inline constexpr int RTP_CTRL_LEN = 128;     // control buffer per datagram
inline constexpr int RTP_HDR_LEN = 12;       // fixed RTP header
inline constexpr int RTP_OPUS_FRAMES_MAX = 5760; // 120 ms, the longest Opus packet
inline constexpr int32_t RTP_LATE_TOLERANCE = 119999; // 2.5 s of late datagrams keep the lock
inline constexpr double RTP_DOWNMIX_GAIN = 0.707946;  // -3 dB

// "L24", "Opus", "NDI" or "???".
const char *payload_format_str(int payload_format) noexcept;
// Map entry for a datagram: a 144-byte payload is mono 24-bit whatever the
// PT; PT 96..118 their own entry; anything else the entry of PT 96.
const vantrel_rtpmap_entry *vantrel_rtpmap_default_get(int rtp_payload_bytes, int pt) noexcept;
// Automatic playout delay: 144 for packets of up to 48 samples, else 1440.
int pdly_auto(int ptime_samples) noexcept;

// The wake-up's clock as the receive path sees it, in RTP time. A datagram
// taken in now arrived after the previous wake-up (whose millisecond is
// `block`) and before this one's read of the clock.
struct rtp_rx_time {
    uint32_t block; // first block this wake-up plays: earlier slots are gone
    uint32_t wake;  // this wake-up's whole millisecond, the end of its last block
};
// A punctual wake-up that plays the block starting at rtp_ts_block.
inline rtp_rx_time rtp_rx_punctual(uint32_t rtp_ts_block) noexcept
{
    return {rtp_ts_block, rtp_ts_block + uint32_t(MIX_BLOCK)};
}

// [rt] Drains every socket of rtp_sk_all that is due (rtp_sk_read_due), in
// list order. When many sockets had nothing at the last wake-up, one
// readiness check first skips the empty ones.
void rtp_recv_all(const rtp_rx_time &t) noexcept;
// [rt] Whether this wake-up reads sk. A socket whose last drain fed one
// flow, locked and not found ahead, which holds enough audio that its next
// datagram can neither look behind nor miss a block if read one wake-up
// later, waits, on every other wake-up (by the parity of its descriptor,
// so that half the sockets wait each time); never two wake-ups in a row.
// Other sockets are read at every wake-up. Notes the decision in sk.
bool rtp_sk_read_due(rtp_sk *sk, const rtp_rx_time &t) noexcept;
// [rt] Drains up to 256 datagrams of sk without blocking and hands each to
// rtp_sk_deliver. Reports "pelod: rtp_recvm" on errors other than EAGAIN.
void rtp_sk_recvm(rtp_sk *sk, const rtp_rx_time &t) noexcept;
inline void rtp_sk_recvm(rtp_sk *sk, uint32_t rtp_ts_block) noexcept { rtp_sk_recvm(sk, rtp_rx_punctual(rtp_ts_block)); }
// [rt] One datagram of l bytes, sent to dst_addr from src_addr_h (host
// order), for the endpoints of sk: the exact pass with the back-off check,
// then the wildcard endpoints for a unicast destination. What the drain
// does per datagram, callable without a socket.
void rtp_sk_deliver(rtp_sk *sk, in_addr_t dst_addr, uint32_t src_addr_h, const uint8_t *p, int l,
                    const rtp_rx_time &t) noexcept;
// [rt] One datagram of l bytes for an endpoint with a flow. Reads nothing
// outside packet[0..l-1]; datagrams shorter than the fixed 12-byte header
// and payload types 64..95 are ignored without counting.
void rtp_ep_recv_packet(rtp_ep *ep, const uint8_t *packet, int l, const rtp_rx_time &t) noexcept;
inline void rtp_ep_recv_packet(rtp_ep *ep, const uint8_t *packet, int l, uint32_t rtp_ts_block) noexcept
{
    rtp_ep_recv_packet(ep, packet, l, rtp_rx_punctual(rtp_ts_block));
}
// [rt] Back-off check of an exact-pass endpoint for a datagram from
// src_addr_h (host order): arms backoff_cnt when another sender may keep
// the group.
void rtp_ep_backoff_check(rtp_ep *ep, uint32_t src_addr_h, const uint8_t *packet, int l) noexcept;

// [rt] Sample writers into column ichan of the ring from RTP time rtp_ts,
// one slot per frame while the frame starts inside the `bytes` of x; bytes
// of a trailing partial frame past the end read as zero. Channel c of
// num_chan; nothing is written unless 0 <= c < num_chan.
// 16-bit: only the second byte of each sample is used, as the high byte.
void mix_inp_S16_n(const uint8_t *x, int bytes, uint32_t rtp_ts, int ichan, int num_chan, int c) noexcept;
void mix_inp_S24_n(const uint8_t *x, int bytes, uint32_t rtp_ts, int ichan, int num_chan, int c) noexcept;
// Stereo 24-bit frames summed and scaled by -3 dB.
void mix_inp_S24_2_downmix(const uint8_t *x, int bytes, uint32_t rtp_ts, int ichan) noexcept;
// [rt] Decodes one Opus packet with the flow's decoder into its column,
// leaving out its first `skip` frames; packets of 0 or more than 2
// channels and decoder errors write nothing.
void mix_inp_opus(const uint8_t *x, int bytes, uint32_t rtp_ts, rtp_dst *dst, int32_t skip = 0) noexcept;
