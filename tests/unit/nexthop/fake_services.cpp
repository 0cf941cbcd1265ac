#include "fake_services.h"

#include <cstdarg>
#include <cstdio>

#include "foundation/json.h"
#include "vx.h"

namespace corvo::test {

namespace {
FakeServices* services = nullptr;
}

FakeServices::FakeServices() {
    device_id(10);
    answer("nm-halor.UpdateActiveHUB", "{\"error\":0}");
    answer("nm-morin-handler.PostLog", "{\"error\":0}");
    services = this;
}

FakeServices::~FakeServices() {
    services = nullptr;
}

FakeServices* FakeServices::current() {
    return services;
}

void FakeServices::answer(const std::string& method, const std::string& reply) {
    methods[method] = [reply](const std::string&) { return reply; };
}

void FakeServices::device_id(int id) {
    answer("vesta.get_devid", "{\"error\":0,\"data\":" + std::to_string(id) + "}");
}

void FakeServices::site(const Json::Value& sites) {
    Json::Value reply;
    reply["error"] = 0;
    reply["data"]["SITE_INFO"] = sites;
    answer("vesta.read_json", write_json(reply));
}

std::vector<std::string> FakeServices::calls() {
    std::lock_guard hold(lock_);
    return calls_;
}

bool FakeServices::call(const std::string& method, std::string& io) {
    if (!method.starts_with("vesta.")) {
        std::lock_guard hold(lock_);
        calls_.push_back(method + " " + io);
    }
    const auto found = methods.find(method);
    if (found == methods.end()) return false;
    io = found->second(io);
    return true;
}

}  // namespace corvo::test

extern "C" {

void* vx_io_create(void) {
    return new std::string;
}

int vx_io_printf(void* io, const char* format, ...) {
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    *static_cast<std::string*>(io) = text;
    return 0;
}

int vx_call(const char* service, const char* method, void* io, int, int) {
    auto* fake = corvo::test::FakeServices::current();
    if (fake == nullptr) return -1;
    return fake->call(std::string(service) + "." + method, *static_cast<std::string*>(io)) ? 0 : -1;
}

const char* vx_io_read(void* io, void* length) {
    auto* text = static_cast<std::string*>(io);
    *static_cast<std::size_t*>(length) = text->size();
    return text->c_str();
}

void* vx_io_realloc(void* io, int) {
    static_cast<std::string*>(io)->clear();
    return io;
}

void vx_io_free(void* io) {
    delete static_cast<std::string*>(io);
}

}  // extern "C"
