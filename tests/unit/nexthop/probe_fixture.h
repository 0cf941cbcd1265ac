// What the tests of the exchanges and of the hub tests start from.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "corvosetup/log.h"
#include "fake_kernel.h"
#include "fake_services.h"
#include "support/files.h"
#include "support/leak_check.h"
#include "support/log.h"
#include "support/wait.h"

namespace corvo::test {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

// A fake kernel, fake services and a log of its own; nothing may be left open at the end.
class ProbeTest : public testing::Test {
protected:
    ProbeTest() : log_file(dir / "corvo.log") { reopen_setup_logger(log_file); }
    ~ProbeTest() override { reopen_setup_logger("/dev/null"); }
    void TearDown() override { EXPECT_EQ(kernel.left_open(), 0); }

    // The log without the function traces and the line of the reopening.
    std::vector<std::string> lines() const {
        std::vector<std::string> kept;
        for (const auto& text : log_texts(log_file)) {
            if (text.starts_with("[DEBUG] Enter ") || text.starts_with("[DEBUG] Exit ") ||
                text.starts_with("[DEBUG] Reopen ") || text.starts_with("[DEBUG] Get device ID") ||
                text.starts_with("[DEBUG] Load config"))
                continue;
            kept.push_back(text);
        }
        return kept;
    }

    // The function traces, with the source line as N.
    std::vector<std::string> traces() const;

    TempDir dir;
    std::string log_file;
    FakeServices services;
    FakeKernel kernel;
};

inline std::vector<std::string> ProbeTest::traces() const {
    std::vector<std::string> kept;
    for (auto text : log_texts(log_file)) {
        if (!text.starts_with("[DEBUG] Enter ") && !text.starts_with("[DEBUG] Exit ")) continue;
        const auto from = text.find("::") + 2;
        text.replace(from, text.find("::", from) - from, "N");
        kept.push_back(text);
    }
    return kept;
}

class Stopwatch {
public:
    std::chrono::milliseconds elapsed() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                     begin_);
    }

private:
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

}  // namespace corvo::test
