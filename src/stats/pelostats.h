// Statistics: the jitter history of the real-time cycle, the system-log
// summary and the report file rewritten once a second.
#pragma once
#include <cstddef>
#include <ctime>
#include <sys/types.h>

struct rtp_dst;
struct rtp_src;
struct mixout;

struct pelostats_t {
    pid_t mix_run_pid;
    clockid_t clk_id;
    const char *phc_dev; // null: system clock
};
extern pelostats_t pelostats;

// [init] Builds "/tmp/~<base>.stat" and "/tmp/<base>.stat"; zeroes pelostats.
void pelod_stats_init(const char *pelod_conf_file);
// [sup] Records one second's largest jitter (ns) and logs the summary.
void pelod_stats_period(unsigned long jitter_max_statperiod);
// [sup] Writes the report file.
void pelod_stats_print(rtp_dst *dsts, rtp_src *srcs, int time_resync,
                       float (*gain)[48], mixout *outs);
void pelod_pretty_stats_print(rtp_dst *dsts, rtp_src *srcs, int time_resync,
                              float (*gain)[48], mixout *outs);
// 0..9: how many of the level thresholds the sample exceeds.
int audiovol10(float sample) noexcept;
