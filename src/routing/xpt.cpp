#include "routing/xpt.h"

#include "audio/CG_LimCom_interface.h"
#include "audio/eaec_glue.h"
#include "daemon/grace.h"
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "daemon/shared.h"
#include "rtp/rtp_sk.h"

#include <arpa/inet.h>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <opus.h>
#include <type_traits>

void dst_init(rtp_dst *dst, int ch)
{
    // The cycle may look at a free flow at any time: its canceller
    // reference and its column never pass through 0 (flow 0's column) while
    // the rest of the record is cleared around them.
    static_assert(offsetof(rtp_dst, index) < offsetof(rtp_dst, eaec_source));
    publish(dst->eaec_source, -1);
    auto *const b = reinterpret_cast<unsigned char *>(dst);
    const size_t index_end = offsetof(rtp_dst, index) + sizeof dst->index;
    const size_t ec_end = offsetof(rtp_dst, eaec_source) + sizeof dst->eaec_source;
    memset(b, 0, offsetof(rtp_dst, index));
    memset(b + index_end, 0, offsetof(rtp_dst, eaec_source) - index_end);
    memset(b + ec_end, 0, sizeof *dst - ec_end);
    publish(dst->index, ch);
    dst->eaec_ref = -1;
    dst->pAudioptr = mix_inp + ch;
    dlist_init(&dst->ep.rtp_sk_ep_list);
}

int dst_in_use(const rtp_dst *dst)
{
    const int i = dst_imix_inp(dst);
    for (const auto &row : mix_gain)
        if (row[i] != 0.0f)
            return 1;
    return 0;
}

int dst_imix_inp(const rtp_dst *dst) { return dst->index; }

int match_xpt_dst(const pelod_xpt *x, const rtp_dst *dst)
{
    if (dst->src[0] == '\0') // a free flow serves nothing
        return 0;
    if (!vox_cfg_equal(dst->vox, x->vox))
        return 0;
    if (strncmp(dst->src, x->src, sizeof dst->src) != 0 || dst->channel_mode != x->chn ||
        dst->pdly != uint32_t(x->pdly))
        return 0;
    const int ec = x->eaec_mix[0] ? mix_ref(x->eaec_mix) : -1;
    // A sound-card flow runs no limiter or canceller, so lce= and ecs= on
    // its line are not part of its identity: a reload finds it again.
    if (dst->ep.sa_dst.sin_family == alsa_src_family)
        return 1;
    // the canceller asked for, even when its set-up failed
    return limcom_params_equal(dst->limcom.current_params, x->limcom_params) && dst->eaec_ref == ec;
}

static rtp_dst *xpt_flow(const pelod_xpt *x)
{
    for (rtp_dst &d : rtp_dsts)
        if (match_xpt_dst(x, &d))
            return &d;
    return nullptr;
}

static float xpt_gain(const pelod_xpt *x) { return gain_lin(x->gain_dB); }

void dst_flow_start(rtp_dst *dst, const pelod_xpt *x)
{
    dst->vox = x->vox;
    snprintf(dst->src, sizeof dst->src, "%s", x->src);
    dst->channel_mode = x->chn;
    dst->fmt = x->fmt;
    dst->pdly = uint32_t(x->pdly);
    const int ec = x->eaec_mix[0] ? mix_ref(x->eaec_mix) : -1;
    dst->eaec_ref = ec;

    if (strncmp(x->src, "alsa:", 5) == 0) {
        dst->ep.sa_dst.sin_port = htons(uint16_t(strtol(x->src + 5, nullptr, 0)));
        // last: the microphone feeds this flow from the next block on
        publish(dst->ep.sa_dst.sin_family, sa_family_t(alsa_src_family));
        return;
    }

    dst_eaec_setup(dst, ec);

    CG_limcom_init_instance(&dst->limcom, &x->limcom_params, 1);

    if (x->fmt.payload_format == 1) {
        int err = OPUS_OK;
        dst->opus_dec = opus_decoder_create(48000, x->fmt.nchan == 1 ? 1 : 2, &err);
        if (!dst->opus_dec)
            fprintf(stderr, "pelod: opus_decoder_create: %s\n", opus_strerror(err));
    }

    // last: everything the receive path uses is ready
    rtp_ep_open(&dst->ep, &x->ep, dst);
    if (debug)
        debug_print_flow('+', dst);
}

void dst_flow_stop(rtp_dst *dst)
{
    if (debug)
        debug_print_flow('-', dst);
    rtp_ep_close(&dst->ep);
    publish(dst->src[0], '\0');

    // The cycle may still be limiting, cancelling or decoding this flow:
    // switch each off, let the cycle pass a boundary, then tear down.
    OpusDecoder *dec = dst->opus_dec;
    const bool had_ec = dst->eaec_source != -1;
    publish(dst->eaec_source, -1);
    publish(dst->limcom.current_params.enable, 0);
    grace_wait();
    if (had_ec)
        dst_eaec_free(dst);
    CG_limcom_init_instance(&dst->limcom, nullptr, 1);
    if (dec)
        opus_decoder_destroy(dec); // the handle is cleared when the flow is reused
}

// A new destination for an endpoint that keeps its socket. The cycle
// finds the endpoint in the bucket of its destination address and compares
// that address: unlink, let the cycle pass a boundary, write, link into the
// new address's bucket (the link is the last store).
static void dst_set_destination(rtp_ep *ep, const sockaddr_in &to)
{
    if (memcmp(&ep->sa_dst, &to, sizeof to) == 0)
        return;
    rtp_sk *sk = ep->sk;
    if (sk) {
        dlist_del(&ep->rtp_sk_ep_list);
        grace_wait();
    }
    ep->sa_dst = to;
    if (sk)
        dlist_add_head(rtp_sk_ep_list(sk, to.sin_addr.s_addr), &ep->rtp_sk_ep_list);
}

int pelod_xpt_add(const pelod_xpt *x)
{
    if (x->mix[0] == '\0') {
        fputs("update_flows no mixer output available", stdout);
        return -1;
    }
    // no source: it could only take a flow that then looks free
    if (x->src[0] == '\0')
        return -1;
    const int imix = mix_ref(x->mix);
    if (imix < 0) {
        fputs("update_flows no mixer output available", stdout);
        return -1;
    }

    rtp_dst *dst = xpt_flow(x);
    if (dst) {
        // a sound-card flow keeps its marker; it has no network endpoint
        if (dst->ep.sa_dst.sin_family != alsa_src_family) {
            if (memcmp(&dst->ep.sa_bind, &x->ep.sa_bind, sizeof dst->ep.sa_bind) != 0) {
                if (debug)
                    debug_print_flow('-', dst);
                rtp_ep_close(&dst->ep);
                rtp_ep_open(&dst->ep, &x->ep, dst); // writes the destination before it links
                if (debug)
                    debug_print_flow('+', dst);
            } else {
                dst_set_destination(&dst->ep, x->ep.sa_dst);
            }
        }
        mix_gain_set(imix, dst_imix_inp(dst), xpt_gain(x));
        return 0;
    }

    for (rtp_dst &d : rtp_dsts)
        if (d.src[0] == '\0') {
            dst = &d;
            break;
        }
    if (!dst) {
        fputs("update_flows no mixer input available", stdout);
        return -1;
    }
    dst_init(dst, int(dst - rtp_dsts));
    dst->channel_mode = x->chn;
    dst->pdly = uint32_t(x->pdly);
    mix_gain_set(imix, dst_imix_inp(dst), xpt_gain(x));
    dst_flow_start(dst, x);
    return 0;
}

int pelod_xpt_del(const pelod_xpt *x)
{
    const int imix = x->mix[0] ? mix_ref(x->mix) : -1;
    rtp_dst *dst = xpt_flow(x);
    if (!dst)
        return -1;
    if (imix >= 0)
        mix_gain_set(imix, dst_imix_inp(dst), 0.0f);
    if (!dst_in_use(dst))
        dst_flow_stop(dst);
    mixs_prune();
    return 0;
}

// Channel letter: set[i], or '?' for a chn the set does not hold.
static char chan_char(const char *set, int i)
{
    return i >= 0 && size_t(i) < strlen(set) ? set[i] : '?';
}

void debug_print_flow(int change_mark, const rtp_dst *dst)
{
    char suffix[160] = "";
    int n = 0;
    if (dst->eaec_source != -1)
        n = snprintf(suffix, sizeof suffix, " ec %d (frame %d)", dst->eaec_source, dst->eaec_frame_length);
    if (dst->vox.threshold_lin != 0.0f)
        snprintf(suffix + n, sizeof suffix - size_t(n), " vox(t:%f h:%d gate:%s)", double(dst->vox.threshold_lin),
                 dst->vox.holdtime, dst->vox.gate ? "on" : "off");

    const sockaddr_in &d = dst->ep.sa_dst;
    const sockaddr_in &b = dst->ep.sa_bind;
    if (b.sin_family == alsa_src_family) {
        const char c = chan_char(dst->fmt.nchan > 2 ? "12345678" : "LR", dst->channel_mode);
        printf("%c flow alsa:%d %c -> %d%s\n", change_mark, ntohs(d.sin_port), c, dst->index, suffix);
    } else if (b.sin_family == AF_INET && b.sin_addr.s_addr != INADDR_NONE) {
        char c = 'D';
        if (dst->channel_mode >= 0)
            c = chan_char(dst->fmt.nchan > 2 || dst->channel_mode > 1 ? "12345678" : "LR", dst->channel_mode);
        printf("%c flow %d.%d.%d.%d:%d #%d on %d.%d.%d.%d pdly %d %c -> %d%s\n", change_mark, IP4(d.sin_addr.s_addr),
               ntohs(d.sin_port), int(ntohl(d.sin_addr.s_addr) & 0xFFFF), IP4(b.sin_addr.s_addr), int(dst->pdly), c,
               dst->index, suffix);
    }
}
