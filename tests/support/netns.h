// Network namespaces made by a test: a network of its own for multicast
// and fixed ports, torn down with the objects. Needs root and iproute2's `ip`.
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
    ~netns();
    netns(const netns &) = delete;
    bool ok() const { return !name.empty(); }
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
    bool ok() const { return home >= 0; }
};
