#include "config/vtrp.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace {

constexpr uint32_t ADDR_BAD = 0xFFFFFFFFu;

bool is_sep(char c) { return c == ' ' || c == ','; }
bool is_eol(char c) { return c == '\n' || c == '\r'; }

// End of the item at s: the first unquoted separator, or the NUL. A
// backslash right before the NUL is left as the last character.
const char *item_end(const char *s)
{
    bool quoted = false;
    for (;;) {
        const char c = *s;
        if (c == '\0')
            return s;
        if (c == '\\') {
            if (s[1] == '\0')
                return s + 1;
            s += 2;
            continue;
        }
        if (c == '"')
            quoted = !quoted;
        else if (!quoted && is_sep(c))
            return s;
        ++s;
    }
}

const char *skip_seps(const char *s)
{
    while (is_sep(*s))
        ++s;
    return s;
}

// The common scan of vtr_findtag and vtr_findval: the first item whose
// first l characters match name (any case) and whose next character is in
// terms. Returns the item start or null.
const char *find_item(const char *s, const char *name, size_t l, const char *terms)
{
    if (!s || !name || *s == '\0')
        return nullptr;
    // a name shorter than l can only match a text that ends there
    l = strnlen(name, l);
    for (;;) {
        if (strncasecmp(s, name, l) == 0 && s[l] != '\0' && strchr(terms, s[l]))
            return s;
        s = item_end(s);
        if (*s == '\0')
            return nullptr;
        s = skip_seps(s);
        if (*s == '\0')
            return nullptr;
    }
}

long read_long(const char *v)
{
    if (*v == '"')
        ++v;
    return strtol(v, nullptr, 0);
}

} // namespace

const char *vtr_nextval(const char *s)
{
    if (!s || *s == '\0')
        return s;
    return skip_seps(item_end(s));
}

const char *vtr_findtag(const char *s, const char *name, size_t l)
{
    return find_item(s, name, l, ":=");
}

const char *vtr_findval(const char *s, const char *name)
{
    if (!name)
        return nullptr;
    const size_t l = strlen(name);
    const char *t = find_item(s, name, l, ":= ");
    return t ? t + l + 1 : nullptr;
}

size_t vtr_copyval(char *buf, const char *s, int buf_size)
{
    if (!buf || buf_size <= 0)
        return 0;
    size_t n = 0;
    const size_t room = size_t(buf_size) - 1;
    bool quoted = false;
    if (s) {
        while (*s && n < room) {
            const char c = *s;
            if (!quoted && (is_eol(c) || is_sep(c)))
                break;
            if (c == '\\') {
                if (s[1] == '\0') {
                    buf[n++] = '\\';
                    ++s;
                } else {
                    buf[n++] = s[1];
                    s += 2;
                }
            } else if (c == '"') {
                quoted = !quoted;
                ++s;
            } else {
                buf[n++] = c;
                ++s;
            }
        }
    }
    buf[n] = '\0';
    return n;
}

uint32_t vtr_url2ip_port(const char *url, uint16_t *udp_port, uint16_t udp_port_default)
{
    if (!url)
        return 0;
    if (*url == '"')
        ++url;
    if (const char *scheme = strstr(url, "://")) {
        if (strncmp(url, "vts://", 6) != 0)
            return 0;
        url = scheme + 3;
    }
    char *end = nullptr;
    const long first = strtol(url, &end, 0);
    if (*end == '.') {
        if (*url < '0' || *url > '9')
            return ADDR_BAD;
        uint8_t octet[4] = {uint8_t(first), 0, 0, 0};
        for (int i = 1; i < 4; ++i) {
            if (*end != '.')
                return ADDR_BAD;
            octet[i] = uint8_t(strtoul(end + 1, &end, 0));
        }
        if (udp_port)
            *udp_port = *end == ':' ? uint16_t(strtoul(end + 1, nullptr, 0)) : udp_port_default;
        uint32_t a;
        memcpy(&a, octet, sizeof a); // first octet first on the wire
        return a;
    }
    if (first == 0)
        return ADDR_BAD;
    // magnitude in unsigned arithmetic: -LONG_MIN does not fit a long
    const unsigned long ch = first < 0 ? 0UL - static_cast<unsigned long>(first)
                                       : static_cast<unsigned long>(first);
    if (udp_port)
        *udp_port = udp_port_default;
    const uint8_t octet[4] = {239, uint8_t(first < 0 ? 193 : 192), uint8_t(ch >> 8), uint8_t(ch)};
    uint32_t a;
    memcpy(&a, octet, sizeof a);
    return a;
}

int vtr_vallen(const char *v)
{
    if (!v || *v == '\0' || is_eol(*v))
        return 0;
    int n = 0;
    bool quoted = false;
    for (; *v && !is_eol(*v); ++v) {
        if (!quoted && is_sep(*v))
            break;
        if (*v == '\\') {
            ++n;
            if (v[1] == '\0')
                break;
            ++v;
        } else if (*v == '"') {
            quoted = !quoted;
        } else {
            ++n;
        }
    }
    return n;
}

char *vtr_valdup(const char *v)
{
    if (!v)
        return nullptr;
    const int len = vtr_vallen(v);
    char *d = static_cast<char *>(malloc(size_t(len) + 1));
    if (!d)
        return nullptr;
    if (len == 0)
        d[0] = '\0';
    else
        vtr_copyval(d, v, len + 1);
    return d;
}

long vtr_vall(const char *v)
{
    return v ? read_long(v) : 0;
}

long vtr_getl(const char *s, const char *name, long def)
{
    const char *v = vtr_findval(s, name);
    return v ? read_long(v) : def;
}

int vtr_escape(char *dst, size_t d_len, const char *s)
{
    if (!dst)
        return 0;
    if (!s || *s == '\0' || d_len <= 1) {
        if (d_len > 0)
            dst[0] = '\0';
        return 0;
    }
    size_t n = 0;
    const size_t room = d_len - 1;
    for (; *s; ++s) {
        const bool esc = *s == '"' || *s == '\\';
        if (n + (esc ? 2 : 1) > room)
            break;
        if (esc)
            dst[n++] = '\\';
        dst[n++] = *s;
    }
    dst[n] = '\0';
    return int(n);
}
