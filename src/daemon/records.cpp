#include "daemon/records.h"

#include <type_traits>

static_assert(std::is_standard_layout_v<rtp_dst> && std::is_trivially_copyable_v<rtp_dst>);

rtp_dst rtp_dsts[RTP_DST_MAX];
rtp_src *rtp_srcs;
dlist rtp_sk_all = {&rtp_sk_all, &rtp_sk_all};
src srcs[SRCS_MAX];
int srcs_used;
