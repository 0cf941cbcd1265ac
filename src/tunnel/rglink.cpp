#include "corvosetup/rglink.h"

#include "corvosetup/service.h"
#include "corvosetup/utils.h"
#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "tunnel/device.h"
#include "tunnel/entries.h"
#include "tunnel/numbering.h"
#include "tunnel/port_link.h"
#include "tunnel/route_list.h"

using namespace corvo::tunnel;
using corvo::guarded;
using corvo::j_member;
using corvo::j_str;
using corvo::log::Entry;

namespace {

constexpr const char* kFile = "rglink.cpp";

// All regional links share one table; each element names the device that its next hops leave by.
int apply_regional(int op, const RouteList& list) {
    return apply_route_list<Ipv4Routes>(op, list,
                                        [&](const Json::Value& element, RouteDraft<Ipv4Routes>& route) {
                                            route.begin(element, kSharedTable);
                                            if (!route.read_site(element)) return Fate::kSkip;
                                            if (!route.read_destination(j_member(element, "DEST")))
                                                return Fate::kSkip;
                                            if (op == kRouteFlush) return Fate::kSend;
                                            if (!route.weights_agree(element)) return Fate::kSkip;
                                            route.read_hops(element, text_of(j_member(element, "DEVICE")));
                                            return Fate::kSend;
                                        });
}

}  // namespace

RgLink::RgLink(std::string slave, Json::Value& info)
    : dev{},
      local{},
      remote{},
      tun_addr{},
      ttl(0),
      fou_sport(kFouPort),
      fou_dport(kFouPort),
      ifindex(0),
      port(0),
      device_id(0),
      slave(slave) {
    if (slave.empty()) return;
    device_id = get_device_id();
    if (device_id == 0) return;

    const PortName name = read_port_name(slave);
    port = name.port;
    std::string address;
    gen_tun_addr4(device_id, port, address);
    std::string outer = j_str(info, "ip4_addr");
    set_local(outer);
    if (port == 0) return;
    corvo::copy_text(dev, name.dev);
    corvo::copy_text(tun_addr, address);
    corvo::copy_text(remote, "0.0.0.0");
}

int RgLink::set_local(std::string& ip) {
    return guarded([&] { return copy_address(local, ip); });
}

int RgLink::obtain_ifindex() {
    return cached_ifindex(ifindex, dev);
}

int RgLink::parse_tun_local_ip() {
    return guarded([&] { return local_of_port(slave, local); });
}

int RgLink::setup_tun_ipv4() {
    return guarded([&] { return assign_ipv4(obtain_ifindex(), tun_addr); });
}

int RgLink::get_tun_flag(unsigned int& flags) {
    return get_flags(obtain_ifindex(), flags);
}

int RgLink::set_tun_flag(unsigned int flags) {
    return set_flags(obtain_ifindex(), flags);
}

int RgLink::unset_tun_flag(unsigned int flags) {
    return unset_flags(obtain_ifindex(), flags);
}

int RgLink::dump2struct(ipip_conf* conf) {
    return guarded([&]() -> int {
        if (conf == nullptr) return corvo::kFailed;
        fill_port_link(*conf, dev, local, remote, ttl, fou_sport, fou_dport);
        return corvo::kOk;
    });
}

int RgLink::setup_tun(int op) {
    return guarded([&] {
        ipip_conf conf{};
        const DeviceSetup link{
            .dev = dev,
            .ifindex = [&] { return obtain_ifindex(); },
            .find_local = [&] { return is_any_address(local) ? parse_tun_local_ip() : corvo::kOk; },
            .fill_record = [&] { return dump2struct(&conf); },
            .edit_name = "edit_ipip_tunnel()",
            .edit = [&](int what) { return edit_ipip_tunnel(what, &conf); },
            .address = {"setup_tun_ipv4()", [&] { return setup_tun_ipv4(); }},
            .set_flag = [&](unsigned flags) { return set_tun_flag(flags); },
            .no_multipath = true,
        };
        return link.run(op);
    });
}

int setup_rglink(int op, std::string ifname, std::string& source) {
    corvo::log::ensure_file();
    return guarded([&] {
        const Entry entry{kFile, "setup_rglink", Entry::Word::kInitEnter};
        if (static_cast<unsigned>(op) >= 2) return entry.leave<int>(corvo::kInvalidArgument);
        EntryMap links;
        const int fetched =
            fetch_entries(&get_available_rglink_info, "get_available_rglink_info", source, op, links);
        if (fetched != corvo::kOk) return entry.leave(fetched);
        run_entries(links, ifname,
                    {.map_name = "rglink_info", .run = [&](const std::string&, Json::Value& link) {
                         return RgLink(j_str(link, "slave"), link).setup_tun(op);
                     }});
        return entry.leave(fetched);
    });
}

int setup_regional_route(std::string& type, std::string& conf) {
    corvo::log::ensure_file();
    return guarded([&] {
        const Entry entry{kFile, "setup_regional_route", Entry::Word::kInitEnter};
        if (type != "regional") {
            corvo::log::error("Wrong route type.\n");
            return entry.leave<int>(corvo::kInvalidArgument);
        }
        RouteDocument document;
        if (!document.load(conf)) return entry.leave<int>(corvo::kNotOpened);
        return entry.leave(apply_route_lists(document.to_delete(), document.to_add(), &apply_regional));
    });
}
