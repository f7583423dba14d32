#include "daemon/mixrun.h"

#include "audio/CG_LimCom_interface.h"
#include "audio/alsa.h"
#include "audio/eaec_glue.h"
#include "daemon/grace.h"
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "daemon/shared.h"
#include "daemon/vox.h"
#include "routing/xpt.h"
#include "rtp/rtp_recv.h"
#include "rtp/rtp_sk.h"
#include "rtp/rtp_src.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/timerfd.h>
#include <unistd.h>

int32_t jitter_max;
int32_t jitter_max_statperiod;
int32_t time_resync;

void timespec_add_ns(timespec *ts, long ns) noexcept
{
    ts->tv_nsec += ns;
    if (ts->tv_nsec > 999999999) {
        ts->tv_sec += 1;
        ts->tv_nsec -= 1000000000;
    }
}

uint32_t mix_rtp_ts(timespec ts) noexcept
{
    return uint32_t(uint64_t(ts.tv_sec) * 48000u + uint64_t(ts.tv_nsec) * 3u / 62500u);
}

static int64_t ns_between(timespec a, timespec b) noexcept
{
    return (int64_t(b.tv_sec) - int64_t(a.tv_sec)) * 1000000000 + (b.tv_nsec - a.tv_nsec);
}

wake_plan mix_wake_plan(timespec ts_prev, timespec now, int32_t sysjitter_ns) noexcept
{
    wake_plan p{};
    const int64_t late = ns_between(ts_prev, now) - MIX_PERIOD_NS;
    // the reported figure is the 32-bit one; the decision uses the full
    // width, so a clock step of any size re-synchronises
    p.jitter = int32_t(uint32_t(uint64_t(late)));
    timespec trunc = now;
    trunc.tv_nsec -= now.tv_nsec % MIX_PERIOD_NS;
    if (late < 0 || late > sysjitter_ns || p.jitter < 0 || p.jitter > sysjitter_ns) {
        p.resync = 1;
        p.ts_next = trunc;
        return p;
    }
    p.rtp_ts = mix_rtp_ts(ts_prev);
    timespec t = ts_prev;
    while (ns_between(t, trunc) > 0) {
        p.blocks++;
        timespec_add_ns(&t, MIX_PERIOD_NS);
    }
    p.ts_next = t;
    return p;
}

void mix_ring_skip(uint32_t from, uint32_t to) noexcept
{
    const int32_t gap = int32_t(to - from);
    const uint32_t rows = gap <= 0 ? 0 : std::min(uint32_t(gap), MIX_RING_MASK + 1);
    for (uint32_t k = 0; k < rows; k++)
        memset(mix_slot(from + k, 0), 0, MIX_INP_MAX * sizeof(float));
}

void stats_reset() noexcept
{
    for (rtp_dst &d : rtp_dsts) {
        rtp_ep &e = d.ep;
        e.rx_reset = e.rx_count = e.rx_drop = e.rx_dupl = 0;
        e.rx_good = e.rx_seqe = e.rx_srst = e.rx_late = 0;
    }
}

static bool mix_index_ok(int m) noexcept { return m >= 0 && m < MIX_OUT_MAX; }

void mix_render_alsa_src(const rtp_src *s, int32_t *buf) noexcept
{
    int l = s->mix[0];
    int r = s->nchn > 1 ? s->mix[1] : s->mix[0];
    const float *base = mix_out;
    if (CG_limcom_is_enabled(&s->limcom)) {
        for (int k = 0; k < MIX_BLOCK; k++) {
            mix_out[(48 + k) * MIX_OUT_MAX + 0] = s->limcom.outputBuffer[k];
            mix_out[(48 + k) * MIX_OUT_MAX + 1] = s->limcom.outputBuffer[48 + k];
        }
        base = mix_out + 48 * MIX_OUT_MAX;
        l = 0;
        r = s->nchn > 1 ? 1 : 0;
    }
    for (int k = 0; k < MIX_BLOCK; k++) {
        const float lv = mix_index_ok(l) ? base[k * MIX_OUT_MAX + l] : 0.0f;
        const float rv = mix_index_ok(r) ? base[k * MIX_OUT_MAX + r] : 0.0f;
        buf[2 * k] = f2int32_sat(lv * s->gainv[0] * float_to_int24);
        buf[2 * k + 1] = f2int32_sat(rv * s->gainv[1] * float_to_int24);
    }
}

void mix_mic_to_ring(const int32_t *buf, uint32_t rtp_ts) noexcept
{
    for (rtp_dst &d : rtp_dsts) {
        // the marker is the flow's last store when it starts: pdly and fmt
        // are valid once it is seen
        if (observe(d.ep.sa_dst.sin_family) != alsa_src_family)
            continue;
        const int step = d.fmt.nchan > 0 ? d.fmt.nchan : 2;
        // a channel count of 1 deliberately takes all 96 interleaved values
        for (int k = 0; k * step < 2 * MIX_BLOCK; k++)
            *mix_slot(rtp_ts + d.pdly + uint32_t(k), d.index) = float(buf[k * step]) * int24_to_float;
    }
}

void mix_block(uint32_t rtp_ts, int32_t *buf) noexcept
{
    rt_context_check("mix_block");
    bool rendered = false;
    for (rtp_src *s = observe(rtp_srcs); s; s = observe(s->next)) {
        cg_limcom_run_src(s);
        if (s->ep.sa_dst.sin_family == alsa_src_family) {
            mix_render_alsa_src(s, buf);
            rendered = true;
        } else {
            rtp_send(s, rtp_ts);
        }
    }
    if (!rendered)
        memset(buf, 0, 2 * MIX_BLOCK * sizeof(int32_t));
    alsa_play48(buf);
    alsa_rec48(buf);
    mix_mic_to_ring(buf, rtp_ts);
    cg_limcom_run(rtp_ts);
    eaec_run(rtp_ts);
    vox_frame(rtp_ts);
    do_dsp(rtp_ts);
    for (int o = 0; o < MIX_OUT_MAX; o++)
        if (mix_out[o] > mixouts[o].stats_audio_sample)
            mixouts[o].stats_audio_sample = mix_out[o];
}

static void rt_ignore_signals()
{
    struct sigaction sa{};
    sa.sa_handler = SIG_IGN;
    sigemptyset(&sa.sa_mask);
    for (int s : {SIGINT, SIGTERM, SIGHUP, SIGUSR1})
        sigaction(s, &sa, nullptr);
}

// Denormal floats cost a hundred cycles each on some processors; the
// limiter's and echo canceller's decays produce them in silence. The
// real-time context computes with flush-to-zero (and, on x86, inputs
// treated as zero). The control register belongs to this context alone.
void rt_flush_denormals() noexcept
{
#if defined(__SSE__) || defined(__x86_64__)
    unsigned csr;
    __asm__ volatile("stmxcsr %0" : "=m"(csr));
    csr |= 0x8040u; // FTZ | DAZ
    __asm__ volatile("ldmxcsr %0" : : "m"(csr) : "memory");
#elif defined(__arm__) && defined(__ARM_FP)
    unsigned fpscr;
    __asm__ volatile("vmrs %0, fpscr" : "=r"(fpscr));
    fpscr |= 1u << 24; // FZ
    __asm__ volatile("vmsr fpscr, %0" : : "r"(fpscr) : "memory");
#elif defined(__aarch64__)
    uint64_t fpcr;
    __asm__ volatile("mrs %0, fpcr" : "=r"(fpcr));
    fpcr |= uint64_t(1) << 24; // FZ
    __asm__ volatile("msr fpcr, %0" : : "r"(fpcr) : "memory");
#endif
}

static void rt_arm(int tfd, long ns)
{
    itimerspec its{};
    its.it_value.tv_nsec = ns;
    timerfd_settime(tfd, 0, &its, nullptr);
}

int mix_run(void *)
{
    rt_context_enter();
    rt_ignore_signals();
    const int tfd = timerfd_create(CLOCK_MONOTONIC, 0);
    if (tfd < 0) {
        perror("pelod: timerfd_create");
        return 1;
    }
    sched_param sp{};
    sp.sched_priority = sched_get_priority_max(SCHED_FIFO);
    if (sched_setscheduler(0, SCHED_FIFO, &sp) != 0)
        perror("pelod: sched_setscheduler(SCHED_FIFO)");
    mlockall(MCL_CURRENT | MCL_FUTURE);
    rt_flush_denormals();

    timespec ts_prev{};
    clock_gettime(clk_id, &ts_prev);
    const long first = 2 * MIX_PERIOD_NS - ts_prev.tv_nsec % MIX_PERIOD_NS;
    rt_arm(tfd, first);
    timespec_add_ns(&ts_prev, first);

    int32_t buf[2 * MIX_BLOCK];
    rt_set_alive(1);
    for (;;) {
        if (signal_statsreset) {
            stats_reset();
            signal_statsreset = 0;
        }
        uint64_t expirations;
        if (read(tfd, &expirations, sizeof expirations) < 0) {
            // nothing to do but try again on the next tick
        }
        timespec now{};
        clock_gettime(clk_id, &now);
        rt_arm(tfd, MIX_PERIOD_NS - now.tv_nsec % MIX_PERIOD_NS);

        const wake_plan p = mix_wake_plan(ts_prev, now, opt_sysjitter_ns);
        if (p.resync) {
            time_resync++;
            mix_ring_skip(mix_rtp_ts(ts_prev), mix_rtp_ts(p.ts_next));
        } else {
            if (p.jitter > jitter_max)
                jitter_max = p.jitter;
            if (p.jitter > jitter_max_statperiod)
                jitter_max_statperiod = p.jitter;
            const rtp_rx_time rx{p.rtp_ts, p.rtp_ts + uint32_t(MIX_BLOCK * p.blocks)};
            rtp_recv_all(rx);
            uint32_t rtp_ts = p.rtp_ts;
            for (int b = 0; b < p.blocks; b++, rtp_ts += MIX_BLOCK)
                mix_block(rtp_ts, buf);
        }
        ts_prev = p.ts_next;
        rt_cycle_done();
        if (signal_stop) {
            rt_set_alive(0);
            close(tfd);
            return 0;
        }
    }
}
