// Records the calls the loader makes into routing and outgoing streams, in
// place of the real ones.
#pragma once
#include "config/pelocfg.h"

#include <string>
#include <vector>

struct routing_call {
    char op;        // 'a' pelod_xpt_add, 'd' pelod_xpt_del, 'u' pelod_update_rtp_sources
    pelod_xpt x;    // the crosspoint ('a', 'd')
    int srcs_used;  // srcs_used at the call
};

extern std::vector<routing_call> routing_calls;

// The ops in call order, e.g. "dua".
std::string routing_ops();
// Empties the three crosspoint lists (freeing their nodes), srcs and ifs,
// and forgets recorded calls.
void config_reset();
