#include "daemon/vox.h"

#include "daemon/grace.h"
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "daemon/rtlog.h"
#include "daemon/shared.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <type_traits>
#include <unistd.h>

static_assert(VOX_MSG_MAX >= 8 + RTP_DST_MAX * (int(sizeof rtp_dst::src) - 1 + 3) + 2);
static_assert(std::is_standard_layout_v<pelod_vox_cfg> && std::is_trivially_copyable_v<pelod_vox_cfg>);

int vox_notify_pending;
uint32_t vox_notify_requests;
static uint32_t vox_requests_seen; // the cycle's copy of vox_notify_requests

bool vox_cfg_equal(const pelod_vox_cfg &a, const pelod_vox_cfg &b)
{
    return memcmp(&a.threshold_lin, &b.threshold_lin, sizeof a.threshold_lin) == 0 && a.holdtime == b.holdtime &&
           a.gate == b.gate;
}

void vox_notify_request() noexcept { publish(vox_notify_requests, vox_notify_requests + 1); }

static int vox_fd = -1;
static unsigned vox_socket_failures; // consecutive failed attempts to make the socket

// Failed attempts between two reports: while the socket cannot be made the
// notifier retries every block, and a message per block would flood a log
// (or block on a full pipe).
static constexpr unsigned VOX_REPORT_EVERY = 1000;

static bool vox_watched(rtp_dst &d) noexcept
{
    return observe(d.src[0]) != '\0' && d.vox.threshold_lin != 0.0f;
}

void vox_frame(uint32_t rtp_ts) noexcept
{
    rt_context_check("vox_frame");
    const uint32_t requests = observe(vox_notify_requests);
    int notify = vox_notify_pending | (requests != vox_requests_seen);
    vox_requests_seen = requests;
    for (int i = 0; i < RTP_DST_MAX; i++) {
        rtp_dst &d = rtp_dsts[i];
        if (!vox_watched(d))
            continue;
        bool changed = false;
        if (d.vox_sample >= d.vox.threshold_lin) {
            changed = d.vox_activeto == 0;
            d.vox_activeto = d.vox.holdtime;
        } else if (d.vox_activeto > 0) {
            changed = --d.vox_activeto == 0;
        }
        notify |= changed;
        d.vox_sample = 0.0f;
        if (d.vox.gate && d.vox_activeto == 0)
            for (uint32_t k = 0; k < uint32_t(MIX_BLOCK); k++)
                *mix_slot(rtp_ts + k, i) = 0.0f;
    }
    vox_notify_pending = notify;
    if (notify)
        vox_notify();
}

int vox_message(char *buf, int buf_len) noexcept
{
    static constexpr char open_text[] = "{\"vox\":[";
    static constexpr int open_len = sizeof open_text - 1;
    if (buf_len < open_len + 2)
        return 0;
    memcpy(buf, open_text, open_len);
    int n = open_len;
    for (rtp_dst &d : rtp_dsts) {
        if (!vox_watched(d) || d.vox_activeto <= 0)
            continue;
        const int len = int(strnlen(d.src, sizeof d.src - 1));
        if (n + len + 3 + 2 > buf_len)
            break; // only a short caller buffer gets here; the closing must fit
        buf[n++] = '"';
        memcpy(buf + n, d.src, size_t(len));
        n += len;
        buf[n++] = '"';
        buf[n++] = ',';
    }
    if (buf[n - 1] == ',')
        n--;
    buf[n++] = ']';
    buf[n++] = '}';
    return n;
}

void vox_notify() noexcept
{
    if (vox_fd < 0) {
        vox_fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (vox_fd < 0) {
            rt_perror("pelod: vox_notify", errno, &vox_socket_failures, VOX_REPORT_EVERY);
            return; // still pending: the next block tries again
        }
        vox_socket_failures = 0;
    }
    std::array<char, VOX_MSG_MAX> text;
    const int n = vox_message(text.data(), int(text.size()));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(vox_notify_port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // a lost datagram is not retried: the next change sends the whole list
    sendto(vox_fd, text.data(), size_t(n), MSG_DONTWAIT | MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr *>(&to), sizeof to);
    vox_notify_pending = 0;
}

void vox_notify_close()
{
    if (vox_fd >= 0)
        close(vox_fd);
    vox_fd = -1;
    vox_socket_failures = 0;
}
