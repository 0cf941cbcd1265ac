#include "sanitized.h"

namespace corvo::test {

#if defined(__SANITIZE_ADDRESS__)
constinit const Sanitizer kSanitizer = Sanitizer::kAddress;
#elif defined(__SANITIZE_THREAD__)
constinit const Sanitizer kSanitizer = Sanitizer::kThread;
#else
constinit const Sanitizer kSanitizer = Sanitizer::kNone;
#endif
constinit const bool kSanitized = kSanitizer != Sanitizer::kNone;

}  // namespace corvo::test
