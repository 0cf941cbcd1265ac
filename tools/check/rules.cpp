#include "check/rules.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace check {

namespace {

const Json::Value kNull;

constexpr int kMarkMask = 0xf;

struct Link {
    std::string name;
    std::string pointer;
    long id = 0;
};

std::vector<Link> links_of(const Json::Value& root, const char* section) {
    std::vector<Link> out;
    const Json::Value& links = member_of(root, section);
    if (!links.isObject()) return out;
    for (const auto& name : links.getMemberNames())
        out.push_back({name, std::string("/") + section + "/" + escaped(name), number_of(links[name], "ID")});
    return out;
}

long port_number(const std::string& name) {
    const auto swdev = name.find("swdev");
    const auto eth = name.find("eth");
    if (swdev != std::string::npos && name.size() > 5) return std::atol(name.c_str() + 5);
    if (eth != std::string::npos && name.size() > 3) return std::atol(name.c_str() + 3);
    return 0;
}

bool split(const std::string& text, std::string& address, std::string& length) {
    const auto slash = text.find('/');
    address = text.substr(0, slash);
    length = slash == std::string::npos ? "" : text.substr(slash + 1);
    return slash != std::string::npos;
}

bool is_length(const std::string& text, long least, long most) {
    if (text.empty() || text.size() > 3 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const long value = std::atol(text.c_str());
    return value >= least && value <= most;
}

void check_addresses(const Json::Value& link, const Link& at, Notes& notes) {
    for (const char* key : {"IP4_ADDR", "IP4_GW", "TUN_ADDR4"}) {
        const std::string text = text_of(link, key);
        if (text.empty()) continue;
        const bool good = std::string(key) == "IP4_ADDR" ? is_prefix4(text) : is_ip4(text);
        if (!good)
            notes.error(at.pointer + "/" + key, "\"" + text + "\" is no IPv4 address",
                        "Write it as four decimal numbers from 0 to 255.");
    }
    const std::string ip6 = text_of(link, "IP6_ADDR");
    if (!ip6.empty() && !is_prefix6(ip6))
        notes.error(at.pointer + "/IP6_ADDR", "\"" + ip6 + "\" is no IPv6 address",
                    "Leave it empty when the link has none.");
}

// Marks select tunnels by their low four bits.
void check_marks(const std::vector<Link>& wans, const std::vector<Link>& privates, Notes& notes) {
    std::map<long, std::string> owners;
    const auto claim = [&](const Link& link, long number, const char* what) {
        if (number == 0) return;
        const long mark = number & kMarkMask;
        if (mark == 0)
            notes.warning(link.pointer,
                          link.name + ": " + what + " " + std::to_string(number) +
                              " has low four bits 0; its rules match unmarked packets too",
                          "Use numbers from 1 to 15.");
        const auto [owner, fresh] = owners.emplace(mark, link.name);
        if (!fresh)
            notes.warning(link.pointer,
                          link.name + " and " + owner->second + " are selected by the same packet mark " +
                              std::to_string(mark) + " (mask 0xf)",
                          "Give links numbers that differ in their low four bits.");
    };
    for (const auto& link : wans) claim(link, link.id, "id");
    for (const auto& link : privates) claim(link, link.id == 0 ? 0 : port_number(link.name), "port number");
}

void check_names(const std::vector<Link>& wans, const std::vector<Link>& privates,
                 const std::vector<Link>& regionals, Notes& notes) {
    std::map<std::string, std::string> owners;
    const auto claim = [&](const Link& link, const std::string& dev) {
        const auto [owner, fresh] = owners.emplace(dev, link.name);
        if (!fresh)
            notes.error(
                link.pointer, link.name + " and " + owner->second + " both make the tunnel device " + dev,
                "Ids of WAN links and port numbers of private and regional links share one numbering.");
    };
    for (const auto& link : wans)
        if (link.id != 0) claim(link, "tun" + std::to_string(link.id));
    for (const auto* list : {&privates, &regionals})
        for (const auto& link : *list)
            if (link.id != 0 && port_number(link.name) != 0)
                claim(link, "tun" + std::to_string(port_number(link.name)));
}

// Tables and rules of a WAN tunnel are numbered by its id, those of a private link by the index that the
// kernel gave its device: deleting one deletes the rules of the other. A device that is not there yet will
// get an index of which nothing is known.
void check_priorities(const std::vector<Link>& wans, const std::vector<Link>& privates,
                      const std::string& kernel_interfaces, Notes& notes) {
    if (kernel_interfaces.empty()) return;
    for (const auto& link : privates) {
        const std::string dev = "tun" + std::to_string(port_number(link.name));
        long index = 0;
        if (link.id == 0 || !(std::ifstream(kernel_interfaces + "/" + dev + "/ifindex") >> index)) continue;
        for (const auto& wan : wans)
            if (wan.id == index)
                notes.warning(wan.pointer + "/ID",
                              wan.name + " shares its rule priorities with " + dev + " of " + link.name +
                                  ", whose device has the index " + std::to_string(index),
                              "Give " + wan.name + " another id, or delete and create " + dev +
                                  ", which gives it another index.");
    }
}

void check_ids(const std::vector<Link>& wans, Notes& notes) {
    std::map<long, std::string> owners;
    for (const auto& link : wans) {
        if (link.id == 0) {
            notes.warning(link.pointer + "/ID", link.name + " has no id and is never used",
                          "Give it an id from 1 to 255, or remove it.");
            continue;
        }
        if (link.id > 255)
            notes.error(link.pointer + "/ID",
                        "id " + std::to_string(link.id) + " does not fit the condition file's number",
                        "Use ids from 1 to 255.");
        const auto [owner, fresh] = owners.emplace(link.id, link.name);
        if (!fresh)
            notes.error(link.pointer + "/ID", link.name + " has the id of " + owner->second,
                        "Ids are unique: tables, rules and condition files are numbered by them.");
    }
}

}  // namespace

const Json::Value& member_of(const Json::Value& object, const char* key) {
    if (!object.isObject()) return kNull;
    const Json::Value* found = object.find(key, key + std::char_traits<char>::length(key));
    return found != nullptr ? *found : kNull;
}

std::string text_of(const Json::Value& object, const char* key) {
    const Json::Value& value = member_of(object, key);
    return !value.isNull() && value.isConvertibleTo(Json::stringValue) ? value.asString() : std::string();
}

long number_of(const Json::Value& object, const char* key) {
    return std::strtol(text_of(object, key).c_str(), nullptr, 10);
}

std::string escaped(const std::string& member) {
    std::string out;
    for (const char c : member) {
        if (c == '~')
            out += "~0";
        else if (c == '/')
            out += "~1";
        else
            out.push_back(c);
    }
    return out;
}

bool is_ip4(const std::string& text) {
    in_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool is_ip6(const std::string& text) {
    in6_addr address{};
    return inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

bool is_prefix4(const std::string& text) {
    std::string address;
    std::string length;
    return (!split(text, address, length) || is_length(length, 1, 32)) && is_ip4(address);
}

bool is_prefix6(const std::string& text) {
    std::string address;
    std::string length;
    return (!split(text, address, length) || is_length(length, 0, 128)) && is_ip6(address);
}

void check_device_info(const Json::Value& root, const Options& options, Notes notes) {
    const auto wans = links_of(root, "WAN_IFACE_INFO");
    const auto privates = links_of(root, "PRIVATE_IFACE_INFO");
    const auto regionals = links_of(root, "RGLINK_IFACE_INFO");
    if (wans.empty())
        notes.error("/WAN_IFACE_INFO", "no WAN link", "Name at least one WAN interface with its ID.");
    if (number_of(root, "DEVICE_ID") <= 0 && !member_of(root, "DEVICE_ID").isNull())
        notes.error("/DEVICE_ID", "the device has no number", "Without one no tunnel is made.");
    check_ids(wans, notes);
    check_names(wans, privates, regionals, notes);
    check_marks(wans, privates, notes);
    check_priorities(wans, privates, options.kernel_interfaces, notes);
    for (const char* section : {"WAN_IFACE_INFO", "PRIVATE_IFACE_INFO", "RGLINK_IFACE_INFO"}) {
        for (const auto& link : links_of(root, section)) {
            const Json::Value& value = root[section][link.name];
            check_addresses(value, link, notes);
            std::error_code ignored;
            if (link.id != 0 && !options.kernel_interfaces.empty() &&
                !std::filesystem::exists(options.kernel_interfaces + "/" + link.name, ignored))
                notes.warning(link.pointer, "there is no interface " + link.name + " now",
                              "Check the name against \"ip link\".");
            if (link.id != 0 && text_of(value, "TX_RATE").empty())
                notes.warning(
                    link.pointer,
                    link.name +
                        " has no TX_RATE: it is shaped to 1 Mbit/s and weighs nothing in the default route",
                    "Give the link's rate in bit/s.");
        }
    }
    for (const auto& link : privates)
        if (link.id != 0 && port_number(link.name) == 0)
            notes.error(link.pointer, link.name + ": the port number cannot be read from the name",
                        "Private ports are named swdevN or ethN.");
}

void check_qos(const Json::Value& root, Notes notes) {
    const Json::Value& rates = member_of(member_of(root, "QOS"), "RATE");
    if (!rates.isArray()) return;
    long sum = 0;
    bool ended = false;
    int classes = 0;
    for (Json::ArrayIndex i = 0; i < rates.size(); ++i) {
        const std::string pointer = "/QOS/RATE/" + std::to_string(i);
        const long value = rates[i].isIntegral() ? static_cast<long>(rates[i].asLargestInt()) : 0;
        sum += value;
        if (ended && value != 0)
            notes.warning(pointer, "this share is ignored: the list ends at the first 0",
                          "Remove the 0 before it.");
        ended = ended || value == 0;
        if (!ended) ++classes;
    }
    if (sum > 100)
        notes.error("/QOS/RATE", "the shares add up to " + std::to_string(sum) + " percent",
                    "They may add up to 100 at most; 1 percent is kept for management.");
    if (classes >= 15)
        notes.error("/QOS/RATE",
                    std::to_string(classes) + " classes: the 15th has the mark of the management class",
                    "Use 14 classes at most.");
}

void check_lan_qos(const Json::Value& root, Notes notes) {
    std::set<long> groups;
    const Json::Value& list = member_of(root, "GROUPS");
    for (Json::ArrayIndex i = 0; list.isArray() && i < list.size(); ++i) {
        const std::string pointer = "/GROUPS/" + std::to_string(i) + "/PRIO";
        const long prio = number_of(list[i], "PRIO");
        if (prio <= 0 || prio > 0xffff)
            notes.error(pointer, "a class number is 1 to 65535", "Number the groups from 1.");
        if (!groups.insert(prio).second)
            notes.error(pointer, "two groups have the class " + std::to_string(prio),
                        "Give each group a number of its own.");
    }
    for (const char* section : {"UPLINK", "DOWNLINK"}) {
        const Json::Value& rules = member_of(root, section);
        for (Json::ArrayIndex i = 0; rules.isArray() && i < rules.size(); ++i) {
            const std::string pointer = std::string("/") + section + "/" + std::to_string(i);
            if (!groups.count(number_of(rules[i], "PRIO")))
                notes.error(pointer + "/PRIO", "no group has this number",
                            "Name the PRIO of an entry of GROUPS.");
            for (const char* key : {"SMAC", "DMAC"}) {
                const std::string mac = text_of(rules[i], key);
                unsigned char bytes[6];
                char rest = 0;
                if (!mac.empty() &&
                    std::sscanf(mac.c_str(), "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx%c", &bytes[0], &bytes[1],
                                &bytes[2], &bytes[3], &bytes[4], &bytes[5], &rest) != 6)
                    notes.error(pointer + "/" + key, "\"" + mac + "\" is no MAC address",
                                "Write six octets in hexadecimal with colons between them.");
            }
            for (const char* key : {"SIP", "DIP"}) {
                const std::string ip = text_of(rules[i], key);
                if (!ip.empty() && !is_ip4(ip))
                    notes.error(pointer + "/" + key, "\"" + ip + "\" is no IPv4 address",
                                "Write it as four decimal numbers.");
            }
            for (const auto& [key, address] : {std::pair{"SMASK", "SIP"}, std::pair{"DMASK", "DIP"}}) {
                if (text_of(rules[i], address).empty()) continue;
                const long length = number_of(rules[i], key);
                if (length < 1 || length > 32)
                    notes.error(pointer + "/" + key, "a prefix length is 1 to 32",
                                "A length of 0 reads as 32; leave the address out to match any.");
            }
            for (const char* key : {"SPORT", "DPORT"}) {
                const long port = number_of(rules[i], key);
                if (port < 0 || port > 65535)
                    notes.error(pointer + "/" + key, "a port is 0 to 65535",
                                "0, or leaving it out, matches any port.");
            }
        }
    }
}

void check_site(const Json::Value& root, const std::string& own, Notes notes) {
    const Json::Value& sites = member_of(root, "SITE_INFO");
    if (!sites.isObject()) return;
    if (!own.empty() && !sites.isMember(own))
        notes.error("/SITE_INFO", "this device (" + own + ") is not among the sites",
                    "Hub tests and private links need the device's own entry.");
    for (const auto& name : sites.getMemberNames()) {
        const Json::Value& site = sites[name];
        const std::string pointer = "/SITE_INFO/" + escaped(name);
        const std::string hub = text_of(site, "HUB");
        if (text_of(site, "ROLE") == "EDGE") {
            for (const char* key : {"HUB", "GROUP_ID", "DOMAIN"})
                if (text_of(site, key).empty())
                    notes.warning(pointer + "/" + key,
                                  "an edge without " + std::string(key) + " does not test its hub",
                                  "Fill it in.");
            if (!hub.empty() && (!sites.isMember(hub) || text_of(sites[hub], "ROLE") != "HUB"))
                notes.error(pointer + "/HUB", "there is no hub \"" + hub + "\"",
                            "Name a site whose ROLE is HUB.");
        }
        const Json::Value& hubs = member_of(site, "HUBS");
        for (Json::ArrayIndex i = 0; hubs.isArray() && i < hubs.size(); ++i)
            if (hubs[i].isString() && !sites.isMember(hubs[i].asString()))
                notes.warning(pointer + "/HUBS/" + std::to_string(i),
                              "there is no site \"" + hubs[i].asString() + "\"",
                              "The hub tests pass over it.");
        for (const char* list : {"LAN", "STATIC_ROUTE"}) {
            const Json::Value& networks = member_of(site, list);
            for (Json::ArrayIndex i = 0; networks.isArray() && i < networks.size(); ++i)
                if (!networks[i].isString() || !is_prefix4(networks[i].asString()))
                    notes.error(pointer + "/" + list + "/" + std::to_string(i), "this is no IPv4 network",
                                "Write ADDRESS/LENGTH with a length from 1 to 32.");
        }
    }
}

void check_routes(Kind kind, const Json::Value& root, Notes notes) {
    const bool v6 = kind == Kind::kRoute6;
    for (const char* list : {"del", "add"}) {
        const Json::Value& elements = member_of(root, list);
        for (Json::ArrayIndex i = 0; elements.isArray() && i < elements.size(); ++i) {
            const Json::Value& element = elements[i];
            const std::string pointer = std::string("/") + list + "/" + std::to_string(i);
            if (number_of(element, "SITE") == 0)
                notes.warning(pointer + "/SITE", "this route is skipped: its site is 0",
                              "Write the peer's number.");
            const Json::Value& dest = member_of(element, "DEST");
            if (dest.isString() && dest.asString() != "default" && !dest.asString().empty()) {
                const std::string text = dest.asString();
                if (!v6 && text.size() > 2 && text.compare(text.size() - 2, 2, "/0") == 0)
                    notes.error(pointer + "/DEST", "\"" + text + "\" is skipped: a length of 0 is refused",
                                "Write \"default\" for the default route.");
                else if (v6 ? !is_prefix6(text) : !is_prefix4(text))
                    notes.error(pointer + "/DEST", "\"" + text + "\" is no network",
                                "Write ADDRESS/LENGTH, or \"default\".");
            }
            if (std::string(list) == "del") continue;
            const Json::Value& gateways = member_of(element, "RTA_GATEWAY");
            const Json::Value& weights = member_of(element, "WEIGHT");
            const auto count = gateways.isArray() ? gateways.size() : 0;
            if (kind == Kind::kRoutePrivate) {
                if (count != weights.size() || count != member_of(element, "LOCAL_PORT").size())
                    notes.error(
                        pointer,
                        "gateways, weights and local ports are not equal in number; the route is skipped",
                        "Give one of each per port.");
            } else if (count >= 2 && weights.size() != count) {
                notes.error(pointer + "/WEIGHT",
                            "two or more gateways need a weight each; the route is skipped",
                            "Give one weight per gateway.");
            }
            for (Json::ArrayIndex g = 0; g < count; ++g) {
                const std::string text = gateways[g].isString() ? gateways[g].asString() : std::string();
                if (v6 ? !is_ip6(text) : !is_ip4(text))
                    notes.error(pointer + "/RTA_GATEWAY/" + std::to_string(g),
                                "\"" + text + "\" is no address",
                                "Write the peer's address without a prefix length.");
            }
            for (Json::ArrayIndex w = 0; weights.isArray() && w < weights.size(); ++w) {
                const long weight = weights[w].isString() ? std::atol(weights[w].asCString()) : 0;
                if (count >= 2 && (weight < 1 || weight > 256))
                    notes.error(pointer + "/WEIGHT/" + std::to_string(w),
                                "the kernel takes weights from 1 to 256", "Scale the weights down.");
            }
        }
    }
}

}  // namespace check
