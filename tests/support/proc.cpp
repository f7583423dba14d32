#include "support/proc.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

std::string tmp_file(const std::string &text, const std::string &suffix)
{
    std::string path = "/tmp/pelodtestXXXXXX" + suffix;
    std::vector<char> buf(path.begin(), path.end());
    buf.push_back('\0');
    const int fd = mkstemps(buf.data(), int(suffix.size()));
    if (fd < 0)
        return {};
    if (write(fd, text.data(), text.size()) != ssize_t(text.size())) {
        close(fd);
        return {};
    }
    close(fd);
    return buf.data();
}

daemon_conf::~daemon_conf()
{
    const size_t slash = path.rfind('/') + 1;
    const std::string base = path.substr(slash, path.rfind('.') - slash);
    unlink(path.c_str());
    unlink(("/tmp/" + base + ".stat").c_str());
}

std::string read_file(const std::string &path)
{
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

static pid_t spawn(const std::vector<std::string> &argv, const std::string &out, const std::string &err)
{
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int n = open("/dev/null", O_RDONLY);
    dup2(n, 0);
    dup2(o, 1);
    dup2(e, 2);
    std::vector<char *> args;
    for (const std::string &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
}

static int wait_exit(pid_t pid, int timeout_ms)
{
    int status = 0;
    for (int waited = 0;; waited += 10) {
        const pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid)
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        if (r < 0)
            return -1;
        if (waited >= timeout_ms) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        usleep(10000);
    }
}

run_result run_prog(const std::vector<std::string> &argv, int timeout_ms)
{
    bg_proc p;
    run_result r;
    if (!p.start(argv))
        return r;
    r.status = p.wait(timeout_ms);
    r.out = p.out();
    r.err = p.err();
    return r;
}

bool bg_proc::start(const std::vector<std::string> &argv)
{
    out_path = tmp_file("", ".out");
    err_path = tmp_file("", ".err");
    pid = spawn(argv, out_path, err_path);
    return pid > 0;
}

void bg_proc::signal(int sig) const
{
    if (pid > 0)
        kill(pid, sig);
}

int bg_proc::wait(int timeout_ms)
{
    if (pid <= 0)
        return -1;
    const int s = wait_exit(pid, timeout_ms);
    pid = -1;
    return s;
}

std::string bg_proc::out() const { return read_file(out_path); }
std::string bg_proc::err() const { return read_file(err_path); }

bg_proc::~bg_proc()
{
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    if (!out_path.empty())
        unlink(out_path.c_str());
    if (!err_path.empty())
        unlink(err_path.c_str());
}

bool wait_until(int timeout_ms, bool (*pred)(void *), void *arg)
{
    for (int waited = 0; waited < timeout_ms; waited += 10) {
        if (pred(arg))
            return true;
        usleep(10000);
    }
    return pred(arg);
}
