#include "daemon/rtctx.h"

#include <csignal>
#include <cstdio>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

struct lender_start {
    int ready[2];
    int wake_rd;
    void *tp;
};

// The lender's storage is the context's from now on: after reporting its
// thread pointer it only blocks (signals are blocked, so the read cannot
// fail and write errno) until the supervisor closes the pipe.
void *lend(void *arg)
{
    auto *s = static_cast<lender_start *>(arg);
    const int wake_rd = s->wake_rd;
    s->tp = __builtin_thread_pointer();
    const char c = 0;
    if (write(s->ready[1], &c, 1) != 1)
        return nullptr;
    char buf;
    while (read(wake_rd, &buf, 1) > 0) {
    }
    return nullptr;
}

} // namespace

pid_t rt_context_start(rt_context *c, int (*fn)(void *), void *arg, size_t stack_size)
{
    *c = rt_context{};
    c->pid = -1;
    c->stack_size = stack_size;
    c->stack = mmap(nullptr, stack_size, PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (c->stack == MAP_FAILED) {
        c->stack = nullptr;
        perror("pelod: mmap");
        return -1;
    }
    lender_start s{};
    pthread_t th{};
    bool lent = false;
    if (pipe(s.ready) == 0) {
        if (pipe(c->wake) == 0) {
            s.wake_rd = c->wake[0];
            sigset_t all, old;
            sigfillset(&all);
            pthread_sigmask(SIG_SETMASK, &all, &old); // the lender inherits the mask
            lent = pthread_create(&th, nullptr, lend, &s) == 0;
            pthread_sigmask(SIG_SETMASK, &old, nullptr);
            char ok = 1;
            lent = lent && read(s.ready[0], &ok, 1) == 1;
        }
        close(s.ready[0]);
        close(s.ready[1]);
    }
    if (!lent) {
        perror("pelod: clone(mix_run)");
        return -1;
    }
    c->lender = th;
    c->lent = true;
    c->pid = clone(fn, static_cast<char *>(c->stack) + stack_size,
                   CLONE_VM | CLONE_FILES | CLONE_SETTLS | SIGCHLD, arg, nullptr, s.tp, nullptr);
    if (c->pid < 0)
        perror("pelod: clone(mix_run)");
    return c->pid;
}

void rt_context_release(rt_context *c)
{
    if (c->lent) {
        close(c->wake[1]);
        pthread_join(c->lender, nullptr);
        close(c->wake[0]);
        c->lent = false;
    }
    if (c->stack)
        munmap(c->stack, c->stack_size);
    c->stack = nullptr;
}
