// Echo canceller benchmark: every canceller (ours as the daemon configures
// it, and the references this build found) on the same synthetic signals
// in one run; the definitions of the figures are printed with them. Then
// Google Benchmark times one frame of each, and our 1024-point transforms
// (fft/...: one real signal forward and back, and a pair). Runs with flush-to-zero and
// denormals-are-zero, as the real-time context does, and sums up the CPU
// time per frame of each against AEC3's.
//   aec_bench --frames N [--busy]  runs only our processor for N frames of
//                          the RT60 400 ms scenario (or, with --busy, of a
//                          far end that never pauses, the costliest case)
//                          for perf stat or callgrind; prints nothing.
//   aec_bench --ours       our row alone (while tuning; figures need all rows).
//   aec_bench --seeds N    the figures over seeds 1..N of both rooms (default 8, 0: none).
#include "aec_backends.h"
#include "aec_signals.h"
#include "eaec/eaec_fft.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#if defined(__SSE__)
#include <xmmintrin.h>
#endif

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

// Output delay in samples: the lag (0..50 ms) at which the output best
// matches the microphone in near-end single talk.
int latency(const std::vector<double> &mic, const std::vector<double> &out)
{
    int best = 0;
    double best_c = -1e300;
    for (int lag = 0; lag <= at(0.05); lag++) {
        double c = 0.0;
        for (int i = at(tl::nst_begin); i < at(tl::nst_end); i += 2)
            c += mic[size_t(i)] * out[size_t(i + lag)];
        if (c > best_c) {
            best_c = c;
            best = lag;
        }
    }
    return best;
}

std::vector<double> shifted(const std::vector<double> &x, int lag)
{
    std::vector<double> y(x.size(), 0.0);
    for (size_t i = 0; i + size_t(lag) < x.size(); i++)
        y[i] = x[i + size_t(lag)];
    return y;
}

// Sum of `of` over the time-frequency cells of [from, to) where `dom`
// exceeds `rival` by `by` dB and the noise by 20 dB (bins from k0 up),
// against the same sum of `ref`: 10 log10(of / ref).
double cells(const std::vector<double> &of, const std::vector<double> &ref, const std::vector<double> &dom,
             const std::vector<double> &rival, const std::vector<double> &noise, double from, double to, double by)
{
    const std::vector<double> o = aec_stft_power(of, at(from), at(to)), r = aec_stft_power(ref, at(from), at(to));
    const std::vector<double> d = aec_stft_power(dom, at(from), at(to)), v = aec_stft_power(rival, at(from), at(to));
    const std::vector<double> n = aec_stft_power(noise, at(from), at(to));
    const double f = std::pow(10.0, by / 10.0);
    double so = 0.0, sr = 0.0;
    for (size_t i = 0; i < d.size(); i++)
        if (d[i] >= f * v[i] && d[i] >= 100.0 * n[i]) {
            so += o[i];
            sr += r[i];
        }
    return db(so, sr);
}

// ERLE over [from, to) from k0 upwards in frequency (STFT power).
double band_erle(const std::vector<double> &mic, const std::vector<double> &out, double from, double to, int k0)
{
    const std::vector<double> m = aec_stft_power(mic, at(from), at(to)), o = aec_stft_power(out, at(from), at(to));
    double sm = 0.0, so = 0.0;
    for (size_t i = 0; i < m.size(); i++)
        if (int(i % AEC_STFT_BINS) >= k0) {
            sm += m[i];
            so += o[i];
        }
    return db(sm, so);
}

struct figures {
    int lat;
    double erle, erle_echo, t10, nst_loss, dt_leak, dt_loss, r10, erle2;
};

figures measure(const aec_backend &b, const aec_scenario &sc)
{
    const std::vector<double> mic = pcm(sc.mic_plus);
    std::vector<double> a = run(b, sc.spk, sc.mic_plus), m = run(b, sc.spk, sc.mic_minus);
    std::vector<double> v = run(b, sc.spk, sc.mic_inv);
    figures f{};
    f.lat = latency(mic, a);
    a = shifted(a, f.lat);
    m = shifted(m, f.lat);
    v = shifted(v, f.lat);
    std::vector<double> near_out(a.size()), rest_out(a.size()), echo_out(a.size());
    for (size_t i = 0; i < a.size(); i++) {
        near_out[i] = 0.5 * (a[i] - m[i]);
        rest_out[i] = 0.5 * (a[i] + m[i]);
        echo_out[i] = 0.5 * (a[i] + v[i]);
    }
    f.erle = db(aec_power(mic, at(2.0), at(tl::fst_end)), aec_power(a, at(2.0), at(tl::fst_end)));
    f.erle_echo = db(aec_power(sc.echo, at(2.0), at(tl::fst_end)), aec_power(echo_out, at(2.0), at(tl::fst_end)));
    f.t10 = converge(sc, mic, a, 0.0, tl::fst_end, 10.0);
    f.nst_loss = db(aec_power(mic, at(tl::nst_begin), at(tl::nst_end)), aec_power(a, at(tl::nst_begin), at(tl::nst_end)));
    f.dt_leak = cells(rest_out, sc.echo, sc.echo, sc.near, sc.noise, tl::dt_begin, tl::change, 30.0);
    f.dt_loss = -cells(near_out, sc.near, sc.near, sc.echo, sc.noise, tl::dt_begin, tl::change, 10.0);
    f.r10 = converge(sc, mic, a, tl::change, tl::total, 10.0);
    f.erle2 = db(aec_power(mic, at(tl::change + 2.0), at(tl::change + 6.0)),
                 aec_power(a, at(tl::change + 2.0), at(tl::change + 6.0)));
    return f;
}

// Far-end single-talk ERLE (2..8 s) of one scenario, and above 12 kHz.
struct fst {
    double erle, erle_hf;
};
fst measure_fst(const aec_backend &b, const aec_scenario &sc)
{
    const std::vector<double> mic = pcm(sc.mic_plus), out = run(b, sc.spk, sc.mic_plus);
    const int lat = latency(pcm(sc.mic_plus), out);
    const std::vector<double> a = shifted(out, lat);
    return {db(aec_power(mic, at(2.0), at(tl::fst_end)), aec_power(a, at(2.0), at(tl::fst_end))),
            band_erle(mic, a, 2.0, tl::fst_end, 256)};
}

// Noise reduction of a near end of steady noise (-50 dBFS, no far end)
// in 5..7 s, after 10 s of digital zeros that follow 5 s of the noise,
// and in 3..5 s (before the zeros).
void noise_after_zeros(const aec_backend &b, double *before, double *after)
{
    const int n = at(16.0);
    std::vector<double> w = aec_white(11, n, -50.0);
    std::vector<int16_t> spk(size_t(n), 0), mic(size_t(n), 0);
    for (int i = 0; i < n; i++)
        if (i < at(5.0) || i >= at(15.0))
            mic[size_t(i)] = int16_t(std::lrint(w[size_t(i)] * 32768.0));
    const std::vector<double> out = run(b, spk, mic), m = pcm(mic);
    *before = db(aec_power(m, at(3.0), at(5.0)), aec_power(out, at(3.0), at(5.0)));
    *after = db(aec_power(m, at(15.1), at(16.0) - 960), aec_power(out, at(15.1), at(16.0) - 960));
}

// Room A with 0.5 s of full-scale garbage on both inputs at 4 s: ERLE in
// 5..6 s (within a second of the garbage) against the clean run's.
double after_garbage(const aec_backend &b, const aec_scenario &sc)
{
    std::vector<int16_t> spk = sc.spk, mic = sc.mic_plus;
    uint32_t r = 1;
    for (int i = at(4.0); i < at(4.5); i++) {
        r = r * 1664525u + 1013904223u;
        spk[size_t(i)] = int16_t(r >> 16);
        mic[size_t(i)] = int16_t(r);
    }
    const std::vector<double> out = run(b, spk, mic), m = pcm(sc.mic_plus);
    const int lat = latency(m, out);
    const std::vector<double> a = shifted(out, lat);
    return db(aec_power(m, at(5.0), at(6.0)), aec_power(a, at(5.0), at(6.0)));
}

void print_quality(const std::vector<aec_backend> &backends, const aec_scenario *rooms, int nrooms)
{
    const char *missing = aec_missing_references();
    if (*missing)
        printf("References not in this build:%s\n", missing);
    for (int r = 0; r < nrooms; r++) {
        const aec_scenario &sc = rooms[r];
        printf("\nRoom RT60 %.0f ms (ERL 8 dB, noise -65 dBFS; linear limit %.1f dB)\n", sc.rt60 * 1000.0,
               db(aec_power(sc.echo, at(2.0), at(tl::fst_end)) + aec_power(sc.noise, at(2.0), at(tl::fst_end)),
                  aec_power(sc.noise, at(2.0), at(tl::fst_end))));
        printf("%-15s %6s %7s %9s %7s %9s %8s %8s %7s %9s\n", "canceller", "lat ms", "ERLE dB", "echo ERLE",
               "t10 s", "NST loss", "DT leak", "DT loss", "r10 s", "ERLE2 dB");
        for (const aec_backend &b : backends) {
            const figures f = measure(b, sc);
            printf("%-15s %6.1f %7.1f %9.1f %7.2f %9.2f %8.1f %8.2f %7.2f %9.1f\n", b.name,
                   f.lat * 1000.0 / AEC_RATE, f.erle, f.erle_echo, f.t10, f.nst_loss, f.dt_leak, f.dt_loss, f.r10,
                   f.erle2);
        }
    }
    const aec_scenario sat = aec_make_scenario(0.15, 1, {2.5, 480, false});
    const aec_scenario bulk = aec_make_scenario(0.15, 1, {0.0, at(0.5), false});
    const aec_scenario white = aec_make_scenario(0.15, 1, {0.0, 480, true});
    printf("\nRoom RT60 150 ms, variants (far-end single talk ERLE 2..8 s, dB)\n");
    printf("%-15s %8s %8s %8s %8s %9s %9s %9s\n", "canceller", "tanh", "bulk 0.5s", "white", "white>12k",
           "NR before", "NR zeros", "garbage");
    for (const aec_backend &b : backends) {
        const fst s = measure_fst(b, sat), d = measure_fst(b, bulk), w = measure_fst(b, white);
        double nb = 0.0, na = 0.0;
        noise_after_zeros(b, &nb, &na);
        printf("%-15s %8.1f %8.1f %8.1f %8.1f %9.1f %9.1f %9.1f\n", b.name, s.erle, d.erle, w.erle, w.erle_hf, nb, na,
               after_garbage(b, rooms[0]));
    }
    printf("\nlat ms: output delay of the frame processor (best match of output and microphone, near end alone).\n"
           "The output is advanced by it before the figures below.\n"
           "ERLE: mic/out power, far-end single talk 2..8 s (noise suppression included). echo ERLE: echo power\n"
           "in the mic over the echo left in the output, 2..8 s: half the sum of the outputs of the run and of a\n"
           "run with near end and noise inverted (noise suppression not counted). t10: from start until\n"
           "10 dB holds for 0.5 s in 200 ms windows. NST loss: mic/out power, near end alone 8.5..12 s.\n"
           "DT leak: double talk 12.5..18 s, echo+noise left in the output (half the sum of the runs with the\n"
           "near end in and out of phase) against the echo, in the 20 ms Hann cells where the echo is 30 dB\n"
           "above the near end and 20 dB above the noise. DT loss: near end lost (half the difference) in the\n"
           "cells where the near end is 10 dB above the echo and 20 dB above the noise.\n"
           "r10: seconds after the echo-path change at 18 s until 10 dB holds. ERLE2: ERLE 2..6 s after it.\n"
           "Variants: tanh: loudspeaker saturation tanh(2.5 x)/2.5 before the room. bulk 0.5s: 500 ms bulk\n"
           "delay. white: white far end -30 dBFS; white>12k: its ERLE above 12 kHz. NR before / NR zeros:\n"
           "noise reduction of -50 dBFS near-end noise before and right after (0.1..1 s) 10 s of digital\n"
           "zeros. garbage: ERLE 5..6 s after 0.5 s of full-scale random input on both sides at 4 s.\n\n");
}

// The same figures over other talkers, rooms and noise (seeds 1..n of
// both rooms): a canceller tuned on one signal shows here what it does on
// the others.
void print_seeds(const std::vector<aec_backend> &backends, int n)
{
    printf("Seeds 1..%d of both rooms (talkers, room responses and noise drawn anew): mean / worst\n", n);
    printf("%-15s %6s %11s %11s %11s %11s %11s\n", "canceller", "RT60", "ERLE dB", "echo ERLE", "DT leak",
           "DT loss", "ERLE2 dB");
    std::vector<aec_scenario> rooms;
    for (const double rt60 : {0.15, 0.4})
        for (int seed = 1; seed <= n; seed++)
            rooms.push_back(aec_make_scenario(rt60, uint32_t(seed)));
    for (const aec_backend &b : backends)
        for (int r = 0; r < 2; r++) {
            double sum[5] = {}, worst[5] = {1e9, 1e9, -1e9, -1e9, 1e9};
            for (int seed = 0; seed < n; seed++) {
                const figures f = measure(b, rooms[size_t(r * n + seed)]);
                const double v[5] = {f.erle, f.erle_echo, f.dt_leak, f.dt_loss, f.erle2};
                for (int i = 0; i < 5; i++) {
                    sum[i] += v[i];
                    // worst: the lowest ERLE, the highest leak and loss
                    worst[i] = (i == 2 || i == 3) ? std::max(worst[i], v[i]) : std::min(worst[i], v[i]);
                }
            }
            printf("%-15s %4.0f ms", b.name, r ? 400.0 : 150.0);
            for (int i = 0; i < 5; i++)
                printf(" %5.1f/%5.1f", sum[i] / n, worst[i]);
            printf("\n");
        }
    printf("\n");
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

// One 1024-point transform of the canceller's: 0 forward, 1 inverse, 2
// forward pair, 3 inverse pair (two signals through one complex transform).
void bm_fft(benchmark::State &state, int kind)
{
    static eaec_fft_plan plan;
    alignas(16) static float work[EAEC_FFT_WORK], x[1024], y[1024], xr[516], xi[516], yr[516], yi[516];
    eaec_fft_plan_init(&plan, 1024);
    const std::vector<double> w = aec_white(5, 2048, -20.0);
    for (int i = 0; i < 1024; i++) {
        x[i] = float(w[size_t(i)]);
        y[i] = float(w[size_t(1024 + i)]);
    }
    eaec_rfft_pair(&plan, x, y, xr, xi, yr, yi, work);
    for (auto _ : state) {
        if (kind == 0)
            eaec_rfft(&plan, x, xr, xi, work);
        else if (kind == 1)
            eaec_irfft(&plan, xr, xi, x, work);
        else if (kind == 2)
            eaec_rfft_pair(&plan, x, y, xr, xi, yr, yi, work);
        else
            eaec_irfft_pair(&plan, xr, xi, yr, yi, x, y, work);
        benchmark::ClobberMemory();
    }
}

// Google Benchmark's console output, and the CPU time per frame of each
// canceller kept for the summary after it.
class frame_times : public benchmark::ConsoleReporter {
public:
    std::vector<std::pair<std::string, double>> us; // frame/<name>, mean of the repetitions
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &r : runs) {
            const std::string name = r.run_name.function_name;
            if (r.run_type != Run::RT_Iteration || name.rfind("frame/", 0) != 0)
                continue;
            auto it = std::find_if(us.begin(), us.end(), [&](const auto &e) { return e.first == name; });
            if (it == us.end()) {
                us.push_back({name, 0.0});
                it = us.end() - 1;
                counts.push_back(0);
            }
            const size_t i = size_t(it - us.begin());
            it->second = (it->second * counts[i] + r.GetAdjustedCPUTime()) / (counts[i] + 1);
            counts[i]++;
        }
        ConsoleReporter::ReportRuns(runs);
    }

    // µs per frame and the ratio to AEC3's, all from this run.
    void summary() const
    {
        double aec3 = 0.0;
        for (const auto &e : us)
            if (e.first.find("AEC3") != std::string::npos)
                aec3 = e.second;
        printf("\n%-21s %12s %12s\n", "CPU time per frame", "us", "/ AEC3");
        for (const auto &e : us) {
            if (aec3 > 0.0)
                printf("%-21s %12.1f %12.2f\n", e.first.c_str(), e.second, e.second / aec3);
            else
                printf("%-21s %12.1f %12s\n", e.first.c_str(), e.second, "-");
        }
    }

private:
    std::vector<int> counts;
};
} // namespace

int main(int argc, char **argv)
{
#if defined(__SSE__)
    _mm_setcsr(_mm_getcsr() | 0x8040); // flush-to-zero, denormals-are-zero
#endif
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
    std::vector<aec_backend> backends = aec_backends();
    static const aec_scenario rooms[2] = {aec_make_scenario(0.15, 1), aec_make_scenario(0.4, 1)};
    bool quality = true;
    int seeds = 8;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--no-quality") == 0)
            quality = false;
        if (strcmp(argv[i], "--seeds") == 0 && i + 1 < argc) // 0: the first signals only
            seeds = std::atoi(argv[++i]);
        if (strcmp(argv[i], "--ours") == 0) // our row alone, while tuning
            backends.resize(1);
    }
    if (quality)
        print_quality(backends, rooms, 2);
    if (quality && seeds > 0)
        print_seeds(backends, seeds);
    bench_signal = &rooms[1];
    for (const aec_backend &b : backends)
        benchmark::RegisterBenchmark((std::string("frame/") + b.name).c_str(), bm_frame, b)
            ->Unit(benchmark::kMicrosecond);
    const char *fft_names[4] = {"fft/forward", "fft/inverse", "fft/forward pair", "fft/inverse pair"};
    for (int kind = 0; kind < 4; kind++)
        benchmark::RegisterBenchmark(fft_names[kind], bm_fft, kind)->Unit(benchmark::kMicrosecond);
    benchmark::Initialize(&argc, argv);
    frame_times times;
    benchmark::RunSpecifiedBenchmarks(&times);
    times.summary();
    benchmark::Shutdown();
    return 0;
}
