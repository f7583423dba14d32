// Bulk-delay estimator of the echo canceller (see eaec_delay in
// eaec_core.h). Per band, the change of the log energy since the last frame
// (its onsets and decays) of the microphone is correlated with the far
// end's at every frame lag; the correlation coefficient of each frame is
// smoothed over frames. The echo rises and falls with the far end that made
// it, whatever its level, colour and the room's reverberation.
#include "eaec/eaec_core.h"
#include "eaec/eaec_v4.h"

#include <algorithm>
#include <cmath>

namespace {
constexpr float BAND_LO_HZ = 250.0f, BAND_HZ = 125.0f; // 250 Hz .. 4.25 kHz
constexpr float FLOOR = 1e-9f;        // band energy floor (about -90 dBFS per bin)
constexpr float STEP_MAX = 3.0f;      // largest change counted, natural log (13 dB)
constexpr float SCORE_RATE = 0.1f;   // smoothing of the coefficients per frame
constexpr int WARM_UP = 30;           // compared frames before the first estimate
constexpr float DISTINCT = 0.08f;     // a lag's smoothed coefficient must reach this
constexpr float HYSTERESIS = 0.05f;   // and beat the estimate in force by this
constexpr int HOLD_FIRST = 10, HOLD = 25; // frames a candidate must stay best
constexpr int TRIAL = 60;             // far-active frames a move has to let the filter cancel

// Log-energy changes of the bands into f; returns their sum of squares.
float features(const eaec_params *p, const float *pw, float *prev, float *f) noexcept
{
    float norm = 0.0f;
    for (int band = 0; band < EAEC_DELAY_BANDS; band++) {
        float e = FLOOR;
        for (int k = p->band_edge[band]; k < p->band_edge[band + 1]; k++)
            e += pw[k];
        const float l = std::log(e);
        f[band] = std::clamp(l - prev[band], -STEP_MAX, STEP_MAX);
        prev[band] = l;
        norm += f[band] * f[band];
    }
    return norm;
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
    d->trial = -1;
    std::fill(d->prev_far, d->prev_far + EAEC_DELAY_BANDS, std::log(FLOOR));
    std::fill(d->prev_mic, d->prev_mic + EAEC_DELAY_BANDS, std::log(FLOOR));
}

void delay_far(const eaec_params *p, eaec_state *s, const float *x_pow, int far_active) noexcept
{
    eaec_delay *d = &s->dl;
    const float norm = features(p, x_pow, d->prev_far, d->far_feat[s->head]);
    // An inactive frame only sets the start for the next active one.
    d->far_norm[s->head] = far_active && std::isfinite(norm) ? norm : 0.0f;
}

int delay_mic(const eaec_params *p, eaec_state *s, const float *mic_pow, int far_active, int locked,
              int found) noexcept
{
    const int cancels = found >= 0;
    eaec_delay *d = &s->dl;
    float fm[EAEC_DELAY_BANDS];
    const float nm = features(p, mic_pow, d->prev_mic, fm);
    if (!far_active || !(nm > 0.0f) || !std::isfinite(nm))
        return d->delay;
    for (int lag = 0, slot = s->head; lag < p->nlag; lag++, slot = slot ? slot - 1 : p->nring - 1) {
        if (!(d->far_norm[slot] > 0.0f))
            continue;
        const float *ff = d->far_feat[slot];
        v4 acc = v4_dup(0.0f);
        for (int band = 0; band < EAEC_DELAY_BANDS; band += 4)
            acc = v4_add(acc, v4_mul(v4_loadu(fm + band), v4_loadu(ff + band)));
        const float c = v4_hsum(acc);
        d->score[lag] += SCORE_RATE * (c / std::sqrt(nm * d->far_norm[slot]) - d->score[lag]);
    }
    if (d->trial >= 0) {
        // A move is kept once a filter cancels through the new window. If
        // neither does within TRIAL frames, the lag was an echo of the far
        // end's own rhythm rather than of the room: back to the window
        // before, and that lag's evidence starts again.
        if (cancels) {
            d->trial = -1;
        } else if (++d->trial >= TRIAL) {
            for (int lag = std::max(0, d->lag - 1); lag <= std::min(p->nlag - 1, d->lag + 1); lag++)
                d->score[lag] = 0.0f;
            d->lag = d->prev_lag;
            d->trial = -1;
            d->cand_frames = 0;
            return d->lag < 0 ? 0 : std::max(0, d->lag - EAEC_DELAY_MARGIN);
        }
    }
    if (++d->updates < WARM_UP)
        return d->delay;
    const int best = int(std::max_element(d->score, d->score + p->nlag) - d->score);
    const int delay = std::max(0, best - EAEC_DELAY_MARGIN);
    if (found >= 0 && (found < delay || found >= delay + p->npart)) {
        // The rhythm again, while a filter already cancels the echo it has
        // found: not a window that drops it.
        d->cand_frames = 0;
        return d->delay;
    }
    if (best == d->lag || d->score[best] < DISTINCT ||
        (d->lag >= 0 && (locked || d->score[best] < d->score[d->lag] + HYSTERESIS))) {
        d->cand_frames = 0;
        return d->delay;
    }
    if (best != d->cand) {
        d->cand = best;
        d->cand_frames = 0;
    }
    if (++d->cand_frames < (d->lag < 0 ? HOLD_FIRST : HOLD))
        return d->delay;
    if (delay != d->delay) {
        d->prev_lag = d->lag;
        d->trial = 0;
    }
    d->lag = best;
    d->cand_frames = 0;
    return delay;
}
