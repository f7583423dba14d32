#include "e2e.h"

#include <arpa/inet.h>
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
