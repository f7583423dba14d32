#include "rtp/rtp_sk.h"

#include "daemon/grace.h"
#include "daemon/pelod.h"
#include "daemon/shared.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <sys/socket.h>
#include <type_traits>
#include <unistd.h>

static_assert(std::is_standard_layout_v<rtp_ep> && std::is_trivially_copyable_v<rtp_ep>);
static_assert(std::is_standard_layout_v<rtp_sk> && std::is_trivially_copyable_v<rtp_sk>);
static_assert(std::is_standard_layout_v<rtp_ep_spec> && std::is_trivially_copyable_v<rtp_ep_spec>);
static_assert(sizeof(mgroup) == 8);
static_assert((RTP_SK_HASH & (RTP_SK_HASH - 1)) == 0);

bool in_addr_is_mcast(in_addr_t g) noexcept { return (reinterpret_cast<const uint8_t *>(&g)[0] & 0xF0) == 0xE0; }

dlist *rtp_sk_ep_list(rtp_sk *sk, in_addr_t ip_addr) noexcept
{
    return &sk->rtp_sk_ep_list_ip_dst_hash[ntohl(ip_addr) & (RTP_SK_HASH - 1)];
}

static void sockopt_int(int fd, int level, int name, int v, const char *what)
{
    if (setsockopt(fd, level, name, &v, sizeof v) != 0)
        perror(what);
}

static void sockopt_byte(int fd, int level, int name, int v, const char *what)
{
    const uint8_t b = uint8_t(v);
    if (setsockopt(fd, level, name, &b, sizeof b) != 0)
        perror(what);
}

int rtp_socket(const sockaddr_in *bind_addr, int ip_ttl, int ip_tos)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        perror("pelod: rtp_socket");
        return -1;
    }
    sockopt_int(fd, SOL_SOCKET, SO_REUSEADDR, 1, "pelod: rtp_socket setsockopt(SO_REUSEADDR)");
    if (bind(fd, reinterpret_cast<const sockaddr *>(bind_addr), sizeof *bind_addr) != 0) {
        const int err = errno;
        fprintf(stderr, "rtp_socket bind(%d, %d.%d.%d.%d:%d) err=%d\n", fd, IP4(bind_addr->sin_addr.s_addr),
                ntohs(bind_addr->sin_port), err);
    }
    sockopt_int(fd, SOL_SOCKET, SO_NO_CHECK, 1, "pelod: SOL_SOCKET, SO_NO_CHECK");
    // our own multicast comes back; the sender back-off tells it apart
    sockopt_int(fd, IPPROTO_IP, IP_MULTICAST_LOOP, 1, "pelod: IPPROTO_IP, IP_MULTICAST_LOOP");
    sockopt_int(fd, IPPROTO_IP, IP_MULTICAST_ALL, 0, "pelod: IPPROTO_IP, IP_MULTICAST_ALL");
    sockopt_int(fd, IPPROTO_IP, IP_PKTINFO, 1, "pelod: IPPROTO_IP, IP_PKTINFO");
    if (ip_ttl > 1)
        sockopt_byte(fd, IPPROTO_IP, IP_MULTICAST_TTL, ip_ttl, "pelod: rtp_socket setsockopt(IP_MULTICAST_TTL)");
    if (ip_tos != 0)
        sockopt_byte(fd, IPPROTO_IP, IP_TOS, ip_tos, "pelod: rtp_socket setsockopt(IP_TOS)");
    return fd;
}

rtp_sk *rtp_socket_find(const sockaddr_in *sa_bind, in_addr_t mcif_addr)
{
    for (dlist *l = rtp_sk_all.next; l != &rtp_sk_all; l = l->next) {
        rtp_sk *sk = dlist_entry(l, rtp_sk, all);
        if (sk->sa_bind.sin_addr.s_addr == sa_bind->sin_addr.s_addr && sk->sa_bind.sin_port == sa_bind->sin_port &&
            sk->mcif_addr == mcif_addr)
            return sk;
    }
    return nullptr;
}

rtp_sk *rtp_sk_open(const sockaddr_in *sa_bind, in_addr_t mcif_addr)
{
    rtp_sk *sk = new (std::nothrow) rtp_sk{};
    if (!sk)
        return nullptr;
    for (dlist &b : sk->rtp_sk_ep_list_ip_dst_hash)
        dlist_init(&b);
    sk->sa_bind = *sa_bind;
    sk->mcif_addr = mcif_addr;
    sk->fd = rtp_socket(sa_bind, 64, 0x88); // TTL 64, DSCP 34 (AF41)
    // a failed socket (-1) deliberately gets here too and reports the failure
    if (sk->fd != 0 && mcif_addr != 0 &&
        setsockopt(sk->fd, IPPROTO_IP, IP_MULTICAST_IF, &mcif_addr, sizeof mcif_addr) != 0)
        perror("pelod: setsockopt(IP_MULTICAST_IF)");
    if (debug)
        rtp_sk_debug_info('+', sk);
    dlist_add_head(&rtp_sk_all, &sk->all); // last: the cycle may receive on it from now on
    return sk;
}

int rtp_socket_isused(const rtp_sk *sk)
{
    for (const rtp_dst &d : rtp_dsts)
        if (d.ep.sk == sk)
            return 1;
    for (const rtp_src *s = rtp_srcs; s; s = s->next)
        if (s->ep.sk == sk)
            return 1;
    return 0;
}

void igmp_memb(int op, int fd, in_addr_t G, in_addr_t S, in_addr_t ifa)
{
    if (S == 0) {
        ip_mreq mr{};
        mr.imr_multiaddr.s_addr = G;
        mr.imr_interface.s_addr = ifa;
        const int name = op == '+' ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP;
        if (setsockopt(fd, IPPROTO_IP, name, &mr, sizeof mr) != 0)
            perror(op == '+' ? "pelod: IP_ADD_MEMBERSHIP" : "pelod: IP_DROP_MEMBERSHIP");
        if (debug)
            printf("%c mgrp %d.%d.%d.%d #%d on %d.%d.%d.%d\n", op, IP4(G), int(ntohl(G) & 0xFFFF), IP4(ifa));
    } else {
        ip_mreq_source mr{};
        mr.imr_multiaddr.s_addr = G;
        mr.imr_interface.s_addr = ifa;
        mr.imr_sourceaddr.s_addr = S;
        const int name = op == '+' ? IP_ADD_SOURCE_MEMBERSHIP : IP_DROP_SOURCE_MEMBERSHIP;
        if (setsockopt(fd, IPPROTO_IP, name, &mr, sizeof mr) != 0)
            perror(op == '+' ? "IP_ADD_SOURCE_MEMBERSHIP" : "IP_DROP_SOURCE_MEMBERSHIP");
        if (debug)
            printf("%c mgrp %d.%d.%d.%d from %d.%d.%d.%d on %d.%d.%d.%d\n", op, IP4(G), IP4(S), IP4(ifa));
    }
}

void rtp_sk_igmp_subsc_add(rtp_sk *sk, in_addr_t G, in_addr_t S)
{
    if (!in_addr_is_mcast(G))
        return;
    for (const mgroup &m : sk->mgroups)
        if (m.imr_multiaddr == G && m.imr_sourceaddr == S)
            return;
    igmp_memb('+', sk->fd, G, S, sk->mcif_addr);
    for (mgroup &m : sk->mgroups)
        if (m.imr_multiaddr == 0) {
            m.imr_multiaddr = G;
            m.imr_sourceaddr = S;
            return;
        }
    // table full: stays joined without bookkeeping, never left
}

void rtp_sk_igmp_subs_del(rtp_sk *sk, in_addr_t G, in_addr_t S)
{
    dlist *b = rtp_sk_ep_list(sk, G);
    for (dlist *l = b->next; l != b; l = l->next) {
        const rtp_ep *e = dlist_entry(l, rtp_ep, rtp_sk_ep_list);
        if (e->sa_dst.sin_addr.s_addr == G && e->ssm_src == S)
            return;
    }
    for (mgroup &m : sk->mgroups)
        if (m.imr_multiaddr == G && m.imr_sourceaddr == S) {
            igmp_memb('-', sk->fd, G, S, sk->mcif_addr);
            m = mgroup{};
        }
}

void rtp_ep_open(rtp_ep *ep, const rtp_ep_spec *eps, rtp_dst *dst)
{
    dlist_init(&ep->rtp_sk_ep_list);
    ep->sa_bind = eps->sa_bind;
    ep->sa_dst = eps->sa_dst;
    ep->ssm_src = eps->ssm_src;
    ep->dst = dst;
    if (ep->sa_dst.sin_family != AF_INET || ep->sa_bind.sin_addr.s_addr == INADDR_NONE)
        return;

    const in_addr_t G = ep->sa_dst.sin_addr.s_addr;
    sockaddr_in key = ep->sa_bind;
    in_addr_t mcif = 0;
    if (in_addr_is_mcast(G)) {
        // one socket per port and interface receives every group on it
        ep->if_addr_h = ntohl(ep->sa_bind.sin_addr.s_addr);
        key.sin_addr.s_addr = htonl(INADDR_ANY);
        mcif = ep->sa_bind.sin_addr.s_addr;
    }
    ep->backoff_cnt = ep->if_addr_h != 0 ? RTP_BACKOFF_ARMED : 0;

    rtp_sk *sk = rtp_socket_find(&key, mcif);
    if (!sk)
        sk = rtp_sk_open(&key, mcif);
    publish(ep->sk, sk); // the timing lock of other flows looks at it
    if (!sk)
        return;
    dlist_add_head(rtp_sk_ep_list(sk, G), &ep->rtp_sk_ep_list); // last store the cycle follows
    if (in_addr_is_mcast(G))
        rtp_sk_igmp_subsc_add(sk, G, ep->ssm_src);
}

void rtp_ep_close(rtp_ep *ep)
{
    ep->sa_dst.sin_family = 0;
    ep->sa_bind.sin_family = 0;
    rtp_sk *sk = ep->sk;
    if (!sk)
        return;
    dlist_del(&ep->rtp_sk_ep_list);
    publish(ep->sk, static_cast<rtp_sk *>(nullptr));

    const in_addr_t G = ep->sa_dst.sin_addr.s_addr;
    if (in_addr_is_mcast(G))
        rtp_sk_igmp_subs_del(sk, G, ep->ssm_src);

    const bool keep = rtp_socket_isused(sk);
    if (!keep) {
        if (debug)
            rtp_sk_debug_info('-', sk);
        dlist_del(&sk->all);
    }
    // The cycle may still stand on the endpoint's link or on the socket:
    // neither is reused, closed or freed before it has passed a boundary.
    grace_wait();
    if (keep)
        return;
    if (sk->fd != -1)
        close(sk->fd);
    delete sk;
}

void rtp_sk_debug_info(int op, const rtp_sk *sk)
{
    char mcif[32] = "";
    if (sk->mcif_addr != 0)
        snprintf(mcif, sizeof mcif, " mcif %d.%d.%d.%d", IP4(sk->mcif_addr));
    printf("%c sock %d.%d.%d.%d:%d%s\n", op, IP4(sk->sa_bind.sin_addr.s_addr), ntohs(sk->sa_bind.sin_port), mcif);
}

void debug_print_sk(const rtp_sk *sk)
{
    const in_addr_t a = sk->sa_bind.sin_addr.s_addr;
    const int port = ntohs(sk->sa_bind.sin_port);
    printf("SK %d.%d.%d.%d:%d:", IP4(a), port);
    for (int i = 0; i < RTP_SK_HASH; i++) {
        const dlist *b = &sk->rtp_sk_ep_list_ip_dst_hash[i];
        if (dlist_empty(b))
            continue;
        printf("\nSK %d.%d.%d.%d:%d #%02d:", IP4(a), port, i);
        for (dlist *l = b->next; l != b; l = l->next) {
            const rtp_ep *e = dlist_entry(const_cast<dlist *>(l), rtp_ep, rtp_sk_ep_list);
            printf(" %lX|%d.%d.%d.%d:%d@%d.%d.%d.%d:%d", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(e)),
                   IP4(e->sa_dst.sin_addr.s_addr), ntohs(e->sa_dst.sin_port), IP4(e->sa_bind.sin_addr.s_addr),
                   ntohs(e->sa_bind.sin_port));
        }
    }
    printf("\n");
}
