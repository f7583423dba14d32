#include "rtp/rtp_recv.h"

#include "daemon/grace.h"
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "daemon/rtlog.h"
#include "daemon/shared.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <opus.h>
#include <poll.h>
#include <sys/socket.h>
#include <type_traits>

static_assert(std::is_standard_layout_v<rtp_fmt> && std::is_trivially_copyable_v<rtp_fmt>);
static_assert(std::is_standard_layout_v<vantrel_rtpmap_entry>);

const vantrel_rtpmap_entry rtpmap[RTPMAP_SIZE] = {
    {2, 24}, {2, 24}, {2, 24}, {8, 24}, {2, 24}, {1, 24}, {2, 24}, {3, 24}, // 96..103
    {4, 24}, {5, 24}, {6, 24}, {7, 24}, {8, 24}, {2, 24}, {2, 24},          // 104..110
    {1, 16}, {2, 16}, {3, 16}, {4, 16}, {5, 16}, {6, 16}, {7, 16}, {8, 16}, // 111..118
};
static constexpr int RTPMAP_MONO_L24 = 101 - RTPMAP_PT_FIRST;
static constexpr int RTP_MONO_L24_1MS_BYTES = 144;

const char *payload_format_str(int payload_format) noexcept
{
    switch (payload_format) {
    case RTP_FMT_PCM: return "L24";
    case RTP_FMT_OPUS: return "Opus";
    case RTP_FMT_NDI: return "NDI";
    default: return "???";
    }
}

const vantrel_rtpmap_entry *vantrel_rtpmap_default_get(int rtp_payload_bytes, int pt) noexcept
{
    if (rtp_payload_bytes == RTP_MONO_L24_1MS_BYTES)
        return &rtpmap[RTPMAP_MONO_L24];
    if (unsigned(pt - RTPMAP_PT_FIRST) < unsigned(RTPMAP_SIZE))
        return &rtpmap[pt - RTPMAP_PT_FIRST];
    return &rtpmap[0];
}

int pdly_auto(int ptime_samples) noexcept { return ptime_samples <= MIX_BLOCK ? 144 : 1440; }

namespace {

uint16_t be16(const uint8_t *p) noexcept { return uint16_t(p[0] << 8 | p[1]); }
uint32_t be32(const uint8_t *p) noexcept
{
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
int32_t s24(const uint8_t *p) noexcept
{
    return int32_t(uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8) >> 8;
}

// The trailing partial frame is still played; what lies past the datagram
// reads as zero instead of whatever the buffer held.
struct tail_frame {
    std::array<uint8_t, 6> b{};
    tail_frame(const uint8_t *x, int bytes, int off, int n) noexcept
    {
        for (int j = 0; j < n && off + j < bytes; j++)
            b[j] = x[off + j];
    }
};

float s24_norm(const uint8_t *p) noexcept { return float(s24(p)) * int24_to_float; }
// The 16-bit path deliberately uses the second byte as the high byte.
float s16_norm(const uint8_t *p) noexcept { return float(int32_t(int8_t(p[1])) * 256) * int16_to_float; }
float downmix(float l, float r) noexcept { return float(double(l + r) * RTP_DOWNMIX_GAIN); }
// The two 24-bit samples are summed as floats and scaled before the -3 dB.
float downmix24(const uint8_t *p) noexcept
{
    return float(double((float(s24(p)) + float(s24(p + 3))) * int24_to_float) * RTP_DOWNMIX_GAIN);
}

template <int SampleBytes, float (*norm)(const uint8_t *)>
void mix_inp_pcm(const uint8_t *x, int bytes, uint32_t rtp_ts, int ichan, int num_chan, int c) noexcept
{
    if (num_chan < 1 || c < 0 || c >= num_chan)
        return;
    const int stride = SampleBytes * num_chan;
    const int at = SampleBytes * c;
    int off = 0;
    for (; off + stride <= bytes; off += stride)
        *mix_slot(rtp_ts++, ichan) = norm(x + off + at);
    if (off < bytes)
        *mix_slot(rtp_ts, ichan) = norm(tail_frame(x, bytes, off + at, SampleBytes).b.data());
}

// Sequence tracking. Returns the timestamp step that places this datagram,
// 0 when it only teaches sequence and timestamp or is discarded.
int32_t rtp_seq_track(rtp_ep *ep, bool marker, uint16_t seq, uint32_t ts) noexcept
{
    int32_t step;
    ep->rx_count++;
    if (marker) {
        ep->run = 0;
        ep->ptime_samples = 0;
        ep->rtp_run = 1;
        ep->rx_srst++;
        step = 0;
    } else if (!ep->rtp_run) {
        ep->rtp_run = 1;
        ep->rx_srst++;
        step = ep->ptime_samples;
    } else {
        const uint16_t d = uint16_t(seq - ep->rtp_seq0 - 1);
        if (d == 0) {
            step = int32_t(ts - ep->rtp_ts0);
            ep->rx_good++;
            ep->ptime_samples = step;
        } else if (d < 65024) {
            ep->rx_seqe++;
            ep->rx_drop += d;
            step = ep->ptime_samples;
        } else { // a repeat or one of the 511 before it: the last accepted one stays
            ep->rx_seqe++;
            ep->rx_dupl++;
            return 0;
        }
    }
    ep->rtp_seq0 = seq;
    ep->rtp_ts0 = ts;
    return step;
}

// Whether offset synt (sender - local) explains a datagram that ends at
// sender time `end`: in local time its end lies no later than this
// wake-up and no more than a window before the first block it plays.
bool rtp_lock_fits(uint32_t synt, uint32_t end, const rtp_rx_time &t, int32_t window) noexcept
{
    const uint32_t at = end - synt; // local time of the datagram's end
    return int32_t(t.wake - at) >= 0 && int32_t(t.block - at) <= window;
}

// The offset a re-lock takes. Streams with equal timestamps get one offset,
// so they stay sample-aligned whichever wake-up happened to re-lock them.
uint32_t rtp_relock_offset(const rtp_ep *ep, uint32_t ts, int32_t step, const rtp_rx_time &t,
                           int32_t window) noexcept
{
    const uint32_t end = ts + uint32_t(step);
    // A sender on our media clock: its end on the block boundary at or
    // before the time its timestamp names.
    const int32_t off = int32_t(end - t.wake) % MIX_BLOCK;
    const uint32_t grid = uint32_t(off < 0 ? off + MIX_BLOCK : off);
    if (rtp_lock_fits(grid, end, t, window))
        return grid;
    for (const rtp_dst &d : rtp_dsts) {
        const rtp_ep &o = d.ep;
        if (&o != ep && o.run && o.dst && observe(o.sk) != nullptr &&
            rtp_lock_fits(o.synt, end, t, window))
            return o.synt;
    }
    // one packet time before the end of the block that has just ended
    return ts - (t.wake - uint32_t(MIX_BLOCK) - uint32_t(step));
}

// Timing lock, for a datagram of `frames` samples (0: unknown). It arrived
// after the previous wake-up (t.block) and before this one (t.wake): it
// runs ahead only when its end lies after t.wake (on two wake-ups, or at
// once after a timestamp jump), and behind when it lies more than a window
// before t.block. A late wake-up of our own therefore never looks like a
// sender running ahead. Returns the offset sender - local.
uint32_t rtp_time_lock(rtp_ep *ep, uint32_t ts, int32_t step, int32_t frames, const rtp_rx_time &t) noexcept
{
    const int32_t window = std::max(step, int32_t(MIX_BLOCK));
    const uint32_t at = ts + uint32_t(step) - ep->synt;
    if (!ep->run) {
        // the first datagram after a start or a marker: re-lock below
    } else if (int32_t(t.wake - at) < 0) {
        if (frames > 0 && frames < step) {
            // Ahead by a timestamp jump forward (the step longer than the
            // audio the datagram holds): the sender's timestamps moved, not
            // its clock. Re-lock at once, its audio going on where it was.
            ep->synt += uint32_t(step - frames);
            ep->ahead = 0;
            ep->buf_full_ts = t.block;
            ep->rx_reset++;
            return ep->synt;
        }
        // Ahead. A stall of our own between the clock read and this drain
        // lets datagrams in that are newer than t.wake, so it takes a second
        // wake-up that finds the stream ahead; until then the datagram
        // plays at its timestamp, later than needed but whole.
        if (ep->ahead && ep->ahead_wake != t.wake) {
            ep->run = 0; // re-lock
        } else {
            ep->ahead = 1;
            ep->ahead_wake = t.wake;
        }
    } else if (int32_t(t.block - at) <= window) {
        ep->buf_full_ts = t.block;
        ep->ahead = 0;
    } else if (t.block - ep->buf_full_ts > uint32_t(RTP_LATE_TOLERANCE)) {
        ep->run = 0; // behind for 2.5 s
    }
    if (!ep->run) {
        ep->ahead = 0;
        ep->synt = rtp_relock_offset(ep, ts, step, t, window);
        ep->buf_full_ts = t.block;
        ep->rx_reset++;
    }
    return ep->synt;
}

void rtp_write_pcm(rtp_dst *dst, const uint8_t *x, int bytes, uint32_t pos, int channels, int bits) noexcept
{
    int c = dst->channel_mode;
    if (c < 0 && channels == 2 && bits != 16) {
        mix_inp_S24_2_downmix(x, bytes, pos, dst->index);
        return;
    }
    if (c < 0)
        c = 0;
    if (bits == 16)
        mix_inp_S16_n(x, bytes, pos, dst->index, channels, c);
    else
        mix_inp_S24_n(x, bytes, pos, dst->index, channels, c);
}

in_addr_t rtp_pktinfo_dst(const msghdr *h) noexcept
{
    in_addr_t d = INADDR_NONE;
    if (h->msg_controllen < 12)
        return d;
    for (cmsghdr *c = CMSG_FIRSTHDR(h); c; c = CMSG_NXTHDR(const_cast<msghdr *>(h), c)) {
        if (c->cmsg_level != IPPROTO_IP || c->cmsg_type != IP_PKTINFO ||
            c->cmsg_len < CMSG_LEN(sizeof(in_pktinfo)))
            continue;
        in_pktinfo pi;
        memcpy(&pi, CMSG_DATA(c), sizeof pi);
        d = pi.ipi_addr.s_addr; // the last one wins
    }
    return d;
}

} // namespace

void mix_inp_S16_n(const uint8_t *x, int bytes, uint32_t rtp_ts, int ichan, int num_chan, int c) noexcept
{
    mix_inp_pcm<2, s16_norm>(x, bytes, rtp_ts, ichan, num_chan, c);
}

void mix_inp_S24_n(const uint8_t *x, int bytes, uint32_t rtp_ts, int ichan, int num_chan, int c) noexcept
{
    mix_inp_pcm<3, s24_norm>(x, bytes, rtp_ts, ichan, num_chan, c);
}

void mix_inp_S24_2_downmix(const uint8_t *x, int bytes, uint32_t rtp_ts, int ichan) noexcept
{
    int off = 0;
    for (; off + 6 <= bytes; off += 6)
        *mix_slot(rtp_ts++, ichan) = downmix24(x + off);
    if (off < bytes)
        *mix_slot(rtp_ts, ichan) = downmix24(tail_frame(x, bytes, off, 6).b.data());
}

void mix_inp_opus(const uint8_t *x, int bytes, uint32_t rtp_ts, rtp_dst *dst, int32_t skip) noexcept
{
    if (bytes < 1 || !dst->opus_dec)
        return;
    const int n_ch = opus_packet_get_nb_channels(x);
    if (n_ch != 1 && n_ch != 2)
        return;
    std::array<float, 2 * RTP_OPUS_FRAMES_MAX> pcm;
    const int n = opus_decode_float(dst->opus_dec, x, bytes, pcm.data(), RTP_OPUS_FRAMES_MAX, 0);
    if (n < 0)
        return;
    // the decoder was made with 1 channel for a mono flow, else 2
    const int dec_ch = dst->fmt.nchan == 1 ? 1 : 2;
    const int i = dst->index;
    skip = std::clamp(skip, 0, n);
    if (n_ch == 2 && dst->channel_mode < 0 && dec_ch == 2) {
        for (int k = skip; k < n; k++)
            *mix_slot(rtp_ts + uint32_t(k), i) =
                downmix(sample_bound(pcm[2 * k]), sample_bound(pcm[2 * k + 1]));
        return;
    }
    const int stride = dst->fmt.nchan;
    if (stride < 1)
        return;
    const int end = dec_ch * n; // never past what the decoder wrote
    rtp_ts += uint32_t(skip);
    for (int k = std::max(dst->channel_mode, 0) + stride * skip; k < end; k += stride)
        *mix_slot(rtp_ts++, i) = sample_bound(pcm[k]); // garbage decodes far beyond full scale
}

void rtp_ep_backoff_check(rtp_ep *ep, uint32_t src_addr_h, const uint8_t *packet, int l) noexcept
{
    // our own streams' looped-back datagrams (our address, our SSRC) never
    // arm or re-arm a back-off: a second stream to a group we already send
    // to would otherwise never start
    if (src_addr_h == ep->if_addr_h && l >= RTP_HDR_LEN && be32(packet + 8) == pelod_ssrc)
        return;
    if (ep->backoff_cnt != 0) {
        ep->backoff_cnt = RTP_BACKOFF_ARMED; // any other datagram on the group re-arms
        return;
    }
    if (src_addr_h > ep->if_addr_h)
        return;
    if (src_addr_h == ep->if_addr_h) {
        // same address: the lower SSRC keeps the group; our own loop-back
        // (same SSRC) never makes us back off
        if (l <= 31 || be32(packet + 8) >= pelod_ssrc)
            return;
    }
    ep->backoff_cnt = RTP_BACKOFF_ARMED;
}

// One datagram for a flow endpoint of sk; notes whether the drain feeds
// one endpoint only.
static void rtp_sk_feed(rtp_sk *sk, rtp_ep *ep, const uint8_t *p, int l, const rtp_rx_time &t) noexcept
{
    rtp_ep_recv_packet(ep, p, l, t);
    if (!sk->rx_one)
        sk->rx_one = ep;
    else if (sk->rx_one != ep)
        sk->rx_mixed = 1;
}

void rtp_sk_deliver(rtp_sk *sk, in_addr_t dst_addr, uint32_t src_addr_h, const uint8_t *p, int l,
                    const rtp_rx_time &t) noexcept
{
    dlist *b = rtp_sk_ep_list(sk, dst_addr);
    for (dlist *e = observe(b->next); e != b; e = observe(e->next)) {
        rtp_ep *ep = dlist_entry(e, rtp_ep, rtp_sk_ep_list);
        if (ep->sa_dst.sin_addr.s_addr != dst_addr)
            continue;
        if (ep->dst)
            rtp_sk_feed(sk, ep, p, l, t);
        rtp_ep_backoff_check(ep, src_addr_h, p, l);
    }
    if (in_addr_is_mcast(dst_addr))
        return;
    b = rtp_sk_ep_list(sk, INADDR_ANY);
    for (dlist *e = observe(b->next); e != b; e = observe(e->next)) {
        rtp_ep *ep = dlist_entry(e, rtp_ep, rtp_sk_ep_list);
        if (ep->sa_dst.sin_addr.s_addr == INADDR_ANY && ep->dst)
            rtp_sk_feed(sk, ep, p, l, t);
    }
}

bool rtp_sk_read_due(rtp_sk *sk, const rtp_rx_time &t) noexcept
{
    const rtp_ep *ep = sk->rx_one;
    // half the sockets may wait on even wake-ups, half on odd ones, so the
    // reads are spread evenly over the wake-ups
    const bool turn = ((t.wake / MIX_BLOCK + uint32_t(sk->fd)) & 1) != 0;
    if (turn && !sk->rx_waited && ep && !sk->rx_mixed && ep->run && !ep->ahead &&
        int32_t(ep->rx_wait_until - t.wake) >= 0) {
        sk->rx_waited = 1;
        return false;
    }
    sk->rx_waited = 0;
    sk->rx_one = nullptr;
    sk->rx_mixed = 0;
    return true;
}

void rtp_ep_recv_packet(rtp_ep *ep, const uint8_t *packet, int l, const rtp_rx_time &t) noexcept
{
    if (l < RTP_HDR_LEN) { // counted, nothing past the datagram is read
        ep->rx_count++;
        return;
    }
    rtp_dst *dst = ep->dst;
    const int cc = packet[0] & 0x0F;
    const bool ext = packet[0] & 0x10;
    const bool marker = packet[1] & 0x80;
    const int pt = packet[1] & 0x7F;
    const uint16_t seq = be16(packet + 2);
    const uint32_t ts = be32(packet + 4);
    int hlen = RTP_HDR_LEN + 4 * cc;
    if (ext) // an extension whose length word is itself cut off leaves no payload
        hlen = hlen + 4 <= l ? hlen + 4 + 4 * be16(packet + hlen + 2) : l + 1;
    const int plen = l - hlen;

    if (pt >= 64 && pt <= 95) // RTCP and reserved types
        return;
    int channels = dst->fmt.nchan;
    int bits = dst->fmt.bps;
    if (channels == 0) {
        const vantrel_rtpmap_entry *e = vantrel_rtpmap_default_get(plen, pt);
        channels = e->channels;
        bits = e->bits_per_sample;
    }
    const int32_t step = rtp_seq_track(ep, marker, seq, ts);
    if (step == 0)
        return;
    const int frame_bytes = channels * (bits == 16 ? 2 : 3); // PCM
    int32_t frames = 0; // the audio the datagram holds
    if (dst->fmt.payload_format == RTP_FMT_OPUS) {
        if (plen > 0)
            frames = opus_packet_get_nb_samples(packet + hlen, plen, 48000);
    } else if (channels > 0) {
        frames = (std::max(plen, 0) + frame_bytes - 1) / frame_bytes;
    }
    // the packet time, not a timestamp jump, chooses the automatic delay
    const int32_t ptime = frames > 0 && frames < step ? frames : step;
    const uint32_t pdly =
        dst->pdly >= 1 ? dst->pdly : uint32_t(std::max(pdly_auto(ptime), int(pdly_samples_min)));
    const uint32_t synt = rtp_time_lock(ep, ts, step, frames, t);
    const uint32_t pos = ts - synt + pdly;
    // The next datagram's read may wait for a later wake-up as long as it
    // would neither look behind there (that wake-up's first block is this
    // one's end) nor miss a block played meanwhile.
    const int32_t window = std::max(step, int32_t(MIX_BLOCK));
    ep->rx_wait_until = ts + uint32_t(step) - synt + std::min(uint32_t(std::max(step, 0)) + uint32_t(window), pdly);
    if (pos - t.block > uint32_t(MIX_RING_MASK + 1))
        ep->rx_late++;
    // Only slots from the first block this wake-up plays to a ring's turn
    // later are written: an earlier slot was played already and a later one
    // is still to be played, so either would come out a turn of the ring off.
    const int32_t from = int32_t(pos - t.block);
    int32_t skip = from < 0 ? int32_t(std::min(t.block - pos, uint32_t(INT32_MAX))) : 0;
    if (from > int32_t(MIX_RING_MASK + 1) - std::max(frames, 0))
        skip = INT32_MAX;

    if (plen > 0) {
        const uint8_t *payload = packet + hlen;
        if (dst->fmt.payload_format == RTP_FMT_OPUS) {
            mix_inp_opus(payload, plen, pos, dst, skip); // decoded all the same: the decoder keeps its state
        } else if (skip < frames) {
            const int b = frame_bytes * skip;
            rtp_write_pcm(dst, payload + b, plen - b, pos + uint32_t(skip), channels, bits);
        }
    }
    const float level = *mix_slot(pos, dst->index);
    dst->vox_sample = level;
    if (level > dst->stats_audio_sample)
        dst->stats_audio_sample = level;
    ep->run = 1;
}

namespace {

// The receive batch, prepared once: a drain restores only the headers of
// the datagrams it took in, instead of 256 of them per socket and wake-up.
// Only the real-time context drains sockets, one at a time.
struct rx_batch {
    std::array<std::array<uint8_t, RTP_MTU>, RTP_RECV_BATCH> bufs;
    alignas(cmsghdr) std::array<std::array<uint8_t, RTP_CTRL_LEN>, RTP_RECV_BATCH> ctrl;
    std::array<sockaddr_in, RTP_RECV_BATCH> names;
    std::array<iovec, RTP_RECV_BATCH> iov;
    std::array<mmsghdr, RTP_RECV_BATCH> msgs;
    bool ready;

    void reset(int j) noexcept
    {
        msghdr &h = msgs[j].msg_hdr;
        h.msg_namelen = sizeof names[j];
        h.msg_controllen = RTP_CTRL_LEN;
        h.msg_flags = 0;
        msgs[j].msg_len = 0;
    }
    void prepare() noexcept
    {
        memset(msgs.data(), 0, sizeof msgs);
        for (int j = 0; j < RTP_RECV_BATCH; j++) {
            iov[j] = {bufs[j].data(), RTP_MTU};
            msghdr &h = msgs[j].msg_hdr;
            h.msg_name = &names[j];
            h.msg_iov = &iov[j];
            h.msg_iovlen = 1;
            h.msg_control = ctrl[j].data();
            reset(j);
        }
        ready = true;
    }
};
rx_batch rx;

// Sockets that had nothing queued at the last wake-up: with many of them a
// readiness check first saves a system call per empty socket.
unsigned rx_idle_sockets;
constexpr int RX_POLL_MAX = 128;

} // namespace

// Returns the datagrams taken in, -1 on an error.
static int rtp_sk_drain(rtp_sk *sk, const rtp_rx_time &t) noexcept
{
    rt_context_check("rtp_sk_drain");
    if (!rx.ready)
        rx.prepare();
    const int n = recvmmsg(sk->fd, rx.msgs.data(), RTP_RECV_BATCH, MSG_DONTWAIT, nullptr);
    if (n < 0) {
        static unsigned failures; // a lasting error would otherwise repeat every millisecond
        const int err = errno;
        if (err == EAGAIN)
            return 0;
        rt_perror("pelod: rtp_recvm", err, &failures, 1000);
        return -1;
    }
    for (int j = 0; j < n; j++) {
        const msghdr &h = rx.msgs[j].msg_hdr;
        const uint32_t src_h = h.msg_namelen >= sizeof(sockaddr_in) ? ntohl(rx.names[j].sin_addr.s_addr) : 0;
        rtp_sk_deliver(sk, rtp_pktinfo_dst(&h), src_h, rx.bufs[j].data(), int(rx.msgs[j].msg_len), t);
        rx.reset(j);
    }
    return n;
}

void rtp_sk_recvm(rtp_sk *sk, const rtp_rx_time &t) noexcept { rtp_sk_drain(sk, t); }

void rtp_recv_all(const rtp_rx_time &t) noexcept
{
    std::array<pollfd, RX_POLL_MAX> fds;
    std::array<rtp_sk *, RX_POLL_MAX> sks;
    int n = 0;
    dlist *l = observe(rtp_sk_all.next);
    for (; l != &rtp_sk_all && n < RX_POLL_MAX; l = observe(l->next)) {
        rtp_sk *sk = dlist_entry(l, rtp_sk, all);
        if (!rtp_sk_read_due(sk, t))
            continue;
        sks[n] = sk;
        fds[n] = {sk->fd, POLLIN, 0};
        n++;
    }
    const bool all_listed = l == &rtp_sk_all;
    const bool check = all_listed && n > 1 && rx_idle_sockets * 4 >= unsigned(n);
    if (check && poll(fds.data(), nfds_t(n), 0) < 0)
        return; // cannot fail with these arguments but for a signal; the next wake-up drains
    unsigned idle = 0;
    for (int j = 0; j < n; j++) {
        if (check && !fds[j].revents) {
            idle++;
            continue;
        }
        idle += rtp_sk_drain(sks[j], t) == 0;
    }
    for (; l != &rtp_sk_all; l = observe(l->next)) { // more sockets than one check holds: the rest in list order
        rtp_sk *sk = dlist_entry(l, rtp_sk, all);
        if (rtp_sk_read_due(sk, t))
            rtp_sk_drain(sk, t);
    }
    rx_idle_sockets = idle;
}
