// Grace period: the supervisor frees or re-initialises something the
// real-time cycle may be reading only after the cycle has passed a
// cycle boundary since it was unlinked or disabled.
#pragma once
#include <cstdint>

extern uint32_t rt_cycles; // completed wake-ups; advanced by the cycle only
extern int32_t rt_alive;   // 1 while mix_run is looping

// [rt] Called by the cycle at the end of every wake-up, after its last
// read of shared tables.
void rt_cycle_done() noexcept;
// [rt] Called by the cycle when it starts (1) and when it returns (0).
void rt_set_alive(int alive) noexcept;

// [sup] Waits until the wake-up in progress at this call (if any) is over,
// so nothing the caller unlinked or disabled before the call is still read. Returns 0 at once when the cycle is not running (start-up,
// tests), 0 after the boundary, -1 when it did not come within
// `timeout_ms` (the cycle is stuck or gone; the caller goes on).
int grace_wait(int timeout_ms = 100);
