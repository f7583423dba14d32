#include "eaec/eaec.h"

#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <numeric>
#include <vector>

namespace {
constexpr size_t SEC = 48000;
using signal = std::vector<double>;

double noise(uint32_t &s) { return double(int32_t(s = s * 1664525u + 1013904223u)) / 2147483648.0; }

double db_power(const signal &x, size_t from, size_t to)
{
    return 10.0 * std::log10(std::inner_product(&x[from], &x[to - 1] + 1, &x[from], 1e-12) / double(to - from));
}

// Speech-like talker in 16-bit units: 150 ms bursts of low-passed noise,
// 100 ms gaps, a -70 dBFS floor.
signal talker(size_t n, uint32_t seed, double level, size_t phase)
{
    signal x(n);
    double lp = 0.0;
    for (size_t i = 0; i < n; i++) {
        lp = 0.7 * lp + 0.3 * noise(seed);
        x[i] = 32768.0 * ((((i + phase) % 12000) < 7200 ? level * lp : 0.0) + 0.0003 * noise(seed));
    }
    return x;
}

// The daemon's configuration over whole signals; mic = echo + sign * near.
signal cancel(const signal &spk, const signal &echo, const signal &nearv, double sign)
{
    EAEC_CONFIG cfg{48000, 1, 1, -12, -10, 20, 0};
    HANDLE_EAEC_PARAMS p = nullptr;
    HANDLE_EAEC_STATE s = nullptr;
    EXPECT_EQ(eaec_init(&p, &s, &cfg), EAEC_STATUS_OK);
    std::vector<int16_t> x(spk.size()), m(spk.size()), out(spk.size());
    auto pcm = [](double v) { return int16_t(std::lrint(std::fmax(-32768.0, std::fmin(32767.0, v)))); };
    for (size_t i = 0; i < spk.size(); i++)
        x[i] = pcm(spk[i]), m[i] = pcm(echo[i] + sign * nearv[i]);
    for (size_t f = 0; f + 480 <= spk.size(); f += 480)
        eaec_processframe(p, s, &x[f], &m[f], &out[f]);
    eaec_done(p, s);
    return signal(out.begin(), out.end());
}

// 3 s of far end alone through a room, then 3 s of double talk, run with
// the near end in and out of phase: half the sum of the outputs is the
// echo left, half the difference the near end that came through. The same
// room 300 ms away (beyond the adaptive filter's own span) must be found
// by the delay estimator, from the start and when the room moves there.
TEST(EaecFrame, ConvergesAndKeepsEchoOutInDoubleTalk)
{
    const size_t n = 6 * SEC;
    const signal far = talker(n, 1, 0.5, 0), zero(n, 0.0);
    signal h(900, 0.0), nearv = talker(n, 2, 0.2, 5000);
    uint32_t seed = 11;
    for (size_t i = 300; i < h.size(); i++)
        h[i] = 0.35 * noise(seed) * std::exp(-double(i - 300) / 120.0);
    auto room = [&](size_t bulk) {
        signal e(n, 0.0);
        for (size_t i = bulk; i < n; i++)
            for (size_t k = 300; k < h.size() && k <= i - bulk; k++)
                e[i] += h[k] * far[i - bulk - k];
        return e;
    };
    const signal echo = room(0), away = room(SEC * 3 / 10);
    EXPECT_LE(db_power(cancel(far, away, zero, 0.0), 2 * SEC, 3 * SEC) - db_power(away, 2 * SEC, 3 * SEC), -40.0)
        << "room 300 ms away";
    signal moved(echo.begin(), echo.begin() + 3 * SEC);
    moved.insert(moved.end(), away.begin() + 3 * SEC, away.end());
    EXPECT_LE(db_power(cancel(far, moved, zero, 0.0), 4 * SEC, n) - db_power(moved, 4 * SEC, n), -52.0)
        << "1-3 s after the room moved 300 ms away";
    for (size_t i = 0; i < 3 * SEC; i++)
        nearv[i] = 0.0;
    const signal a = cancel(far, echo, nearv, 1.0), b = cancel(far, echo, nearv, -1.0);
    signal left(n), through(n);
    for (size_t i = 0; i < n; i++)
        left[i] = 0.5 * (a[i] + b[i]), through[i] = 0.5 * (a[i] - b[i]);
    EXPECT_LE(db_power(a, 2 * SEC, 3 * SEC) - db_power(echo, 2 * SEC, 3 * SEC), -40.0) << "far end alone";
    EXPECT_LE(db_power(left, 4 * SEC, n) - db_power(echo, 4 * SEC, n), -35.0) << "echo in double talk";
    EXPECT_GE(db_power(through, 4 * SEC, n) - db_power(nearv, 4 * SEC, n), -3.5) << "near end lost";
    // After a second of unrelated full-scale garbage on both sides a near
    // end alone passes again; a second run gives the same output.
    signal gspk(3 * SEC, 0.0), gmic = talker(3 * SEC, 9, 0.1, 0);
    for (size_t i = 0; i < SEC; i++)
        gspk[i] = 32767.0 * noise(seed), gmic[i] = 32767.0 * noise(seed);
    const signal g = cancel(gspk, gmic, zero, 0.0);
    EXPECT_NEAR(db_power(g, 2 * SEC, 3 * SEC), db_power(gmic, 2 * SEC, 3 * SEC), 1.5);
    EXPECT_EQ(cancel(gspk, gmic, zero, 0.0), g);
}
} // namespace
