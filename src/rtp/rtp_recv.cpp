#include "rtp/rtp_recv.h"

const vantrel_rtpmap_entry rtpmap[23] = {};

const char *payload_format_str(int) noexcept { return "???"; }
const vantrel_rtpmap_entry *vantrel_rtpmap_default_get(int, int) noexcept { return &rtpmap[0]; }
int pdly_auto(int ptime_samples) noexcept { return ptime_samples <= 48 ? 144 : 1440; }
void rtp_sk_recvm(rtp_sk *, uint32_t) noexcept {}
void rtp_ep_recv_packet(rtp_ep *, const uint8_t *, int, uint32_t) noexcept {}
void rtp_ep_backoff_check(rtp_ep *, uint32_t, const uint8_t *, int) noexcept {}
void mix_inp_S16_n(const uint8_t *, int, uint32_t, int, int, int) noexcept {}
void mix_inp_S24_n(const uint8_t *, int, uint32_t, int, int, int) noexcept {}
void mix_inp_S24_2_downmix(const uint8_t *, int, uint32_t, int) noexcept {}
void mix_inp_opus(const uint8_t *, int, uint32_t, rtp_dst *) noexcept {}
