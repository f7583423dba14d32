#include "support/rtp_wire.h"

#include <algorithm>
#include <arpa/inet.h>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

int udp_loopback(sockaddr_in *bound)
{
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof a;
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&a), len) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0) {
        close(fd);
        return -1;
    }
    if (bound)
        *bound = a;
    return fd;
}

uint16_t udp_free_port()
{
    sockaddr_in a{};
    close(udp_loopback(&a));
    return ntohs(a.sin_port);
}

std::vector<uint8_t> rtp_datagram(uint16_t seq, uint32_t ts, const std::vector<uint8_t> &payload, int pt, bool marker, uint32_t ssrc)
{
    // sized once and filled by index: gcc 12 at -O3 warns on inserts of
    // initializer lists into a growing vector
    std::vector<uint8_t> p(12 + payload.size());
    p[0] = 0x80;
    p[1] = uint8_t((marker ? 0x80 : 0) | pt);
    p[2] = uint8_t(seq >> 8);
    p[3] = uint8_t(seq);
    for (int i = 0; i < 4; i++) {
        p[4 + i] = uint8_t(ts >> (24 - 8 * i));
        p[8 + i] = uint8_t(ssrc >> (24 - 8 * i));
    }
    std::copy(payload.begin(), payload.end(), p.begin() + 12);
    return p;
}

std::vector<uint8_t> pcm24(const std::vector<int32_t> &samples)
{
    std::vector<uint8_t> b(3 * samples.size());
    for (size_t i = 0; i < samples.size(); i++) {
        b[3 * i] = uint8_t(samples[i] >> 16);
        b[3 * i + 1] = uint8_t(samples[i] >> 8);
        b[3 * i + 2] = uint8_t(samples[i]);
    }
    return b;
}

uint16_t be16(const uint8_t *p) { return uint16_t(p[0] << 8 | p[1]); }
uint32_t be32(const uint8_t *p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }
int32_t be24(const uint8_t *p) { return int32_t(uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8) >> 8; }

uint32_t media_clock_now()
{
    timespec t{};
    clock_gettime(CLOCK_TAI, &t);
    return uint32_t(uint64_t(t.tv_sec) * 48000 + uint64_t(t.tv_nsec) * 3 / 62500);
}

std::vector<std::string> udp_take(int fd, int wait_ms)
{
    std::vector<std::string> got;
    pollfd p{fd, POLLIN, 0};
    char buf[8192];
    if (poll(&p, 1, wait_ms) > 0)
        for (ssize_t n; (n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) >= 0;)
            got.emplace_back(buf, size_t(n));
    return got;
}
