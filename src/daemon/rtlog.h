// Error reports from the real-time cycle. The cycle must never wait for a
// stdio lock the supervisor holds, so it never calls perror or printf: a
// report is one write(2) of perror's text.
#pragma once

// [rt] "<what>: <system error text>\n" on standard error, at most once per
// `every` calls made with the same *count (the caller keeps the count), so
// an error that repeats every millisecond cannot flood the log.
void rt_perror(const char *what, int err, unsigned *count, unsigned every) noexcept;
