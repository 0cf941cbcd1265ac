// The library's log in a file of the test's own, and services that nobody answers for.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "corvosetup/log.h"
#include "support/files.h"
#include "support/log.h"

namespace corvo::test {

class OwnLog : public testing::Test {
protected:
    OwnLog() : path_(dir_ / "corvo.log") {
        ::setenv("VX_RUNTIME_DIR", dir_.path().c_str(), 1);
        reopen_setup_logger(path_);
        clear_log(path_);
    }
    ~OwnLog() override { verbose = 0; }

    std::vector<std::string> texts() const { return log_texts(path_); }
    int count(const std::string& text) const { return count_log(text, path_); }
    void forget() const { clear_log(path_); }

private:
    TempDir dir_;
    std::string path_;
};

}  // namespace corvo::test
