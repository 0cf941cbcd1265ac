#include "wire.h"

#include <algorithm>
#include <cctype>

namespace vx::wire {

namespace {

constexpr std::string_view kRequestMagic = "VXQ1";
constexpr std::string_view kReplyMagic = "VXR1";

void put(std::string& out, std::uint32_t value, int bytes) {
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
        out.push_back(static_cast<char>((value >> static_cast<unsigned>(shift)) & 0xffU));
    }
}

std::uint32_t get(std::string_view bytes, std::size_t at, std::size_t count) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < count; ++i) {
        value = (value << 8U) | static_cast<unsigned char>(bytes[at + i]);
    }
    return value;
}

bool begins_with_magic(std::string_view bytes, std::string_view magic) {
    const std::size_t length = std::min(bytes.size(), magic.size());
    return bytes.substr(0, length) == magic.substr(0, length);
}

bool name_character(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
}

}  // namespace

bool valid_name(std::string_view name) {
    return !name.empty() && name.size() <= kMaxName && name.front() != '.' &&
           std::all_of(name.begin(), name.end(), name_character);
}

std::string request_head(std::string_view service, std::string_view method, std::size_t payload_size) {
    std::string head;
    head.reserve(kHeader + service.size() + method.size());
    head.append(kRequestMagic);
    put(head, static_cast<std::uint32_t>(payload_size), 4);
    put(head, static_cast<std::uint32_t>(service.size()), 2);
    put(head, static_cast<std::uint32_t>(method.size()), 2);
    head.append(service).append(method);
    return head;
}

std::string reply_head(Status status, std::size_t payload_size) {
    std::string head(kReplyMagic);
    put(head, static_cast<std::uint32_t>(payload_size), 4);
    put(head, static_cast<std::uint32_t>(status), 4);
    return head;
}

std::string reply_frame(Status status, std::string_view payload) {
    std::string frame;
    frame.reserve(kHeader + payload.size());
    frame = reply_head(status, payload.size());
    return frame.append(payload);
}

Request parse_request(std::string_view bytes) {
    Request request;
    const auto bad = [&request] {
        request.progress = Progress::kBad;
        return request;
    };
    if (!begins_with_magic(bytes, kRequestMagic)) return bad();
    if (bytes.size() < kHeader) return request;
    const std::size_t payload = get(bytes, 4, 4);
    const std::size_t service = get(bytes, 8, 2);
    const std::size_t method = get(bytes, 10, 2);
    if (payload > kMaxPayload || service == 0 || service > kMaxName || method == 0 || method > kMaxName) {
        return bad();
    }
    request.size = kHeader + service + method + payload;
    if (bytes.size() > request.size) return bad();
    if (bytes.size() >= kHeader + service + method) {
        // The names are judged before the payload is waited for: nobody gets to send 16 MiB to a name that
        // cannot exist.
        if (!valid_name(bytes.substr(kHeader, service)) ||
            !valid_name(bytes.substr(kHeader + service, method))) {
            return bad();
        }
    }
    if (bytes.size() < request.size) return request;
    request.progress = Progress::kDone;
    request.service = bytes.substr(kHeader, service);
    request.method = bytes.substr(kHeader + service, method);
    request.payload = bytes.substr(kHeader + service + method);
    return request;
}

ReplyHead parse_reply_head(std::string_view bytes) {
    ReplyHead head;
    if (!begins_with_magic(bytes, kReplyMagic)) {
        head.progress = Progress::kBad;
        return head;
    }
    if (bytes.size() < kHeader) return head;
    head.payload_size = get(bytes, 4, 4);
    head.status = static_cast<Status>(get(bytes, 8, 4));
    const bool fits =
        head.payload_size <= kMaxPayload && (head.status == Status::kOk || head.payload_size == 0);
    head.progress = fits ? Progress::kDone : Progress::kBad;
    return head;
}

}  // namespace vx::wire
