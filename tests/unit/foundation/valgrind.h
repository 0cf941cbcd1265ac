// Tests that do not hold in the machine that valgrind plays.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string_view>

inline bool under_valgrind() {
    const char* preloaded = std::getenv("LD_PRELOAD");
    return preloaded != nullptr && std::string_view(preloaded).find("vgpreload") != std::string_view::npos;
}

// valgrind makes a fork of the clone that posix_spawn asks for, so that an exec that fails in the child is
// not told to the parent.
#define NEEDS_SPAWN_TO_TELL_FAILED_EXECS() \
    if (under_valgrind()) GTEST_SKIP() << "valgrind hides from posix_spawn that an exec failed"
