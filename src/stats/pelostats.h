// Statistics: the jitter history of the real-time cycle, the system-log
// summary and the report file rewritten once a second.
//
// The report is composed into one buffer allocated on first use, written
// to "/tmp/~<base>.stat" and renamed to "/tmp/<base>.stat", so a reader
// always sees a whole report. It only reads the routing and transport
// tables, apart from resetting the level meters it shows (flows, mix
// outputs) and the sound card's per-second capture peak.
#pragma once
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/types.h>

struct rtp_dst;
struct rtp_src;
struct mixout;

inline constexpr int PELOSTATS_NAME_LEN = 4096;
inline constexpr int PELOSTATS_BUF_LEN = 65000;  // the report buffer
inline constexpr int PELOSTATS_JITTER_LEN = 900; // seconds of jitter history
inline constexpr int PELOSTATS_CPU_LIST_LEN = 300;

struct pelostats_t {
    pid_t mix_run_pid;
    clockid_t clk_id;    // CLOCK_TAI selects the TAI line of the report
    const char *phc_dev; // null: system clock
};
extern pelostats_t pelostats;

extern char pelostats_tmp_name[PELOSTATS_NAME_LEN]; // "/tmp/~<base>.stat"
extern char pelostats_name[PELOSTATS_NAME_LEN];     // "/tmp/<base>.stat"
// Largest jitter (ns) of the last 1, 60, 300 and 900 one-second periods.
extern unsigned long jitt_max_1s, jitt_max_1min, jitt_max_5min, jitt_max_15min;

// [init] Builds the two file names from the configuration file's base name
// up to its last '.'; zeroes pelostats and the jitter history.
void pelod_stats_init(const char *pelod_conf_file);
// [sup] Records one second's largest jitter (ns), updates the four maxima,
// logs them and the sound-card counters at debug priority, and resets the
// capture peak.
void pelod_stats_period(unsigned long jitter_max_statperiod);
// [sup] Writes the report file; the same as pelod_pretty_stats_print.
void pelod_stats_print(rtp_dst *dsts, rtp_src *srcs, int time_resync,
                       float (*gain)[48], mixout *outs);
// [sup] Writes the report file through the temporary name. Skips the
// second silently when init was not called, the buffer cannot be had or
// the temporary file cannot be made. Whatever is found at the temporary
// name is removed first and the file is created anew (never following a
// link). Warns in the system log when over half the buffer is used.
void pelod_pretty_stats_print(rtp_dst *dsts, rtp_src *srcs, int time_resync,
                              float (*gain)[48], mixout *outs);
// [sup] Composes the report text into buf: at most len bytes including the
// terminating zero, however many flows, streams and names there are.
// Resets the level meters it shows. Returns the text length.
int pelod_stats_compose(char *buf, size_t len, rtp_dst *dsts, rtp_src *srcs, int time_resync,
                        float (*gain)[48], mixout *outs);

// "0,1,3": the CPUs pid may run on, at most buf_l bytes with the zero;
// their count into *pcount. Reports "pelod: sched_getaffinity" and gives
// an empty list and a count of 0 on failure. Returns the text length.
int get_cpu_affinity(pid_t pid, char *buf, int buf_l, int *pcount);
// "OTHER (normal)", "FIFO (real-time)", ...; "???" for unknown policies.
const char *get_sched_policy_str(int policy);
// 0..9: how many of the level thresholds the sample strictly exceeds.
int audiovol10(float sample) noexcept;
// Largest of the n values before last (n may be 0: gives 0).
unsigned long ulmax(const unsigned long *last, int n);
// Channel number of a 239.192.0.0/17 address (host order) as text, "-"
// for any other. Returns the text length.
int ip2vtch(char *buf, size_t len, uint32_t addr_h);
// The stream's mix outputs "00,01" (at most two), "-----" without channels.
// Returns the text length.
int src2mixs(char *mixs, size_t mixs_l, const rtp_src *src);
// The 16 matrix column digits "0123456789012345".
int print_matrix_ids(char *buf, size_t len);
// One mode character per mix output: M several inputs, o none, S one.
int print_matrix_modes(char *buf, size_t len, const mixout *outs);
// One character per mix output for flow i: + non-zero gain, - zero.
int print_matrix_inp(char *buf, size_t len, int i, float (*gain)[48]);
