// The daemon's chief header: process-wide settings and the flags that the
// supervising process and the real-time cycle share. Each global is
// defined in pelod.cpp unless its comment names another module.
#pragma once
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <ctime>

inline constexpr uint16_t alsa_src_family = 0x415A; // sound-card pseudo endpoint
inline constexpr int32_t LOAD_LEVEL_UNKNOWN = 1000000; // load_level during a reload
inline constexpr int PELOD_BLOCK = 48;               // samples per 1 ms block
inline constexpr int PELOD_RATE = 48000;

extern const char *pelod_conf_file;  // "-f"; default "/etc/pelod.conf"
extern clockid_t clk_id;             // CLOCK_TAI or the opened PHC's dynamic id
extern int32_t opt_sysjitter_ns;     // "--sysjitter"; default 2 ms
extern int32_t load_level;           // endpoints on sockets; LOAD_LEVEL_UNKNOWN while loading
extern uint16_t vox_notify_port;     // "--vox-notify-port"; default 5000
extern int debug;                    // "-d"
extern int daemonize;                // "-D"
extern int32_t pdly_samples_min;     // smallest automatic playout delay, samples
extern uint32_t pelod_ssrc;          // the one SSRC of every outgoing stream
extern char pid_file[4096];
extern volatile sig_atomic_t signal_stop, signal_hup, signal_statsreset;

// What the command line asked for, besides the globals it sets.
struct pelod_cmdline {
    const char *phc_dev; // clock device, or null for the system clock
    int cpu;             // -1: no pinning
};

// [init] Parses the options into the globals and `cl`. Returns 1 when the
// usage was printed (the caller exits with status 0), 0 to go on.
int pelod_parse_options(int argc, char **argv, pelod_cmdline *cl);
// [init] The usage text, with the program name and the configuration path.
void pelod_usage(const char *prog);

// [init] Weak SSRC from the monotonic clock: sum of i * byte i of the
// 32-bit seconds/nanoseconds pair as it lies in memory (at most 7140).
uint32_t rtp_generate_ssrc();

// [sup] Signal handlers: each sets its flag and nothing else.
void stop_handler(int);
void hup_handler(int);
void sigusr1_handler(int);
// [init] sigaction with an empty mask and flags 0 (no restart, no altstack).
void signal_handler(int signum, void (*handler)(int));
// [init] Pins the process to `cpu`; reports "pelod: sched_setaffinity".
void set_cpu(int cpu);

// [init] "/var/run/<base without last extension>.pid" of `conf` into buf.
// Returns the length written.
int pidfile_name(char *buf, size_t len, const char *conf);
// [init] Fills pid_file and writes our pid there; failures are ignored.
void pidfile_create();

