// Cancellers the benchmark can run on the same signals: ours always, the
// public references (speexdsp, webrtc 0.3, AEC3) when their development packages were found at
// configure time (comparison only; nothing else links them).
#pragma once
#include <cstdint>
#include <vector>

struct aec_backend {
    const char *name;
    void *(*create)();                       // null on failure
    void (*process)(void *h, const int16_t *spk, const int16_t *mic, int16_t *out); // 480 samples
    void (*destroy)(void *h);
};

std::vector<aec_backend> aec_backends();
// The references this build lacks, as text (empty when none).
const char *aec_missing_references();
