// Cost of the receive path per datagram: 48 flows on one socket, each on
// its own destination address (127.0.0.1..48), one datagram per flow and
// wake-up, drained by one rtp_sk_recvm. Sending happens outside the timed
// part. The "process" cases leave the system call out.
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "rtp/rtp_recv.h"

#include <arpa/inet.h>
#include <array>
#include <benchmark/benchmark.h>
#include <cmath>
#include <cstring>
#include <opus.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int FLOWS = RTP_DST_MAX;
constexpr int OPUS_PACKETS = 50;

struct stream {
    int format;   // RTP_FMT_PCM or RTP_FMT_OPUS
    int channels;
    int ptime;    // samples per packet
};

// Payloads of one flow: PCM repeats one packet, Opus cycles through a tone.
std::vector<std::vector<uint8_t>> payloads(const stream &s)
{
    std::vector<std::vector<uint8_t>> out;
    if (s.format == RTP_FMT_PCM) {
        std::vector<uint8_t> p(size_t(s.ptime * s.channels * 3));
        for (size_t i = 0; i < p.size(); i++)
            p[i] = uint8_t(i * 37);
        out.push_back(p);
        return out;
    }
    int err;
    OpusEncoder *enc = opus_encoder_create(48000, s.channels, OPUS_APPLICATION_VOIP, &err);
    opus_encoder_ctl(enc, OPUS_SET_COMPLEXITY(2));
    std::vector<float> pcm(size_t(s.ptime * s.channels));
    for (int n = 0; n < OPUS_PACKETS; n++) {
        for (int k = 0; k < s.ptime * s.channels; k++)
            pcm[size_t(k)] = 0.3f * std::sin(float(2 * M_PI * 440 * (n * s.ptime + k / s.channels) / 48000.0));
        std::vector<uint8_t> p(1400);
        p.resize(size_t(opus_encode_float(enc, pcm.data(), s.ptime, p.data(), int(p.size()))));
        out.push_back(p);
    }
    opus_encoder_destroy(enc);
    return out;
}

void set_flows(const stream &s, rtp_sk *sk)
{
    mix_inp_init();
    pdly_samples_min = 96;
    if (sk)
        for (dlist &b : sk->rtp_sk_ep_list_ip_dst_hash)
            dlist_init(&b);
    for (int i = 0; i < FLOWS; i++) {
        rtp_dst *d = &rtp_dsts[i];
        if (d->opus_dec)
            opus_decoder_destroy(d->opus_dec);
        dst_init(d, i);
        d->fmt = rtp_fmt{s.format, 24, 48000, s.channels};
        d->channel_mode = -1;
        int err;
        if (s.format == RTP_FMT_OPUS)
            d->opus_dec = opus_decoder_create(48000, s.channels, &err);
        d->ep.dst = d;
        d->ep.sa_dst.sin_family = AF_INET;
        d->ep.sa_dst.sin_addr.s_addr = htonl(INADDR_LOOPBACK + uint32_t(i));
        if (sk)
            dlist_add_head(rtp_sk_ep_list(sk, d->ep.sa_dst.sin_addr.s_addr), &d->ep.rtp_sk_ep_list);
    }
}

void header(uint8_t *p, uint16_t seq, uint32_t ts)
{
    const uint8_t h[12] = {0x80, 101, uint8_t(seq >> 8), uint8_t(seq), uint8_t(ts >> 24), uint8_t(ts >> 16),
                           uint8_t(ts >> 8), uint8_t(ts), 0x12, 0x34, 0x56, 0x78};
    memcpy(p, h, sizeof h);
}

void BM_RecvSocket(benchmark::State &state, stream s)
{
    rtp_sk sk{};
    sk.fd = socket(AF_INET, SOCK_DGRAM, 0);
    const int tx = socket(AF_INET, SOCK_DGRAM, 0);
    const int on = 1, big = 4 << 20;
    setsockopt(sk.fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
    setsockopt(sk.fd, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof big);
    sockaddr_in a{};
    a.sin_family = AF_INET; // any address: the 48 destinations are 127.0.0.1..48
    socklen_t len = sizeof a;
    bind(sk.fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    getsockname(sk.fd, reinterpret_cast<sockaddr *>(&a), &len);
    set_flows(s, &sk);

    const std::vector<std::vector<uint8_t>> pay = payloads(s);
    std::array<std::array<uint8_t, RTP_MTU>, FLOWS> pkts;
    std::array<sockaddr_in, FLOWS> to;
    std::array<iovec, FLOWS> iov;
    std::array<mmsghdr, FLOWS> msgs{};
    for (int i = 0; i < FLOWS; i++) {
        to[size_t(i)] = a;
        to[size_t(i)].sin_addr.s_addr = htonl(INADDR_LOOPBACK + uint32_t(i));
        msgs[size_t(i)].msg_hdr.msg_name = &to[size_t(i)];
        msgs[size_t(i)].msg_hdr.msg_namelen = sizeof to[0];
        msgs[size_t(i)].msg_hdr.msg_iov = &iov[size_t(i)];
        msgs[size_t(i)].msg_hdr.msg_iovlen = 1;
    }
    uint32_t now = 0, n = 0;
    for (auto _ : state) {
        state.PauseTiming();
        const std::vector<uint8_t> &p = pay[n % pay.size()];
        for (int i = 0; i < FLOWS; i++) {
            header(pkts[size_t(i)].data(), uint16_t(n), now + 7 * uint32_t(i));
            memcpy(pkts[size_t(i)].data() + 12, p.data(), p.size());
            iov[size_t(i)] = {pkts[size_t(i)].data(), 12 + p.size()};
        }
        if (sendmmsg(tx, msgs.data(), FLOWS, 0) != FLOWS)
            state.SkipWithError("sendmmsg");
        state.ResumeTiming();
        rtp_sk_recvm(&sk, now);
        now += uint32_t(s.ptime);
        n++;
    }
    if (rtp_dsts[FLOWS - 1].ep.rx_count != int64_t(n))
        state.SkipWithError("datagrams lost");
    state.counters["per_datagram"] =
        benchmark::Counter(double(state.iterations()) * FLOWS, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    close(sk.fd);
    close(tx);
}

void BM_RecvProcess(benchmark::State &state, stream s)
{
    set_flows(s, nullptr);
    const std::vector<std::vector<uint8_t>> pay = payloads(s);
    std::array<std::array<uint8_t, RTP_MTU>, OPUS_PACKETS> pkts;
    uint32_t n = 0;
    for (auto _ : state) {
        const uint32_t flow = n % FLOWS, round = n / FLOWS; // each flow in sequence
        const std::vector<uint8_t> &p = pay[round % pay.size()];
        uint8_t *b = pkts[round % pay.size()].data();
        const uint32_t now = round * uint32_t(s.ptime);
        header(b, uint16_t(round), now + 7 * flow);
        memcpy(b + 12, p.data(), p.size());
        rtp_ep_recv_packet(&rtp_dsts[flow].ep, b, int(12 + p.size()), now);
        n++;
    }
    state.counters["per_datagram"] =
        benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

} // namespace

BENCHMARK_CAPTURE(BM_RecvSocket, L24_mono_1ms, stream{RTP_FMT_PCM, 1, 48});
BENCHMARK_CAPTURE(BM_RecvSocket, L24_stereo_1ms, stream{RTP_FMT_PCM, 2, 48});
BENCHMARK_CAPTURE(BM_RecvSocket, Opus_mono_10ms, stream{RTP_FMT_OPUS, 1, 480});
BENCHMARK_CAPTURE(BM_RecvSocket, Opus_stereo_10ms, stream{RTP_FMT_OPUS, 2, 480});
BENCHMARK_CAPTURE(BM_RecvProcess, L24_mono_1ms, stream{RTP_FMT_PCM, 1, 48});
BENCHMARK_CAPTURE(BM_RecvProcess, L24_stereo_1ms, stream{RTP_FMT_PCM, 2, 48});
BENCHMARK_CAPTURE(BM_RecvProcess, Opus_mono_10ms, stream{RTP_FMT_OPUS, 1, 480});
BENCHMARK_MAIN();
