// Shared UDP sockets, the endpoints attached to them (hashed by destination
// address into 32 buckets) and the multicast memberships each socket holds.
#pragma once
#include "daemon/records.h"

#include <cstdint>
#include <netinet/in.h>

// The four octets of a network-order address, for "%d.%d.%d.%d".
#define IP4(a) (reinterpret_cast<const uint8_t *>(&(a))[0]), (reinterpret_cast<const uint8_t *>(&(a))[1]), \
               (reinterpret_cast<const uint8_t *>(&(a))[2]), (reinterpret_cast<const uint8_t *>(&(a))[3])

inline constexpr int32_t RTP_BACKOFF_ARMED = 1000000;

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
