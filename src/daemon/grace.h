// Grace period: the supervisor frees or re-initialises something the
// real-time cycle may be reading only after the cycle has passed a
// cycle boundary since it was unlinked or disabled.
#pragma once
#include <cstdint>
#include <sys/types.h>

extern uint32_t rt_cycles; // completed wake-ups; advanced by the cycle only
extern int32_t rt_alive;   // 1 while mix_run is looping
extern pid_t rt_tid;       // the cycle's task id while mix_run runs, else 0

// [rt] Called by the cycle at the end of every wake-up, after its last
// read of shared tables.
void rt_cycle_done() noexcept;
// [rt] Called by the cycle when it starts (1) and when it returns (0).
void rt_set_alive(int alive) noexcept;
// [rt] Called by mix_run first: from then on, debug builds check that the
// cycle's entry points run on this task (rt_context_check).
void rt_context_enter() noexcept;

// [rt] Debug builds: stops the daemon with a message when a function meant
// for the real-time context is called from another task while the cycle
// runs. Release builds: nothing.
#ifdef NDEBUG
inline void rt_context_check(const char *) noexcept {}
#else
void rt_context_check(const char *fn) noexcept;
#endif

// [sup] Waits until the wake-up in progress at this call (if any) is over,
// so nothing the caller unlinked or disabled before the call is still read.
// Returns at once when the cycle is not running (start-up, tests). It never
// gives up while the cycle lives, however long that takes; a wait past
// 100 ms is reported on standard error ("pelod: grace_wait: ...") so a stuck
// cycle shows. Returns 0 after the boundary, -1 when the cycle has ended
// without passing one (it read nothing since: the caller may go on).
int grace_wait();
