#include "daemon/grace.h"

#include "daemon/shared.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/wait.h>
#include <unistd.h>

uint32_t rt_cycles;
int32_t rt_alive;
pid_t rt_tid;

void rt_cycle_done() noexcept
{
    std::atomic_ref<uint32_t>(rt_cycles).fetch_add(1, std::memory_order_seq_cst);
}

void rt_set_alive(int alive) noexcept
{
    std::atomic_ref<int32_t>(rt_alive).store(alive, std::memory_order_seq_cst);
}

void rt_context_enter() noexcept { publish(rt_tid, gettid()); }

#ifndef NDEBUG
void rt_context_check(const char *fn) noexcept
{
    const pid_t rt = observe(rt_tid);
    if (rt == 0 || gettid() == rt)
        return;
    // no stdio here: this may be the cycle, on the supervisor's locks
    static const char text[] = "pelod: a real-time function ran outside the real-time context: ";
    if (write(STDERR_FILENO, text, sizeof text - 1) < 0 || write(STDERR_FILENO, fn, strlen(fn)) < 0 ||
        write(STDERR_FILENO, "\n", 1) < 0) {
        // aborting anyway
    }
    abort();
}
#endif

// The cycle's task has ended (it reads nothing any more). Its exit status
// stays for the supervisor's own wait (WNOWAIT).
static bool rt_gone()
{
    const pid_t rt = observe(rt_tid);
    if (rt == 0)
        return false;
    siginfo_t si{};
    return waitid(P_PID, id_t(rt), &si, WEXITED | WNOHANG | WNOWAIT) == 0 && si.si_pid == rt;
}

static long elapsed_us(timespec t0)
{
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return long(t.tv_sec - t0.tv_sec) * 1000000 + (t.tv_nsec - t0.tv_nsec) / 1000;
}

int grace_wait()
{
    std::atomic_thread_fence(std::memory_order_seq_cst); // unlink before we sample
    if (!std::atomic_ref<int32_t>(rt_alive).load(std::memory_order_seq_cst))
        return 0;
    const uint32_t c0 = std::atomic_ref<uint32_t>(rt_cycles).load(std::memory_order_seq_cst);
    // The counter moves after the last read of a wake-up, so once it has
    // moved, the wake-up that may have seen the old state is over.
    const timespec pause{0, 200000};
    long report_at_us = 100000, next_gone_check_us = 10000;
    timespec t0{};
    clock_gettime(CLOCK_MONOTONIC, &t0);
    // waited by the clock: on a loaded machine a pause lasts longer than asked
    for (long waited_us = 0;; waited_us = elapsed_us(t0)) {
        if (!std::atomic_ref<int32_t>(rt_alive).load(std::memory_order_seq_cst))
            return 0;
        if (std::atomic_ref<uint32_t>(rt_cycles).load(std::memory_order_seq_cst) - c0 >= 1)
            return 0;
        if (waited_us >= next_gone_check_us) {
            if (rt_gone())
                return -1;
            next_gone_check_us = waited_us + 10000;
        }
        if (waited_us >= report_at_us) {
            fprintf(stderr, "pelod: grace_wait: the real-time cycle has not passed a boundary for %ld ms\n",
                    waited_us / 1000);
            report_at_us *= 10; // 0.1 s, 1 s, 10 s, ...
        }
        nanosleep(&pause, nullptr);
    }
}
