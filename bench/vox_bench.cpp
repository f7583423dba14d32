// Cost of voice activity per block and of the once-a-second report.
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "daemon/vox.h"
#include "routing/xpt.h"
#include "rtp/rtp_src.h"
#include "stats/pelostats.h"

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <vector>

// 48 watched flows, half of them gated; no notification in the loop.
static void BM_VoxFrameQuiet(benchmark::State &state)
{
    mix_inp_init();
    for (int i = 0; i < RTP_DST_MAX; i++) {
        dst_init(&rtp_dsts[i], i);
        snprintf(rtp_dsts[i].src, sizeof rtp_dsts[i].src, "239.192.0.%d", i);
        rtp_dsts[i].vox = pelod_vox_cfg{0.1f, 1000, i % 2};
    }
    vox_notify_pending = 0;
    uint32_t ts = 0;
    for (auto _ : state) {
        vox_frame(ts);
        ts += MIX_BLOCK;
    }
    state.SetLabel("48 flows, 24 gated, ns per block");
}
BENCHMARK(BM_VoxFrameQuiet);

// One notification listing 48 flows with 64-character names (to a closed port).
static void BM_VoxNotifyFull(benchmark::State &state)
{
    for (int i = 0; i < RTP_DST_MAX; i++) {
        dst_init(&rtp_dsts[i], i);
        snprintf(rtp_dsts[i].src, sizeof rtp_dsts[i].src, "%02d%062d", i, 0);
        rtp_dsts[i].vox = pelod_vox_cfg{0.1f, 1000, 0};
        rtp_dsts[i].vox_activeto = 500;
    }
    vox_notify_port = 9; // discard: nobody listens
    for (auto _ : state)
        vox_notify();
    vox_notify_close();
    state.SetLabel("3225-byte datagram, ns per notification");
}
BENCHMARK(BM_VoxNotifyFull);

// The report of full tables: 48 flows, 64 streams, 16 mixes.
static void BM_StatsCompose(benchmark::State &state)
{
    mix_inp_init();
    mix_init();
    for (int i = 0; i < RTP_DST_MAX; i++) {
        dst_init(&rtp_dsts[i], i);
        snprintf(rtp_dsts[i].src, sizeof rtp_dsts[i].src, "239.192.0.%d", i);
        rtp_dsts[i].ep.sa_bind.sin_family = AF_INET;
        rtp_dsts[i].ep.sa_bind.sin_port = htons(5004);
        rtp_dsts[i].ep.rx_count = 123456789;
    }
    for (int o = 0; o < MIX_OUT_MAX; o++)
        snprintf(mixouts[o].id, sizeof mixouts[o].id, "mix%d", o);
    std::vector<rtp_src> s(64);
    for (size_t i = 0; i < s.size(); i++) {
        s[i].next = i + 1 < s.size() ? &s[i + 1] : nullptr;
        s[i].ep.sa_dst.sin_family = AF_INET;
        s[i].ep.sa_dst.sin_addr.s_addr = inet_addr("239.192.1.2");
        s[i].nchn = 2;
    }
    std::vector<char> buf(PELOSTATS_BUF_LEN);
    int n = 0;
    for (auto _ : state) {
        n = pelod_stats_compose(buf.data(), buf.size(), rtp_dsts, s.data(), 1, mix_gain, mixouts);
        benchmark::DoNotOptimize(buf.data());
    }
    state.counters["bytes"] = n;
    state.SetLabel("ns per report");
}
BENCHMARK(BM_StatsCompose);

BENCHMARK_MAIN();
