// Reports from the real-time cycle. The cycle must never wait for a stdio
// lock the supervisor holds, so it never calls perror or printf; and a
// write to a terminal, pipe or slow file can block, so it does not write
// either: a report is put into a fixed lock-free queue that the supervisor
// drains to its descriptor (rt_log_drain). When the queue is full the report
// is dropped and counted.
#pragma once
#include <cstddef>

// [rt] "<what>: <system error text>\n" for standard error, at most once per
// `every` calls made with the same *count (the caller keeps the count), so
// an error that repeats every millisecond cannot flood the log.
void rt_perror(const char *what, int err, unsigned *count, unsigned every) noexcept;
// [rt] Queues len bytes of text (cut at 200) for descriptor fd (1 or 2).
void rt_report(int fd, const char *text, size_t len) noexcept;
// [sup] Writes every queued report, in order, then a line
// "pelod: N real-time reports lost" when the queue overflowed since the
// last drain. Called by the supervisor's loop, at exit, and by tests.
void rt_log_drain();
