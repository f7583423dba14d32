#include "eaec/eaec.h"
#include "support/alloc_count.h"

#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

namespace {
constexpr int FRAME = 480;
constexpr size_t SEC = 48000;
using pcm_vec = std::vector<int16_t>;

struct lcg {
    uint32_t s;
    double next() // [-1, 1)
    {
        s = s * 1664525u + 1013904223u;
        return double(int32_t(s)) / 2147483648.0;
    }
};

int16_t pcm(double v) { return int16_t(std::lrint(std::fmax(-32768.0, std::fmin(32767.0, v * 32768.0)))); }

double db_power(const std::vector<double> &x, size_t from, size_t to)
{
    double s = 1e-12;
    for (size_t i = from; i < to; i++)
        s += x[i] * x[i];
    return 10.0 * std::log10(s / double(to - from));
}

// Speech-like talker: low-passed noise in 150 ms bursts with 100 ms gaps
// (and a -70 dBFS floor);
// `phase` shifts the bursts so two talkers overlap only partly.
std::vector<double> talker(size_t n, uint32_t seed, double level, size_t phase)
{
    lcg r{seed};
    std::vector<double> x(n);
    double lp = 0.0;
    for (size_t i = 0; i < n; i++) {
        lp = 0.7 * lp + 0.3 * r.next();
        x[i] = (((i + phase) % 12000) < 7200 ? level * lp : 0.0) + 0.0003 * r.next();
    }
    return x;
}

// Echo of the far end: 6 ms bulk delay, a 12 ms decaying tail, ERL 6 dB.
std::vector<double> room(const std::vector<double> &far)
{
    lcg r{11};
    std::vector<double> h(900, 0.0), e(far.size(), 0.0);
    for (size_t i = 300; i < h.size(); i++)
        h[i] = 0.35 * r.next() * std::exp(-double(i - 300) / 120.0);
    for (size_t i = 0; i < far.size(); i++)
        for (size_t k = 300; k < h.size() && k <= i; k++)
            e[i] += h[k] * far[i - k];
    return e;
}

// One canceller with the daemon's configuration, run over whole signals.
class EaecFrame : public ::testing::Test {
public:
    void SetUp() override
    {
        EAEC_CONFIG cfg{48000, 1, 1, -12, -10, 20, 0};
        ASSERT_EQ(eaec_init(&p, &s, &cfg), EAEC_STATUS_OK);
    }
    void TearDown() override { eaec_done(p, s); }
    std::vector<double> run(const pcm_vec &spk, const pcm_vec &mic)
    {
        pcm_vec out(spk.size());
        for (size_t f = 0; f + FRAME <= spk.size(); f += FRAME)
            eaec_processframe(p, s, &spk[f], &mic[f], &out[f]);
        return std::vector<double>(out.begin(), out.end());
    }
    HANDLE_EAEC_PARAMS p = nullptr;
    HANDLE_EAEC_STATE s = nullptr;
};

pcm_vec to_pcm(const std::vector<double> &a, const std::vector<double> &b, double sign)
{
    pcm_vec y(a.size());
    for (size_t i = 0; i < a.size(); i++)
        y[i] = pcm(a[i] + sign * b[i]);
    return y;
}

// 3 s of far end alone, then 3 s of double talk with a near end 6 dB
// below the echo. The run is repeated with the near end inverted: half
// the sum of the two outputs is the echo left, half the difference the
// near end that came through.
TEST_F(EaecFrame, ConvergesAndKeepsEchoOutInDoubleTalk)
{
    const size_t n = 6 * SEC;
    const std::vector<double> far = talker(n, 1, 0.5, 0), echo = room(far);
    std::vector<double> nearv = talker(n, 2, 0.08, 5000);
    for (size_t i = 0; i < 3 * SEC; i++)
        nearv[i] = 0.0;
    const pcm_vec spk = to_pcm(far, far, 0.0);
    const std::vector<double> a = run(spk, to_pcm(echo, nearv, 1.0));
    TearDown();
    SetUp();
    const std::vector<double> b = run(spk, to_pcm(echo, nearv, -1.0));
    std::vector<double> left(n), through(n), mic(n);
    for (size_t i = 0; i < n; i++) {
        left[i] = 0.5 * (a[i] + b[i]);
        through[i] = 0.5 * (a[i] - b[i]);
        mic[i] = echo[i] * 32768.0;
        nearv[i] *= 32768.0;
    }
    EXPECT_LE(db_power(a, 2 * SEC, 3 * SEC) - db_power(mic, 2 * SEC, 3 * SEC), -25.0) << "far end alone";
    EXPECT_LE(db_power(left, 4 * SEC, n) - db_power(mic, 4 * SEC, n), -25.0) << "echo in double talk";
    EXPECT_GE(db_power(through, 4 * SEC, n) - db_power(nearv, 4 * SEC, n), -3.0) << "near end lost";
}

// Garbage (full-scale noise on both sides, uncorrelated) must not leave
// the canceller silent or unstable: a near end alone passes again within
// a second, and a fresh canceller given the same input gives the same
// output.
TEST_F(EaecFrame, RecoversFromGarbageAndIsDeterministic)
{
    const size_t n = 3 * SEC;
    lcg r{5};
    pcm_vec spk(n, 0), mic(n);
    const std::vector<double> nearv = talker(n, 9, 0.1, 0);
    for (size_t i = 0; i < n; i++) {
        mic[i] = pcm(nearv[i]);
        if (i < SEC) {
            spk[i] = int16_t(r.next() * 32767.0);
            mic[i] = int16_t(r.next() * 32767.0);
        }
    }
    const std::vector<double> first = run(spk, mic);
    std::vector<double> in(mic.begin(), mic.end());
    EXPECT_NEAR(db_power(first, 2 * SEC, n), db_power(in, 2 * SEC, n), 1.5);
    TearDown();
    SetUp();
    EXPECT_EQ(run(spk, mic), first);
    eaec_processframe(nullptr, nullptr, &spk[0], &mic[0], &spk[0]); // null objects are ignored
}

TEST_F(EaecFrame, ProcessingAllocatesNothing)
{
    pcm_vec spk(FRAME, 1000), mic(FRAME, 500), out(FRAME);
    alloc_count_start();
    for (int i = 0; i < 20; i++)
        eaec_processframe(p, s, spk.data(), mic.data(), out.data());
    EXPECT_EQ(alloc_count_stop(), 0);
}
} // namespace
