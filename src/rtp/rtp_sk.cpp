#include "rtp/rtp_sk.h"

dlist rtp_sk_all = {&rtp_sk_all, &rtp_sk_all};

bool in_addr_is_mcast(in_addr_t g) noexcept { return (reinterpret_cast<const uint8_t *>(&g)[0] & 0xF0) == 0xE0; }
dlist *rtp_sk_ep_list(rtp_sk *sk, in_addr_t ip_addr) noexcept
{
    return &sk->rtp_sk_ep_list_ip_dst_hash[ntohl(ip_addr) & (RTP_SK_HASH - 1)];
}
int rtp_socket(const sockaddr_in *, int, int) { return -1; }
rtp_sk *rtp_socket_find(const sockaddr_in *, in_addr_t) { return nullptr; }
rtp_sk *rtp_sk_open(const sockaddr_in *, in_addr_t) { return nullptr; }
int rtp_socket_isused(const rtp_sk *) { return 0; }
void rtp_sk_igmp_subsc_add(rtp_sk *, in_addr_t, in_addr_t) {}
void rtp_sk_igmp_subs_del(rtp_sk *, in_addr_t, in_addr_t) {}
void igmp_memb(int, int, in_addr_t, in_addr_t, in_addr_t) {}
void rtp_ep_open(rtp_ep *, const rtp_ep_spec *, rtp_dst *) {}
void rtp_ep_close(rtp_ep *) {}
void rtp_sk_debug_info(int, const rtp_sk *) {}
void debug_print_sk(const rtp_sk *) {}
