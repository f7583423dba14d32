// Tests built for the board run under user-mode emulation, where threads,
// clone and executing other target programs are not available.
#pragma once
#include <cstdlib>
#include <cstring>

inline bool under_emulation()
{
    const char *e = std::getenv("PELOD_EMULATED");
    return e && std::strcmp(e, "1") == 0;
}

#define SKIP_UNDER_EMULATION()                                                   \
    do {                                                                         \
        if (under_emulation())                                                   \
            GTEST_SKIP() << "needs threads or processes: not under emulation";   \
    } while (0)
