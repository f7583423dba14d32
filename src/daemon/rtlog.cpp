#include "daemon/rtlog.h"

#include <array>
#include <cstring>
#include <unistd.h>

void rt_perror(const char *what, int err, unsigned *count, unsigned every) noexcept
{
    if (every > 1 && (*count)++ % every != 0)
        return;
    const char *text = strerrordesc_np(err);
    std::array<char, 200> line;
    size_t n = 0;
    for (const char *part : {what, ": ", text ? text : "Unknown error", "\n"}) {
        const size_t len = strnlen(part, line.size() - n);
        memcpy(line.data() + n, part, len);
        n += len;
    }
    if (write(STDERR_FILENO, line.data(), n) < 0) {
        // nowhere left to report to
    }
}
