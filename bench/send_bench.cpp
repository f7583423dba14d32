// Cost of the send step of one block: every outgoing stream's rtp_send, as
// the cycle runs it, with real sends to a socket on 127.0.0.1.
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "rtp/rtp_src.h"

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <opus/opus.h>
#include <unistd.h>
#include <vector>

namespace {

// A sink nobody reads: once its small buffer is full the kernel drops, as
// a remote receiver's network would.
struct sink {
    int rx = socket(AF_INET, SOCK_DGRAM, 0);
    rtp_sk sk{};
    sockaddr_in addr{};
    sink()
    {
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int small = 4096;
        setsockopt(rx, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        socklen_t l = sizeof addr;
        bind(rx, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
        getsockname(rx, reinterpret_cast<sockaddr *>(&addr), &l);
        sk.fd = socket(AF_INET, SOCK_DGRAM, 0);
    }
    ~sink()
    {
        close(sk.fd);
        close(rx);
    }
};

void sine_mix_out()
{
    for (int k = 0; k < MIX_BLOCK; k++)
        for (int o = 0; o < MIX_OUT_MAX; o++)
            mix_out[k * MIX_OUT_MAX + o] = 0.3f * float(std::sin(2 * M_PI * (k + o) / 48.0));
}

std::vector<rtp_src *> streams(sink *out, int n, int nchn, int payload_format)
{
    std::vector<rtp_src *> v;
    for (int i = 0; i < n; i++) {
        rtp_src *s = static_cast<rtp_src *>(calloc(1, sizeof(rtp_src)));
        s->nchn = nchn;
        s->mix[0] = i % MIX_OUT_MAX;
        s->mix[1] = (i + 1) % MIX_OUT_MAX;
        s->gainv[0] = s->gainv[1] = 0.8f;
        s->rtp_pt = RTP_PT_UNSET;
        s->rtp_ptime_samples = 48;
        s->fmt.payload_format = payload_format;
        if (out) {
            s->ep.sa_dst = out->addr;
            s->ep.sa_bind = out->addr;
            s->ep.sk = &out->sk;
        }
        if (payload_format == 1)
            rtp_src_encoder_create(s);
        v.push_back(s);
    }
    return v;
}

void run_blocks(benchmark::State &state, std::vector<rtp_src *> v)
{
    sine_mix_out();
    opus_enc_rtp_ts = 0;
    uint32_t ts = 48;
    for (auto _ : state) {
        for (rtp_src *s : v)
            rtp_send(s, ts);
        ts += MIX_BLOCK;
    }
    int64_t sent = 0;
    for (rtp_src *s : v) {
        sent += s->ep.tx_pkts + s->ep.tx_err;
        rtp_src_destroy(s);
    }
    state.counters["packets"] = benchmark::Counter(double(sent));
}

void BM_Send16PcmStereo(benchmark::State &state)
{
    sink out;
    run_blocks(state, streams(&out, 16, 2, 0));
    state.SetLabel("16 stereo L24 streams, 1 ms packets, ns per block");
}
BENCHMARK(BM_Send16PcmStereo);

void BM_Pack16PcmStereoNoSocket(benchmark::State &state)
{
    run_blocks(state, streams(nullptr, 16, 2, 0));
    state.SetLabel("the same without sendto: packing only");
}
BENCHMARK(BM_Pack16PcmStereoNoSocket);

void BM_Send4OpusStereo(benchmark::State &state)
{
    sink out;
    run_blocks(state, streams(&out, 4, 2, 1));
    state.SetLabel("4 stereo Opus streams (complexity 2), mean ns per block");
}
BENCHMARK(BM_Send4OpusStereo);

void BM_Send4OpusMono(benchmark::State &state)
{
    sink out;
    run_blocks(state, streams(&out, 4, 1, 1));
    state.SetLabel("4 mono Opus streams, mean ns per block");
}
BENCHMARK(BM_Send4OpusMono);

// The dearest single block: the one in which a stream encodes its frame.
// Staggering keeps it to one encoder call per block for up to ten streams.
void BM_OpusFrameBlock(benchmark::State &state)
{
    sink out;
    std::vector<rtp_src *> v = streams(&out, 1, int(state.range(0)), 1);
    sine_mix_out();
    opus_enc_rtp_ts = 0;
    uint32_t ts = 48;
    for (auto _ : state) {
        state.PauseTiming();
        for (int c = 0; c < 9; c++, ts += MIX_BLOCK)
            rtp_send(v[0], ts);
        state.ResumeTiming();
        rtp_send(v[0], ts);
        ts += MIX_BLOCK;
    }
    rtp_src_destroy(v[0]);
    state.SetLabel(state.range(0) == 1 ? "mono, ns of the encoding block" : "stereo, ns of the encoding block");
}
BENCHMARK(BM_OpusFrameBlock)->Arg(1)->Arg(2);

} // namespace
BENCHMARK_MAIN();
