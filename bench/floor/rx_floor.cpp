// The CPU floor of the receive cycle: only the system calls one wake-up of
// the daemon cannot avoid, with nothing mixed. It stands in for the daemon
// in the shared side-by-side harness (same arguments, `-p - -f FILE`), takes
// the receive ports from the configuration's XPT lines (src=IP:PORT) and
// sends to the SRC line's rtpa= from its ifa=. Per millisecond:
//   - one read of a CLOCK_MONOTONIC timerfd, a clock read, and the timer
//     armed again relative to the next whole millisecond, as the cycle does;
//   - one recvmmsg (256 slots, MSG_DONTWAIT, source address and packet
//     information, as the receive drain) on each socket; with --every 2 a
//     socket is read only on every other wake-up, by its descriptor's
//     parity, as the daemon reads a busy socket whose flow has margin;
//   - one sendto of a 1 ms L24 mono RTP packet (silence).
// Options: --every 1|2 (default 1, or $FLOOR_EVERY); --read-tx: also one
// recvmmsg on the sending socket every wake-up, as the daemon reads the
// sending stream's own socket (which holds nothing); --count N: print the
// system calls made per wake-up and the datagrams taken in after N wake-ups
// and exit (without it, runs until SIGINT/SIGTERM).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int BATCH = 256;
constexpr int MTU = 1500;
constexpr int CTRL_LEN = 128;
constexpr int SOCKETS_MAX = 128;
constexpr long PERIOD_NS = 1000000;
constexpr int BLOCK = 48;

struct batch {
    std::array<std::array<uint8_t, MTU>, BATCH> bufs;
    alignas(cmsghdr) std::array<std::array<uint8_t, CTRL_LEN>, BATCH> ctrl;
    std::array<sockaddr_in, BATCH> names;
    std::array<iovec, BATCH> iov;
    std::array<mmsghdr, BATCH> msgs;

    void reset(int j)
    {
        msghdr &h = msgs[j].msg_hdr;
        h.msg_namelen = sizeof names[j];
        h.msg_controllen = CTRL_LEN;
        h.msg_flags = 0;
        msgs[j].msg_len = 0;
    }
    void prepare()
    {
        memset(msgs.data(), 0, sizeof msgs);
        for (int j = 0; j < BATCH; j++) {
            iov[j] = {bufs[j].data(), MTU};
            msghdr &h = msgs[j].msg_hdr;
            h.msg_name = &names[j];
            h.msg_iov = &iov[j];
            h.msg_iovlen = 1;
            h.msg_control = ctrl[j].data();
            reset(j);
        }
    }
};
batch rx;

volatile sig_atomic_t stop;
void on_signal(int) { stop = 1; }

bool parse_addr(const char *line, const char *key, sockaddr_in *sa)
{
    const char *p = strstr(line, key);
    if (!p)
        return false;
    p += strlen(key);
    char ip[64];
    unsigned port;
    if (sscanf(p, "%63[0-9.]:%u", ip, &port) != 2 || port > 65535)
        return false;
    *sa = {};
    sa->sin_family = AF_INET;
    sa->sin_port = htons(uint16_t(port));
    return inet_pton(AF_INET, ip, &sa->sin_addr) == 1;
}

int rx_socket(const sockaddr_in &a)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        perror("rx_floor: socket");
        exit(1);
    }
    const int one = 1;
    const uint8_t tos = 0x88;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&a), sizeof a) != 0) {
        perror("rx_floor: bind");
        exit(1);
    }
    setsockopt(fd, SOL_SOCKET, SO_NO_CHECK, &one, sizeof one);
    setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &one, sizeof one);
    setsockopt(fd, IPPROTO_IP, IP_TOS, &tos, sizeof tos);
    return fd;
}

uint32_t media_ts(timespec ts) { return uint32_t(uint64_t(ts.tv_sec) * 48000u + uint64_t(ts.tv_nsec) * 3u / 62500u); }

void arm(int tfd, long ns)
{
    itimerspec its{};
    its.it_value.tv_nsec = ns;
    timerfd_settime(tfd, 0, &its, nullptr);
}

} // namespace

int main(int argc, char **argv)
{
    const char *conf = nullptr;
    int every = getenv("FLOOR_EVERY") ? atoi(getenv("FLOOR_EVERY")) : 1;
    long count = 0;
    bool read_tx = false;
    for (int i = 1; i < argc; i++) {
        if (!strcmp(argv[i], "-f") && i + 1 < argc)
            conf = argv[++i];
        else if (!strcmp(argv[i], "-p") && i + 1 < argc)
            ++i; // the daemon's clock device: this program uses CLOCK_TAI
        else if (!strcmp(argv[i], "--every") && i + 1 < argc)
            every = atoi(argv[++i]);
        else if (!strcmp(argv[i], "--read-tx"))
            read_tx = true;
        else if (!strcmp(argv[i], "--count") && i + 1 < argc)
            count = atol(argv[++i]);
    }
    if (!conf || (every != 1 && every != 2)) {
        fprintf(stderr, "usage: rx_floor [-p -] -f CONFIG [--every 1|2] [--read-tx] [--count WAKEUPS]\n");
        return 1;
    }
    FILE *f = fopen(conf, "r");
    if (!f) {
        perror(conf);
        return 1;
    }
    std::array<int, SOCKETS_MAX> fds{};
    int nfd = 0, tx = -1;
    sockaddr_in dst{};
    char line[512];
    while (fgets(line, sizeof line, f)) {
        sockaddr_in a{}, b{};
        if (!strncmp(line, "XPT", 3) && parse_addr(line, " src=", &a) && nfd < SOCKETS_MAX) {
            a.sin_addr.s_addr = htonl(INADDR_ANY); // the daemon binds a unicast flow's port on any address
            fds[size_t(nfd++)] = rx_socket(a);
        } else if (!strncmp(line, "SRC", 3) && parse_addr(line, " rtpa=", &a) && parse_addr(line, " ifa=", &b)) {
            dst = a;
            tx = rx_socket(b);
        }
    }
    fclose(f);
    if (tx < 0) {
        fprintf(stderr, "rx_floor: no SRC line with rtpa= and ifa= in %s\n", conf);
        return 1;
    }
    fprintf(stderr, "rx_floor: %d sockets, every %d wake-up(s)%s\n", nfd, every, read_tx ? ", sending socket too" : "");

    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    rx.prepare();
    std::array<uint8_t, 12 + 3 * BLOCK> pkt{};
    pkt[0] = 0x80;
    pkt[1] = 96;
    const uint32_t ssrc = htonl(0x666c6f6fu);
    memcpy(&pkt[8], &ssrc, 4);

    const int tfd = timerfd_create(CLOCK_MONOTONIC, 0);
    sched_param sp{};
    sp.sched_priority = sched_get_priority_max(SCHED_FIFO);
    if (sched_setscheduler(0, SCHED_FIFO, &sp) != 0)
        perror("rx_floor: sched_setscheduler");
    mlockall(MCL_CURRENT | MCL_FUTURE);

    timespec now{};
    clock_gettime(CLOCK_TAI, &now);
    arm(tfd, 2 * PERIOD_NS - now.tv_nsec % PERIOD_NS);
    uint16_t seq = 0;
    long wakes = 0, calls = 0, got = 0;
    while (!stop && (count == 0 || wakes < count)) {
        uint64_t expirations;
        if (read(tfd, &expirations, sizeof expirations) < 0 && errno == EINTR)
            continue;
        clock_gettime(CLOCK_TAI, &now);
        arm(tfd, PERIOD_NS - now.tv_nsec % PERIOD_NS);
        const uint32_t ts = media_ts(now) / BLOCK * BLOCK;
        for (int j = 0; j < nfd; j++) {
            if (every == 2 && ((ts / BLOCK + uint32_t(fds[size_t(j)])) & 1) != 0)
                continue;
            const int n = recvmmsg(fds[size_t(j)], rx.msgs.data(), BATCH, MSG_DONTWAIT, nullptr);
            calls++;
            for (int k = 0; k < n; k++)
                rx.reset(k);
            got += n > 0 ? n : 0;
        }
        if (read_tx) {
            const int n = recvmmsg(tx, rx.msgs.data(), BATCH, MSG_DONTWAIT, nullptr);
            calls++;
            for (int k = 0; k < n; k++)
                rx.reset(k);
        }
        const uint16_t s = htons(seq++);
        const uint32_t t = htonl(ts - BLOCK);
        memcpy(&pkt[2], &s, 2);
        memcpy(&pkt[4], &t, 4);
        sendto(tx, pkt.data(), pkt.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&dst), sizeof dst);
        wakes++;
    }
    if (count)
        printf("wake-ups %ld, recvmmsg per wake-up %.2f, datagrams per wake-up %.2f\n", wakes,
               double(calls) / double(wakes), double(got) / double(wakes));
    return 0;
}
