#include "aec_signals.h"

#include <algorithm>
#include <cmath>
#include <complex>

namespace {
struct rng {
    uint64_t s;
    double uniform() // [0, 1)
    {
        s = s * 6364136223846793005ull + 1442695040888963407ull;
        return double(s >> 11) * (1.0 / 9007199254740992.0);
    }
    double gauss()
    {
        const double u1 = std::max(uniform(), 1e-300), u2 = uniform();
        return std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * M_PI * u2);
    }
};

// Two-pole resonator at f Hz with bandwidth bw Hz, unity gain near f.
struct resonator {
    double a1, a2, g, y1 = 0, y2 = 0;
    resonator(double f, double bw)
    {
        const double r = std::exp(-M_PI * bw / AEC_RATE);
        a1 = 2.0 * r * std::cos(2.0 * M_PI * f / AEC_RATE);
        a2 = -r * r;
        g = 1.0 - r;
    }
    double run(double x)
    {
        const double y = g * x + a1 * y1 + a2 * y2;
        y2 = y1;
        y1 = y;
        return y;
    }
};

void fft(std::vector<std::complex<double>> &a, bool inverse)
{
    const size_t n = a.size();
    for (size_t i = 1, j = 0; i < n; i++) {
        size_t bit = n >> 1;
        for (; j & bit; bit >>= 1)
            j ^= bit;
        j ^= bit;
        if (i < j)
            std::swap(a[i], a[j]);
    }
    for (size_t len = 2; len <= n; len <<= 1) {
        const double ang = 2.0 * M_PI / double(len) * (inverse ? 1.0 : -1.0);
        const std::complex<double> wl(std::cos(ang), std::sin(ang));
        for (size_t i = 0; i < n; i += len) {
            std::complex<double> w(1.0);
            for (size_t j = 0; j < len / 2; j++) {
                const auto u = a[i + j], v = a[i + j + len / 2] * w;
                a[i + j] = u + v;
                a[i + j + len / 2] = u - v;
                w *= wl;
            }
        }
    }
    if (inverse)
        for (auto &v : a)
            v /= double(n);
}

void scale_to(std::vector<double> &x, double rms_dbfs)
{
    const double p = aec_power(x, 0, int(x.size()));
    const double target = std::pow(10.0, rms_dbfs / 10.0);
    const double g = p > 0 ? std::sqrt(target / p) : 0.0;
    for (double &v : x)
        v *= g;
}

std::vector<int16_t> to_pcm(const std::vector<double> &x)
{
    std::vector<int16_t> y(x.size());
    for (size_t i = 0; i < x.size(); i++)
        y[i] = int16_t(std::clamp(std::lrint(x[i] * 32768.0), -32768L, 32767L));
    return y;
}
} // namespace

double aec_power(const std::vector<double> &x, int from, int to)
{
    double s = 0.0;
    for (int i = from; i < to; i++)
        s += x[size_t(i)] * x[size_t(i)];
    return to > from ? s / double(to - from) : 0.0;
}

std::vector<double> aec_speech(uint32_t seed, int samples, double rms_dbfs)
{
    rng r{seed * 2654435761ull + 1};
    std::vector<double> x(size_t(samples), 0.0);
    int t = int(r.uniform() * 4800);
    int until_pause = int((1.5 + 1.5 * r.uniform()) * AEC_RATE);
    double glottal = 0.0, hp = 0.0;
    while (t < samples) {
        const int len = int((0.08 + 0.17 * r.uniform()) * AEC_RATE);
        const bool voiced = r.uniform() < 0.75;
        const double f0 = 90.0 + 110.0 * r.uniform();
        resonator f1(300.0 + 600.0 * r.uniform(), 80.0), f2(900.0 + 1600.0 * r.uniform(), 120.0);
        resonator fric(3000.0 + 3000.0 * r.uniform(), 2000.0);
        const double amp = 0.5 + r.uniform();
        double phase = 0.0;
        const int ramp = int(0.015 * AEC_RATE);
        for (int i = 0; i < len && t + i < samples; i++) {
            double env = 1.0;
            if (i < ramp)
                env = 0.5 - 0.5 * std::cos(M_PI * i / ramp);
            else if (i > len - ramp)
                env = 0.5 - 0.5 * std::cos(M_PI * (len - i) / ramp);
            double v;
            if (voiced) {
                const double f = f0 * (1.0 + 0.1 * std::sin(2.0 * M_PI * i / len));
                phase += f / AEC_RATE;
                double pulse = 0.0;
                if (phase >= 1.0) {
                    phase -= 1.0;
                    pulse = 1.0;
                }
                glottal = 0.96 * glottal + pulse + 0.02 * r.gauss();
                v = 6.0 * f1.run(glottal) + 4.0 * f2.run(glottal) + 0.05 * glottal;
            } else {
                v = 1.5 * fric.run(r.gauss());
            }
            hp = 0.995 * hp + 0.005 * v; // remove DC and rumble
            x[size_t(t + i)] = amp * env * (v - hp);
        }
        t += len + int((0.03 + 0.12 * r.uniform()) * AEC_RATE);
        until_pause -= len;
        if (until_pause < 0) {
            t += int((0.3 + 0.4 * r.uniform()) * AEC_RATE);
            until_pause = int((1.5 + 1.5 * r.uniform()) * AEC_RATE);
        }
    }
    scale_to(x, rms_dbfs);
    return x;
}

std::vector<double> aec_room(uint32_t seed, double rt60, int bulk)
{
    rng r{seed * 40503ull + 7};
    const int len = bulk + int(rt60 * AEC_RATE);
    std::vector<double> h(size_t(len), 0.0);
    h[size_t(bulk)] = 0.6;
    double lp = 0.0;
    const double decay = std::log(1000.0) / (rt60 * AEC_RATE); // amplitude: -60 dB at rt60
    for (int n = bulk + 1; n < len; n++) {
        lp = 0.6 * lp + 0.4 * r.gauss();
        h[size_t(n)] = 0.12 * lp * std::exp(-decay * (n - bulk));
    }
    return h;
}

std::vector<double> aec_convolve(const std::vector<double> &x, const std::vector<double> &h)
{
    size_t n = 1;
    while (n < x.size() + h.size())
        n <<= 1;
    std::vector<std::complex<double>> a(n), b(n);
    for (size_t i = 0; i < x.size(); i++)
        a[i] = x[i];
    for (size_t i = 0; i < h.size(); i++)
        b[i] = h[i];
    fft(a, false);
    fft(b, false);
    for (size_t i = 0; i < n; i++)
        a[i] *= b[i];
    fft(a, true);
    std::vector<double> y(x.size());
    for (size_t i = 0; i < x.size(); i++)
        y[i] = a[i].real();
    return y;
}

std::vector<double> aec_white(uint32_t seed, int samples, double rms_dbfs)
{
    rng r{seed * 97ull + 3};
    std::vector<double> x(static_cast<size_t>(samples));
    for (double &v : x)
        v = r.gauss();
    scale_to(x, rms_dbfs);
    return x;
}

aec_scenario aec_make_scenario(double rt60, uint32_t seed, const aec_variant &v)
{
    using tl = aec_timeline;
    const int n = int(tl::total * AEC_RATE);
    auto at = [](double s) { return int(s * AEC_RATE); };
    aec_scenario sc;
    sc.rt60 = rt60;
    std::vector<double> far = v.white_far ? aec_white(seed + 7, n, -30.0) : aec_speech(seed, n, -24.0);
    for (int i = at(tl::fst_end); i < at(tl::dt_begin); i++)
        far[size_t(i)] = 0.0; // the far end is silent during near-end single talk
    std::vector<double> nearv = aec_speech(seed + 1000, n, -30.0);
    for (int i = 0; i < n; i++)
        if (i < at(tl::nst_begin) || (i >= at(tl::nst_end) && i < at(tl::dt_begin)) || i >= at(tl::change))
            nearv[size_t(i)] = 0.0;
    // Two echo paths: the second takes over at the change.
    const std::vector<double> h1 = aec_room(seed + 1, rt60, v.bulk), h2 = aec_room(seed + 2, rt60, v.bulk + 240);
    std::vector<double> played = far;
    if (v.drive > 0.0)
        for (double &x : played)
            x = std::tanh(v.drive * x) / v.drive;
    std::vector<double> e1 = aec_convolve(played, h1), e2 = aec_convolve(played, h2);
    // ERL 8 dB over the first far-end segment, the same gain for both paths.
    const double pf = aec_power(far, 0, at(tl::fst_end)), pe = aec_power(e1, 0, at(tl::fst_end));
    const double g = std::sqrt(pf * std::pow(10.0, -0.8) / pe);
    sc.echo.resize(size_t(n));
    for (int i = 0; i < n; i++)
        sc.echo[size_t(i)] = g * (i < at(tl::change) ? e1[size_t(i)] : e2[size_t(i)]);
    sc.noise = aec_white(seed + 3, n, -65.0);
    sc.near = nearv;
    std::vector<double> mp(static_cast<size_t>(n)), mm(static_cast<size_t>(n)), mi(static_cast<size_t>(n));
    for (size_t i = 0; i < size_t(n); i++) {
        mp[i] = sc.echo[i] + sc.near[i] + sc.noise[i];
        mm[i] = sc.echo[i] - sc.near[i] + sc.noise[i];
        mi[i] = sc.echo[i] - sc.near[i] - sc.noise[i];
    }
    sc.spk = to_pcm(far);
    sc.mic_plus = to_pcm(mp);
    sc.mic_minus = to_pcm(mm);
    sc.mic_inv = to_pcm(mi);
    // Far-end activity: a 20 ms envelope above -60 dBFS.
    sc.far_active.assign(size_t(n), 0);
    double env = 0.0;
    for (int i = 0; i < n; i++) {
        env = 0.999 * env + 0.001 * far[size_t(i)] * far[size_t(i)];
        sc.far_active[size_t(i)] = env > 1e-6;
    }
    return sc;
}

std::vector<double> aec_stft_power(const std::vector<double> &x, int from, int to)
{
    constexpr int win = 960, hop = 480, nfft = 1024;
    std::vector<double> w(win), out;
    for (int i = 0; i < win; i++)
        w[size_t(i)] = 0.5 - 0.5 * std::cos(2.0 * M_PI * (i + 0.5) / win);
    std::vector<std::complex<double>> a(nfft);
    for (int s = from; s + win <= to; s += hop) {
        for (int i = 0; i < nfft; i++)
            a[size_t(i)] = i < win ? x[size_t(s + i)] * w[size_t(i)] : 0.0;
        fft(a, false);
        for (int k = 0; k < AEC_STFT_BINS; k++)
            out.push_back(std::norm(a[size_t(k)]));
    }
    return out;
}
