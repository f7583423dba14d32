// Random and mutated lines through the loader's line handlers and every
// parser function for about three seconds. Built with AddressSanitizer and
// UBSan: every text and output buffer is a heap block of its exact size, so
// a read past a terminator or a write past a buffer stops the run.
#include "config/pelocfg.h"
#include "config/vtrp.h"
#include "routing_double.h"
#include "support/proc.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <unistd.h>

namespace {
const char *const seeds[] = {
    "GLB ifs=192.168.1.10",
    "XPT mix=spk src=239.192.0.5:5004;src=192.168.1.20;fmt=L24/48000/2;pdly=96 chn=0 gain=-6 "
    "vox=1;t=-45;h=2 ecs=mic lce=1;a=5;r=100;T=0.5;R=4",
    "SRC mix=mic rtpa=239.192.1.1:5004 fmt=L24/48000/1 pt=97 ptime=1 gainv=-3;-6 br=0x10",
    "XPT mix=\"a b\" src=vts://1234 ifa=10.0.0.1:5006 lce=1;i=27;a=1 vox=0;t=-20;g=1",
    "SRC mix=a:b rtpa=\"-5;src=1.2.3.4\" ifa=:7000 fmt=opus.48000.2 cbr=1",
};
const char alphabet[] = " ,;:=\"\\./-+0123456789xXe\r\n\tabcdefgilmnoprstvRTALS";
const char *const names[] = {"mix", "src", "rtpa", "ifa", "fmt", "pdly", "a", "", "GLB"};

std::mt19937 rng(20240601u);
size_t pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng); }
// Mostly the syntax's own characters, sometimes any byte but NUL.
char any_char() { return pick(6) == 0 ? char(pick(255) + 1) : alphabet[pick(sizeof alphabet - 1)]; }

std::string random_line()
{
    std::string s(pick(20) == 0 ? pick(70000) : pick(160), ' ');
    for (char &c : s)
        c = any_char();
    return std::string(pick(2) ? "XPT " : "SRC ") + s;
}

std::string mutated_seed()
{
    std::string s = seeds[pick(std::size(seeds))];
    for (size_t n = pick(8) + 1; n > 0; --n) {
        const size_t at = pick(s.size() + 1);
        switch (pick(4)) {
        case 0: s.insert(s.begin() + long(at), any_char()); break;
        case 1: s.erase(at, 1); break;
        case 2: s.replace(at, 1, 1, any_char()); break;
        default: s.insert(at, s.substr(at, pick(64))); break;
        }
    }
    return s;
}

// A heap block of exactly the text and its terminator (freed by the caller).
char *heap_copy(const std::string &s) { return static_cast<char *>(memcpy(malloc(s.size() + 1), s.c_str(), s.size() + 1)); }

void exercise_vtr(const char *s)
{
    int steps = 0;
    for (const char *p = s; *p && steps < 100000; ++steps) {
        const char *q = vtr_nextval(p);
        ASSERT_GT(q, p);
        p = q;
    }
    const char *name = names[pick(std::size(names))];
    const char *v = vtr_findval(s, name);
    vtr_findtag(s, name, pick(8));
    if (!v || pick(4) == 0)
        v = s + pick(strlen(s) + 1);
    vtr_vall(v);
    vtr_getl(s, name, 7);
    uint16_t port = 0;
    vtr_url2ip_port(v, &port, 5004);
    vtr_url2ip_port(s, nullptr, 0);

    const int size = int(pick(80)) - 4; // copies stay inside their buffers and say what they stored
    char *buf = static_cast<char *>(malloc(size_t(std::max(size, 1))));
    const size_t n = vtr_copyval(buf, v, size);
    EXPECT_TRUE(size <= 0 ? n == 0 : n < size_t(size) && strlen(buf) == n) << size;
    const size_t room = size_t(std::max(size, 0));
    EXPECT_TRUE(room == 0 || size_t(vtr_escape(buf, room, v)) < room) << size;
    free(buf);
    char *d = vtr_valdup(v);
    ASSERT_NE(d, nullptr);
    ASSERT_EQ(strlen(d), size_t(vtr_vallen(v)));
    free(d);
}

void exercise_cfg(const char *s, const char *other)
{
    pelocfg_load_glb(s);
    pelocfg_load_xpt(s);
    pelocfg_load_src(s);
    rtp_fmt f{};
    rtp_fmt_parse(&f, s, s);
    pelod_vox_cfg vox{};
    pelocfg_vox(&vox, s);
    limcom_params lcp{};
    pelocfg_limcom(&lcp, s);
    rtp_ep_spec ep;
    rtpa2ep(s, other, &ep, 1);
    rtpa2ep(other, s, &ep, 1);
}

TEST(ConfigFuzz, RandomAndMutatedLines)
{
    config_reset();
    fflush(stdout); // the format warnings would flood the test log
    const int saved = dup(1), null_fd = open("/dev/null", O_WRONLY);
    dup2(null_fd, 1);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    std::string file;
    long iterations = 0;
    while (std::chrono::steady_clock::now() < end && !HasFailure()) {
        const std::string line = pick(2) ? random_line() : mutated_seed();
        char *t = heap_copy(line), *o = heap_copy(mutated_seed());
        exercise_vtr(t);
        exercise_cfg(t, o);
        free(t);
        free(o);
        file += line + (pick(4) ? "\n" : "");
        if (++iterations % 64 == 0) { // the whole load path, then a clean slate for the handlers
            const std::string path = tmp_file(file);
            pelocfg_load(path.c_str());
            unlink(path.c_str());
            file.clear();
            config_reset();
        }
    }
    config_reset();
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    close(null_fd);
    EXPECT_GT(iterations, 100);
    printf("%ld lines\n", iterations);
}
} // namespace
