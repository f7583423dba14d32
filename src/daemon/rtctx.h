// The real-time context: made with clone, it shares memory and descriptors
// with the supervisor but has a stack and thread-local storage of its own,
// so the cycle never changes the errno (nor the allocator's cache or stdio's
// lock owner) of the supervisor. The storage is that of a thread that does
// nothing but wait, with every signal blocked, until the context is gone.
#pragma once
#include <cstddef>
#include <pthread.h>
#include <sys/types.h>

struct rt_context {
    pid_t pid;         // of the context; waited for with waitpid
    void *stack;       // mapped by rt_context_start
    size_t stack_size;
    pthread_t lender;  // the waiting thread, when lent is set
    bool lent;
    int wake[2];          // closing wake[1] ends the waiting thread
};

// [init] Maps the stack and starts fn(arg) with clone (CLONE_VM,
// CLONE_FILES, SIGCHLD, the waiting thread's storage). Returns the pid, or
// -1 after perror("pelod: mmap") or perror("pelod: clone(mix_run)").
pid_t rt_context_start(rt_context *c, int (*fn)(void *), void *arg, size_t stack_size);
// [sup] After the context has been waited for: ends the waiting thread and
// unmaps the stack.
void rt_context_release(rt_context *c);
