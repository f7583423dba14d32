#include "support/alloc_count.h"

#include <atomic>
#include <cstdlib>
#include <new>

static std::atomic<bool> counting;
static std::atomic<long> count;

void alloc_count_start() { count = 0, counting = true; }
long alloc_count_stop() { return counting = false, long(count); }

// Under AddressSanitizer malloc is the sanitizer's own: leave it alone
// (gcc says so with __SANITIZE_ADDRESS__, clang with __has_feature).
#if defined(__SANITIZE_ADDRESS__)
#define ALLOC_COUNT_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ALLOC_COUNT_ASAN 1
#endif
#endif
#if !defined(ALLOC_COUNT_ASAN)
extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);

extern "C" void *malloc(size_t n)
{
    if (counting)
        count++;
    return __libc_malloc(n);
}

extern "C" void *calloc(size_t n, size_t m)
{
    if (counting)
        count++;
    return __libc_calloc(n, m);
}
#endif

void *operator new(size_t n)
{
    if (counting)
        count++;
    void *p = malloc(n ? n : 1);
    if (!p)
        std::abort();
    return p;
}
void *operator new[](size_t n) { return operator new(n); }
// The nothrow forms must come from here too, or their blocks reach the
// replaced delete from the library's own allocator.
void *operator new(size_t n, const std::nothrow_t &) noexcept
{
    if (counting)
        count++;
    return malloc(n ? n : 1);
}
void *operator new[](size_t n, const std::nothrow_t &t) noexcept { return operator new(n, t); }
void operator delete(void *p, const std::nothrow_t &) noexcept { free(p); }
void operator delete[](void *p, const std::nothrow_t &) noexcept { free(p); }
void operator delete(void *p) noexcept { free(p); }
void operator delete[](void *p) noexcept { free(p); }
void operator delete(void *p, size_t) noexcept { free(p); }
void operator delete[](void *p, size_t) noexcept { free(p); }
