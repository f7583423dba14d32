#include "daemon/rtctx.h"
#include "support/emulation.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

volatile int stop_failing;

int fail_forever(void *) // a cycle at its worst: a call that fails on every pass
{
    while (!stop_failing)
        close(-1);
    return 0;
}

TEST(RtContext, CycleNeverChangesTheErrnoTheSupervisorReads)
{
    SKIP_UNDER_EMULATION();
    rt_context c;
    ASSERT_GT(rt_context_start(&c, fail_forever, nullptr, 1u << 20), 0);
    int wrong = 0; // reports that would have named the cycle's EBADF
    // one second with both contexts busy: enough to catch a shared errno
    for (auto t = std::chrono::steady_clock::now() + std::chrono::milliseconds(1000);
         std::chrono::steady_clock::now() < t;)
        wrong += open("/nonexistent/pelod.conf", O_RDONLY) < 0 && errno != ENOENT;
    stop_failing = 1;
    EXPECT_EQ(waitpid(c.pid, nullptr, 0), c.pid);
    rt_context_release(&c);
    EXPECT_EQ(wrong, 0);
}

} // namespace
