#include "daemon/rtlog.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {
constexpr unsigned RT_LOG_SLOTS = 16; // a power of two
constexpr size_t RT_LOG_TEXT = 200;

// A slot's turn counts its writes and reads: at lap L (position / slots)
// it is free for a writer at 2L and ready for the reader at 2L + 1.
struct rt_log_slot {
    uint32_t turn;
    int fd;
    size_t len;
    char text[RT_LOG_TEXT];
};
rt_log_slot slots[RT_LOG_SLOTS];
uint32_t head;    // next position to claim; any task that reports
uint32_t tail;    // next position to drain; the supervisor only
uint32_t dropped; // reports lost to a full queue; any task that reports
uint32_t dropped_told;

uint32_t load(uint32_t &w, std::memory_order o = std::memory_order_acquire) { return std::atomic_ref<uint32_t>(w).load(o); }
} // namespace

void rt_report(int fd, const char *text, size_t len) noexcept
{
    uint32_t pos = load(head, std::memory_order_relaxed);
    rt_log_slot *s;
    for (;;) {
        s = &slots[pos % RT_LOG_SLOTS];
        const int32_t ahead = int32_t(load(s->turn) - 2 * (pos / RT_LOG_SLOTS));
        if (ahead == 0) {
            if (std::atomic_ref<uint32_t>(head).compare_exchange_weak(pos, pos + 1, std::memory_order_relaxed))
                break; // the slot is ours
        } else if (ahead < 0) {
            std::atomic_ref<uint32_t>(dropped).fetch_add(1, std::memory_order_relaxed); // not drained yet
            return;
        } else {
            pos = load(head, std::memory_order_relaxed); // another writer took it
        }
    }
    s->fd = fd;
    s->len = len < RT_LOG_TEXT ? len : RT_LOG_TEXT;
    memcpy(s->text, text, s->len);
    std::atomic_ref<uint32_t>(s->turn).store(2 * (pos / RT_LOG_SLOTS) + 1, std::memory_order_release);
}

void rt_perror(const char *what, int err, unsigned *count, unsigned every) noexcept
{
    if (every > 1 && (*count)++ % every != 0)
        return;
    const char *text = strerrordesc_np(err);
    std::array<char, RT_LOG_TEXT> line;
    size_t n = 0;
    for (const char *part : {what, ": ", text ? text : "Unknown error", "\n"}) {
        const size_t len = strnlen(part, line.size() - n);
        memcpy(line.data() + n, part, len);
        n += len;
    }
    rt_report(STDERR_FILENO, line.data(), n);
}

void rt_log_drain()
{
    for (;; tail++) {
        rt_log_slot &s = slots[tail % RT_LOG_SLOTS];
        const uint32_t lap = 2 * (tail / RT_LOG_SLOTS);
        if (load(s.turn) != lap + 1)
            break;
        if (s.fd == STDOUT_FILENO)
            fflush(stdout); // keep the order of the supervisor's own lines
        if (write(s.fd, s.text, s.len) < 0) {
            // nowhere left to report to
        }
        std::atomic_ref<uint32_t>(s.turn).store(lap + 2, std::memory_order_release);
    }
    const uint32_t lost = load(dropped, std::memory_order_relaxed);
    if (lost != dropped_told) {
        fprintf(stderr, "pelod: %u real-time reports lost\n", unsigned(lost - dropped_told));
        dropped_told = lost;
    }
}
