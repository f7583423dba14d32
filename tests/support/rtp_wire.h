// Test helpers for RTP over 127.0.0.1: sockets on ports the kernel hands
// out, datagrams built byte by byte, big-endian fields read back.
#pragma once
#include <cstdint>
#include <string>
#include <netinet/in.h>
#include <vector>

// A UDP socket bound to 127.0.0.1 on a port the kernel hands out; *bound
// (if given) gets the address. Returns the descriptor, -1 on failure.
int udp_loopback(sockaddr_in *bound = nullptr);
// Every datagram waiting on fd now, or within wait_ms for the first one.
std::vector<std::string> udp_take(int fd, int wait_ms = 0);
// A port that was free on 127.0.0.1 a moment ago.
uint16_t udp_free_port();
// A version-2 RTP header without CSRCs or extension, then the payload.
std::vector<uint8_t> rtp_datagram(uint16_t seq, uint32_t ts, const std::vector<uint8_t> &payload, int pt = 101, bool marker = false,
                   uint32_t ssrc = 0x1234);
// Samples as 24-bit big-endian PCM.
std::vector<uint8_t> pcm24(const std::vector<int32_t> &samples);
uint16_t be16(const uint8_t *p);
uint32_t be32(const uint8_t *p);
int32_t be24(const uint8_t *p); // signed
// The media clock: CLOCK_TAI counted in 48 kHz samples.
uint32_t media_clock_now();
