// The wire format of a service call, apart from every socket.
//
// One connection carries one exchange: the caller connects, sends a request, reads the reply and closes. All
// numbers are in network byte order.
//
//   request                                   reply
//   0  4  "VXQ1"                              0  4  "VXR1"
//   4  4  payload length, at most 16 MiB      4  4  payload length, at most 16 MiB
//   8  2  service name length, 1..64          8  4  status (see Status)
//  10  2  method name length, 1..64          12  .  payload
//  12  .  service, method, payload
//
// Names consist of letters, digits, ".", "_" and "-" and do not begin with "."; a payload is any bytes (JSON
// text by convention, empty allowed). A status other than 0 has an empty payload. Nothing may follow a frame.
//
// Threading: no state. Nothing here throws except std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vx::wire {

inline constexpr std::size_t kMaxPayload = 16U << 20U;
inline constexpr std::size_t kMaxName = 64;
inline constexpr std::size_t kHeader = 12;

enum class Status : std::uint32_t {
    kOk = 0,
    kNoMethod = 1,   // the service has no such method
    kRefused = 2,    // the service answered that it failed, or its handler ended in an exception
    kMisrouted = 3,  // the request names another service than the one that owns the socket
    kTooLarge = 4,   // the service's answer does not fit into a message
};

// True for a service or method name that may be sent and may become part of a socket's path.
bool valid_name(std::string_view name);

// A request frame without its payload, which is sent from where it lies. The names must be valid and the
// payload at most kMaxPayload.
std::string request_head(std::string_view service, std::string_view method, std::size_t payload_size);
std::string reply_head(Status status, std::size_t payload_size);
std::string reply_frame(Status status, std::string_view payload);

enum class Progress {
    kMore,  // a correct beginning; `size` is set as soon as it is known
    kDone,  // a whole frame
    kBad,   // no beginning of any frame: wrong magic, length, name or trailing bytes
};

// What the bytes received so far amount to. The views point into the bytes given and are set with kDone.
struct Request {
    Progress progress = Progress::kMore;
    std::size_t size = 0;  // of the whole frame; 0: not known yet
    std::string_view service;
    std::string_view method;
    std::string_view payload;
};
Request parse_request(std::string_view bytes);

struct ReplyHead {
    Progress progress = Progress::kMore;  // kDone: the head is complete, whatever stands behind it
    Status status = Status::kOk;
    std::size_t payload_size = 0;
};
ReplyHead parse_reply_head(std::string_view bytes);

}  // namespace vx::wire
