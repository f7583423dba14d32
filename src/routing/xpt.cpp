#include "routing/xpt.h"

#include <cstring>

rtp_dst rtp_dsts[RTP_DST_MAX];

void dst_init(rtp_dst *dst, int ch)
{
    memset(dst, 0, sizeof *dst);
    dst->eaec_source = -1;
    dst->index = ch;
    dst->pAudioptr = mix_inp + ch;
    dlist_init(&dst->ep.rtp_sk_ep_list);
}

int pelod_xpt_add(const pelod_xpt *) { return -1; }
int pelod_xpt_del(const pelod_xpt *) { return -1; }
int mix_ref(const char *) { return -1; }
int match_xpt_dst(const pelod_xpt *, const rtp_dst *) { return 0; }
int dst_in_use(const rtp_dst *) { return 0; }
int dst_imix_inp(const rtp_dst *dst) { return dst->index; }
void dst_flow_start(rtp_dst *, const pelod_xpt *) {}
void dst_flow_stop(rtp_dst *) {}
void mixs_prune() {}
void debug_print_flow(int, const rtp_dst *) {}
