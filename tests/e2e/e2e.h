// Helpers of the end-to-end tests: the built daemon in a network
// namespace, RTP sockets in that namespace and a paced sender on the
// media clock.
#pragma once
#include "support/daemon.h"
#include "support/netns.h"
#include "support/proc.h"
#include "support/rtp_wire.h"

#include <cstdint>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

inline constexpr double FULL24 = 8388607.0;

// The daemon started in `ns` on the system clock; `up` once the pid file
// shows the configuration loaded. Stopped (SIGTERM) with the object.
struct ns_pelod : pelod_proc {
    bool up = false;
    ns_pelod(const netns &ns, const std::string &conf, const std::vector<std::string> &options = {});
    int stop(); // its exit status, -1 when it had to be killed
    std::string output() const { return out() + err(); }
    ~ns_pelod();
};

struct rtp_pkt {
    uint16_t seq = 0;
    uint32_t ts = 0;
    std::vector<uint8_t> payload;
};

// A UDP socket made in ns, bound to bind_addr:port (SO_REUSEADDR), in
// `group` on interface ifa when given. As a sender, multicast leaves
// through ifa (bind_addr when ifa is null). -1 on failure.
int udp_socket(const netns &ns, const char *bind_addr, uint16_t port, const char *group = nullptr,
               const char *ifa = nullptr);
void rtp_send(int fd, const char *to, uint16_t port, uint8_t pt, uint16_t seq, uint32_t ts, uint32_t ssrc,
              const std::vector<uint8_t> &payload);
// Every datagram waiting on fd, as RTP packets (runts are left out).
void rtp_drain(int fd, std::vector<rtp_pkt> &into);

// Calls each(k, ts) for `ms` milliseconds: packet k holds the samples
// [ts, ts + 48) and is due half a millisecond after its last sample, as a
// sender on the media clock sends it (the daemon wakes on whole
// milliseconds). Runs at a low real-time priority when it may.
void paced_1ms(int ms, const std::function<void(int k, uint32_t ts)> &each);
