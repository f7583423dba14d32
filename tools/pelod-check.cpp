// pelod-check FILE [RUNNING-FILE]: reads a configuration with the daemon's
// own loader (line handlers and tag/value functions, nothing applied, no
// daemon touched) and prints one line per problem,
//   FILE:LINE: warning|error: what, and what the daemon will do
// With RUNNING-FILE, also what a reload from it to FILE will and will not
// change. Exit status 0 clean, 1 warnings, 2 errors.
#include "config/pelocfg.h"
#include "config/vtrp.h"
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "rtp/rtp_src.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <strings.h>
#include <sys/stat.h>
#include <vector>

namespace {

int n_warnings, n_errors;
const char *file_name;

[[gnu::format(printf, 3, 4)]] void report(int line, const char *level, const char *fmt, ...)
{
    if (strcmp(level, "error") == 0)
        n_errors++;
    else if (strcmp(level, "warning") == 0)
        n_warnings++;
    if (line > 0)
        printf("%s:%d: %s: ", file_name, line, level);
    else
        printf("%s: %s: ", file_name, level);
    va_list ap;
    va_start(ap, fmt);
    vprintf(fmt, ap);
    va_end(ap);
    putchar('\n');
}

// What one line of the file became.
struct line_rec {
    int line;
    char kind;            // 'G', 'X', 'S'
    pelod_xpt x;          // kind 'X'
    src s;                // kind 'S'
    const xpt *node;      // the loader's node of an XPT line
    std::string full_mix; // the mix value before the daemon cuts it
};

// Per-pass state the observer fills.
struct pass {
    bool quiet;                   // collect records, report nothing
    int line;                     // physical line of the current piece
    bool continued;               // the current piece is the rest of a cut line
    char head_kind;               // kind of the piece that was cut
    int head_line;
    std::string text;             // current handler line, line end removed
    const char *raw;              // the loader's buffer, as its handlers see it
    struct seen { std::string tag; const char *value; size_t size; };
    std::vector<seen> tags;
    const dlist *xpts_head;       // xpts.next before the handler
    std::vector<line_rec> recs;
    int src_over = 0, src_over_line = 0, glb_over_line = 0;
    bool any_nul = false;
};
pass *cur;

char line_kind(const char *s)
{
    for (const char *kw : {"GLB ", "XPT ", "SRC "})
        if (strncasecmp(s, kw, 4) == 0)
            return kw[0];
    return 0;
}

size_t edit_distance(const std::string &a, const std::string &b)
{
    std::vector<size_t> d(b.size() + 1);
    for (size_t j = 0; j <= b.size(); j++)
        d[j] = j;
    for (size_t i = 1; i <= a.size(); i++) {
        size_t diag = d[0];
        d[0] = i;
        for (size_t j = 1; j <= b.size(); j++) {
            const size_t up = d[j];
            d[j] = std::min({d[j] + 1, d[j - 1] + 1,
                             diag + (tolower(a[i - 1]) == tolower(b[j - 1]) ? 0 : 1)});
            diag = up;
        }
    }
    return d[b.size()];
}

void on_piece(const char *raw, size_t bytes, bool cut)
{
    pass &p = *cur;
    const bool tail = p.continued;
    if (!tail)
        p.line++;
    p.continued = cut;
    p.tags.clear();
    p.raw = raw;
    p.text.assign(raw, strnlen(raw, bytes));
    while (!p.text.empty() && (p.text.back() == '\n' || p.text.back() == '\r'))
        p.text.pop_back();
    const char kind = raw[0] == '#' ? '#' : line_kind(raw);
    p.any_nul = p.any_nul || memchr(raw, '\0', bytes);
    p.xpts_head = xpts.next;
    if (p.quiet)
        return;

    if (tail) {
        const bool live = kind != 0 && kind != '#';
        report(p.line, live || (p.head_kind && p.head_kind != '#') ? "error" : "warning",
               "line longer than %d bytes: the daemon cuts it there and reads the rest as a "
               "line of its own%s",
               CFG_LINE_LEN - 1,
               live ? ", which it applies as a new line"
                    : (p.head_kind && p.head_kind != '#' ? "; the tags after the cut are lost"
                                                          : " (ignored)"));
    }
    if (cut) {
        p.head_kind = kind;
        p.head_line = p.line;
    }
    if (kind == '#')
        return;
    const char *nul = static_cast<const char *>(memchr(raw, '\0', bytes));
    if (nul && kind)
        report(p.line, "error", "NUL byte at column %d: the daemon ignores the rest of the line",
               int(nul - raw) + 1);
    const size_t len = p.text.size();
    if (kind) {
        for (size_t i = 0; i < len; i++) {
            const unsigned char c = static_cast<unsigned char>(p.text[i]);
            if (c < 0x20 || c == 0x7f) {
                report(p.line, "warning",
                       "control byte 0x%02x at column %zu: it is no separator but part of a "
                       "value",
                       c, i + 1);
                break;
            }
        }
        return;
    }
    if (tail)
        return;
    size_t first = strspn(p.text.c_str(), " \t");
    if (first == len)
        return; // blank line
    std::string word = p.text.substr(first, strcspn(p.text.c_str() + first, " \t=:,"));
    const char *nearest = "XPT";
    size_t best = 99;
    for (const char *kw : {"GLB", "XPT", "SRC"})
        if (const size_t d = edit_distance(word, kw); d < best)
            best = d, nearest = kw;
    if (best <= 2 || strncasecmp(p.text.c_str() + first, nearest, 3) == 0)
        report(p.line, "warning",
               "'%.40s' is not a line keyword (%s followed by a blank at the start of the line): "
               "the daemon ignores the line",
               word.c_str(), nearest);
    else
        report(p.line, "warning",
               "not a GLB, XPT or SRC line nor a comment: the daemon ignores it");
}

void on_tag(const char *tag, const char *value, size_t size)
{
    cur->tags.push_back({tag, value, size});
}

void on_warn(const char *text)
{
    if (cur->quiet)
        return;
    std::string t(text);
    while (!t.empty() && t.back() == '\n')
        t.pop_back();
    report(cur->line, "warning", "%s", t.c_str());
}

std::string value_text(const char *v)
{
    if (!v)
        return "";
    std::string s(size_t(std::max(vtr_vallen(v), 0)) + 1, '\0');
    s.resize(vtr_copyval(s.data(), v, int(s.size())));
    return s;
}

// Truncated values, numbers that read as 0, unknown and repeated tags.
void check_tags(pass &p, const char *line)
{
    for (const pass::seen &t : p.tags) {
        if (!t.value)
            continue;
        const int len = vtr_vallen(t.value);
        if (t.size > 0 && len > int(t.size) - 1) {
            std::string v = value_text(t.value);
            report(p.line, "warning", "value of %s is %d characters long: the daemon cuts it to "
                   "%d ('%.*s')", t.tag.c_str(), len, int(t.size) - 1, int(t.size) - 1, v.c_str());
        }
        if (t.size == 0) {
            const char *n = t.value + (*t.value == '"');
            char *end = nullptr;
            errno = 0;
            const long v = strtol(n, &end, 0);
            if (end == n)
                report(p.line, "warning", "%s=%s is not a number: the daemon reads 0",
                       t.tag.c_str(), value_text(t.value).c_str());
            else if (errno == ERANGE)
                report(p.line, "warning", "%s is out of range: the daemon reads %ld", t.tag.c_str(), v);
        }
    }
    for (const char *item = vtr_nextval(line); *item; item = vtr_nextval(item)) {
        const size_t n = strcspn(item, "=: ,");
        const std::string name(item, n);
        if (item[n] != '=' && item[n] != ':') {
            report(p.line, "warning", "'%.40s' is no tag=value item: the daemon ignores it",
                   name.c_str());
            continue;
        }
        const pass::seen *known = nullptr;
        for (const pass::seen &t : p.tags)
            if (strcasecmp(t.tag.c_str(), name.c_str()) == 0)
                known = &t;
        if (known && known->value != item + n + 1) {
            report(p.line, "warning", "%s given again: the daemon uses the first (%s=%s)",
                   name.c_str(), known->tag.c_str(), value_text(known->value).c_str());
        } else if (!known) {
            const char *nearest = "";
            size_t best = 99;
            for (const pass::seen &t : p.tags)
                if (const size_t d = edit_distance(name, t.tag); d < best)
                    best = d, nearest = t.tag.c_str();
            report(p.line, "warning", "unknown tag '%.40s' (nearest: %s): the daemon ignores it",
                   name.c_str(), nearest);
        }
    }
}

// A dotted address or channel number whose numbers the daemon reads
// without a range check.
void check_address(int line, const char *tag, const char *a)
{
    if (*a == '"')
        ++a;
    if (strncmp(a, "vts://", 6) == 0)
        a += 6;
    char *end = nullptr;
    const long first = strtol(a, &end, 0);
    if (*end == '.') {
        const char *p = a;
        for (int i = 0; i < 4; i++) {
            const unsigned long o = strtoul(p, &end, 0);
            if (o > 255)
                report(line, "warning", "%s: address number %lu is above 255: the daemon reads "
                       "%lu", tag, o, o & 255);
            p = end + 1;
            if (*end != '.')
                break;
        }
        if (*end == ':') {
            const unsigned long port = strtoul(end + 1, nullptr, 0);
            if (port == 0 || port > 65535)
                report(line, port ? "warning" : "error", "%s: port %lu is out of 1..65535: the "
                       "daemon uses port %lu", tag, port, port & 0xFFFF);
        }
    } else if (end != a && std::labs(first) > 65535) {
        report(line, "warning", "%s: channel %ld is above 65535: the daemon wraps it", tag, first);
    }
}

bool endpoint_empty(const rtp_ep_spec &ep)
{
    return ep.sa_dst.sin_family == 0 && ep.sa_bind.sin_family == 0;
}

const pass::seen *tag_seen(const pass &p, const char *tag)
{
    for (const pass::seen &t : p.tags)
        if (t.tag == tag && t.value)
            return &t;
    return nullptr;
}

void check_gain(int line, const char *tag, float dB)
{
    if (std::isnan(dB))
        report(line, "error", "%s is not a number: the daemon mutes it", tag);
    else if (dB > 0.0f && !std::isfinite(dB2lin(dB)))
        report(line, "error", "%s=%g overflows: the daemon holds it at +100 dB", tag, double(dB));
    else if (dB > 100.0f)
        report(line, "warning", "%s=%g is beyond +100 dB: the daemon holds it at +100 dB", tag,
               double(dB));
    else if (dB <= -100.0f)
        report(line, "warning", "%s=%g is -100 dB or less: the daemon mutes it", tag, double(dB));
}

void check_fmt(pass &p, const rtp_fmt &f)
{
    const pass::seen *t = tag_seen(p, "fmt");
    if (!t)
        return;
    const std::string v = value_text(t->value);
    if (!v.empty() && f.samplerate == 0 && f.nchan == 0 && f.payload_format == 0 && f.bps == 0)
        report(p.line, "warning", "fmt=%s names no channel count (NAME/CHANNELS or "
               "NAME/RATE/CHANNELS): the daemon reads it as no format (24-bit PCM, channels from "
               "the payload type)", v.c_str());
    else if (!v.empty() && f.payload_format == 0 && f.bps == 0)
        report(p.line, "warning", "fmt=%s: the name is not L24, opus or NDI: the daemon receives "
               "24-bit PCM", v.c_str());
}

void check_limcom(int line, const limcom_params &l)
{
    for (double v : {l.attack, l.release, l.threshold, l.ratio})
        if (!std::isfinite(v)) {
            report(line, "error", "lce holds a value that is not a finite number: the limiter's "
                   "output is not a number, and the daemon makes it silent");
            return;
        }
}

void check_xpt(pass &p, line_rec &r)
{
    const pelod_xpt &x = r.x;
    if (!x.mix[0])
        report(p.line, "error", "XPT without mix: the daemon routes nothing for this line");
    if (!x.src[0]) {
        report(p.line, "error", "XPT without src: the daemon routes nothing for this line");
    } else if (strncmp(x.src, "alsa:", 5) == 0) {
        // the sound card's flow is started without either of them
        if (x.eaec_mix[0] || x.limcom_params.enable)
            report(p.line, "warning", "%s on a sound-card source: the daemon runs no echo canceller "
                   "or limiter on %s's flow", x.eaec_mix[0] ? "ecs" : "lce", x.src);
    } else {
        if (endpoint_empty(x.ep))
            report(p.line, "error", "src=%s is no valid address (or ifa is not): the daemon "
                   "leaves the endpoint empty and the flow receives nothing", x.src);
        else
            check_address(p.line, "src", x.src);
    }
    if (const pass::seen *t = tag_seen(p, "gain")) {
        const std::string v = value_text(t->value);
        char *end = nullptr;
        strtof(v.c_str(), &end);
        if (end == v.c_str())
            report(p.line, "warning", "gain=%s is not a number: the daemon uses 0 dB", v.c_str());
        check_gain(p.line, "gain", x.gain_dB);
    }
    if (x.chn < -1 || x.chn > 7)
        report(p.line, "warning", "chn=%d is no channel of a stream (0..7): the flow stays silent",
               x.chn);
    if (x.pdly < 0 || x.pdly >= int(MIX_RING_MASK + 1))
        report(p.line, "warning", "pdly=%d is outside the 8192-sample ring: the flow plays at the "
               "wrong time", x.pdly);
    check_limcom(p.line, x.limcom_params);
    check_fmt(p, x.fmt);
}

void check_src(pass &p, const src &s)
{
    if (!s.mix[0])
        report(p.line, "error", "SRC without mix: the daemon prints \"+ src   out of output "
               "channels\" and sends nothing");
    if (!s.rtpa[0])
        report(p.line, "error", "SRC without rtpa: the daemon sends nothing for this line");
    else if (strncmp(s.rtpa, "alsa:", 5) != 0 && endpoint_empty(s.ep))
        report(p.line, "error", "rtpa=%s is no valid address (or ifa is not): the daemon leaves "
               "the endpoint empty and sends nothing", s.rtpa);
    else if (strncmp(s.rtpa, "alsa:", 5) != 0)
        check_address(p.line, "rtpa", s.rtpa);
    if (tag_seen(p, "gainv"))
        for (float g : s.gainv_dB)
            check_gain(p.line, "gainv", g);
    if (const pass::seen *t = tag_seen(p, "pt"); t && strtol(value_text(t->value).c_str(),
                                                              nullptr, 0) > 255)
        report(p.line, "warning", "pt above 255: the daemon keeps its low 8 bits (%d)", s.rtp_pt);
    if (strncmp(s.rtpa, "alsa:", 5) != 0 && (s.rtp_ptime_samples < 48 || s.rtp_ptime_samples > 20 * 48))
        report(p.line, "warning", "ptime=%d ms is outside 1..20: the stream's packets are not "
               "what a receiver expects", s.rtp_ptime_samples / 48);
    check_limcom(p.line, s.limcom_params);
    check_fmt(p, s.fmt);
}

void on_done(int result)
{
    pass &p = *cur;
    const char kind = line_kind(p.text.c_str());
    if (kind == 'S' && result < 0) {
        if (p.src_over++ == 0)
            p.src_over_line = p.line;
        return;
    }
    if (kind == 'G') {
        if (srcs_used >= SRCS_MAX) {
            if (!p.glb_over_line)
                p.glb_over_line = p.line;
        } else if (!p.quiet)
            check_tags(p, p.raw);
        return;
    }
    line_rec r{};
    r.line = p.line;
    r.kind = kind;
    if (kind == 'X' && result == 0) {
        // the handler put the line's node at the head of one of two lists
        dlist *head = xpts.next != p.xpts_head ? xpts.next : xpts_new.next;
        if (head == &xpts || head == &xpts_new)
            return;
        r.node = dlist_entry(head, xpt, link);
        r.x = r.node->x;
        if (const pass::seen *m = tag_seen(p, "mix"))
            r.full_mix = value_text(m->value);
    } else if (kind == 'S') {
        r.s = srcs[srcs_used - 1];
    } else {
        return;
    }
    if (!p.quiet) {
        check_tags(p, p.raw);
        if (kind == 'X')
            check_xpt(p, r);
        else
            check_src(p, r.s);
    }
    p.recs.push_back(r);
}

const pelocfg_observer observer{on_piece, on_tag, on_warn, on_done};

void free_lists()
{
    // each node's successor read before it is freed; the heads emptied last
    for (dlist *l : {&xpts, &xpts_del, &xpts_new}) {
        for (dlist *e = l->next, *next; e != l; e = next) {
            next = e->next;
            delete dlist_entry(e, xpt, link);
        }
        dlist_init(l);
    }
}

// Reads fname through the loader. Returns false when it cannot be read.
bool read_file(const char *fname, pass &p)
{
    struct stat st{};
    if (stat(fname, &st) != 0) {
        if (!p.quiet)
            report(0, "error", "%s: the daemon removes all routing", strerror(errno));
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        if (!p.quiet)
            report(0, "error", "not a regular file: the daemon reads it as an empty "
                   "configuration and removes all routing");
        return false;
    }
    std::unique_ptr<FILE, int (*)(FILE *)> f(fopen(fname, "r"), fclose);
    if (!f) {
        if (!p.quiet)
            report(0, "error", "%s: the daemon removes all routing", strerror(errno));
        return false;
    }
    cur = &p;
    pelocfg_obs = &observer;
    pelocfg_read(f.get());
    pelocfg_obs = nullptr;
    return true;
}

// Mix names as the daemon stores them (64 characters).
std::string mix_id(const char *name) { return std::string(name).substr(0, MIX_ID_LEN - 1); }

void split_mix_list(const char *list, std::vector<std::string> &out)
{
    const char *t = list;
    for (int k = 0; k < 2; k++) {
        const size_t n = strcspn(t, ":,; ");
        if (n)
            out.emplace_back(t, n);
        if (t[n] == '\0')
            return;
        t += n + 1;
    }
}

// Checks that need the whole file: duplicates, table sizes, mixes.
void check_file(pass &p)
{
    if (p.src_over)
        report(p.src_over_line, "error", "%d SRC lines beyond the %d the table holds (from this "
               "line on): the daemon ignores them", p.src_over, SRCS_MAX);
    if (p.glb_over_line)
        report(p.glb_over_line, "warning", "GLB after the %dth SRC line: the daemon ignores it",
               SRCS_MAX);

    std::map<std::string, int> fed;           // mix -> first XPT line feeding it
    std::vector<std::pair<std::string, int>> mixes; // in the order the daemon meets them
    auto meet = [&](const std::string &name, int line) {
        const std::string id = mix_id(name.c_str());
        if (std::none_of(mixes.begin(), mixes.end(), [&](auto &m) { return m.first == id; }))
            mixes.emplace_back(id, line);
    };
    for (const line_rec &r : p.recs)
        if (r.kind == 'S') {
            std::vector<std::string> names;
            split_mix_list(r.s.mix, names);
            for (const std::string &n : names) {
                meet(n, r.line);
                if (n.size() > MIX_ID_LEN - 1)
                    report(r.line, "warning", "mix name longer than %d characters: the daemon "
                           "cannot find it again and takes a new mix output on every load",
                           MIX_ID_LEN - 1);
            }
        }

    std::vector<const line_rec *> flows; // one crosspoint per distinct flow
    int flows_over_line = 0, flows_wanted = 0;
    for (auto it = p.recs.rbegin(); it != p.recs.rend(); ++it) { // the daemon's add order
        const line_rec &r = *it;
        if (r.kind != 'X' || !r.x.src[0] || !r.x.mix[0])
            continue;
        meet(r.x.mix, r.line);
        if (r.x.eaec_mix[0] && strncmp(r.x.src, "alsa:", 5) != 0)
            meet(r.x.eaec_mix, r.line);
        pelod_xpt a = r.x;
        a.mix[0] = '\0';
        bool found = false;
        for (const line_rec *f : flows) {
            pelod_xpt b = f->x;
            b.mix[0] = '\0';
            if (pelocfg_xpt_same(&a, &b)) {
                found = true;
                break;
            }
        }
        if (!found) {
            flows.push_back(&r);
            if (++flows_wanted == RTP_DST_MAX + 1)
                flows_over_line = r.line;
        }
    }
    if (flows_wanted > RTP_DST_MAX)
        report(flows_over_line, "error", "%d flows (distinct src, chn, pdly, vox, lce, ecs) but "
               "the table holds %d: the crosspoints of %d of them, from this line back to the "
               "start of the file, get none (\"update_flows no mixer input available\")",
               flows_wanted, RTP_DST_MAX, flows_wanted - RTP_DST_MAX);
    if (mixes.size() > size_t(MIX_OUT_MAX))
        report(mixes[MIX_OUT_MAX].second, "error", "%zu mixes named but the table holds %d: "
               "routes to the mixes the daemon meets last, from this line on, are dropped "
               "(\"update_flows no mixer output available\")", mixes.size(), MIX_OUT_MAX);

    std::multimap<std::string, const line_rec *> by_key;
    int dups = 0;
    for (const line_rec &r : p.recs) {
        if (r.kind != 'X')
            continue;
        const std::string id = mix_id(r.x.mix);
        fed.emplace(id, r.line);
        const std::string key = std::string(r.x.src) + '\n' + id;
        auto range = by_key.equal_range(key);
        for (auto i = range.first; i != range.second; ++i) {
            const line_rec &o = *i->second;
            if (!pelocfg_xpt_same(&o.x, &r.x))
                continue;
            if (++dups > 20) {
                if (o.x.gain_dB != r.x.gain_dB)
                    n_errors++;
                else
                    n_warnings++;
                break;
            }
            if (o.x.gain_dB == r.x.gain_dB)
                report(r.line, "warning", "the same crosspoint as line %d: the daemon routes it "
                       "once", o.line);
            else
                report(r.line, "error", "the same crosspoint as line %d with another gain "
                       "(%g and %g dB): the daemon applies one of them, and a reload may switch "
                       "to the other", o.line, double(o.x.gain_dB), double(r.x.gain_dB));
            break;
        }
        by_key.emplace(key, &r);
    }
    if (dups > 20)
        report(0, "warning", "%d more crosspoints repeat an earlier one", dups - 20);
    // names that differ only after 64 characters are one mix
    std::map<std::string, const line_rec *> first_name;
    for (const line_rec &r : p.recs) {
        if (r.kind != 'X')
            continue;
        auto [it, fresh] = first_name.emplace(mix_id(r.x.mix), &r);
        if (!fresh && it->second->full_mix != r.full_mix)
            report(r.line, "error", "mix name cut to %d characters is the same as that of line "
                   "%d: the daemon mixes both into one mix", MIX_ID_LEN - 1, it->second->line);
    }
    for (const line_rec &r : p.recs) {
        std::vector<std::string> names;
        if (r.kind == 'S')
            split_mix_list(r.s.mix, names);
        if (r.kind == 'X' && r.x.eaec_mix[0])
            names.emplace_back(r.x.eaec_mix);
        for (const std::string &n : names)
            if (!fed.count(mix_id(n.c_str())))
                report(r.line, "warning", "mix '%s' is fed by no crosspoint: it is silent",
                       n.c_str());
    }
}

std::string fmt_text(const rtp_fmt &f)
{
    char b[64];
    snprintf(b, sizeof b, "%s/%d/%d", payload_format_str(f.payload_format), f.samplerate,
             f.nchan);
    return b;
}

// What a reload from the running file to the new one does, by the loader's
// own comparison of crosspoints and the outgoing streams' identity.
void reload_notes(const char *file, const char *running, const pass &now)
{
    free_lists();
    pass run{};
    run.quiet = true;
    if (!read_file(running, run)) {
        report(0, "error", "running file %s cannot be read", running);
        return;
    }
    std::map<const xpt *, const line_rec *> run_line;
    for (const line_rec &r : run.recs)
        if (r.kind == 'X')
            run_line[r.node] = &r;
    while (!dlist_empty(&xpts_new)) { // as the load's last step does
        dlist *e = xpts_new.next;
        dlist_del(e);
        dlist_add_head(&xpts, e);
    }
    const int run_srcs = srcs_used;
    std::vector<src> run_src(srcs, srcs + run_srcs);

    pass again{};
    again.quiet = true;
    read_file(file, again);
    int added = 0, changed = 0, same = 0, removed = 0;
    for (size_t i = 0; i < again.recs.size() && i < now.recs.size(); i++) {
        const line_rec &r = again.recs[i];
        if (r.kind != 'X')
            continue;
        auto old = run_line.find(r.node);
        if (old == run_line.end()) {
            added++;
            report(r.line, "note", "a reload adds this crosspoint");
            continue;
        }
        const pelod_xpt &o = old->second->x;
        const pelod_xpt &n = now.recs[i].x;
        if (r.x.gain_dB != o.gain_dB || memcmp(&r.x.ep, &o.ep, sizeof o.ep) != 0) {
            changed++;
            report(r.line, "note", "a reload changes this crosspoint (running line %d) in place: "
                   "gain %g -> %g dB%s", old->second->line, double(o.gain_dB),
                   double(r.x.gain_dB), memcmp(&r.x.ep, &o.ep, sizeof o.ep) ? ", new endpoint" : "");
        } else {
            same++;
        }
        if (memcmp(&n.fmt, &o.fmt, sizeof o.fmt) != 0)
            report(r.line, "warning", "fmt changes from %s to %s, but a reload does not compare "
                   "formats: the running flow keeps %s (change another tag of the line too, or "
                   "restart the daemon)", fmt_text(o.fmt).c_str(), fmt_text(n.fmt).c_str(),
                   fmt_text(o.fmt).c_str());
    }
    for (dlist *e = xpts_del.next; e != &xpts_del; e = e->next) {
        auto old = run_line.find(dlist_entry(e, xpt, link));
        removed++;
        printf("%s:%d: note: a reload removes this crosspoint\n", running,
               old != run_line.end() ? old->second->line : 0);
    }

    // Outgoing streams: identity as the sender compares it.
    std::vector<bool> kept(size_t(run_srcs), false);
    int started = 0, stopped = 0;
    auto as_stream = [](const src &s) {
        auto r = std::make_unique<rtp_src>();
        memset(r.get(), 0, sizeof *r);
        snprintf(r->in_mix, sizeof r->in_mix, "%s", s.mix);
        r->limcom.current_params = s.limcom_params;
        r->bitrate = s.bitrate;
        r->cbr = s.cbr;
        r->rtp_pt = s.rtp_pt;
        r->ep.sa_dst = s.ep.sa_dst;
        r->fmt = s.fmt;
        r->rtp_ptime_samples = s.rtp_ptime_samples;
        return r;
    };
    for (const line_rec &r : again.recs) {
        if (r.kind != 'S')
            continue;
        bool found = false;
        for (int j = 0; j < run_srcs && !found; j++)
            if (!kept[size_t(j)] && rtp_src_cmp(as_stream(run_src[size_t(j)]).get(), &r.s) == 0) {
                kept[size_t(j)] = found = true;
                const float *g = run_src[size_t(j)].gainv_dB;
                if (g[0] != r.s.gainv_dB[0] || g[1] != r.s.gainv_dB[1])
                    report(r.line, "note", "a reload changes this stream's gainv in place: %g;%g "
                           "-> %g;%g dB", double(g[0]), double(g[1]), double(r.s.gainv_dB[0]),
                           double(r.s.gainv_dB[1]));
            }
        if (!found) {
            started++;
            report(r.line, "note", "a reload starts this stream");
        }
    }
    int j = 0;
    for (const line_rec &r : run.recs)
        if (r.kind == 'S' && j < run_srcs && !kept[size_t(j++)]) {
            stopped++;
            printf("%s:%d: note: a reload stops this stream\n", running, r.line);
        }
    printf("%s: note: a reload adds %d, changes %d, removes %d and leaves %d crosspoints; starts "
           "%d and stops %d streams\n", file, added, changed, removed, same, started, stopped);
    free_lists();
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2 || argc > 3 || argv[1][0] == '-') {
        fprintf(stderr, "usage: %s FILE [RUNNING-FILE]\n"
                "Checks a pelod configuration; with RUNNING-FILE also tells what a reload from it "
                "to FILE changes.\nExit status: 0 clean, 1 warnings, 2 errors.\n", argv[0]);
        return 2;
    }
    file_name = argv[1];
    pass now{};
    if (read_file(argv[1], now)) {
        bool live = false;
        for (const line_rec &r : now.recs)
            live = live || r.kind == 'X' || r.kind == 'S';
        if (!live && now.any_nul)
            report(0, "error", "binary data and no GLB, XPT or SRC line: the daemon removes all "
                   "routing");
        else if (!live)
            report(0, "warning", "no XPT or SRC line: the daemon removes all routing");
        check_file(now);
        if (argc == 3)
            reload_notes(argv[1], argv[2], now);
    }
    fflush(stdout);
    return n_errors ? 2 : n_warnings ? 1 : 0;
}
