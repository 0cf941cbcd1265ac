#include "foundation/service_call.h"

#include <pthread.h>

#include <climits>
#include <cstdint>

#include "foundation/json.h"
#include "foundation/log_line.h"
#include "foundation/result.h"

namespace corvo {

namespace {

// The reply in the buffer, whose storage it shares; empty when there is none. The length's type differs
// between vendors (int or size_t), so it is read as the widest and a nonsensical value counts as none.
std::string_view reply_text(void* io) {
    std::uint64_t length = 0;
    const char* text = vx_io_read(io, &length);
    if (text == nullptr || length == 0 || length > INT_MAX) return {};
    return {text, static_cast<std::size_t>(length)};
}

}  // namespace

CancellationOff::CancellationOff() : former_(PTHREAD_CANCEL_ENABLE) {
    if (pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_) != 0) {
        former_ = PTHREAD_CANCEL_ENABLE;
        log::error("pthread cancel disable error\n");
    }
}

CancellationOff::~CancellationOff() {
    // A caller that had cancellation off already keeps it off.
    if (pthread_setcancelstate(former_, nullptr) != 0) log::error("pthread cancel enable error\n");
}

ServiceCall::ServiceCall(const ServiceMethod& method, std::string_view detail)
    : method_(method), detail_(detail), io_(vx_io_create()) {
    if (io_ == nullptr && method_.logged) log::error("vx_io_create() failed\n");
}

ServiceCall::~ServiceCall() {
    if (io_ != nullptr) vx_io_free(io_);
}

int ServiceCall::exchange(Json::Value& reply) {
    std::string_view text;
    const int answered = exchange_text(text);
    return answered == kOk ? parse(text, reply) : answered;
}

int ServiceCall::exchange_text(std::string_view& text) {
    if (vx_call(method_.service, method_.method, io_, method_.limit, -1) != 0) {
        if (method_.logged)
            log::error("vx_call ", method_.service, ".", method_.method, detail_, " failed.\n");
        return kCallFailed;
    }
    text = reply_text(io_);
    if (!text.empty()) return kOk;
    if (method_.logged) log::error("vx_io_read() failed.\n");
    return kEmptyReply;
}

int ServiceCall::parse(std::string_view text, Json::Value& reply) const {
    if (!parse_json(text, reply) || !reply.isObject()) {
        report_unreadable();
        return kBadReply;
    }
    return kOk;
}

void ServiceCall::follow_up(const ServiceMethod& method) {
    vx_io_realloc(io_, 0);
    vx_call(method.service, method.method, io_, method.limit, -1);
}

int ServiceCall::error_of(const Json::Value& reply) {
    return j_int(reply, "error", kFailed);
}

void ServiceCall::report_error(int error) const {
    if (method_.logged) log::error("VXservice get error: ", error);
}

void ServiceCall::report_unreadable() const {
    if (method_.logged) log::error("JSON reader parse failed.\n");
}

}  // namespace corvo
