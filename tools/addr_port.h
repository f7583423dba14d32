// The address forms the tools take on their command lines: a dotted IPv4
// address or, where channels is set, a channel number N of the audio
// network (239.192.x.y; 239.193.x.y for a negative N), each with an
// optional ":port". Only the port is decimal.
#pragma once
#include <arpa/inet.h>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>

// False on anything else; *port is left alone when the text has none.
inline bool parse_addr_port(const char *arg, in_addr_t *addr, uint16_t *port, bool channels)
{
    char host[64];
    const char *colon = strchr(arg, ':');
    const size_t hl = colon ? size_t(colon - arg) : strlen(arg);
    if (hl >= sizeof host)
        return false;
    memcpy(host, arg, hl);
    host[hl] = '\0';
    char *end = nullptr;
    if (colon) {
        const long p = strtol(colon + 1, &end, 10);
        if (end == colon + 1 || *end || p <= 0 || p > 65535)
            return false;
        *port = uint16_t(p);
    }
    in_addr x{};
    if (inet_pton(AF_INET, host, &x) == 1) {
        *addr = x.s_addr;
        return true;
    }
    const long ch = strtol(host, &end, 10);
    if (!channels || end == host || *end || ch == 0 || ch < -65535 || ch > 65535)
        return false;
    const unsigned n = unsigned(ch < 0 ? -ch : ch);
    *addr = htonl((239u << 24) | ((ch < 0 ? 193u : 192u) << 16) | n);
    return true;
}
