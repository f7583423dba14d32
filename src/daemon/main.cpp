// The supervising process: start-up in a fixed order, the one-second
// loop (report, reload on SIGHUP), and shutdown.
#include "audio/CG_LimCom_interface.h"
#include "audio/alsa.h"
#include "audio/eaec_glue.h"
#include "config/pelocfg.h"
#include "daemon/mix.h"
#include "daemon/mixrun.h"
#include "daemon/pelod.h"
#include "daemon/rtctx.h"
#include "daemon/rtlog.h"
#include "daemon/vox.h"
#include "routing/xpt.h"
#include "rtp/rtp_sk.h"
#include "rtp/rtp_src.h"
#include "stats/pelostats.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <opus.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

static constexpr size_t RT_STACK_SIZE = 4u << 20;

static int calculate_load()
{
    int n = 0;
    for (dlist *l = rtp_sk_all.next; l != &rtp_sk_all; l = l->next) {
        rtp_sk *sk = dlist_entry(l, rtp_sk, all);
        if (debug)
            debug_print_sk(sk);
        for (dlist &b : sk->rtp_sk_ep_list_ip_dst_hash)
            for (dlist *e = b.next; e != &b; e = e->next)
                n++;
    }
    return n;
}

static void print_running_info(const char *device)
{
    syslog(LOG_NOTICE, "running clock:%s jitter:%ld vector64:%s", device ? device : "SYSTEM",
           long(opt_sysjitter_ns), vector64_impl);
    if (!debug)
        return;
    printf("pelod clock:%s jitter:%ldns minoffs:%ldsamples vector64:%s\n", device ? device : "SYSTEM",
           long(opt_sysjitter_ns), long(pdly_samples_min), vector64_impl);
    timespec res{};
    if (clock_getres(CLOCK_MONOTONIC, &res) == 0)
        printf("Resolution of MONOTONIC clock: %ldns\n", long(res.tv_nsec));
    else
        perror("pelod: clock_getres()");
    if (device) {
        if (clock_getres(clk_id, &res) == 0)
            printf("Resolution of %s clock: %ldns\n", device, long(res.tv_nsec));
        else
            perror("pelod: clock_getres()");
    }
    puts(opus_get_version_string());
}

static void pelod_child_exit_wait(pid_t pid, const char *name)
{
    int status = 0;
    pid_t r;
    while ((r = waitpid(pid, &status, WUNTRACED)) < 0 && errno == EINTR) {
    }
    if (r < 0)
        return;
    if (WIFEXITED(status))
        fprintf(stderr, "%s exited with status %d\n", name, WEXITSTATUS(status));
    else if (WIFSIGNALED(status))
        fprintf(stderr, "%s was terminated by signal %d\n", name, WTERMSIG(status));
    else
        fprintf(stderr, "%s mix_run quit with status %X\n", name, unsigned(status));
}

static void do_stats()
{
    pelod_stats_period(static_cast<unsigned long>(jitter_max_statperiod));
    jitter_max_statperiod = 0;
    pelod_stats_print(rtp_dsts, rtp_srcs, time_resync, mix_gain, mixouts);
}

static void reload_if_hup()
{
    sigset_t hup;
    sigemptyset(&hup);
    sigaddset(&hup, SIGHUP);
    sigprocmask(SIG_BLOCK, &hup, nullptr); // a second HUP must not cut a reload short
    if (signal_hup) {
        if (debug)
            printf("HUP received. Config reloading.\n");
        signal_hup = 0;
        load_level = LOAD_LEVEL_UNKNOWN;
        pelocfg_load(pelod_conf_file);
        load_level = calculate_load();
        vox_notify_request();
    }
    sigprocmask(SIG_UNBLOCK, &hup, nullptr);
}

int main(int argc, char **argv)
{
    mix_inp_init();
    pelod_ssrc = rtp_generate_ssrc();

    pelod_cmdline cl{"/dev/ptp0", -1};
    if (pelod_parse_options(argc, argv, &cl))
        return 0;
    alsa_debug = debug;

    if (geteuid() != 0)
        puts("\t* run as root to enable real-time scheduling");
    if (cl.cpu != -1)
        set_cpu(cl.cpu);

    int phc_fd = -1;
    if (cl.phc_dev) {
        phc_fd = open(cl.phc_dev, O_RDWR);
        if (phc_fd < 0) {
            perror("pelod: open(PHC_CLOCK)");
            return 1;
        }
        clk_id = clockid_t((~unsigned(phc_fd) << 3) | 3);
    }

    pelod_stats_init(pelod_conf_file);
    eaec_lib_init();
    CG_limcom_init();
    dlist_init(&rtp_sk_all);
    memset(rtp_dsts, 0, sizeof rtp_dsts);
    for (int i = 0; i < RTP_DST_MAX; i++)
        dst_init(&rtp_dsts[i], i);
    mix_init();
    alsa_open();

    if (daemonize && daemon(0, 0) != 0)
        exit(1);

    rt_context rt{};
    const pid_t rt_pid = rt_context_start(&rt, mix_run, nullptr, RT_STACK_SIZE);
    if (rt_pid < 0)
        exit(1);
    pelostats.mix_run_pid = rt_pid;
    pelostats.clk_id = clk_id;
    pelostats.phc_dev = cl.phc_dev;

    stack_t ss{};
    ss.ss_sp = malloc(8192);
    if (!ss.ss_sp) {
        perror("pelod: malloc");
        exit(1);
    }
    ss.ss_size = 8192;
    if (sigaltstack(&ss, nullptr) != 0) {
        perror("pelod: sigaltstack");
        exit(1);
    }
    signal_handler(SIGINT, stop_handler);
    signal_handler(SIGTERM, stop_handler);
    signal_handler(SIGHUP, hup_handler);
    signal_handler(SIGUSR1, sigusr1_handler);

    pdly_samples_min = (opt_sysjitter_ns / 1000000) * 48;
    print_running_info(cl.phc_dev);
    fflush(stdout);

    pelocfg_load(pelod_conf_file);
    load_level = calculate_load();
    pidfile_create();

    while (!signal_stop) {
        timeval tv{1, 0};
        fd_set set;
        FD_ZERO(&set);
        if (select(0, &set, nullptr, nullptr, &tv) == 0)
            do_stats();
        reload_if_hup();
        rt_log_drain();
        fflush(stdout);
    }

    if (pid_file[0])
        unlink(pid_file);
    pelod_child_exit_wait(rt_pid, "DSP");
    rt_context_release(&rt);
    rt_log_drain();
    stack_t off{};
    off.ss_flags = SS_DISABLE;
    sigaltstack(&off, nullptr);
    free(ss.ss_sp);
    if (phc_fd >= 0)
        close(phc_fd);
    printf("jitter max %dns\n", jitter_max);
    return 0;
}
