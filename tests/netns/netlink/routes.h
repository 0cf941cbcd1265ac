// Two devices with an address each, and the routes of a table as ip prints them.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "records.h"
#include "support/sandbox.h"

namespace corvo::test {

class Routes : public testing::Test {
protected:
    void SetUp() override {
        add_veth("v0", "v1", {.address = "192.0.2.1/24"});
        add_veth("w0", "w1", {.address = "198.51.100.1/24"});
    }
    // The table's routes as ip prints them, without its decoration.
    static Json::Value table(int id, const std::string& family = "-4") {
        const ToolResult result = run_line("ip " + family + " -j -N route show table " + std::to_string(id));
        Json::Value routes(Json::arrayValue);
        if (result.ok()) routes = ip_json(family + " -N route show table " + std::to_string(id));
        return routes;
    }
    static std::string text(int id, const std::string& family = "-4") {
        return run_line("ip " + family + " route show table " + std::to_string(id)).out;
    }
    LeakCheck leaks_;
};

// What `body` prints on standard output.
inline std::string captured(const std::function<void()>& body) {
    testing::internal::CaptureStdout();
    body();
    return testing::internal::GetCapturedStdout();
}

}  // namespace corvo::test
