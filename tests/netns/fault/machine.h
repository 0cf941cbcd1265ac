// The machine that the fault tests run on: links, documents, services and peers of a small device.
#pragma once

#include <vx_serve.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "foundation/fd.h"
#include "kernel_state.h"
#include "support/sandbox.h"

namespace corvo::test {

// Device 11 with the WANs eth1 (tunnel 1) and eth2 (tunnel 2), the private ports swdev3 and swdev5, the
// regional ports swdev4 and swdev6, the LAN port eth5 and ifb0. tun1, tun3, tun4 and ip6tun1 are there
// already (as veths: rules and routes are real, only the encapsulation is not); the others are for the
// tests to make. Hub 21 is at 127.0.0.21, the far end of regional link 4 in a namespace of its own. The
// services answer in this process and do what a fault plan asks of them.
class Machine {
public:
    Machine();
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // Brings the kernel back to where it was at the beginning.
    void reset();
    const KernelState& base() const { return base_; }

    // The error that all services answer with from now on (0: none).
    void answer_error(int error);
    // What "service.method" answers from now on.
    void answer(const std::string& target, const std::string& reply);
    // The text of the last request to "service.method".
    std::string last_request(const std::string& target);

private:
    vx::Reply serve(const vx::Call& call);
    void build_links();
    void write_documents();
    void start_services();
    void be_hub(int stop) const;

    std::unique_ptr<Netns> far_;
    std::mutex lock_;
    std::map<std::string, std::string> answers_;
    std::map<std::string, std::string> requests_;
    std::unique_ptr<vx::ServerThread> services_;
    UniqueFd hub_;
    UniqueFd hub_stop_;
    std::thread hub_thread_;
    KernelState base_;
};

}  // namespace corvo::test
