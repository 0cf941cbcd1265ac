// One request and its reply over a service's socket, within a time limit.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace vx {

// Sends `payload` to `method` of `service` and puts the answer into `reply`. 0, or a negative errno number:
//   -EINVAL        a name is not valid
//   -ENAMETOOLONG  the run-time directory's name does not fit into a socket address
//   -EMSGSIZE      the payload is larger than 16 MiB (nothing was sent)
//   -ENOENT, -ECONNREFUSED, -EACCES  no such service, not running, not allowed
//   -ETIMEDOUT     the deadline passed (connecting, sending and receiving together)
//   -ECONNRESET, -EPIPE  the service went away in the middle
//   -EPROTO        the answer is no reply frame, claims more than 16 MiB, or goes on behind its end
//   -ENOSYS        the service has no such method
//   -EREMOTEIO     the service failed
// `reply` is empty unless the result is 0. Threading: no state; any thread. Signals: SIGPIPE is never raised,
// interrupted waits go on.
int exchange(std::string_view service, std::string_view method, std::string_view payload,
             std::chrono::steady_clock::time_point deadline, std::string& reply);

// The part of it behind the connect: over a connected, non-blocking socket, with names and payload already
// judged.
int converse(int fd, std::string_view service, std::string_view method, std::string_view payload,
             std::chrono::steady_clock::time_point deadline, std::string& reply);

}  // namespace vx
