// A service-call library whose every reply is what the fuzzer made up. Include it in one source of a target.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "vx.h"

namespace fake_vx {

inline std::string reply;
inline int call_rc = 0;
inline bool no_buffer = false;
inline long buffers = 0;     // created and not freed
inline std::string request;  // the last one

struct Io {
    std::unique_ptr<char[]> text;  // of the exact size: reading past it is seen
};

}  // namespace fake_vx

void* vx_io_create(void) {
    if (fake_vx::no_buffer) return nullptr;
    ++fake_vx::buffers;
    return new fake_vx::Io;
}

int vx_io_printf(void*, const char* format, ...) {
    va_list list;
    va_start(list, format);
    va_list again;
    va_copy(again, list);
    const int length = std::vsnprintf(nullptr, 0, format, list);
    fake_vx::request.resize(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(fake_vx::request.data(), fake_vx::request.size(), format, again);
    fake_vx::request.resize(static_cast<std::size_t>(length));
    va_end(again);
    va_end(list);
    return 0;
}

int vx_call(const char*, const char*, void*, int, int) {
    return fake_vx::call_rc;
}

const char* vx_io_read(void* handle, void* length) {
    auto& io = *static_cast<fake_vx::Io*>(handle);
    const std::size_t size = fake_vx::reply.size();
    std::memcpy(length, &size, sizeof size);
    io.text = std::make_unique<char[]>(size);
    std::memcpy(io.text.get(), fake_vx::reply.data(), size);
    return io.text.get();
}

void* vx_io_realloc(void* handle, int) {
    static_cast<fake_vx::Io*>(handle)->text.reset();
    return handle;
}

void vx_io_free(void* handle) {
    --fake_vx::buffers;
    delete static_cast<fake_vx::Io*>(handle);
}
