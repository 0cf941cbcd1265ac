#include "fake_device.h"

#include <new>
#include <sstream>

#include "corvosetup/link.h"
#include "corvosetup/log.h"
#include "corvosetup/routing.h"
#include "foundation/json.h"
#include "foundation/text.h"
#include "netlink/route_session.h"

using corvo::array_text;
using corvo::test::FakeDevice;

namespace corvo::test {

namespace {
FakeDevice* device = nullptr;
}

Json::Value json(const std::string& text) {
    Json::Value value;
    if (!parse_json(text, value)) throw std::runtime_error("no JSON: " + text);
    return value;
}

FakeDevice::FakeDevice() {
    device = this;
    reopen_setup_logger(log_);
    clear_log(log_);
}

FakeDevice::~FakeDevice() {
    reopen_setup_logger("/dev/null");
    device = nullptr;
}

FakeDevice& FakeDevice::current() {
    return *device;
}

int FakeDevice::answer(const std::string& call) {
    calls.push_back(call);
    if (!no_memory_for_.empty() && call.find(no_memory_for_) != std::string::npos) throw std::bad_alloc();
    int result = 0;
    for (const auto& [part, code] : results_) {
        if (call.find(part) != std::string::npos) result = code;
    }
    return result;
}

void FakeDevice::entry(const std::string& ifname, const std::string& text) {
    entries[ifname] = json(text);
    entries[ifname]["ifname"] = ifname;
}

std::string FakeDevice::document(const std::string& text) {
    const std::string path = dir_ / ("document" + std::to_string(documents_++));
    write_file(path, text);
    return path;
}

std::vector<std::string> FakeDevice::log() const {
    std::vector<std::string> texts;
    for (const std::string& text : log_texts(log_)) {
        const auto has = [&](const char* part) { return text.find(part) != std::string::npos; };
        if (has(".cpp::") || has("Load config from") || has("vx_")) continue;
        texts.push_back(text);
    }
    return texts;
}

std::vector<std::string> FakeDevice::errors() const {
    std::vector<std::string> texts;
    for (const std::string& text : log()) {
        if (text.starts_with("[ERROR]") || text.starts_with("[WARNING]")) texts.push_back(text);
    }
    return texts;
}

std::vector<std::string> FakeDevice::only(const std::string& what) const {
    std::vector<std::string> texts;
    for (const std::string& call : calls) {
        if (call.starts_with(what)) texts.push_back(call);
    }
    return texts;
}

}  // namespace corvo::test

namespace {

template <class Record>
std::string describe_route(const char* name, int op, const Record& record) {
    std::ostringstream text;
    text << name << " " << op << " " << array_text(record.dst) << "/" << record.prefixlen
         << " table=" << record.table << " metric=" << record.priority;
    if (record.lock != 0)
        text << " lock=" << record.lock << " mtu=" << record.mtu << " mss=" << record.advmss;
    for (const auto* hop = record.nexthops; hop != nullptr; hop = hop->next) {
        text << " via=" << array_text(hop->gw) << "," << array_text(hop->dev) << "," << hop->weight;
        if constexpr (std::is_same_v<Record, route_conf>) text << (hop->onlink != 0 ? ",onlink" : "");
    }
    return text.str();
}

template <class Record>
std::string describe_rule(const char* name, int op, const Record& record) {
    std::ostringstream text;
    text << name << " " << op << " prio=" << record.prio;
    if (record.table != 0) text << " table=" << record.table;
    if (record.mark != 0 || record.mask != 0) text << " mark=" << record.mark << "/" << record.mask;
    if (record.src[0] != '\0') text << " from=" << array_text(record.src);
    if (record.oif[0] != '\0') text << " oif=" << array_text(record.oif);
    return text.str();
}

std::string describe_flags(const char* name, int ifindex, unsigned flags) {
    return std::string(name) + " " + std::to_string(ifindex) + " " + std::to_string(flags);
}

int ask_list(const char* list, FakeDevice::EntryMap& out, const std::string& path, int comprehensive) {
    FakeDevice& device = FakeDevice::current();
    device.asked = std::string(list) + " " + path + " " + std::to_string(comprehensive);
    if (device.service_result == 0) out = device.entries;
    return device.service_result;
}

struct Pending {
    std::vector<int> results;
    int opened = 0;
} pending;

}  // namespace

extern "C" {

int __wrap_edit_route(int op, route_conf* record) {
    return FakeDevice::current().answer(describe_route("edit_route", op, *record));
}
int __wrap_edit_route6(int op, route6_conf* record) {
    return FakeDevice::current().answer(describe_route("edit_route6", op, *record));
}
int __wrap_edit_rule(int op, rule_conf* record) {
    return FakeDevice::current().answer(describe_rule("edit_rule", op, *record));
}
int __wrap_edit_rule6(int op, rule6_conf* record) {
    return FakeDevice::current().answer(describe_rule("edit_rule6", op, *record));
}

nexthop* __real_add_nexthop(nexthop** head);
nexthop* __wrap_add_nexthop(nexthop** head) {
    return FakeDevice::current().hops_left-- > 0 ? __real_add_nexthop(head) : nullptr;
}
nexthop6* __real_add_nexthop6(nexthop6** head);
nexthop6* __wrap_add_nexthop6(nexthop6** head) {
    return FakeDevice::current().hops_left-- > 0 ? __real_add_nexthop6(head) : nullptr;
}

int __wrap_edit_ipip_tunnel(int op, ipip_conf* conf) {
    FakeDevice& device = FakeDevice::current();
    std::ostringstream text;
    text << "edit_ipip_tunnel " << op << " " << array_text(conf->name) << " local=" << array_text(conf->local)
         << " remote=" << array_text(conf->remote) << " addr=" << array_text(conf->addr)
         << " queues=" << conf->queues << " ttl=" << int{conf->ttl} << " sport=" << conf->sport
         << " dport=" << conf->dport;
    const int result = device.answer(text.str());
    if (result != 0) return result;
    if (op == 0) device.devices.emplace(array_text(conf->name), 40 + device.devices.size());
    if (op == 1) device.devices.erase(std::string(array_text(conf->name)));
    return 0;
}
int __wrap_edit_sit_tunnel(int op, sit_conf* conf) {
    FakeDevice& device = FakeDevice::current();
    std::ostringstream text;
    text << "edit_sit_tunnel " << op << " " << array_text(conf->name) << " local=" << array_text(conf->local)
         << " remote=" << array_text(conf->remote) << " addr6=" << array_text(conf->addr6)
         << " queues=" << conf->queues << " ttl=" << int{conf->ttl};
    const int result = device.answer(text.str());
    if (result != 0) return result;
    if (op == 0) device.devices.emplace(array_text(conf->name), 40 + device.devices.size());
    if (op == 1) device.devices.erase(std::string(array_text(conf->name)));
    return 0;
}

int __wrap_get_dev_flags(int ifindex, unsigned* flags) {
    *flags = 0x1043;
    return FakeDevice::current().answer(describe_flags("get_dev_flags", ifindex, 0));
}
int __wrap_set_dev_flags(int ifindex, unsigned flags) {
    return FakeDevice::current().answer(describe_flags("set_dev_flags", ifindex, flags));
}
int __wrap_unset_dev_flags(int ifindex, unsigned flags) {
    return FakeDevice::current().answer(describe_flags("unset_dev_flags", ifindex, flags));
}

int __wrap_get_ifindex(const char* ifname) {
    const auto& devices = FakeDevice::current().devices;
    const auto found = devices.find(ifname);
    return found != devices.end() ? found->second : 0;
}
int __wrap_get_ipv4_addr(int ifindex, char* addr) {
    FakeDevice& device = FakeDevice::current();
    std::strcpy(addr, device.port_address.c_str());
    return device.answer("get_ipv4_addr " + std::to_string(ifindex));
}
int __wrap_set_ipv4_addr(int ifindex, const char* addr) {
    return FakeDevice::current().answer("set_ipv4_addr " + std::to_string(ifindex) + " " + addr);
}
int __wrap_set_ipv6_addr(int ifindex, const char* addr) {
    return FakeDevice::current().answer("set_ipv6_addr " + std::to_string(ifindex) + " " + addr);
}

}  // extern "C"

#define STRING_ABI "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"
#define MAP_ABI                                                   \
    "RSt13unordered_mapI" STRING_ABI                              \
    "N4Json5ValueESt4hashIS5_ESt8equal_toIS5_ESaISt4pairIKS5_S7_" \
    "EEES5_i"

int fake_device_id() asm("__wrap__Z13get_device_idv");
int fake_device_id() {
    return FakeDevice::current().device_id;
}

int fake_setup_cpus(std::string ifname) asm("__wrap__Z10setup_cpus" STRING_ABI);
int fake_setup_cpus(std::string ifname) {
    return FakeDevice::current().answer("setup_cpus " + ifname);
}

int fake_write_value(std::string path, int value) asm("__wrap__Z11write_value" STRING_ABI "i");
int fake_write_value(std::string path, int value) {
    return FakeDevice::current().answer("write_value " + path + " " + std::to_string(value));
}

int fake_wans(FakeDevice::EntryMap& out, std::string path,
              int comprehensive) asm("__wrap__Z22get_available_wan_info" MAP_ABI);
int fake_wans(FakeDevice::EntryMap& out, std::string path, int comprehensive) {
    return ask_list("wan", out, path, comprehensive);
}
int fake_privates(FakeDevice::EntryMap& out, std::string path,
                  int comprehensive) asm("__wrap__Z26get_available_private_info" MAP_ABI);
int fake_privates(FakeDevice::EntryMap& out, std::string path, int comprehensive) {
    return ask_list("private", out, path, comprehensive);
}
int fake_rglinks(FakeDevice::EntryMap& out, std::string path,
                 int comprehensive) asm("__wrap__Z25get_available_rglink_info" MAP_ABI);
int fake_rglinks(FakeDevice::EntryMap& out, std::string path, int comprehensive) {
    return ask_list("rglink", out, path, comprehensive);
}

int fake_open(corvo::nl::RouteSession*) asm("__wrap__ZN5corvo2nl12RouteSession4openEv");
int fake_open(corvo::nl::RouteSession*) {
    pending.results.clear();
    return FakeDevice::current().open_result;
}
void fake_submit(corvo::nl::RouteSession*, unsigned op,
                 const route_conf& record) asm("__wrap__ZN5corvo2nl12RouteSession6submitEjRK10route_conf");
void fake_submit(corvo::nl::RouteSession*, unsigned op, const route_conf& record) {
    pending.results.push_back(
        FakeDevice::current().answer(describe_route("edit_route", static_cast<int>(op), record)));
}
std::vector<int> fake_finish(corvo::nl::RouteSession*) asm("__wrap__ZN5corvo2nl12RouteSession6finishEv");
std::vector<int> fake_finish(corvo::nl::RouteSession*) {
    return std::exchange(pending.results, {});
}
