#include "edged/links.h"

#include <arpa/inet.h>
#include <corvosetup/link.h>
#include <corvosetup/privatelink.h>
#include <corvosetup/rglink.h>
#include <corvosetup/tun.h>
#include <corvosetup/tun6.h>
#include <corvosetup/utils.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>

namespace edged {

namespace {

constexpr unsigned kNoMultipath = 0x80000;  // the device kernel's IFF_NOMULTIPATH

std::string slave_of(const Json::Value& element) {
    return text_of(element, "slave");
}

// The library's constructors take the element by reference and fill in nothing, but may not be handed a const
// one.
template <class Link>
Link make_wan_link(const Json::Value& element) {
    Json::Value copy = element;
    return Link(slave_of(element), copy, 0);
}
template <class Link>
Link make_port_link(const Json::Value& element) {
    Json::Value copy = element;
    return Link(slave_of(element), copy);
}

std::string port_text(const Json::Value& element) {
    const std::string slave = slave_of(element);
    const std::size_t cut = slave.find("swdev") != std::string::npos ? 5 : 3;
    return slave.size() > cut ? slave.substr(cut) : std::string();
}

std::string port_device(const Json::Value& element) {
    const std::string port = port_text(element);
    return std::atoi(port.c_str()) != 0 ? "tun" + port : std::string();
}

std::string port_address(const Json::Value& element, int device_id) {
    std::string out;
    gen_tun_addr4(device_id, std::atoi(port_text(element).c_str()), out);
    return out;
}

bool has_address(const std::string& dev, const std::string& wanted) {
    ifaddrs* head = nullptr;
    if (getifaddrs(&head) != 0) return false;
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> list(head, freeifaddrs);
    unsigned char bytes[16];
    const int family = wanted.find(':') != std::string::npos ? AF_INET6 : AF_INET;
    if (inet_pton(family, wanted.c_str(), bytes) != 1) return false;
    for (const ifaddrs* at = head; at != nullptr; at = at->ifa_next) {
        if (at->ifa_addr == nullptr || at->ifa_addr->sa_family != family || dev != at->ifa_name) continue;
        const void* found =
            family == AF_INET
                ? static_cast<const void*>(&reinterpret_cast<sockaddr_in*>(at->ifa_addr)->sin_addr)
                : &reinterpret_cast<sockaddr_in6*>(at->ifa_addr)->sin6_addr;
        if (std::memcmp(found, bytes, family == AF_INET ? 4 : 16) == 0) return true;
    }
    return false;
}

bool is_up(int ifindex) {
    unsigned flags = 0;
    return get_dev_flags(ifindex, &flags) == 0 && (flags & IFF_UP) != 0;
}

// The device is there, up and carries its address: what a completed setup leaves behind.
bool kernel_fits(const LinkKind& kind, const Json::Value& element, int device_id) {
    const std::string dev = kind.device(element);
    const int index = get_ifindex(dev.c_str());
    return index > 0 && is_up(index) && has_address(dev, kind.address(element, device_id));
}

std::string key_of(const LinkKind& kind, const std::string& name) {
    return std::string(kind.name) + ":" + name;
}

// Before a device goes: the step is begun, and what the library takes down with it is in doubt. Deleting one
// private link empties the default table of all of them.
void begin(const LinkKind& kind, const std::string& key, const Json::Value& next, Ledger& ledger) {
    ledger.begin(key, next);
    if (&kind != &kPrivate) return;
    ledger.doubt("private-routes:");
    ledger.doubt("route:private_default:");
}

// The devices that a record says are there, or may be there.
std::set<std::string> recorded_devices(const LinkKind& kind, const Json::Value& record) {
    std::set<std::string> out;
    for (const char* which : {"applied", "begun"})
        if (record[which].isObject()) out.insert(kind.device(record[which]));
    out.erase("");
    return out;
}

int remove_recorded(const LinkKind& kind, const std::string& key, Ledger& ledger) {
    const Json::Value record = ledger.record(key);
    begin(kind, key, record["begun"], ledger);
    int code = 0;
    for (const char* which : {"applied", "begun"}) {
        if (!record[which].isObject() || kind.device(record[which]).empty()) continue;
        if (const int result = kind.setup(1, record[which]); result != 0) code = result;
    }
    if (code == 0) ledger.drop(key);
    return code;
}

void report_removal(const LinkKind& kind, const std::string& key, Ledger& ledger, Report& report) {
    const int code = remove_recorded(kind, key, ledger);
    report.change(key, code == 0 ? Change::kRemoved : Change::kFailed, code);
}

Json::Value made_from(const LinkKind& kind, const Json::Value& element) {
    Json::Value out(Json::objectValue);
    for (const char* member : kind.members)
        if (element.isObject() && element.isMember(member)) out[member] = element[member];
    return out;
}

void apply_link(const LinkKind& kind, const std::string& name, const Json::Value& reported, int device_id,
                Ledger& ledger, Report& report) {
    const Json::Value element = made_from(kind, reported);
    const std::string key = key_of(kind, name);
    const std::string dev = kind.device(element);
    const bool fits = kernel_fits(kind, element, device_id);
    if (fits && ledger.fits(key, element, get_ifindex(dev.c_str()))) {
        report.change(key, Change::kAdopted, 0);
        return;
    }
    const Json::Value recorded = ledger.record(key);
    if (fits && recorded.isNull()) {
        // Somebody completed the device, but maybe not its rules.
        const int code = kind.ensure(element);
        if (code == 0) ledger.put(key, element, get_ifindex(dev.c_str()));
        report.change(key, code == 0 ? Change::kAdopted : Change::kFailed, code);
        return;
    }
    const bool replaces = get_ifindex(dev.c_str()) > 0;
    begin(kind, key, element, ledger);
    if (get_ifindex(dev.c_str()) > 0) kind.setup(1, element);
    const int code = kind.setup(0, element);
    if (code == 0) ledger.put(key, element, get_ifindex(dev.c_str()));
    report.change(key, code != 0 ? Change::kFailed : replaces ? Change::kReplaced : Change::kCreated, code);
}

}  // namespace

const LinkKind kTunnel{
    "tun",
    {"slave", "id", "tun_addr"},
    [](int op, const Json::Value& e) { return make_wan_link<Tun>(e).setup_tun(op); },
    [](const Json::Value& e) { return make_wan_link<Tun>(e).setup_tun_rule(); },
    [](const Json::Value& e) { return slave_of(e).empty() ? std::string() : "tun" + text_of(e, "id"); },
    [](const Json::Value& e, int) { return text_of(e, "tun_addr"); }};

const LinkKind kTunnel6{"tun6",
                        {"slave", "id", "tun_addr", "ip6_addr"},
                        [](int op, const Json::Value& e) { return make_wan_link<Tun6>(e).setup_tun(op); },
                        [](const Json::Value& e) {
                            auto link = make_wan_link<Tun6>(e);
                            const int code = link.set_tun_flag(kNoMultipath);
                            return code != 0 ? code : link.setup_tun_rule();
                        },
                        [](const Json::Value& e) {
                            return slave_of(e).empty() || text_of(e, "ip6_addr").empty()
                                       ? std::string()
                                       : "ip6tun" + text_of(e, "id");
                        },
                        [](const Json::Value& e, int) { return "::" + text_of(e, "tun_addr"); }};

const LinkKind kPrivate{
    "private",
    {"slave", "ip4_addr", "prio", "private_group_id"},
    [](int op, const Json::Value& e) { return make_port_link<PrivateLink>(e).setup_tun(op); },
    [](const Json::Value& e) {
        auto link = make_port_link<PrivateLink>(e);
        const int code = link.setup_tun_rule();
        return code != 0 ? code : link.presetup_tun_routing();
    },
    port_device,
    port_address};

const LinkKind kRegional{
    "rglink",
    {"slave", "ip4_addr"},
    [](int op, const Json::Value& e) { return make_port_link<RgLink>(e).setup_tun(op); },
    [](const Json::Value& e) { return make_port_link<RgLink>(e).set_tun_flag(kNoMultipath); },
    port_device,
    port_address};

void apply_links(const LinkKind& kind, const std::map<std::string, Json::Value>& elements, int device_id,
                 Ledger& ledger, Report& report) {
    const std::string prefix = key_of(kind, "");
    // First all that goes, so that links may exchange their numbers.
    for (const auto& key : ledger.keys(prefix)) {
        const auto found = elements.find(key.substr(prefix.size()));
        const std::string dev = found == elements.end() ? "" : kind.device(found->second);
        if (dev.empty())
            report_removal(kind, key, ledger, report);
        else if (const auto devices = recorded_devices(kind, ledger.record(key));
                 !devices.empty() && devices != std::set<std::string>{dev})
            remove_recorded(kind, key, ledger);
    }
    for (const auto& [name, element] : elements)
        if (!kind.device(element).empty()) apply_link(kind, name, element, device_id, ledger, report);
}

void remove_links(const LinkKind& kind, Ledger& ledger, Report& report) {
    for (const auto& key : ledger.keys(key_of(kind, ""))) report_removal(kind, key, ledger, report);
}

}  // namespace edged
