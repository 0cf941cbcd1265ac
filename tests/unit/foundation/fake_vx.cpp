#include "fake_vx.h"

#include <pthread.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

#include "vx.h"

namespace fake_vx {

namespace {
std::mutex lock;
}

State& state() {
    static State state;
    return state;
}

void reset() {
    state() = State{};
}

void reply(const std::string& text) {
    state().answers = {Answer{text}};
}

}  // namespace fake_vx

using fake_vx::Answer;
using fake_vx::state;

namespace {
struct Io {
    std::string request;
    Answer answer;
    bool called = false;
    // A heap copy of the exact size, not terminated: reading past it is seen by the sanitizers.
    std::unique_ptr<char[]> text;
};
}  // namespace

void* vx_io_create(void) {
    const std::lock_guard hold(fake_vx::lock);
    if (state().refuse_create) return nullptr;
    ++state().created;
    return new Io;
}

int vx_io_printf(void* io, const char* format, ...) {
    char text[65536];
    va_list list;
    va_start(list, format);
    std::vsnprintf(text, sizeof text, format, list);
    va_end(list);
    const std::lock_guard hold(fake_vx::lock);
    state().formats.emplace_back(format);
    static_cast<Io*>(io)->request = text;
    return 0;
}

int vx_call(const char* service, const char* method, void* handle, int limit, int minus_one) {
    auto& io = *static_cast<Io*>(handle);
    const std::lock_guard hold(fake_vx::lock);
    auto& s = state();
    int old = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
    pthread_setcancelstate(old, nullptr);
    s.cancel_state_in_call = old;
    s.calls.push_back({service, method, io.request, limit, minus_one});
    if (s.during_call) s.during_call();
    io.answer = s.answers.empty() ? Answer{} : s.answers[std::min(s.calls.size(), s.answers.size()) - 1];
    io.called = true;
    return io.answer.rc;
}

const char* vx_io_read(void* handle, void* length) {
    auto& io = *static_cast<Io*>(handle);
    const auto told = io.answer.length >= 0 ? io.answer.length : static_cast<long>(io.answer.reply.size());
    if (io.answer.int_length) {
        const int value = static_cast<int>(told);
        std::memcpy(length, &value, sizeof value);
    } else {
        const auto value = static_cast<std::size_t>(told);
        std::memcpy(length, &value, sizeof value);
    }
    if (io.answer.null_text) return nullptr;
    io.text = std::make_unique<char[]>(io.answer.reply.size() + (io.answer.reply.empty() ? 1 : 0));
    std::memcpy(io.text.get(), io.answer.reply.data(), io.answer.reply.size());
    return io.text.get();
}

void* vx_io_realloc(void* handle, int) {
    auto& io = *static_cast<Io*>(handle);
    const std::lock_guard hold(fake_vx::lock);
    ++state().reallocs;
    io.request.clear();
    io.answer = {};
    io.text.reset();
    return handle;
}

void vx_io_free(void* handle) {
    const std::lock_guard hold(fake_vx::lock);
    ++state().freed;
    delete static_cast<Io*>(handle);
}
