// Shared UDP sockets, the endpoints attached to them (hashed by destination
// address into 32 buckets) and the multicast memberships each socket holds.
#pragma once
#include "daemon/dlist.h"

#include <cstdint>
#include <netinet/in.h>

struct rtp_dst;

inline constexpr int RTP_SK_HASH = 32;
inline constexpr int RTP_SK_MGROUPS = 64;
inline constexpr int32_t RTP_BACKOFF_ARMED = 1000000;

// What the configuration produces for one endpoint.
struct rtp_ep_spec {
    sockaddr_in sa_dst;  // family != AF_INET: no endpoint; address 0: any unicast
    sockaddr_in sa_bind; // address INADDR_NONE: no endpoint
    in_addr_t ssm_src;   // source-specific multicast source, 0 for any-source
};

struct rtp_sk;

// One endpoint, embedded in a flow or an outgoing stream.
struct rtp_ep {
    sockaddr_in sa_dst;   // family 0 after close
    sockaddr_in sa_bind;
    in_addr_t ssm_src;
    uint32_t if_addr_h;   // multicast: bind address, host order
    rtp_sk *sk;           // not owning; null when unattached
    int32_t backoff_cnt;  // sender back-off
    dlist rtp_sk_ep_list; // link in one bucket of sk
    rtp_dst *dst;         // receiving flow; null for an outgoing stream
    int64_t rx_reset, rx_count, rx_drop, rx_dupl, rx_good, rx_seqe, rx_srst, rx_late;
    uint32_t synt;        // sender timestamp - local media time
    int32_t run;          // timing lock valid
    uint32_t buf_full_ts;
    uint16_t rtp_seq0;
    uint32_t rtp_ts0;
    int32_t rtp_run;
    int32_t ptime_samples;
    int64_t tx_pkts, tx_err;
};

struct mgroup {
    in_addr_t imr_multiaddr; // 0: free slot
    in_addr_t imr_sourceaddr;
};

struct rtp_sk {
    int fd;                 // -1 when socket() failed
    sockaddr_in sa_bind;    // as bound
    in_addr_t mcif_addr;    // multicast interface; 0 for unicast sockets
    dlist all;              // link in rtp_sk_all
    dlist rtp_sk_ep_list_ip_dst_hash[RTP_SK_HASH];
    mgroup mgroups[RTP_SK_MGROUPS];
};

extern dlist rtp_sk_all; // every socket, newest first

// True for 224.0.0.0/4 (network order).
bool in_addr_is_mcast(in_addr_t g) noexcept;
// Bucket of ip_addr: low five bits of its host-order value.
dlist *rtp_sk_ep_list(rtp_sk *sk, in_addr_t ip_addr) noexcept;
// [sup] Makes and configures one UDP socket; -1 when socket() fails
// (later option failures are reported and ignored).
int rtp_socket(const sockaddr_in *bind_addr, int ip_ttl, int ip_tos);
// [sup] First socket with this bound address, port and interface, or null.
rtp_sk *rtp_socket_find(const sockaddr_in *sa_bind, in_addr_t mcif_addr);
// [sup] New socket linked at the head of rtp_sk_all; null on ENOMEM.
rtp_sk *rtp_sk_open(const sockaddr_in *sa_bind, in_addr_t mcif_addr);
// [sup] 1 when any flow or outgoing stream endpoint uses sk.
int rtp_socket_isused(const rtp_sk *sk);
// [sup] Join (G,S) once per socket / leave it.
void rtp_sk_igmp_subsc_add(rtp_sk *sk, in_addr_t G, in_addr_t S);
void rtp_sk_igmp_subs_del(rtp_sk *sk, in_addr_t G, in_addr_t S);
// [sup] One membership call; op '+' joins, '-' leaves.
void igmp_memb(int op, int fd, in_addr_t G, in_addr_t S, in_addr_t ifa);
// [sup] Copies the endpoint record into ep and attaches it to the socket of
// its bind address, port and interface (made when missing), joining the
// group for a multicast destination. Bind address INADDR_NONE or a family
// other than AF_INET leaves ep unattached. The bucket link is the last
// store. Callers close an open endpoint first.
void rtp_ep_open(rtp_ep *ep, const rtp_ep_spec *eps, rtp_dst *dst);
// [sup] Marks ep closed and unlinks it, leaves the membership when it was
// the last endpoint wanting it, unlinks the socket when no flow or stream
// uses it; then waits a grace period, after which ep's link may be reused,
// and closes and frees an unused socket.
void rtp_ep_close(rtp_ep *ep);
// [sup] Debug lines ("-d").
void rtp_sk_debug_info(int op, const rtp_sk *sk);
void debug_print_sk(const rtp_sk *sk);
