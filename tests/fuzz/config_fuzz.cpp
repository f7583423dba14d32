// A configuration text through the whole reading half of a load, then each
// of its lines through every line handler, the field parsers and the
// value scanner. Every line is a heap block of its exact size, so a read
// past a terminator or a write past a buffer is caught. Seed: the example
// configuration.
#include "config/pelocfg.h"
#include "config/vtrp.h"
#include "routing_double.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <string>
#include <unistd.h>

namespace {
const char *const names[] = {"mix", "src", "rtpa", "ifa", "fmt", "gain", "a", "", "GLB"};

// The token scanner always moves on, and copies stay inside their buffers
// and say what they stored.
void exercise_vtr(const char *s, unsigned h)
{
    for (const char *p = s; *p;) {
        const char *q = vtr_nextval(p);
        if (q <= p)
            abort();
        p = q;
    }
    const char *name = names[h % std::size(names)], *v = vtr_findval(s, name);
    vtr_findtag(s, name, h % 8);
    if (!v)
        v = s + (h % (strlen(s) + 1));
    vtr_url2ip_port(v, nullptr, 5004);
    const int size = int(h % 80) - 4;
    char *buf = static_cast<char *>(malloc(size_t(std::max(size, 1))));
    const size_t n = vtr_copyval(buf, v, size);
    if (size <= 0 ? n != 0 : n >= size_t(size) || strlen(buf) != n)
        abort();
    if (size > 0 && vtr_escape(buf, size_t(size), v) >= size)
        abort();
    free(buf);
    char *d = vtr_valdup(v);
    if (!d || strlen(d) != size_t(vtr_vallen(v)))
        abort();
    free(d);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fflush(stdout); // the loader's warnings would flood the run's log
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    if (FILE *f = fmemopen(const_cast<char *>(text.data()), text.size(), "r")) {
        pelocfg_read(f);
        fclose(f);
    }
    config_reset();
    std::istringstream lines(text);
    std::string prev = "0.0.0.0";
    for (std::string line; std::getline(lines, line); prev = line) {
        unsigned h = 2166136261u;
        for (char c : line)
            h = (h ^ uint8_t(c)) * 16777619u;
        char *s = strdup(line.c_str()), *other = strdup(prev.c_str());
        exercise_vtr(s, h);
        pelocfg_load_glb(s);
        pelocfg_load_xpt(s);
        pelocfg_load_src(s);
        rtp_fmt f{};
        rtp_fmt_parse(&f, s, s);
        pelod_vox_cfg vox{};
        pelocfg_vox(&vox, s);
        limcom_params lcp{};
        pelocfg_limcom(&lcp, s);
        rtp_ep_spec ep[2];
        rtpa2ep(s, other, ep, 2);
        rtpa2ep(other, s, ep, 1);
        free(s);
        free(other);
    }
    config_reset();
    return 0;
}
