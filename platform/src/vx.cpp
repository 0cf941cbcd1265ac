// The six operations of vx.h.

#include "vx.h"

#include <cxxabi.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "exchange.h"
#include "wire.h"

namespace {

// What the handle points to. One text, as the interface has it: the request until a call, the reply after it.
struct Buffer {
    std::string text;
    bool is_reply = false;

    void clear() {
        text.clear();
        is_reply = false;
    }
};

// No exception leaves through the C interface; the forced unwind of a cancelled thread must.
template <class Body>
int guarded(Body&& body) {
    try {
        return body();
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    } catch (...) {
        return -EIO;
    }
}

// Takes a text that is ready as it is; printf would read it several times to find out how long it is.
int take(Buffer& buffer, const char* text) {
    const std::size_t size = ::strnlen(text, vx::wire::kMaxPayload + 1);
    if (size > vx::wire::kMaxPayload) return -EMSGSIZE;
    buffer.text.assign(text, size);
    buffer.is_reply = false;
    return 0;
}

int print(Buffer& buffer, const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    if (std::strcmp(format, "%s") == 0) {
        const char* text = va_arg(again, const char*);
        va_end(again);
        return take(buffer, text != nullptr ? text : "(null)");
    }
    char small[2048];
    const int length = std::vsnprintf(small, sizeof small, format, again);
    va_end(again);
    if (length < 0) return -EINVAL;
    const auto size = static_cast<std::size_t>(length);
    if (size > vx::wire::kMaxPayload) return -EMSGSIZE;
    if (size < sizeof small) {
        buffer.text.assign(small, size);
    } else {
        std::string text(size + 1, '\0');
        std::vsnprintf(text.data(), text.size(), format, arguments);
        text.resize(size);
        buffer.text = std::move(text);
    }
    buffer.is_reply = false;
    return 0;
}

}  // namespace

#define VX_EXPORT __attribute__((visibility("default")))

extern "C" {

VX_EXPORT void* vx_io_create(void) {
    return new (std::nothrow) Buffer;
}

VX_EXPORT int vx_io_printf(void* io, const char* format, ...) {
    if (io == nullptr || format == nullptr) return -EINVAL;
    va_list arguments;
    va_start(arguments, format);
    const int result = guarded([&] { return print(*static_cast<Buffer*>(io), format, arguments); });
    va_end(arguments);
    return result;
}

VX_EXPORT int vx_call(const char* service, const char* method, void* io, int limit, int /*minus_one*/) {
    if (service == nullptr || method == nullptr || io == nullptr || limit <= 0) return -EINVAL;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(limit);
    return guarded([&] {
        auto& buffer = *static_cast<Buffer*>(io);
        std::string reply;
        const int result = vx::exchange(service, method, buffer.text, deadline, reply);
        buffer.text = std::move(reply);
        buffer.is_reply = result == 0;
        return result;
    });
}

VX_EXPORT const char* vx_io_read(void* io, void* length) {
    const auto* buffer = static_cast<const Buffer*>(io);
    const bool there = buffer != nullptr && buffer->is_reply;
    // Four bytes: right for a caller with an int, and for one with a zeroed wider integer.
    const int size = there ? static_cast<int>(buffer->text.size()) : 0;
    if (length != nullptr) std::memcpy(length, &size, sizeof size);
    return there ? buffer->text.c_str() : nullptr;
}

VX_EXPORT void* vx_io_realloc(void* io, int size) {
    if (io == nullptr || size < 0 || static_cast<std::size_t>(size) > vx::wire::kMaxPayload) return nullptr;
    auto& buffer = *static_cast<Buffer*>(io);
    const int result = guarded([&] {
        const auto wanted = static_cast<std::size_t>(size);
        if (wanted == 0) buffer.clear();
        if (buffer.text.size() > wanted) buffer.text.resize(wanted);
        buffer.text.reserve(wanted);
        return 0;
    });
    return result == 0 ? io : nullptr;
}

VX_EXPORT void vx_io_free(void* io) {
    delete static_cast<Buffer*>(io);
}

}  // extern "C"
