// Receive path: drains every socket once per wake-up, tracks sequence and
// timing per endpoint and writes decoded samples into the mix input ring
// at their playout position.
#pragma once
#include "rtp/rtp_sk.h"

#include <cstdint>

struct rtp_fmt {
    int payload_format; // 0 PCM ("L24"), 1 Opus, 2 NDI (received as PCM)
    int bps;            // 16 or 24
    int samplerate;     // 48000
    int nchan;          // 0: decided per datagram by the default map
};

struct vantrel_rtpmap_entry {
    int channels;
    int bits_per_sample;
};
extern const vantrel_rtpmap_entry rtpmap[23]; // PT 96..118

inline constexpr int RTP_RECV_BATCH = 256;
inline constexpr int RTP_MTU = 1500;

// "L24", "Opus", "NDI" or "???".
const char *payload_format_str(int payload_format) noexcept;
// Map entry for a datagram: 144-byte payloads are mono L24 whatever the PT.
const vantrel_rtpmap_entry *vantrel_rtpmap_default_get(int rtp_payload_bytes, int pt) noexcept;
// Automatic playout delay: 144 for packets of up to 48 samples, else 1440.
int pdly_auto(int ptime_samples) noexcept;

// [rt] Drains up to 256 datagrams of sk and hands each to its endpoints.
void rtp_sk_recvm(rtp_sk *sk, uint32_t rtp_ts_local) noexcept;
// [rt] One datagram for one endpoint with a flow.
void rtp_ep_recv_packet(rtp_ep *ep, const uint8_t *packet, int l, uint32_t rtp_ts_local) noexcept;
// [rt] Back-off check of an exact-pass endpoint for a datagram from src_addr_h.
void rtp_ep_backoff_check(rtp_ep *ep, uint32_t src_addr_h, const uint8_t *packet, int l) noexcept;

// [rt] Sample writers into column ichan of the ring from RTP time rtp_ts.
void mix_inp_S16_n(const uint8_t *x, int bytes, uint32_t rtp_ts, int ichan, int num_chan, int c) noexcept;
void mix_inp_S24_n(const uint8_t *x, int bytes, uint32_t rtp_ts, int ichan, int num_chan, int c) noexcept;
void mix_inp_S24_2_downmix(const uint8_t *x, int bytes, uint32_t rtp_ts, int ichan) noexcept;
void mix_inp_opus(const uint8_t *x, int bytes, uint32_t rtp_ts, rtp_dst *dst) noexcept;
