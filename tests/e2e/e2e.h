// Helpers of the end-to-end tests: the built daemon in a network
// namespace, RTP sockets in that namespace, a paced sender on the media
// clock, and the measures the tests take of what comes out.
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

inline const std::string tone_bin = std::string(PELOD_TOOLS_DIR) + "/pelod-tone";
inline const std::string listen_bin = std::string(PELOD_TOOLS_DIR) + "/pelod-listen";
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

// An empty file under /tmp for a program to write, removed with the object.
struct tmp_out {
    const std::string path;
    explicit tmp_out(const char *suffix) : path(tmp_file("", suffix)) {}
    ~tmp_out() { unlink(path.c_str()); }
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

// Level and pitch of a tone; the leading and trailing silence (and 20 ms
// beside it) is left out. The dropouts of a busy machine do not move
// them: the level is the median of 10 ms blocks, the period the mean of
// the zero-crossing intervals near their median.
struct tone_measure {
    double rms_dbfs = -200.0; // full scale 1.0
    double freq_hz = 0.0;
    size_t samples = 0; // analysed
};
tone_measure measure_tone(const std::vector<float> &x);
// Channel 0 of a WAV file (16- or 24-bit PCM) or else of raw signed
// 16-bit little-endian mono, full scale 1.0.
std::vector<float> pcm_channel0(const std::string &path);
