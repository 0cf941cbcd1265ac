// Tests in which a thread is cancelled.
#pragma once

#include <gtest/gtest.h>

#include "support/sanitized.h"

// AddressSanitizer does not see the forced unwind of a cancelled thread: the frames that it leaves stay
// marked in the shadow memory, and the sanitizer's own sigaltstack() at the thread's end then reports an
// overflow of the stack. That needs no code of ours. The other builds run these tests, ThreadSanitizer's
// included.
#define NEEDS_CANCELLATION()                                         \
    if (corvo::test::kSanitizer == corvo::test::Sanitizer::kAddress) \
    GTEST_SKIP() << "AddressSanitizer takes the forced unwind of a cancelled thread for a stack overflow"
