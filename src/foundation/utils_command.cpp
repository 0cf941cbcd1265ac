#include <net/if.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "corvosetup/utils.h"
#include "foundation/command.h"
#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"

namespace {

// A line for exec_c's caller: 512 bytes with the terminator.
constexpr std::size_t kLineSize = 512;

// What is kept of a command's output: no tool of ours comes near it, and a runaway does not take the daemon's
// memory.
constexpr std::size_t kOutputLimit = 64U << 20;

std::string output_of(const char* pipeline) {
    std::string command = pipeline;
    return exec(command);
}

// A figure that is none ("nan" from a tool that divided by zero) is reported as 0: peers refuse a document
// with a null in it.
float figure(const std::string& text) {
    const double value = std::strtod(text.c_str(), nullptr);
    const auto narrow = static_cast<float>(value);
    return std::isfinite(narrow) ? narrow : 0.0F;
}

}  // namespace

std::string exec(std::string& command) {
    return corvo::guarded_or(std::string(), [&] {
        std::string output;
        if (!corvo::capture_shell(command, output, kOutputLimit)) {
            corvo::log::error("pipe error\n");
            output.clear();
        }
        return output;
    });
}

int exec_c(const char* command, char* buf) {
    return corvo::guarded([&]() -> int {
        if (command == nullptr || buf == nullptr) return corvo::kNullArgument;
        buf[0] = '\0';
        std::string line;
        if (!corvo::capture_shell_line(command, line, kLineSize - 1)) return corvo::kFailed;
        std::memcpy(buf, line.c_str(), line.size() + 1);
        return corvo::kOk;
    });
}

int get_ifindex(const char* ifname) {
    return ifname == nullptr ? 0 : static_cast<int>(if_nametoindex(ifname));
}

char* get_ifname(unsigned int ifindex, char* ifname) {
    return ifname == nullptr ? nullptr : if_indextoname(ifindex, ifname);
}

float get_cpu_usage() {
    return corvo::guarded_or(
        0.0F, [] { return figure(output_of("/bin/mpstat | /bin/awk '$12 ~ /[0-9.]+/ {print 100 - $12}'")); });
}

float get_mem_usage() {
    return corvo::guarded_or(0.0F, [] {
        return figure(output_of("/bin/free -m | /bin/grep Mem | /bin/awk '{print $3/$2 * 100.0}'"));
    });
}

int get_wan_port_num() {
    return corvo::guarded_or(0, [] {
        return corvo::text_to_int(
            output_of("/bin/jq '.WAN_PORT|length' /etc/networkmanagement/device_info.json"));
    });
}

int get_ipsec_intalled_num() {
    return corvo::guarded_or(
        0, [] { return corvo::text_to_int(output_of("/sbin/ipsec statusall | /bin/grep -c INSTALLED")); });
}

void conntrack_flush_wan_nat(std::string filter) {
    corvo::guarded_void([&] {
        corvo::log::ensure_file();
        // The line numbers are those that the fleet's log parsers look for.
        const corvo::log::Entry entry("utils.cpp", "conntrack_flush_wan_nat", corvo::log::Entry::Word::kEnter,
                                      367);
        std::string command = "/usr/sbin/conntrack -D -n " + filter;
        entry.leave_text("\n" + exec(command), 370);
    });
}
