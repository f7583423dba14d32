#include "config/vtrp.h"

const char *vtr_nextval(const char *s) { return s; }
const char *vtr_findtag(const char *, const char *, size_t) { return nullptr; }
const char *vtr_findval(const char *, const char *) { return nullptr; }
size_t vtr_copyval(char *buf, const char *, int buf_size)
{
    if (buf && buf_size > 0)
        buf[0] = '\0';
    return 0;
}
uint32_t vtr_url2ip_port(const char *, uint16_t *, uint16_t) { return 0; }
int vtr_vallen(const char *) { return 0; }
char *vtr_valdup(const char *) { return nullptr; }
long vtr_vall(const char *) { return 0; }
long vtr_getl(const char *, const char *, long def) { return def; }
int vtr_escape(char *dst, size_t, const char *)
{
    if (dst)
        dst[0] = '\0';
    return 0;
}
