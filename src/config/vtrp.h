// Tag/value line syntax: items "tag=value" / "tag:value" separated by runs
// of blanks and commas, double quotes and backslashes inside values, and
// the address forms of the configuration (dotted IPv4 with port, vts://
// URLs, channel numbers of the audio network). Works in place on a
// NUL-terminated text and never reads past its terminator. All functions
// are reentrant; only vtr_valdup allocates.
#pragma once
#include <cstddef>
#include <cstdint>

// Start of the next item after the one at s, or the terminating NUL.
const char *vtr_nextval(const char *s);
// Item whose first l characters match name (any case) followed by ':' or
// '='; null when absent.
const char *vtr_findtag(const char *s, const char *name, size_t l);
// Value after the first item matching name followed by ':', '=' or a
// blank; null when absent.
const char *vtr_findval(const char *s, const char *name);
// Copies the unquoted, unescaped value at s into buf (at most buf_size-1
// bytes, always terminated when buf_size > 0). Returns the bytes stored.
size_t vtr_copyval(char *buf, const char *s, int buf_size);
// IPv4 address (network order) of a dotted address, vts:// URL or channel
// number; stores the port (or udp_port_default) when udp_port is given.
// Returns 0 for a null text or a foreign scheme, 0xFFFFFFFF when malformed.
uint32_t vtr_url2ip_port(const char *url, uint16_t *udp_port, uint16_t udp_port_default);
// Length of the value once unquoted and unescaped (stops at CR/LF).
int vtr_vallen(const char *v);
// Newly allocated unquoted copy of the value, or null; release with free().
char *vtr_valdup(const char *v);
// The value as a long, base auto-detected (0x.. hex, 0.. octal).
long vtr_vall(const char *v);
// The named value as a long, or def when the tag is absent.
long vtr_getl(const char *s, const char *name, long def);
// Writes s into dst with '"' and '\' escaped, never splitting a pair.
// Returns the bytes stored.
int vtr_escape(char *dst, size_t d_len, const char *s);
