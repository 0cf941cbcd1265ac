// One call to another service of the device.
//
// Who may include this: the foundation. The other areas call the functions of corvosetup/service.h.
//
//     ServiceCall call(kGetDevid);
//     if (!call.has_buffer()) return kNoCallBuffer;
//     vx_io_printf(call.io(), "{\"flag\": \"%s\"}", text);    // the format is a constant, data goes in by %s
//     int rc = call.exchange(reply);
//
// While the object lives the calling thread cannot be cancelled (the daemon cancels its own threads): a
// cancellation inside the service-call library would leak its buffer and leave a request half sent. The end
// of the object frees the buffer and gives the thread its former cancellation state back, in this order.
//
// Threading: any thread, one object per call. Errors: result codes; nothing throws but std::bad_alloc.
#pragma once

#include <json/value.h>

#include <string>
#include <string_view>

#include "vx.h"

namespace corvo {

// A method of a service: where it is, how many seconds it may take, and whether each step that fails is
// logged here (else the caller logs the result).
struct ServiceMethod {
    const char* service;
    const char* method;
    int limit;
    bool logged;
};

// Disables cancellation of the calling thread for the lifetime of the object.
class CancellationOff {
public:
    CancellationOff();
    ~CancellationOff();
    CancellationOff(const CancellationOff&) = delete;
    CancellationOff& operator=(const CancellationOff&) = delete;

private:
    int former_;
};

class ServiceCall {
public:
    // `detail` stands in the log line of a failed call, between the method's name and " failed.".
    explicit ServiceCall(const ServiceMethod& method, std::string_view detail = {});
    ~ServiceCall();
    ServiceCall(const ServiceCall&) = delete;
    ServiceCall& operator=(const ServiceCall&) = delete;

    bool has_buffer() const { return io_ != nullptr; }
    void* io() const { return io_; }

    // Sends the request and parses the reply. 0 and an object in `reply`, or kCallFailed, kEmptyReply, or
    // kBadReply when the reply is no JSON object.
    int exchange(Json::Value& reply);

    // The two steps of that: the reply's text, which lives as long as this object, and its parsing.
    int exchange_text(std::string_view& text);
    int parse(std::string_view text, Json::Value& reply) const;

    // Empties the buffer and calls `method` with an empty request. The outcome is of no interest.
    void follow_up(const ServiceMethod& method);

    // The reply's verdict: 0 is success, kFailed stands for a reply without one.
    static int error_of(const Json::Value& reply);

    // Logs a verdict other than 0 for a logged method.
    void report_error(int error) const;
    // Logs that the reply does not read as it should, likewise.
    void report_unreadable() const;

private:
    CancellationOff no_cancel_;  // first in, last out
    const ServiceMethod& method_;
    std::string_view detail_;
    void* io_;
};

}  // namespace corvo
