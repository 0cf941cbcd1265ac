// Rows of tunnels, private and regional links, their routes and rules.
#include <net/if.h>

#include <new>

#include "corvosetup/privatelink.h"
#include "corvosetup/rglink.h"
#include "corvosetup/route.h"
#include "corvosetup/tun.h"
#include "corvosetup/tun6.h"
#include "foundation/json.h"
#include "foundation/result.h"
#include "rows.h"

namespace corvo::test {

namespace {

Json::Value json(const std::string& source) {
    Json::Value value;
    parse_json(source, value);
    return value;
}

template <class Link>
std::shared_ptr<Link> made(const char* slave, const char* info, unsigned queue = 2) {
    Json::Value entry = json(info);
    if constexpr (std::is_base_of_v<TunBase, Link>)
        return std::make_shared<Link>(slave, entry, queue);
    else
        return std::make_shared<Link>(slave, entry);
}

constexpr const char* kWan1 = R"({"id":1,"tun_addr":"198.19.0.80","prio":1})";
constexpr const char* kWan2 = R"({"id":2,"tun_addr":"198.19.0.81","prio":2})";
constexpr const char* kPort3 = R"({"ip4_addr":"10.200.0.11","prio":3,"private_group_id":"mpls-a"})";
constexpr const char* kPort5 = R"({"ip4_addr":"10.201.0.11","prio":5,"private_group_id":"mpls-a"})";
constexpr const char* kPort4 = R"({"ip4_addr":"10.210.0.11"})";
constexpr const char* kPort6 = R"({"ip4_addr":"10.211.0.11"})";

// The calls on one link; the slave and the entry decide which.
template <class Link>
class Maker {
public:
    Maker(const char* slave, const char* info) : slave_(slave), info_(info) {}

    template <class Function>
    std::function<Call(Machine&)> operator()(Function function) const {
        return [*this, function](Machine&) {
            return Call([link = made<Link>(slave_, info_), function] { return function(*link); });
        };
    }
    template <class Before, class Function>
    std::function<Call(Machine&)> after(Before before, Function function) const {
        return [*this, before, function](Machine&) {
            return Call([link = made<Link>(slave_, info_), before, function] {
                {
                    const fault::Spared here;
                    before(*link);
                }
                return function(*link);
            });
        };
    }

    // For what makes or deletes the device: an object remembers the index of the one it has seen, so each
    // call is for an object of its own.
    template <class Function>
    std::function<Call(Machine&)> anew(Function function) const {
        return [*this, function](Machine&) {
            return Call([*this, function] {
                const auto link = [this] {
                    const fault::Spared here;
                    return made<Link>(slave_, info_);
                }();
                return function(*link);
            });
        };
    }

private:
    const char* slave_;
    const char* info_;
};

// Constructors may run out of memory and say so; anything else would be seen.
template <class Make>
int constructed_link(Make make) {
    try {
        make();
        return kOk;
    } catch (const std::bad_alloc&) {
        return kAllocFailed;
    }
}

template <class Link>
int length_of_dev(Link& link) {
    return static_cast<int>(link.get_dev().size());
}
template <class Link>
int local(Link& link) {
    const auto address = fault::spared_object<std::string>("198.19.0.80");
    return link.set_local(*address);
}
template <class Link>
int flags(Link& link) {
    unsigned value = 0;
    return link.get_tun_flag(value);
}

// What all four kinds of links have; `n` is the length of the class's name and the name.
template <class Link>
void add_flag_rows(std::vector<Row>& rows, const std::string& n, const Maker<Link>& on) {
    const std::string s = "ERNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";
    const std::string at = "_ZN" + n;
    rows.push_back(Row(at + "9set_local" + s, on(local<Link>)));
    rows.push_back(
        Row(at + "14obtain_ifindexEv", on([](Link& link) { return link.obtain_ifindex() > 0 ? 1 : 0; }))
            .value()
            .gives(1));
    rows.push_back(Row(at + "12get_tun_flagERj", on(flags<Link>)));
    rows.push_back(
        Row(at + "12set_tun_flagEj", on([](Link& link) { return link.set_tun_flag(IFF_NOARP); })).kernel());
    rows.push_back(
        Row(at + "14unset_tun_flagEj", on([](Link& link) { return link.unset_tun_flag(IFF_MULTICAST); }))
            .kernel());
}

template <class Link>
void add_rule_rows(std::vector<Row>& rows, const std::string& n, const Maker<Link>& on) {
    rows.push_back(Row("_ZN" + n + "14setup_tun_ruleEv", on([](Link& link) { return link.setup_tun_rule(); }))
                       .kernel()
                       .logs());
    rows.push_back(
        Row("_ZN" + n + "16destroy_tun_ruleEv", on.after([](Link& link) { link.setup_tun_rule(); },
                                                         [](Link& link) { return link.destroy_tun_rule(); }))
            .kernel()
            .logs());
}

// Route documents of one link and of all of them.
template <class Link>
void add_route_rows(std::vector<Row>& rows, const std::string& n, const Maker<Link>& on,
                    const char* document) {
    const auto path = [document] { return fault::spared_object<std::string>(document); };
    rows.push_back(Row("_ZN" + n + "11setup_routeEiR" + kString,
                       on([path](Link& link) { return link.setup_route(1, *path()); }))
                       .kernel()
                       .logs());
    rows.push_back(Row("_ZN" + n + "17setup_tun_routingEiR" + kString,
                       on([path](Link& link) { return link.setup_tun_routing(20000, *path()); }))
                       .kernel()
                       .logs());
    rows.push_back(Row("_ZN" + n + "17destroy_tun_routeEi",
                       on.after([path](Link& link) { link.setup_route(1, *path()); },
                                [](Link& link) { return link.destroy_tun_route(-1); }))
                       .kernel()
                       .logs());
    rows.push_back(Row("_ZN" + n + "25setup_mptcp_default_routeEi",
                       on.after([path](Link& link) { link.setup_tun_routing(30000, *path()); },
                                [](Link& link) { return link.setup_mptcp_default_route(2); }))
                       .kernel());
}

void add_tun(std::vector<Row>& rows) {
    const Maker<Tun> tun1("eth1", kWan1);
    const Maker<Tun> tun2("eth2", kWan2);
    rows.push_back(Row("_ZN3TunC1E" + kString + "RN4Json5ValueEj _ZN3TunC2E" + kString +
                           "RN4Json5ValueEj _ZN7TunBaseC1E" + kString + "S5_RN4Json5ValueEj _ZN7TunBaseC2E" +
                           kString + "S5_RN4Json5ValueEj",
                       [](Machine&) {
                           return Call([info = std::make_shared<Json::Value>(json(kWan1))] {
                               return constructed_link([&] { Tun tun(text("eth1"), *info, 2); });
                           });
                       }));
    rows.push_back(Row("_ZN7TunBase7get_devB5cxx11Ev", tun1(length_of_dev<Tun>)).value().gives(4));
    add_flag_rows<Tun>(rows, "7TunBase", tun1);
    rows.push_back(Row("_ZN3Tun11dump2structEP9ipip_conf", tun1([](Tun& tun) {
                           ipip_conf conf{};
                           return tun.dump2struct(&conf);
                       })));
    rows.push_back(
        Row("_ZN3Tun14setup_tun_ipv4Ev", tun1([](Tun& tun) { return tun.setup_tun_ipv4(); })).kernel());
    add_rule_rows<Tun>(rows, "3Tun", tun1);
    add_route_rows<Tun>(rows, "3Tun", tun1, "/etc/networkmanagement/routes.json");
    rows.push_back(Row("_ZN3Tun24setup_mptcp_default_ruleEi",
                       tun1([](Tun& tun) { return tun.setup_mptcp_default_rule(0); }))
                       .kernel());
    rows.push_back(Row("_ZN3Tun9setup_tunEi", tun2.anew([](Tun& tun) { return tun.setup_tun(0); }))
                       .kernel()
                       .logs()
                       .slow()
                       .needs({"ipip-gue"})
                       .undone_by([] { made<Tun>("eth2", kWan2)->setup_tun(1); }));
    rows.push_back(Row("_ZN3Tun9setup_tunEi", tun2.anew([](Tun& tun) {
                       {
                           const fault::Spared here;
                           made<Tun>("eth2", kWan2)->setup_tun(0);
                       }
                       return tun.setup_tun(1);
                   }))
                       .kernel()
                       .logs()
                       .slow()
                       .needs({"ipip-gue"}));
}

constexpr const char* kSource = "/etc/networkmanagement/device_info.json";
// A reference argument that outlives the call.
std::string& reference(const char* value) {
    static thread_local std::map<std::string, std::string> kept;
    const fault::Spared here;
    return kept[value] = value;
}

void add_tun_calls(std::vector<Row>& rows) {
    rows.push_back(Row("_Z9setup_tuni" + kString + "RS4_j",
                       plain([] { return setup_tun(0, text("eth2"), reference(kSource), 2); }))
                       .kernel()
                       .logs()
                       .slow()
                       .needs({"ipip-gue"})
                       .undone_by([] { setup_tun(1, text("eth2"), reference(kSource), 2); }));
    rows.push_back(Row("_Z9setup_tuni" + kString + "RS4_j",
                       plain([] { return setup_tun(1, text("eth2"), reference(kSource), 2); }))
                       .kernel()
                       .slow());
    rows.push_back(Row("_Z15setup_tun_routeR" + kString + "S5_S5_", plain([] {
                           return setup_tun_route(reference("eth1"), reference("s2s"),
                                                  reference("/etc/networkmanagement/routes.json"));
                       }))
                       .kernel()
                       .logs()
                       .slow());
    rows.push_back(Row("_Z28setup_tun_mptcp_default_rulei" + kString,
                       plain([] { return setup_tun_mptcp_default_rule(0, text("eth1")); }))
                       .kernel()
                       .logs()
                       .slow());
    rows.push_back(Row("_Z29setup_tun_mptcp_default_routei" + kString,
                       after(
                           [] {
                               setup_tun_route(reference("eth1"), reference("default"),
                                               reference("/etc/networkmanagement/routes.json"));
                           },
                           [] { return setup_tun_mptcp_default_route(2, text("eth1")); }))
                       .kernel()
                       .logs()
                       .slow());
}

void add_tun6(std::vector<Row>& rows) {
    const Maker<Tun6> tun1("eth1", kWan1);
    const Maker<Tun6> tun2("eth2", kWan2);
    rows.push_back(Row("_ZN4Tun6C1E" + kString + "RN4Json5ValueEj _ZN4Tun6C2E" + kString + "RN4Json5ValueEj",
                       [](Machine&) {
                           return Call([info = std::make_shared<Json::Value>(json(kWan1))] {
                               return constructed_link([&] { Tun6 tun(text("eth1"), *info, 2); });
                           });
                       }));
    rows.push_back(Row("_ZN4Tun611dump2structEP8sit_conf", tun1([](Tun6& tun) {
                           sit_conf conf{};
                           return tun.dump2struct(&conf);
                       })));
    rows.push_back(
        Row("_ZN4Tun614setup_tun_ipv6Ev", tun1([](Tun6& tun) { return tun.setup_tun_ipv6(); })).kernel());
    add_rule_rows<Tun6>(rows, "4Tun6", tun1);
    rows.push_back(Row("_ZN4Tun624setup_mptcp_default_ruleEi",
                       tun1([](Tun6& tun) { return tun.setup_mptcp_default_rule(0); }))
                       .kernel());
    rows.push_back(Row("_ZN4Tun69setup_tunEi", tun2.anew([](Tun6& tun) { return tun.setup_tun(0); }))
                       .kernel()
                       .logs()
                       .slow()
                       .needs({"sit"})
                       .undone_by([] { made<Tun6>("eth2", kWan2)->setup_tun(1); }));
    rows.push_back(Row("_Z10setup_tun6i" + kString + "RS4_j",
                       plain([] { return setup_tun6(0, text("eth2"), reference(kSource), 2); }))
                       .kernel()
                       .logs()
                       .slow()
                       .needs({"sit"})
                       .undone_by([] { setup_tun6(1, text("eth2"), reference(kSource), 2); }));
    // Each WAN's tunnel gets the routes, so both have to be there.
    rows.push_back(Row("_Z16setup_tun_route6R" + kString + "S5_",
                       [](Machine&) {
                           ip_batch({"link add ip6tun2 type veth peer name p-ip6tun2", "link set ip6tun2 up",
                                     "link set p-ip6tun2 up", "addr add 2001:db8::12/64 dev ip6tun2"});
                           wait_for_carrier("ip6tun2");
                           return Call([] {
                               return setup_tun_route6(reference("default6"),
                                                       reference("/etc/networkmanagement/routes6.json"));
                           });
                       })
                       .kernel()
                       .logs()
                       .slow());
    rows.push_back(Row("_Z30setup_tuni6_mptcp_default_rulei" + kString,
                       plain([] { return setup_tuni6_mptcp_default_rule(0, text("eth1")); }))
                       .kernel()
                       .logs()
                       .slow());

    const auto routes = [](auto function) {
        return [function](Machine&) {
            auto document =
                std::make_shared<Json::Value>(json(read_file("/etc/networkmanagement/routes6.json")));
            std::unordered_map<std::string, Json::Value> wans{
                {"eth1", json(R"({"id":1,"ip6_addr":"2001:db8::11"})")}};
            auto routes = std::make_shared<V6TunRo>(*document, wans);
            auto list = std::make_shared<Json::Value>((*document)["add"]);
            return Call([=] { return function(*routes, *list); });
        };
    };
    rows.push_back(
        Row("_ZN7V6TunRoC1ERN4Json5ValueERSt13unordered_mapINSt7__cxx1112basic_stringIcSt11char_"
            "traitsIcESaIcEEES1_St4hashIS9_ESt8equal_toIS9_ESaISt4pairIKS9_S1_EEE "
            "_ZN7V6TunRoC2ERN4Json5ValueERSt13unordered_mapINSt7__cxx1112basic_stringIcSt11char_"
            "traitsIcESaIcEEES1_St4hashIS9_ESt8equal_toIS9_ESaISt4pairIKS9_S1_EEE",
            [](Machine&) {
                auto document =
                    std::make_shared<Json::Value>(json(read_file("/etc/networkmanagement/routes6.json")));
                auto wans = std::make_shared<std::unordered_map<std::string, Json::Value>>();
                (*wans)["eth1"] = json(R"({"id":1})");
                return Call([=] { return constructed_link([&] { V6TunRo object(*document, *wans); }); });
            }));
    rows.push_back(Row("_ZN7V6TunRo12setup_route6Ei",
                       routes([](V6TunRo& object, Json::Value&) { return object.setup_route6(1); }))
                       .kernel()
                       .logs());
    rows.push_back(
        Row("_ZN7V6TunRo20setup_ipv6_s2s_routeERN4Json5ValueEi",
            routes([](V6TunRo& object, Json::Value& list) { return object.setup_ipv6_s2s_route(list, 0); }))
            .kernel()
            .logs()
            .value());
    rows.push_back(
        Row("_ZN7V6TunRo22setup_ipv6_mptcp_routeERN4Json5ValueEi",
            routes([](V6TunRo& object, Json::Value& list) { return object.setup_ipv6_mptcp_route(list, 0); }))
            .kernel()
            .logs()
            .value());
    rows.push_back(Row("_ZN7V6TunRo24setup_ipv6_mptcp_defaultERN4Json5ValueEi",
                       routes([](V6TunRo& object, Json::Value& list) {
                           return object.setup_ipv6_mptcp_default(list, 0);
                       }))
                       .kernel()
                       .logs()
                       .value());
}

void add_private(std::vector<Row>& rows) {
    const Maker<PrivateLink> port3("swdev3", kPort3);
    const Maker<PrivateLink> port5("swdev5", kPort5);
    constexpr const char* kRoutes = "/etc/networkmanagement/private.json";
    rows.push_back(Row(
        "_ZN11PrivateLinkC1E" + kString + "RN4Json5ValueE _ZN11PrivateLinkC2E" + kString + "RN4Json5ValueE",
        [](Machine&) {
            return Call([info = std::make_shared<Json::Value>(json(kPort3))] {
                return constructed_link([&] { PrivateLink link(text("swdev3"), *info); });
            });
        }));
    rows.push_back(
        Row("_ZN11PrivateLink7get_devB5cxx11Ev", port3(length_of_dev<PrivateLink>)).value().gives(4));
    add_flag_rows<PrivateLink>(rows, "11PrivateLink", port3);
    rows.push_back(Row("_ZN11PrivateLink11dump2structEP9ipip_conf", port3([](PrivateLink& link) {
                           ipip_conf conf{};
                           return link.dump2struct(&conf);
                       })));
    rows.push_back(Row("_ZN11PrivateLink18parse_tun_local_ipEv",
                       port3([](PrivateLink& link) { return link.parse_tun_local_ip(); })));
    rows.push_back(Row("_ZN11PrivateLink14setup_tun_ipv4Ev",
                       port3([](PrivateLink& link) { return link.setup_tun_ipv4(); }))
                       .kernel());
    add_rule_rows<PrivateLink>(rows, "11PrivateLink", port3);
    add_route_rows<PrivateLink>(rows, "11PrivateLink", port3, kRoutes);
    rows.push_back(Row("_ZN11PrivateLink12edit_routingEiiRN4Json5ValueE",
                       [](Machine&) {
                           auto link = made<PrivateLink>("swdev3", kPort3);
                           auto list = std::make_shared<Json::Value>(json(read_file(kRoutes))["add"]);
                           return Call([=] { return link->edit_routing(10000, 0, *list); });
                       })
                       .kernel()
                       .logs()
                       .value());
    rows.push_back(Row("_ZN11PrivateLink20presetup_tun_routingEv",
                       port3([](PrivateLink& link) { return link.presetup_tun_routing(); }))
                       .kernel()
                       .logs()
                       .slow());
    rows.push_back(
        Row("_ZN11PrivateLink9setup_tunEi", port5.anew([](PrivateLink& link) { return link.setup_tun(0); }))
            .kernel()
            .logs()
            .slow()
            .needs({"ipip-gue"})
            .undone_by([] { made<PrivateLink>("swdev5", kPort5)->setup_tun(1); }));
    rows.push_back(Row("_Z13setup_privatei" + kString + "RS4_",
                       plain([] { return setup_private(0, text("swdev5"), reference(kSource)); }))
                       .kernel()
                       .logs()
                       .slow()
                       .needs({"ipip-gue"})
                       .undone_by([] { setup_private(1, text("swdev5"), reference(kSource)); }));
    rows.push_back(Row("_Z19setup_private_routeR" + kString + "S5_S5_", plain([] {
                           return setup_private_route(reference("swdev3"), reference("private_s2s"),
                                                      reference(kRoutes));
                       }))
                       .kernel()
                       .logs()
                       .slow());
    rows.push_back(Row("_Z33setup_private_mptcp_default_routei" + kString,
                       after(
                           [] {
                               setup_private_route(reference("swdev3"), reference("private_default"),
                                                   reference(kRoutes));
                           },
                           [] { return setup_private_mptcp_default_route(2, text("swdev3")); }))
                       .kernel()
                       .logs()
                       .slow());
}

void add_regional(std::vector<Row>& rows) {
    const Maker<RgLink> port4("swdev4", kPort4);
    const Maker<RgLink> port6("swdev6", kPort6);
    rows.push_back(
        Row("_ZN6RgLinkC1E" + kString + "RN4Json5ValueE _ZN6RgLinkC2E" + kString + "RN4Json5ValueE",
            [](Machine&) {
                return Call([info = std::make_shared<Json::Value>(json(kPort4))] {
                    return constructed_link([&] { RgLink link(text("swdev4"), *info); });
                });
            }));
    add_flag_rows<RgLink>(rows, "6RgLink", port4);
    rows.push_back(Row("_ZN6RgLink11dump2structEP9ipip_conf", port4([](RgLink& link) {
                           ipip_conf conf{};
                           return link.dump2struct(&conf);
                       })));
    rows.push_back(Row("_ZN6RgLink18parse_tun_local_ipEv",
                       port4([](RgLink& link) { return link.parse_tun_local_ip(); })));
    rows.push_back(
        Row("_ZN6RgLink14setup_tun_ipv4Ev", port4([](RgLink& link) { return link.setup_tun_ipv4(); }))
            .kernel());
    rows.push_back(Row("_ZN6RgLink9setup_tunEi", port6.anew([](RgLink& link) { return link.setup_tun(0); }))
                       .kernel()
                       .logs()
                       .slow()
                       .needs({"ipip-gue"})
                       .undone_by([] { made<RgLink>("swdev6", kPort6)->setup_tun(1); }));
    rows.push_back(Row("_Z12setup_rglinki" + kString + "RS4_",
                       plain([] { return setup_rglink(0, text("swdev6"), reference(kSource)); }))
                       .kernel()
                       .logs()
                       .slow()
                       .needs({"ipip-gue"})
                       .undone_by([] { setup_rglink(1, text("swdev6"), reference(kSource)); }));
    rows.push_back(Row("_Z20setup_regional_routeR" + kString + "S5_", plain([] {
                           return setup_regional_route(reference("regional"),
                                                       reference("/etc/networkmanagement/regional.json"));
                       }))
                       .kernel()
                       .logs());
}

Json::Value wan_ids() {
    const fault::Spared here;
    return json("[1,2]");
}

// The sets start empty before each call.
void add_gateways(std::vector<Row>& rows) {
    const auto empty = [] {
        gws.flush_gws();
        tmp_gws.flush_gws();
    };
    const auto one = [empty] {
        empty();
        gws.add_gw("eth1", "203.0.113.1", 100);
    };
    const auto two = [one] {
        one();
        gws.add_gw("eth2", "198.51.100.1", 50);
    };
    rows.push_back(Row("_Z19add_default_gateway" + kString + "S4_m",
                       after(one, [] { return add_default_gateway(text("eth2"), text("198.51.100.1"), 50); }))
                       .kernel()
                       .logs());
    rows.push_back(Row("_Z19del_default_gateway" + kString + "b",
                       after(two, [] { return del_default_gateway(text("eth2"), false); }))
                       .kernel()
                       .logs());
    rows.push_back(
        Row("_Z9setup_defN4Json5ValueE", after(empty, [] { return setup_def(wan_ids()); })).kernel().logs());
    rows.push_back(Row("_ZN10DefaultGws6add_gwE" + kString + "S5_m",
                       after(empty, [] { return gws.add_gw(text("eth1"), text("203.0.113.1"), 100); }))
                       .kernel()
                       .logs());
    rows.push_back(Row("_ZN10DefaultGws6del_gwE" + kString + "b",
                       after(one, [] { return gws.del_gw(text("eth1"), true); }))
                       .kernel()
                       .logs()
                       .gives(kEmptyInput));
    rows.push_back(Row("_ZN10DefaultGws9flush_gwsEv", after(two, [] { return gws.flush_gws(); })).kernel());
    rows.push_back(Row("_ZN10DefaultGws22setup_default_gatewaysEv",
                       after(two, [] { return gws.setup_default_gateways(); }))
                       .kernel());
    rows.push_back(
        Row("_ZN10DefaultGws20set_default_gatewaysEv", after(two, [] { return gws.set_default_gateways(); }))
            .kernel());
    rows.push_back(Row("_ZN10DefaultGws25flush_default_route_tableEv",
                       after(two, [] { return gws.flush_default_route_table(); }))
                       .kernel());
    rows.push_back(
        Row("_ZN10DefaultGws8find_gcdEv", after(two, [] { return static_cast<int>(gws.find_gcd()); }))
            .value()
            .gives(50));
    rows.push_back(
        Row("_ZN10DefaultGws16weight_reductionEm", after(two, [] { return gws.weight_reduction(50); })));
    rows.push_back(Row("_ZN10DefaultGwsC1Ejj _ZN10DefaultGwsC2Ejj",
                       plain([] { return static_cast<int>(DefaultGws(253, 7).find_gcd()) - 1; })));
}

}  // namespace

void add_tunnel_rows(std::vector<Row>& rows) {
    add_tun(rows);
    add_tun_calls(rows);
    add_tun6(rows);
    add_private(rows);
    add_regional(rows);
    add_gateways(rows);
}

}  // namespace corvo::test
