#include "netlink/message.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstddef>

namespace corvo::nl {

namespace {
constexpr std::size_t kMaxAttr = 0xffff;
constexpr auto kAttrTypeMask = static_cast<std::uint16_t>(NLA_TYPE_MASK);
}  // namespace

std::size_t MessageWriter::append(const void* data, std::size_t size) {
    const std::size_t at = bytes_.size();
    bytes_.resize(at + NLMSG_ALIGN(size));
    if (size > 0) std::memcpy(&bytes_[at], data, size);
    return at;
}

void MessageWriter::begin(std::uint16_t type, std::uint16_t flags, std::uint32_t sequence) {
    nlmsghdr head{};
    head.nlmsg_type = type;
    head.nlmsg_flags = flags;
    head.nlmsg_seq = sequence;
    message_ = append(&head, sizeof head);
}

void MessageWriter::end() {
    const auto length = static_cast<std::uint32_t>(bytes_.size() - message_);
    std::memcpy(&bytes_[message_ + offsetof(nlmsghdr, nlmsg_len)], &length, sizeof length);
}

void MessageWriter::attr(std::uint16_t type, const void* data, std::size_t size) {
    const std::size_t length = NLA_HDRLEN + size;
    if (length > kMaxAttr) {
        overflow_ = true;
        return;
    }
    const nlattr head{static_cast<std::uint16_t>(length), type};
    const std::size_t at = bytes_.size();
    bytes_.resize(at + NLA_ALIGN(length));
    std::memcpy(&bytes_[at], &head, sizeof head);
    if (size > 0) std::memcpy(&bytes_[at + NLA_HDRLEN], data, size);
}

void MessageWriter::attr_port(std::uint16_t type, std::uint16_t host_order_port) {
    attr_u16(type, htons(host_order_port));
}

void MessageWriter::attr_text(std::uint16_t type, std::string_view text) {
    const std::size_t at = bytes_.size();
    attr(type, text.data(), text.size());
    if (overflow_) return;
    // The terminator: inside the padding when there is some, else one more word.
    const std::size_t length = NLA_HDRLEN + text.size() + 1;
    bytes_.resize(at + NLA_ALIGN(length));
    patch_u16(at, static_cast<std::uint16_t>(length));
}

std::size_t MessageWriter::begin_nest(std::uint16_t type) {
    const std::size_t at = bytes_.size();
    attr(type | NLA_F_NESTED, nullptr, 0);
    return at;
}

void MessageWriter::end_nest(std::size_t nest) {
    const std::size_t length = bytes_.size() - nest;
    if (length > kMaxAttr) {
        overflow_ = true;
        return;
    }
    patch_u16(nest, static_cast<std::uint16_t>(length));
}

void Attrs::Iterator::load() {
    nlattr head{};
    if (rest_.size() >= sizeof head) std::memcpy(&head, rest_.data(), sizeof head);
    if (head.nla_len < NLA_HDRLEN || head.nla_len > rest_.size()) {
        rest_ = rest_.last(0);
        return;
    }
    attr_.type = head.nla_type & kAttrTypeMask;
    attr_.data = rest_.subspan(NLA_HDRLEN, head.nla_len - NLA_HDRLEN);
    step_ = std::min<std::size_t>(NLA_ALIGN(head.nla_len), rest_.size());
}

bool next_message(Bytes& datagram, MessageView& message) {
    if (datagram.size() < sizeof message.head) return false;
    std::memcpy(&message.head, datagram.data(), sizeof message.head);
    const std::size_t length = message.head.nlmsg_len;
    if (length < sizeof message.head || length > datagram.size()) return false;
    message.payload = datagram.subspan(sizeof message.head, length - sizeof message.head);
    datagram = datagram.subspan(std::min<std::size_t>(NLMSG_ALIGN(length), datagram.size()));
    return true;
}

}  // namespace corvo::nl
