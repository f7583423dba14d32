// Network namespaces made by a test: a network of its own for multicast
// and for several hosts, torn down with the objects. Needs root and
// iproute2's `ip`.
#pragma once
#include <string>
#include <vector>

// Why namespaces cannot be made here ("" when they can): not root, no
// `ip`, or running under emulation.
std::string netns_unavailable();

#define SKIP_WITHOUT_NETNS()                                                     \
    do {                                                                         \
        const std::string why_ = netns_unavailable();                            \
        if (!why_.empty())                                                       \
            GTEST_SKIP() << "needs network namespaces: " << why_;                \
    } while (0)

// One namespace, named "<base>-<pid>-<n>" so that tests running side by
// side never meet. Its loopback is up, multicast-capable and carries the
// route 224.0.0.0/4, so groups work on 127.0.0.1 alone.
struct netns {
    std::string name; // empty when creation failed
    explicit netns(const std::string &base);
    ~netns(); // deletes the namespace and the interfaces in it
    netns(const netns &) = delete;
    netns &operator=(const netns &) = delete;
    bool ok() const { return !name.empty(); }
    // Runs a shell command (without single quotes) in the namespace; its
    // exit status.
    int sh(const std::string &cmd) const;
    // argv prefixed so that it runs in the namespace (for run_prog, bg_proc).
    std::vector<std::string> cmd(std::vector<std::string> argv) const;
};

// The calling thread is in `ns` while the guard lives. Sockets made in
// the meantime stay in that namespace after it is left.
struct netns_scope {
    int home = -1;
    explicit netns_scope(const netns &ns);
    ~netns_scope();
    netns_scope(const netns_scope &) = delete;
    netns_scope &operator=(const netns_scope &) = delete;
    bool ok() const { return home >= 0; }
};

// A veth pair between two namespaces: `if_a` in a with address cidr_a
// (e.g. "10.1.0.1/24"), `if_b` in b with cidr_b; an empty address leaves
// that end without one. Both ends up. False on failure.
bool netns_veth(const netns &a, const std::string &if_a, const std::string &cidr_a, const netns &b,
                const std::string &if_b, const std::string &cidr_b);
// A bridge `br` in hub, up, with address cidr ("" for none). Multicast
// snooping is off: every port sees every group.
bool netns_bridge(const netns &hub, const std::string &br, const std::string &cidr);
// Plugs `host` into bridge br of hub: interface `ifname` in host with
// address cidr, its peer a port of br. Returns the port's name in hub
// ("" on failure), which `ip link set PORT nomaster` cuts off the bridge.
std::string netns_bridge_port(const netns &hub, const std::string &br, const netns &host, const std::string &ifname,
                              const std::string &cidr);
