// Words one context writes and the other reads. The supervisor fills a
// record, then links or marks it with publish() as its last store; the
// real-time cycle reads that word with observe() before the rest.
#pragma once
#include <atomic>

template <class T> inline void publish(T &word, T v) noexcept
{ std::atomic_ref<T>(word).store(v, std::memory_order_release); }
template <class T> inline T observe(T &word) noexcept
{ return std::atomic_ref<T>(word).load(std::memory_order_acquire); }
