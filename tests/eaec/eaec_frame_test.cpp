#include "eaec/eaec.h"
#include "support/alloc_count.h"

#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

namespace {
constexpr int FRAME = 480;

// Deterministic noise in [-1, 1).
struct lcg {
    uint32_t s;
    float next()
    {
        s = s * 1664525u + 1013904223u;
        return float(int32_t(s)) * (1.0f / 2147483648.0f);
    }
};

int16_t pcm(double v) { return int16_t(std::lrint(std::fmax(-32768.0, std::fmin(32767.0, v * 32768.0)))); }

double power(const std::vector<int16_t> &x, size_t from, size_t to)
{
    double s = 0.0;
    for (size_t i = from; i < to; i++)
        s += double(x[i]) * double(x[i]);
    return s / double(to - from) + 1e-9;
}

double db(double a, double b) { return 10.0 * std::log10(a / b); }

// Speech-like near end: noise bursts of 150 ms with 100 ms gaps.
std::vector<int16_t> bursts(size_t n, uint32_t seed, double level)
{
    lcg r{seed};
    std::vector<int16_t> x(n);
    double lp = 0.0;
    for (size_t i = 0; i < n; i++) {
        lp = 0.7 * lp + 0.3 * r.next();
        const bool on = (i % 12000) < 7200;
        x[i] = pcm(on ? level * lp : 0.0);
    }
    return x;
}

// One canceller with the daemon's configuration.
class EaecFrame : public ::testing::Test {
public:
    void SetUp() override
    {
        EAEC_CONFIG cfg{48000, 1, 1, -12, -10, 20, 0};
        ASSERT_EQ(eaec_init(&p, &s, &cfg), EAEC_STATUS_OK);
    }
    void TearDown() override { eaec_done(p, s); }
    std::vector<int16_t> run(const std::vector<int16_t> &spk, const std::vector<int16_t> &mic)
    {
        std::vector<int16_t> out(spk.size());
        for (size_t f = 0; f + FRAME <= spk.size(); f += FRAME)
            eaec_processframe(p, s, &spk[f], &mic[f], &out[f]);
        return out;
    }
    HANDLE_EAEC_PARAMS p = nullptr;
    HANDLE_EAEC_STATE s = nullptr;
};

// Far end through a 6 ms bulk delay and a 12 ms decaying response, with
// microphone noise 50 dB below; returns the ERLE of the last second. The
// filter spans all its partitions however short the path, so it needs a
// few seconds of far end.
double echo_reduction(EaecFrame &t, bool speech_band)
{
    const size_t n = 48000 * 6;
    lcg r{11};
    std::vector<double> h(900, 0.0);
    for (size_t i = 300; i < h.size(); i++)
        h[i] = 0.5 * r.next() * std::exp(-double(i - 300) / 120.0);
    // Speech band: white noise through a 63-tap windowed-sinc low-pass at
    // 8 kHz (more than 40 dB down above the filter's 12 kHz band).
    std::vector<double> lp(63);
    for (size_t k = 0; k < lp.size(); k++) {
        const double x = double(k) - 31.0, fc = 8000.0 / 48000.0;
        const double sinc = x == 0.0 ? 2.0 * fc : std::sin(2.0 * M_PI * fc * x) / (M_PI * x);
        lp[k] = sinc * (0.5 - 0.5 * std::cos(2.0 * M_PI * double(k) / 62.0));
    }
    std::vector<double> white(n), far(n);
    for (double &v : white)
        v = 0.1 * r.next();
    for (size_t i = 0; i < n; i++) {
        double v = speech_band ? 0.0 : 0.5 * white[i];
        for (size_t k = 0; speech_band && k < lp.size() && k <= i; k++)
            v += lp[k] * white[i - k];
        far[i] = 2.0 * v;
    }
    std::vector<int16_t> spk(n), mic(n);
    for (size_t i = 0; i < n; i++) {
        double e = 0.0;
        for (size_t k = 300; k < h.size() && k <= i; k++)
            e += h[k] * far[i - k];
        spk[i] = pcm(far[i]);
        mic[i] = pcm(e + 0.0003 * r.next());
    }
    const std::vector<int16_t> out = t.run(spk, mic);
    return db(power(mic, n - 48000, n), power(out, n - 48000, n));
}

// Speech band: 20 dB; a full-band far end: above 12 kHz only the suppressor
// acts (12 dB).
TEST_F(EaecFrame, EchoFallsBy20dBAfterConvergence)
{
    EXPECT_GE(echo_reduction(*this, true), 20.0);
    eaec_done(p, s);
    SetUp();
    EXPECT_GE(echo_reduction(*this, false), 10.0);
}

// A silent (disconnected) reference: near-end speech passes within 1 dB,
// noise loses no more than the 10 dB of noise suppression, silence stays.
TEST_F(EaecFrame, SilentReferencePassesTheNearEnd)
{
    const size_t n = 48000 * 3;
    lcg r{3};
    std::vector<int16_t> zero(n, 0), noise(n);
    for (int16_t &v : noise)
        v = pcm(0.001 * r.next());
    const struct {
        std::vector<int16_t> mic;
        size_t from;
        double lo, hi;
    } cases[] = {{bursts(n, 5, 0.1), 24000, -1.0, 1.0}, {noise, 24000, -1.0, 11.0}, {zero, 0, 0.0, 0.0}};
    for (const auto &c : cases) {
        eaec_done(p, s);
        SetUp();
        const double loss = db(power(c.mic, c.from, n), power(run(zero, c.mic), c.from, n));
        EXPECT_GE(loss, c.lo);
        EXPECT_LE(loss, c.hi);
    }
}

TEST_F(EaecFrame, FullScaleSquareWavesKeepTheCancellerSane)
{
    const size_t n = 48000 * 2;
    std::vector<int16_t> sq(n), inv(n);
    for (size_t i = 0; i < n; i++) {
        sq[i] = (i / 50) % 2 ? int16_t(32767) : int16_t(-32768);
        inv[i] = (i / 73) % 2 ? int16_t(-32768) : int16_t(32767);
    }
    EXPECT_LT(power(run(sq, sq), n / 2, n), power(sq, n / 2, n)) << "echo of a square wave should be reduced";
    run(sq, inv); // reference and microphone unrelated, both at full scale
    // Afterwards the canceller still passes a near end: nothing in its
    // state became NaN or infinite.
    const std::vector<int16_t> zero(n, 0), nearv = bursts(n, 9, 0.1);
    EXPECT_NEAR(db(power(run(zero, nearv), 24000, n), power(nearv, 24000, n)), 0.0, 3.0);
}

// A fresh canceller fed the same input gives the same output, and null
// objects are ignored.
TEST_F(EaecFrame, SameInputGivesTheSameOutput)
{
    std::vector<int16_t> spk = bursts(48000, 21, 0.2), mic = bursts(48000, 22, 0.05);
    const std::vector<int16_t> first = run(spk, mic);
    eaec_done(p, s);
    SetUp();
    EXPECT_EQ(run(spk, mic), first);
    eaec_processframe(nullptr, nullptr, &spk[0], &mic[0], &spk[0]);
    eaec_done(nullptr, nullptr);
}

TEST_F(EaecFrame, ProcessingAllocatesNothing)
{
    std::vector<int16_t> spk(FRAME, 1000), mic(FRAME, 500), out(FRAME);
    alloc_count_start();
    for (int i = 0; i < 20; i++)
        eaec_processframe(p, s, spk.data(), mic.data(), out.data());
    EXPECT_EQ(alloc_count_stop(), 0);
}
} // namespace
