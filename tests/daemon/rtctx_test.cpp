#include "daemon/rtctx.h"
#include "support/emulation.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

volatile int stop_failing;

// A cycle at its worst: a call that fails on every pass.
int fail_forever(void *)
{
    while (!stop_failing)
        close(-1);
    return 0;
}

TEST(RtContext, CycleNeverChangesTheErrnoTheSupervisorReads)
{
    SKIP_UNDER_EMULATION();
    stop_failing = 0;
    rt_context c;
    ASSERT_GT(rt_context_start(&c, fail_forever, nullptr, 1u << 20), 0);
    int wrong = 0;
    for (int i = 0; i < 300000; i++)
        if (open("/nonexistent/pelod.conf", O_RDONLY) < 0 && errno != ENOENT)
            wrong++; // what perror would have printed: the cycle's EBADF
    stop_failing = 1;
    int status = 0;
    EXPECT_EQ(waitpid(c.pid, &status, 0), c.pid);
    rt_context_release(&c);
    EXPECT_EQ(wrong, 0);
}

} // namespace
