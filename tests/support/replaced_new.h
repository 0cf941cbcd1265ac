// The tests' operator new: asks before each allocation whether it is to fail.
//
// Linked with exactly one answer to new_fails(): failing_new.cpp or the layer of faults (support/fault). Only
// executables that need it get it: in the support library every one would.
#pragma once

namespace corvo::test {

// Whether the allocation that the calling thread is about to make fails. May not allocate.
bool new_fails() noexcept;

}  // namespace corvo::test
