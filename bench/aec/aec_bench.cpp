// Echo canceller benchmark. Prints, per room (RT60 150 and 400 ms) and per
// canceller: ERLE over far-end single talk after 2 s, the time to 10 and
// 20 dB ERLE, near-end loss in near-end single talk, near-end loss and echo
// leak in double talk (phase-inversion pair: the run is repeated with the
// near end inverted; half the difference of the outputs is the near end
// that came through, half the sum the echo and noise), and re-convergence
// after an echo-path change. Then Google Benchmark times one frame.
//   aec_bench --frames N [--busy]  runs only our processor for N frames of
//                          the RT60 400 ms scenario (or, with --busy, of a
//                          far end that never pauses, the costliest case)
//                          for valgrind --tool=callgrind; prints nothing.
#include "aec_backends.h"
#include "aec_signals.h"

#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {
using tl = aec_timeline;
int at(double s) { return int(s * AEC_RATE); }

std::vector<double> run(const aec_backend &b, const std::vector<int16_t> &spk, const std::vector<int16_t> &mic)
{
    std::vector<double> out(spk.size(), 0.0);
    void *h = b.create();
    if (!h)
        return out;
    int16_t o[AEC_FRAME];
    for (size_t f = 0; f + AEC_FRAME <= spk.size(); f += AEC_FRAME) {
        b.process(h, &spk[f], &mic[f], o);
        for (int i = 0; i < AEC_FRAME; i++)
            out[f + size_t(i)] = o[i] / 32768.0;
    }
    b.destroy(h);
    return out;
}

std::vector<double> pcm(const std::vector<int16_t> &x)
{
    std::vector<double> y(x.size());
    for (size_t i = 0; i < x.size(); i++)
        y[i] = x[i] / 32768.0;
    return y;
}

double db(double num, double den) { return 10.0 * std::log10((num + 1e-30) / (den + 1e-30)); }

// Seconds from t0 until the ERLE of every 200 ms window with the far end
// active (and its echo 20 dB above the noise) stays at least `target` dB
// for the next half second; -1 when never within [t0, t1).
double converge(const aec_scenario &sc, const std::vector<double> &mic, const std::vector<double> &out,
                double t0, double t1, double target)
{
    const int win = at(0.2), hop = at(0.05);
    std::vector<double> start, erle;
    for (int s = at(t0); s + win <= at(t1); s += hop) {
        int active = 0;
        for (int i = s; i < s + win; i++)
            active += sc.far_active[size_t(i)];
        if (active < win * 8 / 10 || aec_power(sc.echo, s, s + win) < 100.0 * aec_power(sc.noise, s, s + win))
            continue;
        start.push_back(double(s) / AEC_RATE);
        erle.push_back(db(aec_power(mic, s, s + win), aec_power(out, s, s + win)));
    }
    for (size_t i = 0; i < start.size(); i++) {
        bool holds = true;
        for (size_t j = i; j < start.size() && start[j] < start[i] + 0.5; j++)
            holds = holds && erle[j] >= target;
        if (holds)
            return start[i] + 0.2 - t0;
    }
    return -1.0;
}

struct figures {
    double erle, t10, t20, nst_loss, dt_loss, dt_leak, erle2, r10, r20;
};

figures measure(const aec_backend &b, const aec_scenario &sc)
{
    const std::vector<double> a = run(b, sc.spk, sc.mic_plus), m = run(b, sc.spk, sc.mic_minus);
    const std::vector<double> mic = pcm(sc.mic_plus);
    std::vector<double> near_out(a.size()), rest_out(a.size());
    for (size_t i = 0; i < a.size(); i++) {
        near_out[i] = 0.5 * (a[i] - m[i]);
        rest_out[i] = 0.5 * (a[i] + m[i]);
    }
    figures f{};
    f.erle = db(aec_power(mic, at(2.0), at(tl::fst_end)), aec_power(a, at(2.0), at(tl::fst_end)));
    f.t10 = converge(sc, mic, a, 0.0, tl::fst_end, 10.0);
    f.t20 = converge(sc, mic, a, 0.0, tl::fst_end, 20.0);
    f.nst_loss = db(aec_power(mic, at(tl::nst_begin), at(tl::nst_end)), aec_power(a, at(tl::nst_begin), at(tl::nst_end)));
    f.dt_loss = db(aec_power(sc.near, at(tl::dt_begin), at(tl::change)),
                   aec_power(near_out, at(tl::dt_begin), at(tl::change)));
    f.dt_leak = db(aec_power(sc.echo, at(tl::dt_begin), at(tl::change)),
                   aec_power(rest_out, at(tl::dt_begin), at(tl::change)));
    f.erle2 = db(aec_power(mic, at(tl::change + 2.0), at(tl::total)), aec_power(a, at(tl::change + 2.0), at(tl::total)));
    f.r10 = converge(sc, mic, a, tl::change, tl::total, 10.0);
    f.r20 = converge(sc, mic, a, tl::change, tl::total, 20.0);
    return f;
}

void print_quality(const std::vector<aec_backend> &backends, const aec_scenario *rooms, int nrooms)
{
    for (int r = 0; r < nrooms; r++) {
        const aec_scenario &sc = rooms[r];
        printf("\nRoom RT60 %.0f ms (ERL 8 dB, noise -65 dBFS; linear limit %.1f dB)\n", sc.rt60 * 1000.0,
               db(aec_power(sc.echo, at(2.0), at(tl::fst_end)) + aec_power(sc.noise, at(2.0), at(tl::fst_end)),
                  aec_power(sc.noise, at(2.0), at(tl::fst_end))));
        printf("%-14s %8s %7s %7s %9s %8s %8s %8s %7s %7s\n", "canceller", "ERLE dB", "t10 s", "t20 s", "NST loss",
               "DT loss", "DT leak", "ERLE2 dB", "r10 s", "r20 s");
        for (const aec_backend &b : backends) {
            const figures f = measure(b, sc);
            printf("%-14s %8.1f %7.2f %7.2f %9.2f %8.2f %8.1f %8.1f %7.2f %7.2f\n", b.name, f.erle, f.t10, f.t20,
                   f.nst_loss, f.dt_loss, f.dt_leak, f.erle2, f.r10, f.r20);
        }
    }
    printf("\nERLE: far-end single talk 2..8 s, noise suppression included. t10/t20: from start until 10/20 dB\n"
           "holds. NST loss: mic/out power, near end alone. DT loss/leak: near end lost, echo+noise left\n"
           "below the echo, double talk 12.5..18 s. ERLE2, r10, r20: after the echo-path change at 18 s.\n\n");
}

const aec_scenario *bench_signal;

void bm_frame(benchmark::State &state, aec_backend b)
{
    void *h = b.create();
    const aec_scenario &sc = *bench_signal;
    int16_t o[AEC_FRAME];
    size_t f = 0;
    for (auto _ : state) {
        b.process(h, &sc.spk[f], &sc.mic_plus[f], o);
        benchmark::DoNotOptimize(o);
        f += AEC_FRAME;
        if (f + AEC_FRAME > sc.spk.size())
            f = 0;
    }
    b.destroy(h);
}
} // namespace

int main(int argc, char **argv)
{
    if ((argc == 3 || argc == 4) && strcmp(argv[1], "--frames") == 0) {
        aec_scenario sc = aec_make_scenario(0.4, 1);
        if (argc == 4 && strcmp(argv[3], "--busy") == 0) {
            const std::vector<double> w = aec_white(9, int(sc.spk.size()), -24.0);
            for (size_t i = 0; i < sc.spk.size(); i++) {
                sc.spk[i] = int16_t(std::lrint(w[i] * 32768.0));
                sc.mic_plus[i] = int16_t(std::lrint((i >= 480 ? 0.4 * w[i - 480] : 0.0) * 32768.0));
            }
        }
        const aec_backend b = aec_backends()[0];
        void *h = b.create();
        int16_t o[AEC_FRAME];
        const long n = std::atol(argv[2]);
        for (long i = 0; i < n; i++) {
            const size_t f = size_t(i % long(sc.spk.size() / AEC_FRAME)) * AEC_FRAME;
            b.process(h, &sc.spk[f], &sc.mic_plus[f], o);
        }
        b.destroy(h);
        return 0;
    }
    const std::vector<aec_backend> backends = aec_backends();
    static const aec_scenario rooms[2] = {aec_make_scenario(0.15, 1), aec_make_scenario(0.4, 1)};
    bool quality = true;
    for (int i = 1; i < argc; i++)
        if (strcmp(argv[i], "--no-quality") == 0)
            quality = false;
    if (quality)
        print_quality(backends, rooms, 2);
    bench_signal = &rooms[1];
    for (const aec_backend &b : backends)
        benchmark::RegisterBenchmark((std::string("frame/") + b.name).c_str(), bm_frame, b)
            ->Unit(benchmark::kMicrosecond);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
