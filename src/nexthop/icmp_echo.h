// One ICMP echo exchange (RFC 792) over a raw socket: the building block of the link probe and of the hub
// and regional link tests.
//
// Who may include this: nexthop and monitor.
//
// Two callers with a history of their own share it; what differs between them is in EchoStyle. Building the
// request and judging what comes back are apart from the socket.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace corvo {

inline constexpr std::size_t kEchoRequestSize = 64;
inline constexpr std::size_t kEchoReplyCapacity = 192;
inline constexpr std::uint16_t kEchoSequence = 12345;

using EchoRequest = std::array<unsigned char, kEchoRequestSize>;

// The Internet checksum (RFC 1071) over `length` bytes in memory order; an odd last byte counts as the first
// byte of a word.
std::uint16_t internet_checksum(const void* data, std::size_t length);

// Type 8, code 0, checksum, identifier (the low 16 bits of `process`), sequence; the payload is zeros.
// Identifier and sequence are in host byte order: monitoring boxes along the way know our probes by it.
EchoRequest build_echo_request(pid_t process);

enum class EchoVerdict {
    kMatch,  // the answer to our request
    kOther,  // somebody else's packet; keep waiting
    kShort,  // not even an ICMP header
};

// Judges one packet as a raw socket delivers it. The IP header is taken to have 20 bytes. The 16-bit
// identifier is compared with the whole of `process`: a process id above 65535 never matches, and the
// exchange of such a process times out. Deployments keep the daemon's id small for that reason.
EchoVerdict judge_echo_reply(const unsigned char* packet, std::size_t length, pid_t process);

// Where the two callers differ.
struct EchoStyle {
    int unresolved_code;       // result for a target that does not resolve
    bool mark_before_binding;  // else the device is bound first
    int binding_code;          // result when the device cannot be bound
    const char* binding_text;  // "%" stands for the device; brings its own end of line
};

// The link probe: -3007 for an unknown host, binds before it marks.
extern const EchoStyle kLinkProbeEcho;
// The hub and regional link tests: -3001 for an unknown host, marks before it binds, -3005 for the device.
extern const EchoStyle kHubTestEcho;

// Sends one request to `target` (dotted IPv4 or a host name), bound to `device` unless that is empty and
// marked with the management mark, and waits 2 s of the monotonic clock for its answer. 0: answered. Failures
// are logged at ERROR:
//   the style's code   "unknown host <target>"
//   -3010              "malloc error.\n"
//   -3008              "create socket failed.\n", "Set socket opt [SO_MARK] failed!\n"
//   the style's code   the style's text for a device that cannot be bound
//   -3012              "sendto failed.\n"
//   -3001              "select() error.\n"; a time-out and a stopped worker give it without a line
//   -3013              "recvfrom failed.\n", "packet too short (<n> bytes) from <address>"
//
// Threading: any thread. The exchanges of a process share identifier and sequence, so they run one at a time
// behind a lock of the process. On a Worker the stop request ends all waits at once, that for the lock and
// that for a name server included. Needs CAP_NET_RAW and CAP_NET_ADMIN. Not for use while holding a lock.
int exchange_echo(const std::string& target, const std::string& device, const EchoStyle& style);

}  // namespace corvo
