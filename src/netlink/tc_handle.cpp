#include "netlink/tc_handle.h"

#include <linux/pkt_sched.h>
#include <netlink/errno.h>
#include <netlink/route/tc.h>
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace corvo::tc {
namespace {

constexpr std::size_t kLongestName = 63;

std::mutex& name_tables() {
    static std::mutex* mutex = new std::mutex;  // outlives every thread
    return *mutex;
}

bool is_name(std::string_view text) {
    if (text.empty() || text.size() > kLongestName) return false;
    for (unsigned char c : text) {
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        const bool digit = c >= '0' && c <= '9';
        if (!letter && !digit && c != '.' && c != '_' && c != '-') return false;
    }
    return true;
}

// One hexadecimal number of at most 32 bits; more bits are cut, as they are for everybody else who reads
// handles with strtoul.
std::uint32_t read_hex(const char* text, const char*& end) {
    char* stop = nullptr;
    const auto value = static_cast<std::uint32_t>(std::strtoul(text, &stop, 16));
    end = stop;
    return value;
}

}  // namespace

HandleStatus parse_number(const char* text, std::uint32_t& handle) {
    if (!strcasecmp(text, "root")) return handle = TC_H_ROOT, HandleStatus::kOk;
    if (!strcasecmp(text, "none")) return handle = TC_H_UNSPEC, HandleStatus::kOk;
    if (!strcasecmp(text, "ingress")) return handle = TC_H_INGRESS, HandleStatus::kOk;

    const char* end = nullptr;
    std::uint32_t major = read_hex(text, end);
    if (end == text) {
        if (*end != ':') return HandleStatus::kNotFound;
        major = 0;
    } else if (*end == '\0') {
        return handle = major, HandleStatus::kOk;  // major and minor in one number
    } else if (*end != ':') {
        return HandleStatus::kNotFound;
    }
    if (TC_H_MAJ(major)) return HandleStatus::kInvalid;
    const char* minor_text = end + 1;
    if (*minor_text == '\0') return handle = major << 16, HandleStatus::kOk;
    const std::uint32_t minor = read_hex(minor_text, end);
    if (TC_H_MAJ(minor) || *end != '\0') return HandleStatus::kInvalid;
    return handle = (major << 16) | minor, HandleStatus::kOk;
}

HandleStatus parse_handle(const char* text, std::uint32_t& handle) {
    const HandleStatus number = parse_number(text, handle);
    if (number != HandleStatus::kNotFound) return number;
    const char* colon = std::strchr(text, ':');
    if (!is_name(colon ? std::string_view(text, colon - text) : std::string_view(text))) {
        return HandleStatus::kInvalid;
    }
    std::uint32_t found = 0;
    std::lock_guard lock(name_tables());
    const int answer = rtnl_tc_str2handle(text, &found);
    if (answer == -NLE_OBJ_NOTFOUND) return HandleStatus::kNotFound;
    if (answer < 0) return HandleStatus::kInvalid;
    return handle = found, HandleStatus::kOk;
}

bool parse_or_generate(const char* text, std::uint32_t parent, std::uint32_t& handle) {
    const HandleStatus status = parse_handle(text, handle);
    if (status == HandleStatus::kOk) return true;
    // A text with a colon that was refused is a mistyped number ("x:y:z"). Entering it would give it a
    // meaning.
    if (status == HandleStatus::kInvalid || std::strchr(text, ':')) return false;
    std::lock_guard lock(name_tables());
    return rtnl_classid_generate(text, &handle, parent) == 0;
}

std::string format_handle(std::uint32_t handle) {
    if (handle == TC_H_ROOT) return "root";
    if (handle == TC_H_UNSPEC) return "none";
    if (handle == TC_H_INGRESS) return "ingress";
    char text[16];
    const unsigned major = handle >> 16;
    const unsigned minor = TC_H_MIN(handle);
    if (!major) {
        std::snprintf(text, sizeof text, ":%x", minor);
    } else if (!minor) {
        std::snprintf(text, sizeof text, "%x:", major);
    } else {
        std::snprintf(text, sizeof text, "%x:%x", major, minor);
    }
    return text;
}

}  // namespace corvo::tc
