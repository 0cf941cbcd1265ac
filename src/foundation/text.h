// Bounded copies between std::string and the fixed character arrays of the records.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace corvo {

// Copies at most N-1 characters and always terminates; the rest of the array is zero. False: `text` was cut.
template <std::size_t N>
bool copy_text(char (&to)[N], std::string_view text) {
    const std::size_t length = text.size() < N ? text.size() : N - 1;
    std::memset(to, 0, N);
    std::memcpy(to, text.data(), length);
    return length == text.size();
}

// The text of an array that its writer may have left unterminated.
template <std::size_t N>
std::string_view array_text(const char (&from)[N]) {
    return {from, ::strnlen(from, N)};
}

}  // namespace corvo
