#include "e2e.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cmath>
#include <csignal>
#include <cstring>
#include <ctime>
#include <sched.h>
#include <unistd.h>

static in_addr_t ip(const char *a) { return a ? inet_addr(a) : INADDR_ANY; }

ns_pelod::ns_pelod(const netns &ns, const std::string &conf, const std::vector<std::string> &options)
    : pelod_proc(conf)
{
    const std::string pid = pid_path();
    std::vector<std::string> argv = {PELOD_BIN, "-p", "-", "-f", path};
    argv.insert(argv.end(), options.begin(), options.end());
    up = !path.empty() && start(ns.cmd(argv)) &&
         wait_for(3000, [&] { return access(pid.c_str(), F_OK) == 0; });
}

int ns_pelod::stop()
{
    signal(SIGTERM);
    return wait(3000);
}

ns_pelod::~ns_pelod()
{
    if (pid > 0)
        stop();
}

int udp_socket(const netns &ns, const char *bind_addr, uint16_t port, const char *group, const char *ifa)
{
    const netns_scope in(ns);
    if (!in.ok())
        return -1;
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    const sockaddr_in a{AF_INET, htons(port), {ip(bind_addr)}, {}};
    if (bind(fd, reinterpret_cast<const sockaddr *>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    const in_addr mcif{ip(ifa ? ifa : bind_addr)};
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &mcif, sizeof mcif);
    const ip_mreq m{{ip(group)}, {ip(ifa)}};
    if (group && setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof m) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

void rtp_send(int fd, const char *to, uint16_t port, uint8_t pt, uint16_t seq, uint32_t ts, uint32_t ssrc,
              const std::vector<uint8_t> &payload)
{
    const std::vector<uint8_t> p = rtp_datagram(seq, ts, payload, pt, false, ssrc);
    const sockaddr_in a{AF_INET, htons(port), {ip(to)}, {}};
    sendto(fd, p.data(), p.size(), 0, reinterpret_cast<const sockaddr *>(&a), sizeof a);
}

void rtp_drain(int fd, std::vector<rtp_pkt> &into)
{
    uint8_t b[1500];
    for (;;) {
        const ssize_t n = recv(fd, b, sizeof b, MSG_DONTWAIT);
        if (n < 0)
            return;
        if (n < 12)
            continue;
        rtp_pkt p;
        p.seq = be16(b + 2);
        p.ts = be32(b + 4);
        p.payload.assign(b + 12, b + n);
        into.push_back(std::move(p));
    }
}

static int64_t tai_ns()
{
    timespec t{};
    clock_gettime(CLOCK_TAI, &t);
    return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

static uint32_t media_of(int64_t ns)
{
    return uint32_t(uint64_t(ns / 1000000000) * 48000 + uint64_t(ns % 1000000000) * 3 / 62500);
}

void paced_1ms(int ms, const std::function<void(int, uint32_t)> &each)
{
    int policy = sched_getscheduler(0);
    sched_param old{};
    sched_getparam(0, &old);
    const sched_param rt{1};
    const bool raised = sched_setscheduler(0, SCHED_FIFO, &rt) == 0;
    const int64_t t0 = (tai_ns() / 1000000 + 2) * 1000000 + 500000;
    for (int k = 0; k < ms; k++) {
        const int64_t due = t0 + int64_t(k) * 1000000;
        const int64_t wait = due - tai_ns();
        if (wait > 0) {
            const timespec rel{time_t(wait / 1000000000), long(wait % 1000000000)};
            clock_nanosleep(CLOCK_MONOTONIC, 0, &rel, nullptr);
        }
        each(k, media_of(due) - 48);
    }
    if (raised)
        sched_setscheduler(0, policy, &old);
}

tone_measure measure_tone(const std::vector<float> &x)
{
    tone_measure m;
    float peak = 0.0f;
    for (float v : x)
        peak = std::max(peak, std::fabs(v));
    size_t a = 0, b = x.size();
    while (a < b && std::fabs(x[a]) < 0.05f * peak)
        a++;
    while (b > a && std::fabs(x[b - 1]) < 0.05f * peak)
        b--;
    a += 960;
    b = b > 960 ? b - 960 : 0;
    if (peak == 0.0f || b <= a + 960)
        return m;
    m.samples = b - a;
    std::vector<double> blocks, iv;
    for (size_t i = a; i + 480 <= b; i += 480) {
        double sum = 0.0;
        for (size_t j = i; j < i + 480; j++)
            sum += double(x[j]) * x[j];
        blocks.push_back(10.0 * std::log10(sum / 480.0 + 1e-30));
    }
    std::nth_element(blocks.begin(), blocks.begin() + long(blocks.size() / 2), blocks.end());
    m.rms_dbfs = blocks[blocks.size() / 2];
    double prev = -1.0;
    for (size_t i = a + 1; i < b; i++)
        if (x[i - 1] < 0.0f && x[i] >= 0.0f) {
            const double at = double(i - 1) + double(-x[i - 1]) / double(x[i] - x[i - 1]);
            if (prev >= 0.0)
                iv.push_back(at - prev);
            prev = at;
        }
    if (iv.empty())
        return m;
    std::vector<double> sorted = iv;
    std::nth_element(sorted.begin(), sorted.begin() + long(sorted.size() / 2), sorted.end());
    const double med = sorted[sorted.size() / 2];
    double sum = 0.0;
    int n = 0;
    for (double v : iv)
        if (std::fabs(v - med) < 0.05 * med)
            sum += v, n++;
    m.freq_hz = 48000.0 * n / sum;
    return m;
}

std::vector<float> pcm_channel0(const std::string &path)
{
    const std::string w = read_file(path);
    const auto *d = reinterpret_cast<const uint8_t *>(w.data());
    const bool wav = w.size() >= 44 && w.compare(0, 4, "RIFF") == 0;
    const size_t ch = wav ? d[22] : 1, bytes = wav ? d[34] / 8 : 2, step = ch * bytes;
    std::vector<float> x;
    if (ch < 1 || (bytes != 2 && bytes != 3))
        return x;
    for (size_t o = wav ? 44 : 0; o + step <= w.size(); o += step) {
        const int32_t v = bytes == 2 ? int16_t(d[o] | d[o + 1] << 8)
                                     : int32_t(uint32_t(d[o]) << 8 | uint32_t(d[o + 1]) << 16 |
                                               uint32_t(d[o + 2]) << 24) >> 8;
        x.push_back(float(v / (bytes == 2 ? 32767.0 : FULL24)));
    }
    return x;
}
