// Test helpers: temporary files and running the built programs.
#pragma once
#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

// Writes text into a new file under /tmp and returns its path.
std::string tmp_file(const std::string &text, const std::string &suffix = ".conf");

// A configuration file for the built daemon under /tmp, removed together
// with the report the daemon writes for it ("/tmp/<base>.stat").
struct daemon_conf {
    std::string path;
    explicit daemon_conf(const std::string &text, const std::string &suffix = ".conf")
        : path(tmp_file(text, suffix)) {}
    daemon_conf(const daemon_conf &) = delete;
    ~daemon_conf();
};

struct run_result {
    int status = -1; // exit status, or -1 when it did not exit normally
    std::string out, err;
};
// Runs argv to completion (killed after timeout_ms) and collects its output.
run_result run_prog(const std::vector<std::string> &argv, int timeout_ms = 10000);

// A program running in the background with its output going to files.
struct bg_proc {
    pid_t pid = -1;
    std::string out_path, err_path;
    bool start(const std::vector<std::string> &argv);
    void signal(int sig) const;
    // Waits for the exit; -1 when it had to be killed after timeout_ms.
    int wait(int timeout_ms = 5000);
    std::string out() const;
    std::string err() const;
    ~bg_proc();
};

// Reads a whole file ("" when missing).
std::string read_file(const std::string &path);
// Polls every 10 ms until pred() or timeout_ms; returns pred()'s last value.
template <class F> bool wait_for(int timeout_ms, F pred)
{
    for (int waited = 0; waited < timeout_ms; waited += 10, usleep(10000))
        if (pred())
            return true;
    return pred();
}
