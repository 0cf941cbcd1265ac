// The way back to an earlier state: what the kernel reports is, but for the type, what it takes for deleting
// and adding.
#include <linux/if_link.h>
#include <linux/pkt_sched.h>
#include <sys/socket.h>

#include <cstring>

#include "kernel_state.h"
#include "rtnetlink.h"
#include "support/sandbox.h"

namespace corvo::test {

namespace {

template <class Header>
Header header_of(const std::string& message) {
    Header header{};
    std::memcpy(&header, message.data(), sizeof header);
    return header;
}
template <class Header>
std::string as_body(const Header& header) {
    return {reinterpret_cast<const char*>(&header), sizeof header};
}

// The kernel refuses the flags that it reports of routes over devices without carrier.
std::string route_request(const std::string& message) {
    auto route = header_of<rtmsg>(message);
    route.rtm_flags &= RTNH_F_ONLINK;
    return as_body(route) + message.substr(sizeof route);
}

std::string first_word(const std::string& line) {
    return line.substr(0, line.find(' '));
}

class Restorer {
public:
    Restorer(const KernelState& base, const KernelState& now) : base_(base), now_(now) {}

    void run() {
        const bool devices = changed("link") || changed("addr");
        remove_links();
        remove_queueing();
        for (const char* section : {"rule", "rule6"})
            for (const auto& line : added(section)) rtnetlink_.tell(RTM_DELRULE, 0, message(section, line));
        for (const char* section : {"route", "route6"})
            for (const auto& line : added(section))
                rtnetlink_.tell(RTM_DELROUTE, 0, route_request(message(section, line)));
        for (const auto& line : added("addr")) rtnetlink_.tell(RTM_DELADDR, 0, message("addr", line));
        if (devices) set_flags();
        // Addresses, and with them routes, go with a device that is down and with a first address.
        if (devices) add_all("addr", RTM_NEWADDR);
        for (const char* section : {"rule", "rule6"})
            for (const auto& line : base_.beyond(now_, section))
                rtnetlink_.tell(RTM_NEWRULE, kNew, base_.messages.at(section).at(line));
        if (devices || changed("route")) add_all("route", RTM_NEWROUTE);
        if (devices || changed("route6")) add_all("route6", RTM_NEWROUTE);
        for (const auto& line : base_.beyond(now_, "condition"))
            write_file(kConditionDir + first_word(line), line.substr(line.find(' ') + 1));
    }

private:
    static constexpr int kNew = NLM_F_CREATE | NLM_F_EXCL;

    bool changed(const char* section) const {
        return base_.sections.at(section) != now_.sections.at(section);
    }
    std::vector<std::string> added(const char* section) const { return now_.beyond(base_, section); }
    const std::string& message(const char* section, const std::string& line) const {
        return now_.messages.at(section).at(line);
    }

    void remove_links() {
        for (const auto& line : added("link")) {
            bool kept = false;
            for (const auto& other : base_.sections.at("link")) kept |= first_word(other) == first_word(line);
            if (kept) continue;
            ifinfomsg gone{};
            gone.ifi_index = header_of<ifinfomsg>(message("link", line)).ifi_index;
            rtnetlink_.tell(RTM_DELLINK, 0, as_body(gone));
        }
    }
    void remove_queueing() {
        for (const auto& line : added("qdisc")) {
            auto gone = header_of<tcmsg>(message("qdisc", line));
            if (gone.tcm_parent != TC_H_ROOT && gone.tcm_parent != TC_H_INGRESS) continue;
            rtnetlink_.tell(RTM_DELQDISC, 0, as_body(gone));
        }
    }
    void set_flags() {
        for (const auto& line : base_.beyond(now_, "link")) {
            const auto before = header_of<ifinfomsg>(base_.messages.at("link").at(line));
            ifinfomsg link{};
            link.ifi_index = before.ifi_index;
            link.ifi_flags = before.ifi_flags;
            link.ifi_change = ~0U;
            rtnetlink_.tell(RTM_NEWLINK, 0, as_body(link));
        }
    }
    void add_all(const char* section, int type) {
        for (const auto& [line, body] : base_.messages.at(section))
            rtnetlink_.tell(type, kNew, type == RTM_NEWROUTE ? route_request(body) : body);
    }

    const KernelState& base_;
    const KernelState& now_;
    Rtnetlink rtnetlink_;
};

}  // namespace

void restore(const KernelState& base, const KernelState& now) {
    Restorer(base, now).run();
}

}  // namespace corvo::test
