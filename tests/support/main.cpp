// main() of the netns and device tiers' executables.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <string_view>

#include "corvosetup/log.h"
#include "support/isolation.h"
#include "support/log.h"
#include "support/recorder.h"

namespace {

using namespace corvo::test;

// Every TEST starts on a fresh machine, with the log as it is right after loading.
class FreshMachine : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override {
        isolation::renew();
        max_log_size = 5242880;
        verbose = 0;
        reopen_setup_logger(kLogFile);
        clear_log();
    }
    void OnTestEnd(const testing::TestInfo&) override { Recorders::remove_all(); }
};

// Listing the tests and the inside of a death test (which is in the sandbox of its parent already).
bool stays_outside(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument.starts_with("--gtest_list_tests") ||
            argument.starts_with("--gtest_internal_run_death_test") || argument == "--help")
            return true;
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (stays_outside(argc, argv)) {
        testing::InitGoogleTest(&argc, argv);
        return RUN_ALL_TESTS();
    }
    if (geteuid() != 0) {
        std::fprintf(stderr, "%s: these tests make namespaces and mounts of their own and need root\n",
                     argv[0]);
        return 1;
    }
    try {
        isolation::enter();
        isolation::build_view();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: cannot make the tests' sandbox: %s\n", argv[0], error.what());
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new FreshMachine);
    try {
        return RUN_ALL_TESTS();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: cannot renew the tests' sandbox: %s\n", argv[0], error.what());
        return 1;
    }
}
