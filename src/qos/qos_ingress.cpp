// The ingress limit of an interface: a one-class tree on its ifb device, built with the system's tc.

#include <string>

#include "corvosetup/qos.h"
#include "foundation/command.h"
#include "foundation/guard.h"
#include "foundation/log_line.h"
#include "qos/shaper.h"

using corvo::guarded;
namespace log_ = corvo::log;

namespace {

constexpr const char* kFile = "qos.cpp";
constexpr int kNoSuchCommand = 127 << 8;  // what a shell reports for a tool that is not there

// The wait status of one tc command, which is logged whatever it is.
int run(const std::string& command) {
    int status = corvo::run_command(corvo::split_words(command));
    if (status < 0) status = kNoSuchCommand;
    log_::debug("Command [", command, "], ret: ", status);
    return status;
}

// "replace" when `object` of the device shows `kind` already, which is when deleting it did not take effect.
// The device's name is one of ours, "ifb" and a number: nothing a shell could take for anything else.
std::string verb(const char* object, const std::string& device, const char* kind) {
    const std::string test = std::string("/sbin/tc ") + object + " show dev " + device + " | /bin/grep " +
                             kind + " >/dev/null 2>&1";
    return corvo::run_shell(test) == 0 ? "replace" : "add";
}

}  // namespace

int ProcQoS::check_ifb_iface() {
    return guarded([&]() -> int {
        const log_::Entry entry{kFile, "check_ifb_iface"};
        return entry.leave(corvo::qos::check_device(ifb));
    });
}

int ProcQoS::setup_ingress_limit() {
    return guarded([&]() -> int {
        const log_::Entry entry{kFile, "setup_ingress_limit"};
        if (const int result = check_ifb_iface(); result < 0) {
            log_::error("No ifb iface: ", ifb);
            return entry.leave(result);
        }
        const unsigned long bits = in_ceil * 8;
        const std::string rate = std::to_string(bits);
        log_::debug("Setup ", ifb, "'s ingress ", bits / 1'000'000, "mbits with type [htb].\n");
        log_::debug("Clean ", ifb, "'s Qdisc.\n");
        run("/sbin/tc qdisc del dev " + ifb + " root");
        run("/sbin/tc qdisc " + verb("qdisc", ifb, "htb") + " dev " + ifb + " root handle 1: htb default 1");
        run("/sbin/tc class " + verb("class", ifb, "htb") + " dev " + ifb +
            " parent 1: classid 1:1 htb rate " + rate + " ceil " + rate);
        return entry.leave(
            run("/sbin/tc qdisc " + verb("qdisc", ifb, "fq") + " dev " + ifb + " parent 1:1 handle 10: fq"));
    });
}
