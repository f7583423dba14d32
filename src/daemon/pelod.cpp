#include "daemon/pelod.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <sched.h>
#include <unistd.h>

const char *pelod_conf_file = "/etc/pelod.conf";
clockid_t clk_id = CLOCK_TAI;
int32_t opt_sysjitter_ns = 2000000;
int32_t load_level = LOAD_LEVEL_UNKNOWN;
uint16_t vox_notify_port = 5000;
int debug;
int daemonize;
int32_t pdly_samples_min;
uint32_t pelod_ssrc;
char pid_file[4096];
volatile sig_atomic_t signal_stop, signal_hup, signal_statsreset;

static const option cmdl_options[] = {
    {"daemonize", no_argument, nullptr, 'D'},
    {"file", required_argument, nullptr, 'f'},
    {"help", no_argument, nullptr, 'h'},
    {"phc-dev", required_argument, nullptr, 'p'},
    {"cpu", required_argument, nullptr, 'C'},
    {"sysjitter", required_argument, nullptr, 'J'},
    {"debug", no_argument, nullptr, 'd'},
    {"vox-notify-port", required_argument, nullptr, 0},
    {nullptr, 0, nullptr, 0},
};

void pelod_usage(const char *prog)
{
    printf("%s options\n"
           "-D | --daemonize   Daemonize / run in background\n"
           "-f | --file=FILE   Specify the configuration file. (default: %s)\n"
           "-p | --phc-dev=X   Programmable Hardware Clock device (e.g. /dev/ptp0)\n"
           "                   \"-\" - use the system clock\n"
           "-C | --cpu=X       CPU affinity\n"
           "-J | --sysjitter=X Max system jitter [s] (default: 0.002 i.e. 2ms)\n"
           "-d | --debug       Print debugging information\n"
           "-h | --help        Show help\n",
           prog, pelod_conf_file);
}

int pelod_parse_options(int argc, char **argv, pelod_cmdline *cl)
{
    for (;;) {
        int idx = 0; // reset before every option: "-h" reports the first entry
        const int c = getopt_long(argc, argv, "Df:P:p:C:dhJ", cmdl_options, &idx);
        if (c == -1)
            return 0;
        const char *arg = optarg ? optarg : ""; // options that require a value always have one
        switch (c) {
        case 'D':
            daemonize = 1;
            break;
        case 'f':
            pelod_conf_file = optarg;
            break;
        case 'p':
            cl->phc_dev = arg[0] == '-' ? nullptr : arg;
            break;
        case 'C':
            cl->cpu = int(strtol(arg, nullptr, 10));
            break;
        case 'J':
            // "-J" carries no value (only --sysjitter=X does): keep the default
            if (optarg)
                opt_sysjitter_ns = int32_t(atof(optarg) * 1e9);
            break;
        case 'd':
            debug = 1; // the caller copies it into alsa_debug
            break;
        case 0:
        case 'h':
            if (strcmp(cmdl_options[idx].name, "vox-notify-port") == 0) {
                vox_notify_port = uint16_t(strtol(arg, nullptr, 10));
                break;
            }
            printf("%s unrecognized option: %s\n\n", argv[0], cmdl_options[idx].name);
            pelod_usage(argv[0]);
            return 1;
        default:
            pelod_usage(argv[0]);
            return 1;
        }
    }
}

uint32_t rtp_generate_ssrc()
{
    struct {
        uint32_t sec;
        uint32_t nsec;
    } t{};
    timespec ts{};
    if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0)
        return uint32_t(getpid()); // no clock: still some variation per process
    t.sec = uint32_t(ts.tv_sec);
    t.nsec = uint32_t(ts.tv_nsec);
    uint8_t b[8];
    memcpy(b, &t, 8);
    uint32_t ssrc = 0;
    for (uint32_t i = 0; i < 8; i++)
        ssrc += i * b[i];
    return ssrc;
}

void stop_handler(int) { signal_stop = 1; }
void hup_handler(int) { signal_hup = 1; }
void sigusr1_handler(int) { signal_statsreset = 1; }

void signal_handler(int signum, void (*handler)(int))
{
    struct sigaction sa{};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0; // no SA_RESTART: the supervising select returns on every signal
    sigaction(signum, &sa, nullptr);
}

void set_cpu(int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    if (cpu >= 0 && cpu < 1024)
        CPU_SET(cpu, &set);
    if (sched_setaffinity(getpid(), sizeof set, &set) != 0)
        perror("pelod: sched_setaffinity");
}

int pidfile_name(char *buf, size_t len, const char *conf)
{
    const char *slash = strrchr(conf, '/');
    const char *base = slash ? slash + 1 : conf;
    const char *dot = strrchr(base, '.');
    const int n = dot ? int(dot - base) : int(strlen(base));
    return snprintf(buf, len, "/var/run/%.*s.pid", n, base);
}

void pidfile_create()
{
    pidfile_name(pid_file, sizeof pid_file, pelod_conf_file);
    FILE *f = fopen(pid_file, "wt");
    if (!f) {
        pid_file[0] = '\0'; // not ours to remove at exit
        return;
    }
    fprintf(f, "%d\n", getpid());
    fclose(f);
}
