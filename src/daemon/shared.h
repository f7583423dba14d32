// Words one context writes and the other reads. The supervisor fills a
// record, then links or marks it with publish() as its last store; the
// real-time cycle reads that word with observe() before the rest.
#pragma once
#include <atomic>
#include <cstdint>

template <class T> inline void publish(T &word, T v) noexcept
{
    std::atomic_ref<T>(word).store(v, std::memory_order_release);
}
template <class T> inline T observe(T &word) noexcept
{
    return std::atomic_ref<T>(word).load(std::memory_order_acquire);
}

// A counter the cycle alone writes (raises, or zeroes on a reset) and the
// report reads: every access is one whole 64-bit load or store, so the
// 32-bit board never shows the halves of two different values. One writer,
// so raising it is a load and a store, not a locked add.
struct rt_counter {
    alignas(8) int64_t v;
    operator int64_t() const noexcept
    {
        return std::atomic_ref<int64_t>(const_cast<int64_t &>(v)).load(std::memory_order_relaxed);
    }
    // the value, not the counter: in a = b = 0 each store stays a whole one
    int64_t operator=(int64_t x) noexcept // NOLINT(misc-unconventional-assign-operator)
    {
        std::atomic_ref<int64_t>(v).store(x, std::memory_order_relaxed);
        return x;
    }
    int64_t operator+=(int64_t d) noexcept { return *this = int64_t(*this) + d; }
    int64_t operator++(int) noexcept { return (*this += 1) - 1; }
};
static_assert(std::atomic_ref<int64_t>::is_always_lock_free, "a 64-bit counter would be read torn");
