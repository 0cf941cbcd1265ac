// Links and further network namespaces of a test.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "foundation/fd.h"
#include "support/process.h"

namespace corvo::test {

// A network namespace beside that of the test (a peer, a provider, a LAN), with lo up. It also has a name
// under /run/netns, so "ip -n NAME" and "ip link set X netns NAME" work. Gone with the object, once no
// process and no socket is in it.
class Netns {
public:
    explicit Netns(std::string name);
    ~Netns();
    Netns(const Netns&) = delete;
    Netns& operator=(const Netns&) = delete;

    const std::string& name() const { return name_; }

    // Calls `body` inside, on a thread of its own, and waits for it; its exception comes out here. Sockets
    // that it opens stay in this namespace. Files under /sys/class/net are those of the test's namespace.
    void run(const std::function<void()>& body) const;

    // Runs tools inside.
    ToolResult tool(const std::string& line) const;
    void ip(const std::vector<std::string>& commands) const;
    Json::Value ip_json(const std::string& words, const std::string& flags = {}) const;

private:
    std::string name_;
    UniqueFd handle_;
};

struct VethOptions {
    std::string address{};       // "192.0.2.1/24" for this side, empty: none
    std::string peer_address{};  // for the other side
    int queues = 1;              // on both sides
    bool up = true;
};

// A pair of veth devices, both ends here.
void add_veth(const std::string& name, const std::string& peer, const VethOptions& options = {});

// The same with the peer in `other`.
void add_veth(const std::string& name, const Netns& other, const std::string& peer,
              const VethOptions& options = {});

// Waits until the device is up and running (a veth reports its carrier a moment after both ends are up).
bool wait_for_carrier(const std::string& name);

// The index of a device here, 0 when there is none.
int index_of(const std::string& name);

}  // namespace corvo::test
