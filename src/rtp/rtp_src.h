// Outgoing streams: one or two mix outputs sent as RTP (24-bit PCM or
// Opus), rebuilt by difference from the configured sources on every load.
#pragma once
#include "audio/CG_LimCom_interface.h"
#include "daemon/records.h"
#include "rtp/rtp_recv.h"
#include "rtp/rtp_sk.h"

#include <cstdint>

inline constexpr int RTP_SRC_FILL_LIMIT = 1452; // a packet this full is finished
inline constexpr int RTP_SRC_OPUS_FRAME = 480;  // samples per Opus frame (10 ms)
inline constexpr int RTP_SRC_OPUS_MAX_BYTES = 1440;
inline constexpr uint8_t RTP_PT_UNSET = 255;    // configured "pt" absent
inline constexpr uint8_t RTP_PT_MONO = 101;     // default for one channel
inline constexpr uint8_t RTP_PT_MULTI = 96;     // default otherwise
inline constexpr char RTP_SRC_MIX_SEP[] = ":,; "; // between the names of a mix list
inline constexpr double RTP_SRC_MONO_PAIR = 0.707946; // -3 dB: mono on two channels, applied in double

extern uint32_t opus_enc_rtp_ts; // cycle that last began an Opus frame

// [sup] Brings rtp_srcs in line with srcs[0..srcs_used-1]: keeps streams
// whose identity is unchanged (re-binding them when only the bind address
// moved, refreshing their gains), removes the others and creates the new
// ones. New streams are linked at the tail, fully prepared, as the last
// store; removed ones are unlinked and closed, and freed after a grace
// period. Prints "+ src  %s out of output channels" for a mix list that
// gets no mix output (that source gets no stream, its endpoint is closed
// again) and "pelod_update_rtp_sources ENOMEM" when a record cannot be
// allocated (the update stops there).
void pelod_update_rtp_sources();
// [sup] 0 when stream s has the identity of configured source p: limiter
// parameters, bit rate, CBR flag, payload type, destination address, mix
// list, format and packet time. Bind address, SSM source and gains are not
// part of it.
int rtp_src_cmp(const rtp_src *s, const src *p);
// [sup] Creates s's Opus encoder for its channel count (1, else 2),
// complexity 2, CBR when s->cbr, s->bitrate when non-zero. Returns 0, or -1
// after reporting "pelod: opus_encoder_create".
int rtp_src_encoder_create(rtp_src *s);
// [sup] Destroys s's encoder and frees s; s must be unlinked and the cycle
// past a boundary since (grace_wait).
void rtp_src_destroy(rtp_src *s);
// [rt] One cycle of one stream: appends this cycle's 48 samples of its mix
// outputs (or its limiter's output) to the open packet and sends the packet
// once it holds the packet time, unless the multicast back-off holds it
// back. Never allocates or blocks (sends are non-blocking; a failed or short
// send counts ep.tx_err).
void rtp_send(rtp_src *s, uint32_t rtp_ts) noexcept;
// [sup] Channels a mix list gives: 1 for one name, 2 for two, 3 when a
// separator follows the second name.
int rtp_src_mix_channels(const char *mix_list);
// [rt] Payload type sent: the configured one, else 101 for one channel
// and 96 otherwise.
uint8_t rtp_src_pt(uint8_t configured, int nchn) noexcept;
// [rt] Whether an open packet of nsamples frames and `bytes` bytes
// (header included) is finished: it holds the packet time, reached the
// fill limit, or the next PCM block would not fit.
bool rtp_src_packet_done(int payload_format, int nchn, int ptime_samples, int nsamples, int bytes) noexcept;
// [sup] Sample frames in every packet such a stream sends (Opus: frames
// assumed opus_frame_bytes long).
int rtp_src_packet_samples(int payload_format, int nchn, int ptime_samples, int opus_frame_bytes);
// [sup] Debug line of a stream ("+"/"-" mark); p may be null.
void debug_print_src(int change_mark, const rtp_src *s, const src *p);
