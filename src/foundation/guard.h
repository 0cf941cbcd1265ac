// The boundary: no exception leaves the library.
//
// Who may include this: every area, for exported functions and for thread bodies.
#pragma once

#include <cxxabi.h>

#include <exception>
#include <new>
#include <system_error>
#include <utility>

#include "foundation/result.h"

namespace corvo {

// The code for the exception in flight: an int is itself, no memory and no thread are -3010, all else is
// -3001. Must be called from a catch block.
int result_of_exception() noexcept;

// Runs `body`; an exception becomes the value that `failed(code)` makes of its code. The forced unwind of a
// cancelled daemon thread is not an exception and goes on (glibc aborts the process when it is swallowed).
//
// The unwind of a cancellation carries no object, which the sanitizer takes for a reference to null.
template <class Body, class Failed>
__attribute__((no_sanitize("undefined"))) auto guarded_with(Body&& body, Failed&& failed)
    -> decltype(body()) {
    try {
        return std::forward<Body>(body)();
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
        return failed(result_of_exception());
    }
}

// The same for functions that return a result code.
template <class Body>
int guarded(Body&& body) {
    return guarded_with(std::forward<Body>(body), [](int code) { return code; });
}

// The same for functions whose failure is one fixed value, and for those that return nothing.
template <class T, class Body>
T guarded_or(T fallback, Body&& body) {
    return guarded_with(std::forward<Body>(body), [&](int) -> T { return std::move(fallback); });
}
template <class Body>
void guarded_void(Body&& body) {
    guarded_with([&] { std::forward<Body>(body)(); }, [](int) {});
}

}  // namespace corvo
