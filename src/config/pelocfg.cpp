#include "config/pelocfg.h"

#include "config/vtrp.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "rtp/rtp_src.h"

#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <strings.h>
#include <syslog.h>
#include <type_traits>

static_assert(std::is_standard_layout_v<pelod_xpt> && std::is_trivially_copyable_v<pelod_xpt>);
static_assert(std::is_standard_layout_v<src> && std::is_trivially_copyable_v<src>);
static_assert(std::is_standard_layout_v<xpt>);

char ifs[40];
dlist xpts = {&xpts, &xpts}, xpts_del = {&xpts_del, &xpts_del}, xpts_new = {&xpts_new, &xpts_new};
const pelocfg_observer *pelocfg_obs;

namespace {

constexpr uint32_t ADDR_BAD = 0xFFFFFFFFu;
constexpr uint16_t PORT_DEFAULT = 5004;

template <size_t N> size_t copy_tag(char (&buf)[N], const char *cmd, const char *tag)
{
    const char *v = vtr_findval(cmd, tag);
    if (pelocfg_obs && pelocfg_obs->tag)
        pelocfg_obs->tag(tag, v, N);
    return vtr_copyval(buf, v, int(N));
}

long getl(const char *cmd, const char *tag, long def)
{
    if (pelocfg_obs && pelocfg_obs->tag)
        pelocfg_obs->tag(tag, vtr_findval(cmd, tag), 0);
    return vtr_getl(cmd, tag, def);
}

// "'<tag>' <text>" on standard output, or the text to the observer.
[[gnu::format(printf, 2, 3)]] void cfg_warn(const char *tag, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    if (pelocfg_obs && pelocfg_obs->warn) {
        char text[200];
        vsnprintf(text, sizeof text, fmt, ap);
        pelocfg_obs->warn(text);
    } else {
        printf("'%s' ", tag);
        vprintf(fmt, ap);
    }
    va_end(ap);
}

const char *skip_keyword(const char *cmd, const char *kw)
{
    return strncasecmp(cmd, kw, 4) == 0 ? cmd + 4 : cmd;
}

// Truncation toward zero that saturates instead of leaving the int range.
int trunc_int(double v)
{
    if (std::isnan(v))
        return 0;
    if (v >= double(INT_MAX))
        return INT_MAX;
    if (v <= double(INT_MIN))
        return INT_MIN;
    return int(v);
}

// The identity of a crosspoint; gain, endpoint and format are not part of it.
bool xpt_equal(const pelod_xpt &a, const pelod_xpt &b)
{
    return strcmp(a.src, b.src) == 0 && strcmp(a.mix, b.mix) == 0 && a.chn == b.chn &&
           a.pdly == b.pdly && vox_cfg_equal(a.vox, b.vox) && strcmp(a.eaec_mix, b.eaec_mix) == 0 &&
           limcom_params_equal(a.limcom_params, b.limcom_params);
}

xpt *xpt_lookup(const pelod_xpt &x)
{
    for (dlist *e = xpts_del.next; e != &xpts_del; e = e->next) {
        xpt *n = dlist_entry(e, xpt, link);
        if (xpt_equal(n->x, x))
            return n;
    }
    return nullptr;
}

// Options after the first ';' of a crosspoint source: ;fmt= replaces the
// format of the fmt tag, ;pdly= the playout delay; others are skipped.
void pelocfg_src(pelod_xpt &x)
{
    const char *p = strchr(x.src, ';');
    while (p) {
        if (strncmp(p, ";fmt=", 5) == 0) {
            p += 5;
            const size_t n = strcspn(p, ";");
            char f[sizeof x.src];
            memcpy(f, p, n); // n < sizeof x.src: p lies inside x.src
            f[n] = '\0';
            rtp_fmt_parse(&x.fmt, f, x.src);
            p += n;
        } else if (strncmp(p, ";pdly=", 6) == 0) {
            char *end = nullptr;
            x.pdly = int(strtoul(p + 6, &end, 0));
            p = end;
        } else {
            p = strchr(p + 1, ';');
            continue;
        }
        if (*p != ';')
            break;
    }
}

// A text with a URL scheme other than vts:// names no IPv4 address.
bool foreign_scheme(const char *s)
{
    if (*s == '"')
        ++s;
    return strstr(s, "://") && strncmp(s, "vts://", 6) != 0;
}

} // namespace

void rtpa2ep(const char *rtpa, const char *ifa, rtp_ep_spec *eps, int nep)
{
    if (!eps || nep <= 0)
        return;
    if (!rtpa)
        rtpa = "";
    if (!ifa || *ifa == '\0')
        ifa = "0.0.0.0";

    const char *colon = strchr(rtpa, ':');
    uint16_t port = colon ? uint16_t(strtoul(colon + 1, nullptr, 0)) : PORT_DEFAULT;
    colon = strchr(ifa, ':');
    const uint16_t if_port = colon ? uint16_t(strtoul(colon + 1, nullptr, 0)) : 0;

    uint32_t dst = ADDR_BAD;
    if (*rtpa != '\0' && !foreign_scheme(rtpa))
        dst = vtr_url2ip_port(rtpa, &port, port);
    in_addr_t ssm = 0;
    if (const char *opt = strpbrk(rtpa, ",;")) {
        while ((opt = strstr(opt, ";src=")) != nullptr) {
            opt += 5;
            ssm = vtr_url2ip_port(opt, nullptr, 0);
        }
    }

    // An interface text that starts with ':' names only a local port.
    uint32_t if_addr = INADDR_ANY;
    uint16_t bind_port = if_port;
    if (*ifa != ':' && *ifa != ',') {
        if_addr = foreign_scheme(ifa) ? ADDR_BAD
                                      : vtr_url2ip_port(ifa, &bind_port, if_port ? if_port : port);
    }

    rtp_ep_spec ep;
    memset(&ep, 0, sizeof ep);
    if (dst != ADDR_BAD && if_addr != ADDR_BAD) {
        ep.sa_dst.sin_family = AF_INET;
        ep.sa_dst.sin_port = htons(port);
        ep.sa_dst.sin_addr.s_addr = dst;
        ep.sa_bind.sin_family = AF_INET;
        ep.sa_bind.sin_port = htons(bind_port ? bind_port : port);
        ep.sa_bind.sin_addr.s_addr = if_addr;
        ep.ssm_src = ssm;
    }
    for (int i = 0; i < nep; ++i)
        memcpy(&eps[i], &ep, sizeof ep);
}

void rtp_fmt_parse(rtp_fmt *fmt, const char *rtpmap_fmt, const char *tag)
{
    if (!fmt)
        return;
    if (!rtpmap_fmt)
        rtpmap_fmt = "";
    if (!tag)
        tag = "";
    char name[33] = "";
    int rate = 0, nchan = 0;
    if (sscanf(rtpmap_fmt, "%32[^/]/%d/%d", name, &rate, &nchan) == 3 ||
        sscanf(rtpmap_fmt, "%32[^.].%d.%d", name, &rate, &nchan) == 3) {
        fmt->samplerate = rate;
        fmt->nchan = nchan;
    } else if (sscanf(rtpmap_fmt, "%32[^/]/%d", name, &nchan) == 2 ||
               sscanf(rtpmap_fmt, "%32[^.].%d", name, &nchan) == 2) {
        fmt->samplerate = 48000;
        fmt->nchan = nchan;
    } else {
        *fmt = rtp_fmt{};
        name[0] = '\0';
    }

    const bool l24 = strcmp(name, "L24") == 0;
    if (l24) {
        fmt->payload_format = 0;
        fmt->bps = 24;
    } else if (strcmp(name, "opus") == 0) {
        fmt->payload_format = 1;
    } else if (strcmp(name, "NDI") == 0 || strcmp(name, "ndi") == 0) {
        fmt->payload_format = 2;
    }

    if (!l24 && fmt->bps != 0 && fmt->bps != 16 && fmt->bps != 24) {
        cfg_warn(tag, "fmt warning: Only supports 16-bit and 24-bit streams. Using default 24-bit "
                      "depth.\n");
        fmt->bps = 24;
    }
    if (fmt->samplerate != 0 && fmt->samplerate != 48000) {
        cfg_warn(tag, "fmt warning: Only supports 48000kHz sample rate. Using default 48000kHz.\n");
        fmt->samplerate = 48000;
    }
    if (unsigned(fmt->nchan) > 8) {
        cfg_warn(tag, "fmt warning: Only supports streams with 1-8 channels. Using 2-channel "
                      "default.\n");
        fmt->nchan = 2;
    }
}

void pelocfg_vox(pelod_vox_cfg *vox, const char *s)
{
    if (!vox || !s)
        return;
    const bool on = *s == '1';
    if (on)
        ++s;
    double threshold = -48.0, hold = 1.0, gate = 0.0;
    while (s[0] == ';' && s[1] != '\0' && s[2] == '=') {
        const char key = s[1];
        char *end = nullptr;
        const double v = strtod(s + 3, &end);
        s = end;
        if (key == 't')
            threshold = v;
        else if (key == 'h')
            hold = v;
        else if (key == 'g')
            gate = v;
    }
    vox->threshold_lin = on && threshold > -100.0 ? dB2lin(threshold) : 0.0f;
    vox->holdtime = trunc_int(hold * 1000.0);
    vox->gate = trunc_int(gate);
}

void pelocfg_limcom(limcom_params *lcp, const char *s)
{
    if (!lcp || !s)
        return;
    lcp->ch0 = 0;
    lcp->ch1 = 1;
    if (*s == '1') {
        lcp->enable = 1;
        ++s;
    }
    while (s[0] == ';') {
        const char key = s[1];
        if (key == '\0' || s[2] != '=')
            return;
        if (key == 'i') {
            if (s[3] < '0' || s[3] > '7')
                return;
            lcp->ch0 = s[3] - '0';
            if (s[4] < '0' || s[4] > '7')
                return;
            lcp->ch1 = s[4] - '0';
            s += 5;
            continue; // the loop goes on only at a ';'
        }
        char *end = nullptr;
        const double v = strtod(s + 3, &end);
        s = end;
        switch (key) {
        case 'a': lcp->attack = v; break;
        case 'r': lcp->release = v; break;
        case 'T': lcp->threshold = v; break;
        case 'R': lcp->ratio = v; break;
        default: break;
        }
    }
}

// An enabled limiter runs with the values as given; without a threshold,
// attack or release its output is not a number, which the cycle turns into
// silence. Say so, since "lce=1" alone looks like it should just work.
static void limcom_warn(const limcom_params &lcp, const char *tag)
{
    if (lcp.enable && (lcp.threshold == 0.0 || lcp.attack == 0.0 || lcp.release == 0.0))
        cfg_warn(tag, "lce warning: limiter enabled without T=, a= and r= (all non-zero); "
                      "its output is silent.\n");
}

int pelocfg_load_glb(const char *cmd)
{
    if (srcs_used >= SRCS_MAX || !cmd)
        return 0;
    copy_tag(ifs, skip_keyword(cmd, "GLB "), "ifs");
    return 0;
}

int pelocfg_load_xpt(const char *cmd)
{
    if (!cmd)
        return -1;
    pelod_xpt x;
    memset(&x, 0, sizeof x);
    char ifa[64], fmt[64], gain[32], lce[64], vox[64];
    copy_tag(x.mix, cmd, "mix");
    copy_tag(x.src, cmd, "src");
    copy_tag(ifa, cmd, "ifa");
    rtpa2ep(x.src, ifa[0] ? ifa : ifs, &x.ep, 1);
    x.chn = int(getl(cmd, "chn", -1));
    copy_tag(fmt, cmd, "fmt");
    rtp_fmt_parse(&x.fmt, fmt, cmd);
    if (copy_tag(gain, cmd, "gain"))
        x.gain_dB = strtof(gain, nullptr);
    copy_tag(x.eaec_mix, cmd, "ecs");
    if (copy_tag(lce, cmd, "lce")) {
        pelocfg_limcom(&x.limcom_params, lce);
        limcom_warn(x.limcom_params, cmd);
    }
    if (copy_tag(vox, cmd, "vox"))
        pelocfg_vox(&x.vox, vox);
    x.pdly = int(getl(cmd, "pdly", strncmp(x.src, "alsa:", 5) == 0 ? 48 : 0));
    pelocfg_src(x);

    if (xpt *n = xpt_lookup(x)) {
        dlist_del(&n->link);
        if (memcmp(&n->x.ep, &x.ep, sizeof x.ep) == 0 && n->x.gain_dB == x.gain_dB) {
            dlist_add_head(&xpts, &n->link); // running flow left as it is
            return 0;
        }
        // re-added without a delete: routing updates gain and endpoint
        memcpy(&n->x, &x, sizeof x);
        dlist_add_head(&xpts_new, &n->link);
        return 0;
    }
    xpt *n = new (std::nothrow) xpt{};
    if (!n)
        return -1;
    memcpy(&n->x, &x, sizeof x);
    dlist_add_head(&xpts_new, &n->link);
    return 0;
}

int pelocfg_load_src(const char *cmd)
{
    if (srcs_used >= SRCS_MAX || !cmd)
        return -1;
    cmd = skip_keyword(cmd, "SRC ");
    src &p = srcs[srcs_used++];
    memset(&p, 0, sizeof p);

    char fmt[64], gainv[200], lce[64], ifa[64];
    copy_tag(p.mix, cmd, "mix");
    copy_tag(p.rtpa, cmd, "rtpa");
    copy_tag(fmt, cmd, "fmt");
    rtp_fmt_parse(&p.fmt, fmt, cmd);
    // the payload type shares its byte with the marker bit: 0-127 only
    const long pt = getl(cmd, "pt", 255);
    p.rtp_pt = pt >= 0 && pt <= 127 ? uint8_t(pt) : 255;
    if (pt != 255 && p.rtp_pt == 255)
        printf("'%s' pt warning: Only supports payload types 0-127. Using default 101 (one "
               "channel) or 96.\n",
               cmd);
    p.rtp_ptime_samples = int(48UL * static_cast<unsigned long>(getl(cmd, "ptime", 1)));
    p.cbr = int(getl(cmd, "cbr", 0));
    p.bitrate = int(getl(cmd, "br", 0));

    if (copy_tag(gainv, cmd, "gainv")) {
        const char *g = gainv;
        for (float &v : p.gainv_dB) {
            char *end = nullptr;
            v = strtof(g, &end);
            g = end;
            if (*g == ';' || *g == ' ' || *g == ',')
                ++g;
            if (*g == '\0')
                break;
        }
    }
    if (copy_tag(lce, cmd, "lce")) {
        pelocfg_limcom(&p.limcom_params, lce);
        limcom_warn(p.limcom_params, cmd);
    }

    if (strncmp(p.rtpa, "alsa:", 5) == 0) {
        p.ep.sa_dst.sin_family = alsa_src_family;
        p.ep.sa_bind.sin_family = alsa_src_family;
        p.ep.sa_dst.sin_port = htons(uint16_t(strtol(p.rtpa + 5, nullptr, 0)));
        return 0;
    }
    copy_tag(ifa, cmd, "ifa");
    rtpa2ep(p.rtpa, ifa[0] ? ifa : ifs, &p.ep, 1);
    return 0;
}

namespace {

// Step 1 of a load: every running crosspoint becomes a deletion candidate.
void xpts_to_del()
{
    while (!dlist_empty(&xpts)) {
        dlist *e = xpts.next;
        dlist_del(e);
        dlist_add_tail(&xpts_del, e);
    }
}

// fgets leaves no length: with an observer the buffer is filled with a
// non-zero byte first, so the last NUL in it is the one fgets wrote.
void observe_piece(char (&line)[CFG_LINE_LEN])
{
    const char *end = static_cast<const char *>(memrchr(line, '\0', sizeof line));
    const size_t bytes = end ? size_t(end - line) : 0;
    pelocfg_obs->piece(line, bytes, bytes > 0 && bytes == sizeof line - 1 && line[bytes - 1] != '\n');
}

void observe_done(int result)
{
    if (pelocfg_obs && pelocfg_obs->done)
        pelocfg_obs->done(result);
}

void read_lines(FILE *f)
{
    char line[CFG_LINE_LEN];
    const bool pieces = pelocfg_obs && pelocfg_obs->piece;
    for (;;) {
        if (pieces)
            memset(line, '\n', sizeof line);
        if (!fgets(line, sizeof line, f))
            break;
        if (pieces)
            observe_piece(line);
        if (line[0] == '#')
            continue;
        // the line end is no part of the last value (nor of a warning text)
        size_t n = strlen(line);
        while (n > 0 && (line[n - 1] == '\n' || line[n - 1] == '\r'))
            line[--n] = '\0';
        if (strncasecmp(line, "GLB ", 4) == 0)
            observe_done(pelocfg_load_glb(line));
        else if (strncasecmp(line, "XPT ", 4) == 0)
            observe_done(pelocfg_load_xpt(line));
        else if (strncasecmp(line, "SRC ", 4) == 0)
            observe_done(pelocfg_load_src(line));
    }
}

} // namespace

int pelocfg_xpt_same(const pelod_xpt *a, const pelod_xpt *b)
{
    return xpt_equal(*a, *b) ? 1 : 0;
}

void pelocfg_read(FILE *f)
{
    xpts_to_del();
    srcs_used = 0;
    ifs[0] = '\0';
    if (f)
        read_lines(f);
}

int pelocfg_load(const char *fname)
{
    errno = 0;

    std::unique_ptr<FILE, int (*)(FILE *)> f(fname ? fopen(fname, "r") : nullptr, fclose);
    int open_err = 0;
    if (!f) {
        open_err = fname ? errno : EINVAL;
        perror("pelocfg_load");
        syslog(LOG_ERR, "pelocfg_load file open error %s", fname ? fname : "(null)");
    }
    pelocfg_read(f.get());

    while (!dlist_empty(&xpts_del)) {
        xpt *n = dlist_entry(xpts_del.next, xpt, link);
        pelod_xpt_del(&n->x);
        dlist_del(&n->link);
        delete n;
    }
    pelod_update_rtp_sources();
    while (!dlist_empty(&xpts_new)) {
        xpt *n = dlist_entry(xpts_new.next, xpt, link);
        pelod_xpt_add(&n->x);
        dlist_del(&n->link);
        dlist_add_head(&xpts, &n->link);
    }
    f.reset();
    return open_err ? open_err : errno;
}
