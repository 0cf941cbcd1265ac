// The wire format: whatever the bytes are, what is accepted is exactly what the encoder would have written,
// and a frame's beginnings are never judged differently from the whole.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "wire.h"

namespace wire = vx::wire;

static void require(bool condition) {
    if (!condition) std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);

    const wire::Request whole = wire::parse_request(bytes);
    if (whole.progress == wire::Progress::kDone) {
        require(wire::valid_name(whole.service) && wire::valid_name(whole.method));
        require(whole.size == bytes.size());
        const std::string again = wire::request_head(whole.service, whole.method, whole.payload.size()) +
                                  std::string(whole.payload);
        require(again == bytes);
        require(wire::parse_request(bytes + "x").progress == wire::Progress::kBad);
    }
    for (std::size_t cut = 0; cut < bytes.size(); cut += 1 + bytes.size() / 64) {
        const auto part = wire::parse_request(std::string_view(bytes).substr(0, cut));
        require(part.progress != wire::Progress::kDone || whole.progress == wire::Progress::kBad);
        if (whole.progress != wire::Progress::kBad) require(part.progress == wire::Progress::kMore);
    }

    const wire::ReplyHead head = wire::parse_reply_head(bytes);
    if (head.progress == wire::Progress::kDone) {
        require(head.payload_size <= wire::kMaxPayload);
        require(wire::reply_head(head.status, head.payload_size) == bytes.substr(0, wire::kHeader));
    }
    return 0;
}
