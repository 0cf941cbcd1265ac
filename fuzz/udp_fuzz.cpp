// The datagrams of the UDP probe, on both sides: whatever arrives is read without harm, and what is sent for
// it can be read by the other side.
//
// First byte: which side reads. The rest is the datagram, cut as the sockets cut it.

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "foundation/json.h"
#include "nexthop/udp_message.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

void answering_side(std::string_view datagram) {
    corvo::ProbeRequest request;
    if (!corvo::parse_probe_request(datagram, request)) {
        require(request.sender == 0 && request.receiver == 0 && request.wan == 0);
        return;
    }
    // A float of the peer's choice stands for the figures, which come from tools.
    float figure = 0;
    std::memcpy(&figure, datagram.data(), std::min(sizeof figure, datagram.size()));
    const auto answer =
        corvo::build_probe_answer(request.receiver, request.sender, {request.wan, 1, figure, -figure});
    require(answer.size() <= corvo::kProbeDatagramSize);
    corvo::ProbeReply reply;
    require(corvo::parse_probe_reply(answer, reply));
    require(reply.sender == request.receiver && reply.receiver == request.sender);
    require(reply.connections == request.wan && reply.result == 0);
}

void asking_side(std::string_view datagram) {
    corvo::ProbeReply reply;
    if (!corvo::parse_probe_reply(datagram, reply)) {
        require(reply.result == -1 && reply.receiver == 0);
        return;
    }
    Json::Value message;
    require(corvo::parse_json(datagram, message) && message.isObject());
    if (!message.isMember("Result")) require(reply.result == -1);
}

// The template is the daemon's to write.
void request_template(std::string_view text) {
    const auto request = corvo::build_probe_request(text, INT_MIN, INT_MAX, 3);
    corvo::ProbeRequest read;
    require(corvo::parse_probe_request(request, read));
    require(read.sender == INT_MIN && read.receiver == INT_MAX && read.wan == 3);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    // A copy of exactly the datagram's size, so that reading behind its end is seen.
    const std::size_t length = std::min(size - 1, corvo::kProbeDatagramSize);
    const std::unique_ptr<char[]> bytes(new char[length]);
    if (length > 0) std::memcpy(bytes.get(), data + 1, length);
    const std::string_view datagram(bytes.get(), length);
    switch (data[0] % 3) {
        case 0:
            answering_side(datagram);
            break;
        case 1:
            asking_side(datagram);
            break;
        default:
            request_template(datagram);
    }
    return 0;
}
