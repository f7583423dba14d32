// Counts heap allocations (operator new and malloc) made by this process
// while counting is on; for checking that real-time code allocates nothing.
#pragma once

void alloc_count_start();
// Stops counting and returns the allocations seen since the start.
long alloc_count_stop();
