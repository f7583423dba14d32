#include "support/proc.h"

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

std::string tmp_file(const std::string &text, const std::string &suffix)
{
    std::string path = "/tmp/pelodtestXXXXXX" + suffix;
    const int fd = mkstemps(path.data(), int(suffix.size()));
    const bool ok = fd >= 0 && write(fd, text.data(), text.size()) == ssize_t(text.size());
    close(fd);
    return ok ? path : "";
}

daemon_conf::~daemon_conf()
{
    const size_t slash = path.rfind('/') + 1;
    unlink(path.c_str());
    unlink(("/tmp/" + path.substr(slash, path.rfind('.') - slash) + ".stat").c_str());
}

std::string read_file(const std::string &path)
{
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

run_result run_prog(const std::vector<std::string> &argv, int timeout_ms)
{
    bg_proc p;
    run_result r;
    if (p.start(argv))
        r = {p.wait(timeout_ms), p.out(), p.err()};
    return r;
}

bool bg_proc::start(const std::vector<std::string> &argv)
{
    out_path = tmp_file("", ".out");
    err_path = tmp_file("", ".err");
    pid = fork();
    if (pid != 0)
        return pid > 0;
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(open(out_path.c_str(), O_WRONLY | O_TRUNC), 1);
    dup2(open(err_path.c_str(), O_WRONLY | O_TRUNC), 2);
    std::vector<char *> args;
    for (const std::string &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
}

void bg_proc::signal(int sig) const
{
    if (pid > 0)
        kill(pid, sig);
}

int bg_proc::wait(int timeout_ms)
{
    int status = 0;
    pid_t r = 0;
    const bool exited = pid > 0 && wait_for(timeout_ms, [&] { return (r = waitpid(pid, &status, WNOHANG)) != 0; });
    if (pid > 0 && !exited) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    pid = -1;
    return exited && r > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string bg_proc::out() const { return read_file(out_path); }
std::string bg_proc::err() const { return read_file(err_path); }

bg_proc::~bg_proc()
{
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    unlink(out_path.c_str());
    unlink(err_path.c_str());
}
