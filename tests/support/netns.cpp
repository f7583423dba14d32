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
    if (geteuid() != 0)
        return "not root";
    if (under_emulation())
        return "not under emulation";
    if (!ip_bin())
        return "iproute2's ip is not installed";
    return "";
}

netns::netns(const std::string &base)
{
    static int made = 0;
    const std::string n = base + "-" + std::to_string(getpid()) + "-" + std::to_string(made++);
    if (shell("ip netns add " + n) != 0)
        return;
    name = n;
    if (sh("ip link set lo up && ip link set lo multicast on && ip route add 224.0.0.0/4 dev lo") != 0)
        name.clear(), shell("ip netns del " + n);
}

netns::~netns()
{
    if (ok())
        shell("ip netns del " + name);
}

int netns::sh(const std::string &cmd) const
{
    return shell("ip netns exec " + name + " sh -c '" + cmd + "'");
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
    if (home < 0)
        return;
    setns(home, CLONE_NEWNET);
    close(home);
}

static std::string addr_up(const netns &ns, const std::string &ifname, const std::string &cidr)
{
    std::string c = "ip -n " + ns.name + " link set " + ifname + " up";
    if (!cidr.empty())
        c = "ip -n " + ns.name + " addr add " + cidr + " dev " + ifname + " && " + c;
    return c;
}

bool netns_veth(const netns &a, const std::string &if_a, const std::string &cidr_a, const netns &b,
                const std::string &if_b, const std::string &cidr_b)
{
    return shell("ip -n " + a.name + " link add " + if_a + " type veth peer name " + if_b + " netns " + b.name +
                 " && " + addr_up(a, if_a, cidr_a) + " && " + addr_up(b, if_b, cidr_b)) == 0;
}

bool netns_bridge(const netns &hub, const std::string &br, const std::string &cidr)
{
    return shell("ip -n " + hub.name + " link add " + br + " type bridge mcast_snooping 0 && " +
                 addr_up(hub, br, cidr)) == 0;
}

std::string netns_bridge_port(const netns &hub, const std::string &br, const netns &host, const std::string &ifname,
                              const std::string &cidr)
{
    static int ports = 0;
    const std::string peer = br + "p" + std::to_string(ports++);
    const bool ok = netns_veth(host, ifname, cidr, hub, peer, "") &&
                    shell("ip -n " + hub.name + " link set " + peer + " master " + br) == 0;
    return ok ? peer : "";
}
