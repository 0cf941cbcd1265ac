// Netlink messages as bytes: building and reading, without a socket.
//
// Who may include this: every area that speaks netlink. A function that builds a message takes a
// MessageWriter and nothing else that touches the kernel, so its bytes can be tested without privileges.
// Layout: netlink(7); everything is in host byte order unless the attribute says otherwise (FOU and tunnel
// ports: network order). Threading: values, one owner.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

namespace corvo::nl {

using Bytes = std::span<const std::uint8_t>;

// One or more messages, one behind the other in one buffer. begin(), the family's own header, attributes,
// end(); then the next one.
class MessageWriter {
public:
    // Starts a message. Its length is filled in by end().
    void begin(std::uint16_t type, std::uint16_t flags, std::uint32_t sequence = 0);

    // The fixed header of the family (ifinfomsg, rtmsg, ...), right behind begin(). The reference is good
    // until the next call.
    template <class Header>
    Header& header(const Header& value) {
        const std::size_t at = append(&value, sizeof value);
        return *reinterpret_cast<Header*>(bytes_.data() + at);
    }

    void attr(std::uint16_t type, const void* data, std::size_t size);
    void attr(std::uint16_t type, Bytes data) { attr(type, data.data(), data.size()); }
    void attr_u8(std::uint16_t type, std::uint8_t value) { attr(type, &value, sizeof value); }
    void attr_u16(std::uint16_t type, std::uint16_t value) { attr(type, &value, sizeof value); }
    void attr_u32(std::uint16_t type, std::uint32_t value) { attr(type, &value, sizeof value); }
    // The port in network order, as the attribute wants it.
    void attr_port(std::uint16_t type, std::uint16_t host_order_port);
    // The text and a terminating 0.
    void attr_text(std::uint16_t type, std::string_view text);

    // Opens an attribute that holds attributes and is marked so (NLA_F_NESTED); its length is filled in by
    // end_nest(). Nests may nest.
    std::size_t begin_nest(std::uint16_t type);
    void end_nest(std::size_t nest);

    // Bytes inside an attribute that are no attribute (a next hop's header); returns their place.
    std::size_t append(const void* data, std::size_t size);
    void patch_u16(std::size_t at, std::uint16_t value) { std::memcpy(&bytes_[at], &value, sizeof value); }

    void end();

    // A length field could not hold what was put behind it; the message must not be sent.
    bool overflow() const { return overflow_; }

    std::size_t size() const { return bytes_.size(); }
    Bytes bytes() const { return bytes_; }
    std::uint8_t* data() { return bytes_.data(); }
    void clear() {
        bytes_.clear();
        overflow_ = false;
    }
    // Drops everything from `size` on: the message begun there.
    void cut(std::size_t size) {
        bytes_.resize(size);
        overflow_ = false;
    }
    void reserve(std::size_t size) { bytes_.reserve(size); }

private:
    std::vector<std::uint8_t> bytes_;
    std::size_t message_ = 0;
    bool overflow_ = false;
};

// One attribute of a received message. Reading more than is there gives 0 or less text, never a stray byte.
struct Attr {
    std::uint16_t type = 0;  // without the nested and byte-order flags
    Bytes data;

    std::uint8_t u8() const { return value<std::uint8_t>(); }
    std::uint16_t u16() const { return value<std::uint16_t>(); }
    std::uint32_t u32() const { return value<std::uint32_t>(); }
    std::string_view text() const {
        const auto* begin = reinterpret_cast<const char*>(data.data());
        return {begin, data.empty() ? 0 : ::strnlen(begin, data.size())};
    }

private:
    template <class T>
    T value() const {
        T out{};
        if (data.size() >= sizeof out) std::memcpy(&out, data.data(), sizeof out);
        return out;
    }
};

// The attributes in `bytes`: for (Attr attr : Attrs(bytes)). Ends quietly at the first one that does not fit.
class Attrs {
public:
    explicit Attrs(Bytes bytes) : bytes_(bytes) {}

    class Iterator {
    public:
        explicit Iterator(Bytes rest) : rest_(rest) { load(); }
        const Attr& operator*() const { return attr_; }
        Iterator& operator++() {
            rest_ = rest_.subspan(step_);
            load();
            return *this;
        }
        bool operator==(const Iterator& other) const { return rest_.size() == other.rest_.size(); }

    private:
        void load();
        Bytes rest_;
        std::size_t step_ = 0;
        Attr attr_;
    };
    Iterator begin() const { return Iterator(bytes_); }
    Iterator end() const { return Iterator(bytes_.last(0)); }

private:
    Bytes bytes_;
};

// A received message: its header and what stands behind it.
struct MessageView {
    nlmsghdr head{};
    Bytes payload;

    // False: the payload is too short for this header.
    template <class Header>
    bool read_header(Header& header) const {
        if (payload.size() < sizeof header) return false;
        std::memcpy(&header, payload.data(), sizeof header);
        return true;
    }
    // The attributes behind a family header of `header_size` bytes.
    Attrs attrs(std::size_t header_size) const {
        const std::size_t at = NLMSG_ALIGN(header_size);
        return Attrs(at < payload.size() ? payload.subspan(at) : payload.last(0));
    }
};

// Takes the next message off the front of a received datagram. False: none (left), or it is cut short.
bool next_message(Bytes& datagram, MessageView& message);

}  // namespace corvo::nl
