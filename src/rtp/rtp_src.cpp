#include "rtp/rtp_src.h"

rtp_src *rtp_srcs;
uint32_t opus_enc_rtp_ts;

void pelod_update_rtp_sources() {}
int rtp_src_cmp(const rtp_src *, const src *) { return 1; }
void rtp_send(rtp_src *, uint32_t) noexcept {}
void debug_print_src(int, const rtp_src *, const src *) {}
