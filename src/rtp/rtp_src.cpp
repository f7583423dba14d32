#include "rtp/rtp_src.h"

#include "audio/CG_LimCom_interface.h"
#include "daemon/grace.h"
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "daemon/shared.h"
#include "rtp/rtp_recv.h"
#include "rtp/rtp_sk.h"

#include <arpa/inet.h>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <opus/opus.h>
#include <sys/socket.h>
#include <type_traits>

static_assert(std::is_standard_layout_v<rtp_src> && std::is_trivially_copyable_v<rtp_src>);
static_assert(RTP_HDR_LEN + RTP_SRC_OPUS_MAX_BYTES == RTP_SRC_FILL_LIMIT);

uint32_t opus_enc_rtp_ts;

int rtp_src_cmp(const rtp_src *s, const src *p)
{
    const bool same = limcom_params_equal(s->limcom.current_params, p->limcom_params) &&
                      s->bitrate == p->bitrate && s->cbr == p->cbr && s->rtp_pt == p->rtp_pt &&
                      memcmp(&s->ep.sa_dst, &p->ep.sa_dst, sizeof s->ep.sa_dst) == 0 &&
                      strncmp(s->in_mix, p->mix, sizeof s->in_mix) == 0 &&
                      memcmp(&s->fmt, &p->fmt, sizeof s->fmt) == 0 &&
                      s->rtp_ptime_samples == p->rtp_ptime_samples;
    return same ? 0 : 1;
}

static int encoder_channels(const rtp_src *s) { return s->nchn == 1 ? 1 : 2; }

int rtp_src_encoder_create(rtp_src *s)
{
    int err = OPUS_OK;
    s->opus_enc = opus_encoder_create(PELOD_RATE, encoder_channels(s), OPUS_APPLICATION_VOIP, &err);
    if (!s->opus_enc) {
        fprintf(stderr, "pelod: opus_encoder_create: %s\n", opus_strerror(err));
        return -1;
    }
    opus_encoder_ctl(s->opus_enc, OPUS_SET_COMPLEXITY(2));
    if (s->cbr)
        opus_encoder_ctl(s->opus_enc, OPUS_SET_VBR(0));
    if (s->bitrate != 0)
        opus_encoder_ctl(s->opus_enc, OPUS_SET_BITRATE(s->bitrate));
    return 0;
}

void rtp_src_destroy(rtp_src *s)
{
    if (s->opus_enc)
        opus_encoder_destroy(s->opus_enc);
    free(s);
}

// Streams unlinked by the removal pass, freed together after one grace
// period. Their `next` links stay as they were, so a cycle that is still
// on one of them walks on into the live list.
struct src_graveyard {
    std::array<rtp_src *, SRCS_MAX> s;
    int n;
};

static void graveyard_flush(src_graveyard *g)
{
    if (g->n == 0)
        return;
    grace_wait();
    for (int i = 0; i < g->n; i++)
        rtp_src_destroy(g->s[i]);
    g->n = 0;
}

// Removal pass: streams whose identity no configured source has are
// unlinked and closed; a stream whose bind address alone changed is
// re-bound and keeps running.
static int remove_stale_sources(src_graveyard *g)
{
    int removed = 0;
    rtp_src **link = &rtp_srcs;
    while (rtp_src *s = *link) {
        const src *p = nullptr;
        for (int i = 0; i < srcs_used && i < SRCS_MAX && !p; i++)
            if (rtp_src_cmp(s, &srcs[i]) == 0)
                p = &srcs[i];
        if (p) {
            // a new bind address or multicast source is applied by re-opening
            if (memcmp(&s->ep.sa_bind, &p->ep.sa_bind, sizeof s->ep.sa_bind) != 0 ||
                s->ep.ssm_src != p->ep.ssm_src) {
                rtp_ep_close(&s->ep);
                rtp_ep_open(&s->ep, &p->ep, nullptr);
            }
            link = &s->next;
            continue;
        }
        if (debug)
            debug_print_src('-', s, nullptr);
        publish(*link, s->next); // the cycle no longer reaches s
        rtp_ep_close(&s->ep);
        if (g->n == int(g->s.size()))
            graveyard_flush(g);
        g->s[size_t(g->n++)] = s;
        removed++;
    }
    return removed;
}

int rtp_src_mix_channels(const char *mix_list)
{
    const char *t = mix_list;
    for (int k = 0; k < 2; k++) {
        const size_t n = strcspn(t, RTP_SRC_MIX_SEP);
        if (t[n] == '\0')
            return k + 1;
        t += n + 1;
    }
    return 3;
}

// Mix list rule: one name gives one channel, two names two, and a
// separator after the second name three. -1 when a name gets no output.
static int resolve_mix_list(rtp_src *s, const src *p)
{
    const char *t = s->in_mix;
    for (int k = 0; k < 2; k++) {
        char name[sizeof s->in_mix];
        const size_t n = strcspn(t, RTP_SRC_MIX_SEP);
        memcpy(name, t, n);
        name[n] = '\0';
        s->mix[k] = n == 0 ? -1 : mix_ref(name);
        s->gainv[k] = gain_lin(p->gainv_dB[k]);
        if (s->mix[k] < 0 || s->mix[k] >= MIX_OUT_MAX)
            return -1;
        if (t[n] == '\0') {
            s->nchn = k + 1;
            return 0;
        }
        t += n + 1;
    }
    s->nchn = 3;
    return 0;
}

// Creation of one stream; null when the source is refused or memory is out
// (*nomem set).
static rtp_src *create_source(const src *p, bool *nomem)
{
    rtp_src *s = static_cast<rtp_src *>(calloc(1, sizeof(rtp_src)));
    if (!s) {
        printf("pelod_update_rtp_sources ENOMEM");
        *nomem = true;
        return nullptr;
    }
    rtp_ep_open(&s->ep, &p->ep, nullptr);
    s->fmt = p->fmt;
    snprintf(s->in_mix, sizeof s->in_mix, "%.*s", int(sizeof p->mix) - 1, p->mix);
    if (resolve_mix_list(s, p) < 0) {
        printf("+ src  %s out of output channels\n", s->in_mix);
        // s was never linked: the endpoint can go at once
        rtp_ep_close(&s->ep);
        free(s);
        return nullptr;
    }
    s->rtp_pt = p->rtp_pt;
    s->rtp_ptime_samples = p->rtp_ptime_samples;
    CG_limcom_init_instance(&s->limcom, &p->limcom_params, s->nchn == 1 ? 1 : 2);
    s->bitrate = p->bitrate;
    s->cbr = p->cbr;
    if (s->fmt.payload_format == 1 && rtp_src_encoder_create(s) < 0) {
        rtp_ep_close(&s->ep);
        free(s);
        return nullptr;
    }
    return s;
}

void pelod_update_rtp_sources()
{
    src_graveyard gone{};
    if (remove_stale_sources(&gone) > 0)
        mixs_prune();
    graveyard_flush(&gone);

    for (int i = 0; i < srcs_used && i < SRCS_MAX; i++) {
        const src *p = &srcs[i];
        rtp_src **tail = &rtp_srcs;
        rtp_src *s = nullptr;
        for (; *tail; tail = &(*tail)->next)
            if (!s && rtp_src_cmp(*tail, p) == 0)
                s = *tail;
        if (s) {
            if (s->nchn > 0)
                s->gainv[0] = gain_lin(p->gainv_dB[0]);
            if (s->nchn != 1)
                s->gainv[1] = gain_lin(p->gainv_dB[1]);
            continue;
        }
        bool nomem = false;
        s = create_source(p, &nomem);
        if (nomem)
            return;
        if (!s)
            continue;
        publish(*tail, s); // last: the cycle sends s from its next block on
        if (debug)
            debug_print_src('+', s, p);
    }
}

// ---- send path ----

static void put_be16(uint8_t *b, uint16_t v) noexcept
{
    b[0] = uint8_t(v >> 8);
    b[1] = uint8_t(v);
}

static void put_be32(uint8_t *b, uint32_t v) noexcept
{
    b[0] = uint8_t(v >> 24);
    b[1] = uint8_t(v >> 16);
    b[2] = uint8_t(v >> 8);
    b[3] = uint8_t(v);
}

uint8_t rtp_src_pt(uint8_t configured, int nchn) noexcept
{
    if (configured != RTP_PT_UNSET)
        return configured;
    return nchn == 1 ? RTP_PT_MONO : RTP_PT_MULTI;
}

static void open_packet(rtp_src *s, uint32_t rtp_ts) noexcept
{
    uint8_t *h = s->packet;
    h[0] = 0x80;
    h[1] = rtp_src_pt(s->rtp_pt, s->nchn) & 0x7F; // never the marker bit
    put_be16(h + 2, s->rtp_seq);
    put_be32(h + 4, rtp_ts);
    put_be32(h + 8, pelod_ssrc);
    s->packet_data = h + RTP_HDR_LEN;
    s->packet_nsamples = 0;
}

// Channel j of this block: the limiter's output when it runs, else the
// mix output of the previous block. A channel without a valid mix output
// (the third one) reads null and is sent as silence.
static const float *channel_src(const rtp_src *s, int j, int *stride) noexcept
{
    if (j < 2 && CG_limcom_is_enabled(&s->limcom) && (j == 0 || s->limcom.nchan == 2)) {
        *stride = 1;
        return s->limcom.outputBuffer + j * MIX_BLOCK;
    }
    *stride = MIX_OUT_MAX;
    if (j < 2 && s->mix[j] >= 0 && s->mix[j] < MIX_OUT_MAX)
        return mix_out + s->mix[j];
    return nullptr;
}

static void put_l24(uint8_t *b, int32_t v) noexcept
{
    // bits 23..0: a value beyond full scale wraps, as on the wire
    b[0] = uint8_t(uint32_t(v) >> 16);
    b[1] = uint8_t(uint32_t(v) >> 8);
    b[2] = uint8_t(v);
}

static void append_pcm(rtp_src *s) noexcept
{
    const int nchn = s->nchn;
    uint8_t *out = s->packet_data;
    if (nchn == 2 && s->mix[0] == s->mix[1] && s->gainv[0] == s->gainv[1]) {
        int stride;
        const float *x = channel_src(s, 0, &stride);
        const float scale = float(double(s->gainv[0]) * RTP_SRC_MONO_PAIR) * float_to_int24;
        for (int k = 0; k < MIX_BLOCK; k++, out += 6) {
            const int32_t v = x ? f2int32_sat(scale * x[k * stride]) : 0;
            put_l24(out, v);
            put_l24(out + 3, v);
        }
    } else {
        for (int j = 0; j < nchn; j++) {
            int stride;
            const float *x = channel_src(s, j, &stride);
            const float scale = (j < 2 ? s->gainv[j] : 0.0f) * float_to_int24;
            uint8_t *o = out + 3 * j;
            for (int k = 0; k < MIX_BLOCK; k++, o += 3 * nchn)
                put_l24(o, x ? f2int32_sat(scale * x[k * stride]) : 0);
        }
    }
    s->packet_data += MIX_BLOCK * 3 * nchn;
    s->packet_nsamples += MIX_BLOCK;
}

// At most one stream begins a 10 ms frame per cycle, so the encoder calls
// of different streams fall into different cycles.
static void append_opus(rtp_src *s, uint32_t rtp_ts) noexcept
{
    if (s->opus_inbuf_avail == 0) {
        if (rtp_ts == opus_enc_rtp_ts)
            return;
        opus_enc_rtp_ts = rtp_ts;
    }
    const int ech = encoder_channels(s);
    for (int j = 0; j < ech; j++) {
        int stride;
        const float *x = channel_src(s, j, &stride);
        const float g = s->gainv[j];
        float *o = s->opus_inbuf + s->opus_inbuf_avail + j;
        for (int k = 0; k < MIX_BLOCK; k++, o += ech)
            *o = x ? x[k * stride] * g : 0.0f;
    }
    s->opus_inbuf_avail += MIX_BLOCK * ech;
    if (s->opus_inbuf_avail < RTP_SRC_OPUS_FRAME * ech)
        return;
    // a packet of several frames must stay inside the buffer
    const int room = int(s->packet + RTP_SRC_PACKET_MAX - s->packet_data);
    const int max_bytes = room < RTP_SRC_OPUS_MAX_BYTES ? room : RTP_SRC_OPUS_MAX_BYTES;
    const int n = s->opus_enc ? opus_encode_float(s->opus_enc, s->opus_inbuf, RTP_SRC_OPUS_FRAME,
                                                  s->packet_data, max_bytes)
                              : 0;
    if (n > 2) {
        s->packet_data += n;
        s->packet_nsamples += RTP_SRC_OPUS_FRAME;
    }
    s->opus_inbuf_avail = 0;
}

bool rtp_src_packet_done(int payload_format, int nchn, int ptime_samples, int nsamples, int bytes) noexcept
{
    if (nsamples >= ptime_samples || bytes >= RTP_SRC_FILL_LIMIT)
        return true;
    // three PCM channels fill the buffer before the limit: finish early
    const int next = payload_format == 1 ? 0 : MIX_BLOCK * 3 * nchn;
    return bytes + next > RTP_SRC_PACKET_MAX;
}

int rtp_src_packet_samples(int payload_format, int nchn, int ptime_samples, int opus_frame_bytes)
{
    const bool opus = payload_format == 1;
    const int step = opus ? RTP_SRC_OPUS_FRAME : MIX_BLOCK;
    const int bytes_per_step = opus ? opus_frame_bytes : MIX_BLOCK * 3 * nchn;
    int n = step, bytes = RTP_HDR_LEN + bytes_per_step;
    for (; !rtp_src_packet_done(payload_format, nchn, ptime_samples, n, bytes); n += step)
        bytes += bytes_per_step;
    return n;
}

static void send_packet(rtp_src *s) noexcept
{
    rtp_ep &ep = s->ep;
    rtp_sk *sk = observe(ep.sk);
    if (!sk || ep.sa_dst.sin_family != AF_INET || ep.sa_bind.sin_addr.s_addr == INADDR_NONE)
        return;
    if (ep.backoff_cnt != 0) {
        ep.backoff_cnt = ep.backoff_cnt == RTP_BACKOFF_ARMED ? load_level : ep.backoff_cnt - 1;
        s->tx_backoff++;
        return;
    }
    if (sk->fd == -1)
        return;
    const ssize_t len = s->packet_data - s->packet;
    const ssize_t r = sendto(sk->fd, s->packet, size_t(len), MSG_DONTWAIT,
                             reinterpret_cast<const sockaddr *>(&ep.sa_dst), sizeof ep.sa_dst);
    if (r == len)
        ep.tx_pkts++;
    else
        ep.tx_err++;
}

void rtp_send(rtp_src *s, uint32_t rtp_ts) noexcept
{
    if (!s->packet_data)
        open_packet(s, rtp_ts);
    if (s->fmt.payload_format == 1)
        append_opus(s, rtp_ts);
    else
        append_pcm(s);
    if (!rtp_src_packet_done(s->fmt.payload_format, s->nchn, s->rtp_ptime_samples, s->packet_nsamples,
                             int(s->packet_data - s->packet)))
        return;
    s->rtp_seq++;
    send_packet(s);
    s->packet_data = nullptr;
}

// ---- debug ----

void debug_print_src(int change_mark, const rtp_src *s, const src *p)
{
    char suffix[96] = "";
    if (s->opus_enc) {
        opus_int32 br = 0, vbr = 0, cx = 0, fec = 0, nopred = 0;
        opus_encoder_ctl(s->opus_enc, OPUS_GET_BITRATE(&br));
        opus_encoder_ctl(s->opus_enc, OPUS_GET_VBR(&vbr));
        opus_encoder_ctl(s->opus_enc, OPUS_GET_COMPLEXITY(&cx));
        opus_encoder_ctl(s->opus_enc, OPUS_GET_INBAND_FEC(&fec));
        opus_encoder_ctl(s->opus_enc, OPUS_GET_PREDICTION_DISABLED(&nopred));
        snprintf(suffix, sizeof suffix, "(%d%cBR Complexity:%d FEC:%c Prediction:%c)", int(br),
                 vbr ? 'V' : 'C', int(cx), fec ? 'y' : 'n', nopred ? 'n' : 'y');
    }
    const char *label = p ? payload_format_str(p->fmt.payload_format) : "";
    const char *mixes = p ? p->mix : "";
    if (s->ep.sa_dst.sin_family == alsa_src_family) {
        printf("%c src ALSA %s%s <- %s (%d,%d)\n", change_mark, label, suffix, mixes, s->mix[0], s->mix[1]);
    } else {
        char dst[16], bind[16];
        snprintf(dst, sizeof dst, "%d.%d.%d.%d", IP4(s->ep.sa_dst.sin_addr.s_addr));
        snprintf(bind, sizeof bind, "%d.%d.%d.%d", IP4(s->ep.sa_bind.sin_addr.s_addr));
        printf("%c src  %s:%d #%d on %s %s%s <- %s (%d,%d)\n", change_mark, dst, ntohs(s->ep.sa_dst.sin_port),
               int(ntohl(s->ep.sa_dst.sin_addr.s_addr) & 0xFFFF), bind, label, suffix, mixes, s->mix[0],
               s->mix[1]);
    }
    if (CG_limcom_is_enabled(&s->limcom))
        printf("  : limiter compressor for channels %d,%d\n", s->limcom.current_params.ch0,
               s->limcom.current_params.ch1);
}
