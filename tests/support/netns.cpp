#include "support/netns.h"

#include "support/emulation.h"

#include <cstdlib>
#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

static const char *ip_bin()
{
    for (const char *p : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"})
        if (access(p, X_OK) == 0)
            return p;
    return nullptr;
}

static int shell(const std::string &cmd)
{
    const int s = system((cmd + " >/dev/null 2>&1").c_str());
    return WIFEXITED(s) ? WEXITSTATUS(s) : -1;
}

std::string netns_unavailable()
{
    return geteuid() != 0 ? "not root" : under_emulation() ? "not under emulation" : !ip_bin() ? "iproute2's ip is not installed" : "";
}

netns::netns(const std::string &base)
{
    static int made = 0;
    const std::string n = base + "-" + std::to_string(getpid()) + "-" + std::to_string(made++);
    if (shell("ip netns add " + n) != 0)
        return;
    if (shell("ip netns exec " + n + " sh -c 'ip link set lo up && ip link set lo multicast on && "
              "ip route add 224.0.0.0/4 dev lo'") == 0)
        name = n;
    else
        shell("ip netns del " + n);
}

netns::~netns()
{
    if (ok())
        shell("ip netns del " + name);
}

std::vector<std::string> netns::cmd(std::vector<std::string> argv) const
{
    const char *ip = ip_bin();
    argv.insert(argv.begin(), {ip ? ip : "ip", "netns", "exec", name});
    return argv;
}

netns_scope::netns_scope(const netns &ns)
{
    const int target = open(("/var/run/netns/" + ns.name).c_str(), O_RDONLY | O_CLOEXEC);
    if (target < 0)
        return;
    home = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (home >= 0 && setns(target, CLONE_NEWNET) != 0) {
        close(home);
        home = -1;
    }
    close(target);
}

netns_scope::~netns_scope()
{
    if (home >= 0) {
        setns(home, CLONE_NEWNET);
        close(home);
    }
}
