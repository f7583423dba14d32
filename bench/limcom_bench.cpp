// Cost of the limiters per block (48 samples): all 48 flows with a
// one-channel limiter, 16 stereo outgoing streams, and one instance alone.
#include "audio/CG_LimCom_interface.h"
#include "daemon/mix.h"
#include "routing/xpt.h"
#include "rtp/rtp_src.h"

#include <benchmark/benchmark.h>
#include <cmath>
#include <cstring>

static limcom_params params(double attack, double release)
{
    limcom_params p;
    std::memset(&p, 0, sizeof p);
    p.enable = 1;
    p.ch1 = 1;
    p.attack = attack;
    p.release = release;
    p.threshold = 0.5;
    p.ratio = 4;
    return p;
}

// Music-like levels: a tone whose loudness swings across the threshold.
static float signal(uint32_t t, int col)
{
    const float env = 0.2f + 0.7f * float((t / 4800 + uint32_t(col)) % 3) * 0.5f;
    return env * std::sin(0.05f * float(t) + float(col));
}

static void BM_Flows48OneChannel(benchmark::State &state)
{
    mix_inp_init();
    const limcom_params p = params(5, 100);
    for (int i = 0; i < RTP_DST_MAX; i++) {
        dst_init(&rtp_dsts[i], i);
        CG_limcom_init_instance(&rtp_dsts[i].limcom, &p, 1);
    }
    for (uint32_t t = 0; t < 8192; t++)
        for (int i = 0; i < MIX_INP_MAX; i++)
            *mix_slot(t, i) = signal(t, i);
    uint32_t ts = 0;
    for (auto _ : state) {
        cg_limcom_run(ts);
        ts += MIX_BLOCK;
        benchmark::DoNotOptimize(mix_inp[0]);
    }
    state.SetLabel("48 flows, ring in and out, ns per block");
}
BENCHMARK(BM_Flows48OneChannel);

static rtp_src bench_srcs[16];

static void BM_Sources16Stereo(benchmark::State &state)
{
    const limcom_params p = params(30, 25);
    for (int s = 0; s < 16; s++) {
        bench_srcs[s].nchn = 2;
        bench_srcs[s].mix[0] = s;
        bench_srcs[s].mix[1] = (s + 1) % MIX_OUT_MAX;
        CG_limcom_init_instance(&bench_srcs[s].limcom, &p, 2);
    }
    for (int k = 0; k < MIX_BLOCK; k++)
        for (int o = 0; o < MIX_OUT_MAX; o++)
            mix_out[k * MIX_OUT_MAX + o] = signal(uint32_t(k) * 613, o) * float(state.range(0)) * 0.01f;
    for (auto _ : state) {
        for (rtp_src &s : bench_srcs)
            cg_limcom_run_src(&s);
        benchmark::DoNotOptimize(bench_srcs[0].limcom.outputBuffer[0]);
    }
    state.SetLabel(state.range(0) < 50 ? "16 stereo streams, quiet, ns per block"
                                       : "16 stereo streams, ns per block");
}
// level in percent: 100 swings across the threshold, 10 stays below it
BENCHMARK(BM_Sources16Stereo)->Arg(100)->Arg(10);

// One stereo instance; with split path states the detector's second path
// is computed too (never the case after initialisation).
static void BM_OneStereoStep(benchmark::State &state)
{
    LimCom_Instance l{};
    const limcom_params p = params(30, 25);
    CG_limcom_init_instance(&l, &p, 2);
    uint32_t ts = 0;
    for (auto _ : state) {
        if (state.range(0))
            l.instance.m2.DW.Delay_DSTATE[1] = std::nextafter(l.instance.m2.DW.Delay_DSTATE[0], 1.0);
        for (int k = 0; k < MIX_BLOCK; k++)
            l.inputBuffer[k] = l.inputBuffer[48 + k] = signal(ts + uint32_t(k), 0);
        ts += MIX_BLOCK;
        CG_limcom_process(&l);
        benchmark::DoNotOptimize(l.outputBuffer[0]);
    }
    state.SetLabel(state.range(0) ? "paths apart, ns per block" : "paths together, ns per block");
}
BENCHMARK(BM_OneStereoStep)->Arg(0)->Arg(1);

static void BM_OneMonoStep(benchmark::State &state)
{
    LimCom_Instance l{};
    const limcom_params p = params(5, 100);
    CG_limcom_init_instance(&l, &p, 1);
    uint32_t ts = 0;
    for (auto _ : state) {
        for (int k = 0; k < MIX_BLOCK; k++)
            l.inputBuffer[k] = signal(ts + uint32_t(k), 0);
        ts += MIX_BLOCK;
        CG_limcom_process(&l);
        benchmark::DoNotOptimize(l.outputBuffer[0]);
    }
    state.SetLabel("ns per block");
}
BENCHMARK(BM_OneMonoStep);

BENCHMARK_MAIN();
