#pragma once

namespace corvo::test {

// The sanitizer that this program was linked with. A value of the program, not of the compilation:
// AddressSanitizer's programs have the objects of tests from the release build.
enum class Sanitizer { kNone, kAddress, kThread };
extern const Sanitizer kSanitizer;

// Whether this program runs under a sanitizer: its code is several times slower, its memory grows with what
// it has seen, and its own system calls are among ours. Bounds that hold the library to a time are the
// release build's.
extern const bool kSanitized;

}  // namespace corvo::test
