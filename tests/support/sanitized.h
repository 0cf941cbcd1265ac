#pragma once

namespace corvo::test {

// Whether this build runs under a sanitizer: its code is several times slower, its memory grows with what it
// has seen, and its own system calls are among ours. Bounds that hold the library to a time are the release
// build's.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

}  // namespace corvo::test
