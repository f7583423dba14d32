// Cost of one mixing block (48 samples, 16 outputs, 48 inputs).
#include "daemon/mix.h"

#include <benchmark/benchmark.h>
#include <cstring>

static void fill_ring()
{
    mix_inp_init();
    for (uint32_t t = 0; t < 8192; t++)
        for (int i = 0; i < MIX_INP_MAX; i++)
            *mix_slot(t, i) = float((t * 31 + uint32_t(i) * 7) % 1000) * 1e-4f;
}

// Mixes one block after another with the gains set up by the caller.
static void time_blocks(benchmark::State &state)
{
    uint32_t ts = 0;
    for (auto _ : state) {
        do_dsp(ts);
        ts += MIX_BLOCK;
        benchmark::DoNotOptimize(mix_out[0]);
    }
}

static void BM_DoDspAllMulti(benchmark::State &state)
{
    fill_ring();
    mix_init();
    for (int o = 0; o < MIX_OUT_MAX; o++)
        for (int i = 0; i < MIX_INP_MAX; i++)
            mix_gain_set(o, i, 0.01f * float(1 + (o + i) % 7));
    time_blocks(state);
    state.SetLabel("16 outputs x 48 inputs, ns per block");
}
BENCHMARK(BM_DoDspAllMulti);

static void BM_DoDspAllSingle(benchmark::State &state)
{
    fill_ring();
    mix_init();
    for (int o = 0; o < MIX_OUT_MAX; o++)
        mix_gain_set(o, o * 3, 0.5f);
    time_blocks(state);
    state.SetLabel("16 outputs, one input each, ns per block");
}
BENCHMARK(BM_DoDspAllSingle);

// the side-by-side harness's shape: one mix of 48 streams, 15 outputs unused
static void BM_DoDspOneMulti(benchmark::State &state)
{
    fill_ring();
    mix_init();
    for (int i = 0; i < MIX_INP_MAX; i++)
        mix_gain_set(0, i, 1.0f);
    time_blocks(state);
    state.SetLabel("one output of 48 inputs, 15 unused, ns per block");
}
BENCHMARK(BM_DoDspOneMulti);

static void BM_Vector64(benchmark::State &state)
{
    float a[48], b[48];
    for (int i = 0; i < 48; i++) {
        a[i] = float(i) * 0.01f;
        b[i] = 1.0f - float(i) * 0.01f;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(vector64(a, b, 48));
    }
}
BENCHMARK(BM_Vector64);

BENCHMARK_MAIN();
