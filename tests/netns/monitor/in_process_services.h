// The device's services on a thread of the test: each answer can look at the state of the machine at its
// moment.
#pragma once

#include <json/value.h>
#include <vx_serve.h>

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "foundation/worker.h"

namespace corvo::test {

struct InProcessCall {
    std::string target;  // "service.method"
    std::string request;
    std::chrono::steady_clock::time_point time;

    std::string text() const { return target + " " + request; }
};

// Serves from construction to destruction. Until told otherwise every method answers as a healthy service
// does: error 0, device 11, no local management, no links.
class InProcessServices {
public:
    InProcessServices();
    ~InProcessServices();
    InProcessServices(const InProcessServices&) = delete;
    InProcessServices& operator=(const InProcessServices&) = delete;

    using Answer = std::function<vx::Reply()>;

    // What "service.method" answers from now on. The function runs on the services' thread.
    void answer(const std::string& target, Answer answer);
    void answer(const std::string& target, const std::string& text);
    void fail(const std::string& target, int error);
    void recover(const std::string& target);  // the healthy answer again
    void set_local_mgmt(bool on);

    std::vector<InProcessCall> calls() const;
    std::vector<std::string> texts() const;  // without the questions asked of "vesta" and "TarnService"
    int count(const std::string& text) const;
    void forget();

private:
    vx::Reply serve(const vx::Call& call);

    mutable std::mutex lock_;
    std::map<std::string, Answer> answers_;
    std::vector<InProcessCall> calls_;
    StopSignal stop_;
    vx::Server server_;
    std::thread thread_;
};

}  // namespace corvo::test
