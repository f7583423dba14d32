#include "stats/pelostats.h"

#include "audio/alsa.h"
#include "config/pelocfg.h"
#include "daemon/mix.h"
#include "routing/xpt.h"
#include "rtp/rtp_src.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/timex.h>
#include <syslog.h>
#include <type_traits>
#include <unistd.h>

static_assert(std::is_standard_layout_v<pelostats_t> && std::is_trivially_copyable_v<pelostats_t>);

pelostats_t pelostats;
char pelostats_tmp_name[PELOSTATS_NAME_LEN];
char pelostats_name[PELOSTATS_NAME_LEN];
unsigned long jitt_max_1s, jitt_max_1min, jitt_max_5min, jitt_max_15min;

// Each second is stored at wp and wp + 900, so the latest n entries are
// always contiguous: they end just before jitter_hist + wp + 900.
static unsigned long jitter_hist[2 * PELOSTATS_JITTER_LEN];
static int jitter_wp;
static char *report_buf;

void pelod_stats_init(const char *name)
{
    const char *slash = strrchr(name, '/');
    const char *base = slash ? slash + 1 : name;
    const char *dot = strrchr(base, '.');
    const int n = dot ? int(dot - base) : int(strlen(base));
    snprintf(pelostats_tmp_name, sizeof pelostats_tmp_name, "/tmp/~%.*s.stat", n, base);
    snprintf(pelostats_name, sizeof pelostats_name, "/tmp/%.*s.stat", n, base);
    pelostats = pelostats_t{};
    memset(jitter_hist, 0, sizeof jitter_hist);
    jitter_wp = 0;
    jitt_max_1s = jitt_max_1min = jitt_max_5min = jitt_max_15min = 0;
}

unsigned long ulmax(const unsigned long *last, int n)
{
    unsigned long m = 0;
    for (const unsigned long *p = last - n; p < last; p++)
        m = std::max(m, *p);
    return m;
}

void pelod_stats_period(unsigned long j)
{
    jitter_hist[jitter_wp] = j;
    jitter_hist[jitter_wp + PELOSTATS_JITTER_LEN] = j;
    if (++jitter_wp == PELOSTATS_JITTER_LEN)
        jitter_wp = 0;
    const unsigned long *last = jitter_hist + jitter_wp + PELOSTATS_JITTER_LEN;
    jitt_max_1s = j;
    jitt_max_1min = ulmax(last, 60);
    jitt_max_5min = ulmax(last, 300);
    jitt_max_15min = ulmax(last, 900);

    syslog(LOG_DEBUG, "jitter (1s 1min 5min 15min) [us]: %lu %lu %lu %lu\n", jitt_max_1s / 1000,
           jitt_max_1min / 1000, jitt_max_5min / 1000, jitt_max_15min / 1000);
    syslog(LOG_DEBUG, "         alsa cap samples %lu err %lu lowbuf %lu xruns %lu rereads %lu peak(S32) %d",
           alsa_cap_samples, alsa_cap_err, alsa_cap_low, alsa_cap_xrun, alsa_cap_reread, alsa_cap_peak);
    syslog(LOG_DEBUG, "         alsa play overruns %lu rewrite %lu loop cuts %lu", alsa_ply_or, alsa_ply_rewrite,
           alsa_loop_cut);
    alsa_cap_peak = 0; // a per-second peak; the cycle raises it again
}

int audiovol10(float sample) noexcept
{
    static constexpr std::array<float, 9> thresholds = {0.0f,   0.003f, 0.007f, 0.015f, 0.047f,
                                                        0.079f, 0.126f, 0.211f, 0.355f};
    // the count of thresholds below the sample (none for NaN)
    int lo = 0, hi = int(thresholds.size());
    while (lo < hi) {
        const int mid = (lo + hi) / 2;
        if (sample > thresholds[size_t(mid)])
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

const char *get_sched_policy_str(int policy)
{
    switch (policy) {
    case SCHED_OTHER:
        return "OTHER (normal)";
    case SCHED_FIFO:
        return "FIFO (real-time)";
    case SCHED_RR:
        return "RR (real-time)";
    case SCHED_BATCH:
        return "BATCH (normal)";
    case SCHED_IDLE:
        return "IDLE (normal)";
    default:
        return "???";
    }
}

// Appends to a fixed buffer; the text is cut, never overrun, when it is full.
struct text_buf {
    char *p;
    size_t len; // bytes, including the terminating zero
    size_t n;   // text length so far

    __attribute__((format(printf, 2, 3))) void put(const char *fmt, ...)
    {
        if (n + 1 >= len)
            return;
        va_list ap;
        va_start(ap, fmt);
        const int r = vsnprintf(p + n, len - n, fmt, ap);
        va_end(ap);
        if (r > 0)
            n = std::min(n + size_t(r), len - 1);
    }
};

static text_buf text_buf_on(char *p, size_t len)
{
    if (len > 0)
        p[0] = '\0';
    return text_buf{p, len, 0};
}

int get_cpu_affinity(pid_t pid, char *buf, int buf_l, int *pcount)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(pid, sizeof set, &set) != 0) {
        perror("pelod: sched_getaffinity");
        CPU_ZERO(&set);
    }
    const int count = CPU_COUNT(&set);
    *pcount = count;
    text_buf t = text_buf_on(buf, buf_l > 0 ? size_t(buf_l) : 0);
    for (int cpu = 0, written = 0; cpu < CPU_SETSIZE && written < count; cpu++) {
        if (!CPU_ISSET(cpu, &set))
            continue;
        char one[16];
        const int l = snprintf(one, sizeof one, written ? ",%d" : "%d", cpu);
        if (t.n + size_t(l) + 1 > t.len)
            break; // whole numbers only
        t.put("%s", one);
        written++;
    }
    return int(t.n);
}

int ip2vtch(char *buf, size_t len, uint32_t addr_h)
{
    text_buf t = text_buf_on(buf, len);
    if ((addr_h & 0xFFFF8000u) == 0xEFC00000u) // 239.192.0.0/17
        t.put("%u", addr_h & 0x7FFFu);
    else
        t.put("-");
    return int(t.n);
}

int src2mixs(char *mixs, size_t mixs_l, const rtp_src *s)
{
    text_buf t = text_buf_on(mixs, mixs_l);
    if (s->nchn <= 0) {
        t.put("-----");
        return int(t.n);
    }
    for (int c = 0; c < std::min(s->nchn, 2); c++) {
        char one[16];
        const int l = snprintf(one, sizeof one, "%02d,", s->mix[c]);
        if (t.n + size_t(l) > 6)
            break;
        t.put("%s", one);
    }
    if (t.n > 0 && t.p[t.n - 1] == ',')
        t.p[--t.n] = '\0';
    return int(t.n);
}

int print_matrix_ids(char *buf, size_t len)
{
    text_buf t = text_buf_on(buf, len);
    for (int o = 0; o < MIX_OUT_MAX; o++)
        t.put("%d", o % 10);
    return int(t.n);
}

int print_matrix_modes(char *buf, size_t len, const mixout *outs)
{
    text_buf t = text_buf_on(buf, len);
    for (int o = 0; o < MIX_OUT_MAX; o++) {
        const int32_t mode = outs[o].mode;
        t.put("%c", mode == MIX_OUT_MULTI ? 'M' : mode == MIX_OUT_UNUSED ? 'o' : 'S');
    }
    return int(t.n);
}

int print_matrix_inp(char *buf, size_t len, int i, float (*gain)[48])
{
    text_buf t = text_buf_on(buf, len);
    for (int o = 0; o < MIX_OUT_MAX; o++)
        t.put("%c", gain[o][i] != 0.0f ? '+' : '-');
    return int(t.n);
}

static unsigned long long counter(int64_t c) { return static_cast<unsigned long long>(c); }

static void compose_head(text_buf &t, int time_resync)
{
    t.put("System time re-synchronizations                      : %8lu\n",
          static_cast<unsigned long>(time_resync));
    t.put("Real-time scheduling jitter (1s 1min 5min 15min) [us]: %lu %lu %lu %lu\n", jitt_max_1s / 1000,
          jitt_max_1min / 1000, jitt_max_5min / 1000, jitt_max_15min / 1000);

    char pid_text[32];
    snprintf(pid_text, sizeof pid_text, "(pid %d)", int(pelostats.mix_run_pid));
    const int policy = sched_getscheduler(pelostats.mix_run_pid);
    t.put("DSP scheduling policy %26s     : %d %s\n", pid_text, policy, get_sched_policy_str(policy));

    char cpus[PELOSTATS_CPU_LIST_LEN];
    int ncpu = 0;
    get_cpu_affinity(pelostats.mix_run_pid, cpus, sizeof cpus, &ncpu);
    t.put("DSP CPU affinity                    (CPU count %4d) : %s\n", ncpu, cpus);

    if (pelostats.clk_id == CLOCK_TAI) {
        timex tx{};
        adjtimex(&tx);
        t.put("Media clock TAI / TAI offset [seconds from UTC]      : TAI (UTC +%ds)\n", int(tx.tai));
    } else if (pelostats.phc_dev) {
        t.put("Media clock PHC (Programmable Hardware Clock) device : %s\n", pelostats.phc_dev);
    }

    t.put("\n"
          "I/O statistics  R    - running/active (- down, * active, 0-9 audio level)                  Matrix\n"
          "                VTCH - Vantrel channel number\n"
          "                SYNC - stream resynchronization      TXERR - transmit errors\n"
          "                PKTS - packets sent/received         TXBACKOFF - out dupl channel          S-single\n"
          "                SRST - stream reset                  LATE - packet arrived too late        M-multiple\n"
          "                GOOD - good packets                  SEQE - RTP sequence errors            o-unused\n"
          "                DROP - dropped/lost/missing packets  DUPL - duplicate packets\n");
}

static bool bind_half_set(const sockaddr_in &sa)
{
    uint32_t family_port;
    memcpy(&family_port, &sa, sizeof family_port);
    return family_port != 0 && sa.sin_addr.s_addr != INADDR_NONE;
}

static void compose_inputs(text_buf &t, rtp_dst *dsts, float (*gain)[48], const mixout *outs)
{
    char cols[MIX_OUT_MAX + 1];
    print_matrix_ids(cols, sizeof cols);
    t.put("\n# Inputs\n\n## R   SYNC       PKTS   SRST   SEQE   DROP   DUPL   LATE       GOOD Channel               "
          "%s\n",
          cols);
    print_matrix_modes(cols, sizeof cols, outs);
    char rule[90 + 1];
    memset(rule, '-', 90);
    rule[90] = '\0';
    t.put("%s %s\n", rule, cols);
    for (int i = 0; i < RTP_DST_MAX; i++) {
        rtp_dst &d = dsts[i];
        const float level = d.stats_audio_sample;
        d.stats_audio_sample = 0.0f; // the cycle raises it again to next second's peak
        if (!bind_half_set(d.ep.sa_bind))
            continue;
        const rtp_ep &e = d.ep;
        print_matrix_inp(cols, sizeof cols, i, gain);
        t.put("%02d %c %6llu %10llu %6llu %6llu %6llu %6llu %6llu %10llu %21.*s %s\n", i,
              e.run ? char('0' + audiovol10(level)) : '-', counter(e.rx_reset), counter(e.rx_count),
              counter(e.rx_srst), counter(e.rx_seqe), counter(e.rx_drop), counter(e.rx_dupl), counter(e.rx_late),
              counter(e.rx_good), int(sizeof d.src - 1), d.src, cols);
    }
}

static void compose_addr(char *buf, size_t len, const sockaddr_in &sa)
{
    snprintf(buf, len, "%03d.%03d.%03d.%03d:%05u", IP4(sa.sin_addr.s_addr), unsigned(ntohs(sa.sin_port)));
}

static void compose_outputs(text_buf &t, rtp_src *srcs)
{
    t.put("\n# Outputs (%d)\n\n## R       PKTS      TXERR  TXBACKOFF %-*s VTCH# From                  To                   \n"
          "--------------------------------------%-*s--------------------------------------------------\n",
          srcs_used, 5, "Outs(Mix)", 5, "-----");
    int n = 0;
    for (const rtp_src *s = srcs; s; s = s->next, n++) {
        const rtp_ep &e = s->ep;
        if (e.sa_dst.sin_family != AF_INET || e.sa_bind.sin_addr.s_addr == INADDR_NONE)
            continue;
        char mixs[8], vtch[8], from[24], to[24];
        src2mixs(mixs, sizeof mixs, s);
        ip2vtch(vtch, sizeof vtch, ntohl(e.sa_dst.sin_addr.s_addr));
        compose_addr(from, sizeof from, e.sa_bind);
        compose_addr(to, sizeof to, e.sa_dst);
        t.put("%02d %c %10llu %10llu %10llu %*s %5s %s %s\n", n, e.backoff_cnt ? '-' : '*', counter(e.tx_pkts),
              counter(e.tx_err), counter(s->tx_backoff), 5, mixs, vtch, from, to);
    }
}

static void compose_mixouts(text_buf &t, mixout *outs)
{
    t.put("\n# Mixouts\n\n## R ID\n-------------------\n");
    for (int o = 0; o < MIX_OUT_MAX; o++) {
        mixout &m = outs[o];
        if (!m.id[0])
            continue;
        const float level = m.stats_audio_sample;
        m.stats_audio_sample = 0.0f;
        t.put("%02d %c %.*s\n", o, char('0' + audiovol10(level)), int(sizeof m.id - 1), m.id);
    }
}

int pelod_stats_compose(char *buf, size_t len, rtp_dst *dsts, rtp_src *srcs, int time_resync,
                        float (*gain)[48], mixout *outs)
{
    text_buf t = text_buf_on(buf, len);
    compose_head(t, time_resync);
    compose_inputs(t, dsts, gain, outs);
    compose_outputs(t, srcs);
    compose_mixouts(t, outs);
    t.put("\nALSA Capture : samples %lu err %lu underruns %lu xruns %lu rereads %lu\n", alsa_cap_samples,
          alsa_cap_err, alsa_cap_low, alsa_cap_xrun, alsa_cap_reread);
    t.put("ALSA Playback: overruns %lu rewrites %lu\n", alsa_ply_or, alsa_ply_rewrite);
    t.put("ALSA loop cuts: %lu\n", alsa_loop_cut);
    return int(t.n);
}

// The daemon runs as root and /tmp is writable by everyone: whatever sits
// at the temporary name (an old report, or a link or file planted there)
// is removed, and the file is created anew, so an existing file is never
// truncated and a link is never followed.
static int open_tmp_report(const char *name)
{
    for (int attempt = 0; attempt < 2; attempt++) {
        if (unlink(name) != 0 && errno != ENOENT)
            return -1;
        const int fd = open(name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0444);
        if (fd >= 0 || errno != EEXIST)
            return fd;
        // someone made the name again in between: once more, then give up
    }
    return -1;
}

void pelod_pretty_stats_print(rtp_dst *dsts, rtp_src *srcs, int time_resync, float (*gain)[48], mixout *outs)
{
    if (!pelostats_name[0])
        return;
    if (!report_buf)
        report_buf = static_cast<char *>(calloc(1, PELOSTATS_BUF_LEN));
    if (!report_buf)
        return;
    const int fd = open_tmp_report(pelostats_tmp_name);
    if (fd < 0)
        return;
    const int n = pelod_stats_compose(report_buf, PELOSTATS_BUF_LEN, dsts, srcs, time_resync, gain, outs);
    if (write(fd, report_buf, size_t(n)) < 0) {
        // a short report this second; the next one replaces it
    }
    close(fd);
    rename(pelostats_tmp_name, pelostats_name);
    if (n > PELOSTATS_BUF_LEN / 2)
        syslog(LOG_WARNING, "pelodstats/pretty using %.f%% of buffer", double(n) * 100.0 / PELOSTATS_BUF_LEN);
}

void pelod_stats_print(rtp_dst *dsts, rtp_src *srcs, int time_resync, float (*gain)[48], mixout *outs)
{
    pelod_pretty_stats_print(dsts, srcs, time_resync, gain, outs);
}
