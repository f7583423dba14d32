// Bulk-delay estimator of the echo canceller (see eaec_delay in
// eaec_core.h): binary spectra compared by counting differing bits, which
// costs one exclusive-or and one bit count per lag and frame.
#include "eaec/eaec_core.h"

#include <algorithm>
#include <bit>

namespace {
constexpr float BAND_LO_HZ = 250.0f, BAND_HZ = 125.0f; // 250 Hz .. 4.25 kHz
constexpr float MEDIAN_STEP = 1.05f;  // per frame, up or down
constexpr float COST_RATE = 0.05f;    // smoothing of the differing bits per frame
constexpr float COST_START = 16.0f;   // chance: half the bits differ
constexpr int WARM_UP = 30;           // compared frames before the first estimate
constexpr float DISTINCT = 4.0f;      // bits the best lag must lie below the mean of all
constexpr float HYSTERESIS = 1.5f;    // bits a new lag must beat the one in force by
constexpr int HOLD_FIRST = 10, HOLD = 25; // frames a candidate must stay best
constexpr int MARGIN = 2;             // partitions the filter keeps before the estimate

uint32_t bits(const eaec_params *p, const float *pw, float *thr, int track) noexcept
{
    uint32_t b = 0;
    for (int band = 0; band < EAEC_DELAY_BANDS; band++) {
        float e = 0.0f;
        for (int k = p->band_edge[band]; k < p->band_edge[band + 1]; k++)
            e += pw[k];
        if (e > thr[band])
            b |= 1u << band;
        if (!track)
            continue;
        if (thr[band] <= 0.0f) // the first active frame sets the start
            thr[band] = std::max(e, 1e-12f);
        else // the median: as often above as below
            thr[band] = e > thr[band] ? thr[band] * MEDIAN_STEP : std::max(thr[band] * (1.0f / MEDIAN_STEP), 1e-12f);
    }
    return b;
}
} // namespace

void delay_derive(eaec_params *p)
{
    p->nlag = std::min(EAEC_DELAY_LAGS_MAX, p->sfreq * EAEC_DELAY_MS / 1000 / p->hop + 1);
    p->nring = p->npart + p->nlag;
    const float bin_hz = float(p->sfreq) / float(p->nfft);
    for (int b = 0; b <= EAEC_DELAY_BANDS; b++)
        p->band_edge[b] = std::min(p->nbin, int((BAND_LO_HZ + BAND_HZ * float(b)) / bin_hz + 0.5f));
}

void delay_reset(eaec_delay *d)
{
    *d = eaec_delay{};
    d->lag = -1;
    d->cand = -1;
    std::fill(d->cost, d->cost + EAEC_DELAY_LAGS_MAX, COST_START);
}

void delay_far(const eaec_params *p, eaec_state *s, const float *x_pow, int far_active) noexcept
{
    eaec_delay *d = &s->dl;
    d->far_bits[s->head] = bits(p, x_pow, d->thr_far, far_active);
    d->far_on[s->head] = uint8_t(far_active);
}

int delay_mic(const eaec_params *p, eaec_state *s, const float *mic_pow, int far_active, int locked) noexcept
{
    eaec_delay *d = &s->dl;
    const uint32_t mb = bits(p, mic_pow, d->thr_mic, 1);
    if (!far_active)
        return d->delay;
    for (int lag = 0, slot = s->head; lag < p->nlag; lag++, slot = slot ? slot - 1 : p->nring - 1)
        if (d->far_on[slot])
            d->cost[lag] += COST_RATE * (float(std::popcount(mb ^ d->far_bits[slot])) - d->cost[lag]);
    if (++d->updates < WARM_UP)
        return d->delay;
    const int best = int(std::min_element(d->cost, d->cost + p->nlag) - d->cost);
    float mean = 0.0f;
    for (int lag = 0; lag < p->nlag; lag++)
        mean += d->cost[lag];
    mean /= float(p->nlag);
    // A lag must stand out from the rest to be taken at all.
    if (best == d->lag || d->cost[best] > mean - DISTINCT || (d->lag >= 0 && (locked || d->cost[best] > d->cost[d->lag] - HYSTERESIS))) {
        d->cand_frames = 0;
        return d->delay;
    }
    if (best != d->cand) {
        d->cand = best;
        d->cand_frames = 0;
    }
    if (++d->cand_frames < (d->lag < 0 ? HOLD_FIRST : HOLD))
        return d->delay;
    d->lag = best;
    d->cand_frames = 0;
    return std::max(0, best - MARGIN);
}
