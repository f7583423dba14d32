#include "daemon/grace.h"

#include "daemon/shared.h"

#include <ctime>

uint32_t rt_cycles;
int32_t rt_alive;

void rt_cycle_done() noexcept
{
    std::atomic_ref<uint32_t>(rt_cycles).fetch_add(1, std::memory_order_seq_cst);
}

void rt_set_alive(int alive) noexcept
{
    std::atomic_ref<int32_t>(rt_alive).store(alive, std::memory_order_seq_cst);
}

int grace_wait(int timeout_ms)
{
    std::atomic_thread_fence(std::memory_order_seq_cst); // unlink before we sample
    if (!std::atomic_ref<int32_t>(rt_alive).load(std::memory_order_seq_cst))
        return 0;
    const uint32_t c0 = std::atomic_ref<uint32_t>(rt_cycles).load(std::memory_order_seq_cst);
    // The counter moves after the last read of a wake-up, so once it has
    // moved, the wake-up that may have seen the old state is over.
    const timespec pause{0, 200000};
    for (int waited_us = 0; waited_us < timeout_ms * 1000; waited_us += 200) {
        if (!std::atomic_ref<int32_t>(rt_alive).load(std::memory_order_seq_cst))
            return 0;
        if (std::atomic_ref<uint32_t>(rt_cycles).load(std::memory_order_seq_cst) - c0 >= 1)
            return 0;
        nanosleep(&pause, nullptr);
    }
    return -1;
}
