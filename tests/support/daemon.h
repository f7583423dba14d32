// The built daemon on the system clock, with a configuration file of its own.
#pragma once
#include "daemon/pelod.h"
#include "support/proc.h"

#include <unistd.h>

// The configuration (path) is removed after the process is gone.
struct pelod_proc : daemon_conf, bg_proc {
    explicit pelod_proc(const std::string &conf_text, const std::string &suffix = ".conf")
        : daemon_conf(conf_text, suffix) {}
    std::string pid_path() const
    {
        char buf[4096];
        pidfile_name(buf, sizeof buf, path.c_str());
        return buf;
    }
    // Starts "pelod -p - -f <conf>" with args after it (and prefix before
    // it, e.g. a network namespace's). True once the pid file exists
    // (written after the signal handlers are in place), within three seconds.
    bool start_up(std::vector<std::string> args = {}, std::vector<std::string> prefix = {})
    {
        args.insert(args.begin(), {PELOD_BIN, "-p", "-", "-f", path});
        args.insert(args.begin(), prefix.begin(), prefix.end());
        const std::string pid = pid_path();
        return start(args) && wait_for(3000, [&] { return access(pid.c_str(), F_OK) == 0; });
    }
};
