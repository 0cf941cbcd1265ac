// What the tests of this area share: a run-time directory of their own, calls, and peers that misbehave.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>

#include "foundation/fd.h"
#include "support/files.h"
#include "vx.h"
#include "vx_serve.h"

namespace platform_test {

// The test's sockets lie in a directory that is thrown away; VX_RUNTIME_DIR names it.
class RuntimeDir : public testing::Test {
protected:
    RuntimeDir() { ::setenv("VX_RUNTIME_DIR", directory_.path().c_str(), 1); }
    ~RuntimeDir() override { ::unsetenv("VX_RUNTIME_DIR"); }

    const corvo::test::TempDir directory_;
};

struct CallResult {
    int result = 0;
    bool replied = false;  // vx_io_read gave a text
    std::string reply;
    double seconds = 0;
};

// One call through the C interface.
CallResult call(const std::string& service, const std::string& method, const std::string& request = {},
                int limit = 5);

// A peer at a service's socket that treats each connection as `body` says; one after the other. `body` gets
// the connected descriptor, which is closed after it.
class RawService {
public:
    explicit RawService(const std::string& service, std::function<void(int)> body);
    ~RawService();

private:
    corvo::UniqueFd listener_;
    corvo::UniqueFd stop_;
    std::thread thread_;
};

// A plain connection to a service's socket, for clients that misbehave.
corvo::UniqueFd connect_raw(const std::string& service);
void send_raw(int fd, std::string_view bytes);

// Reads until the peer closes or `seconds` have passed without anything; `closed` tells which.
std::string read_to_end(int fd, bool& closed, int seconds = 5);
// Reads exactly one request, as a proper service would.
std::string read_request(int fd);

// A server with an "echo" service: method "echo" answers the payload, "throw" throws, "slow" answers after
// 300 ms.
void serve_echo(vx::Server& server);

}  // namespace platform_test
