// Rows of shaping and of the settings at the daemon's start.
#include "corvosetup/lan_qos.h"
#include "corvosetup/presetup.h"
#include "corvosetup/qos.h"
#include "rows.h"
#include "support/recorder.h"

namespace corvo::test {

namespace {

const std::vector<std::string> kWanFeatures{"htb", "fq", "fw", "ingress", "u32", "mirred"};

void add_wan(std::vector<Row>& rows) {
    const auto on = [](auto function) {
        return [function](Machine&) {
            return Call([qos = std::make_shared<ProcQoS>("eth1", 100000000, 50000000, kInfo), function] {
                return function(*qos);
            });
        };
    };
    rows.push_back(Row("_ZN7ProcQoSC1E" + kString + "mmS5_ _ZN7ProcQoSC2E" + kString + "mmS5_", [](Machine&) {
        return Call([] {
            try {
                ProcQoS qos(text("eth1"), 1, 1, text(kInfo));
                return 0;
            } catch (const std::bad_alloc&) {
                return -3010;
            }
        });
    }));
    rows.push_back(Row("_ZN7ProcQoS11check_ifaceEv", on([](ProcQoS& qos) { return qos.check_iface(); })));
    rows.push_back(
        Row("_ZN7ProcQoS15check_ifb_ifaceEv", on([](ProcQoS& qos) { return qos.check_ifb_iface(); })));
    rows.push_back(Row("_ZN7ProcQoS23check_vlan_bridge_ifaceEv",
                       on([](ProcQoS& qos) { return qos.check_vlan_bridge_iface() ? 1 : 0; }))
                       .value());
    rows.push_back(
        Row("_ZN7ProcQoS17setup_default_qosEv", on([](ProcQoS& qos) { return qos.setup_default_qos(); })));
    rows.push_back(Row("_ZN7ProcQoS4showEv", on([](ProcQoS& qos) { return qos.show(); })));
    // Scanning adds to what an object has: each call is for an object of its own.
    const auto fresh = [](bool scanned) {
        const fault::Spared here;
        auto qos = std::make_unique<ProcQoS>("eth1", 100000000, 50000000, kInfo);
        if (scanned) qos->rescan_config();
        return qos;
    };
    rows.push_back(Row("_ZN7ProcQoS13rescan_configEv", [fresh](Machine&) {
                       return Call([fresh] { return fresh(false)->rescan_config(); });
                   }).logs());
    rows.push_back(Row("_ZN7ProcQoS9check_qosEv",
                       [fresh](Machine&) { return Call([fresh] { return fresh(true)->check_qos(); }); }));
    const auto on_fresh = [fresh](bool scanned, auto function) {
        return [=](Machine&) { return Call([=] { return function(*fresh(scanned)); }); };
    };
    const auto stop = [] { ProcQoS("eth1", 1, 1, kInfo).stop(); };
    rows.push_back(
        Row("_ZN7ProcQoS9setup_qosEv", on_fresh(true, [](ProcQoS& qos) { return qos.setup_qos(); }))
            .kernel()
            .logs()
            .needs(kWanFeatures)
            .undone_by(stop));
    rows.push_back(
        Row("_ZN7ProcQoS19setup_ingress_limitEv", on([](ProcQoS& qos) { return qos.setup_ingress_limit(); }))
            .kernel()
            .logs()
            .slow()
            .runs_tools()
            .needs(kWanFeatures));
    rows.push_back(Row("_ZN7ProcQoS4stopEv", on([](ProcQoS& qos) {
                           {
                               const fault::Spared here;
                               tc_options options{0, 1000, 1000, 1};
                               setup_qdisc("eth1", "root", "1:", "htb", &options);
                           }
                           return qos.stop();
                       }))
                       .kernel());
    rows.push_back(Row("_ZN7ProcQoS5startEv", on_fresh(false, [](ProcQoS& qos) { return qos.start(); }))
                       .kernel()
                       .logs()
                       .slow()
                       .runs_tools()
                       .needs(kWanFeatures)
                       .undone_by(stop));
    rows.push_back(Row("_ZN7ProcQoS7restartEv", on_fresh(false, [](ProcQoS& qos) { return qos.restart(); }))
                       .kernel()
                       .logs()
                       .slow()
                       .runs_tools()
                       .needs(kWanFeatures));
    const auto shape = [](int op) {
        return [op](Machine&) {
            auto dev = std::make_shared<std::string>("eth2");
            auto path = std::make_shared<std::string>(kInfo);
            return Call([=] { return setup_qos(op, *dev, *path, false); });
        };
    };
    // eth2 has no ingress limit. A start that failed half-way is started anew with operation 2.
    rows.push_back(
        Row("_Z9setup_qosiR" + kString + "S5_b", shape(2)).kernel().logs().slow().needs(kWanFeatures));
    rows.push_back(Row("_Z9setup_qosiR" + kString + "S5_b", shape(1)).kernel());
    rows.push_back(Row("_Z13setup_tun_qosi" + kString + "S4_",
                       [](Machine&) { return Call([] { return setup_tun_qos(0, text("a"), text("b")); }); }));
}

void add_lan(std::vector<Row>& rows) {
    static const std::vector<std::string> kFeatures{"htb", "fq", "u32"};
    static auto make = [] {
        std::string dev = "eth5";
        std::string redirect;
        std::vector<LanQosCls> classes{{1, 625000}};
        U32QoSObj match{};
        match.prio = 1;
        match.protocol = 0x800;
        match.dport = 443;
        std::vector<U32QoSObj> rules{match};
        return std::make_shared<ProcLanQoS>(dev, classes, rules, redirect, 0x800);
    };
    const auto on = [](auto function) {
        return [function](Machine&) { return Call([qos = make(), function] { return function(*qos); }); };
    };
    const auto stop = [] { make()->stop(); };
    rows.push_back(Row("_ZN10ProcLanQoSC1ER" + kString +
                           "RSt6vectorI9LanQosClsSaIS8_EERS7_I9U32QoSObjSaISC_EES6_t _ZN10ProcLanQoSC2ER" +
                           kString + "RSt6vectorI9LanQosClsSaIS8_EERS7_I9U32QoSObjSaISC_EES6_t",
                       [](Machine&) {
                           return Call([] {
                               try {
                                   return make()->check_iface();
                               } catch (const std::bad_alloc&) {
                                   return -3010;
                               }
                           });
                       }));
    rows.push_back(
        Row("_ZN10ProcLanQoS11check_ifaceEv", on([](ProcLanQoS& qos) { return qos.check_iface(); })));
    rows.push_back(Row("_ZN10ProcLanQoS17setup_default_qosEv",
                       on([](ProcLanQoS& qos) { return qos.setup_default_qos(); })));
    rows.push_back(Row("_ZN10ProcLanQoS9setup_qosEv", on([](ProcLanQoS& qos) { return qos.setup_qos(); }))
                       .kernel()
                       .logs()
                       .needs(kFeatures)
                       .undone_by(stop));
    rows.push_back(Row("_ZN10ProcLanQoS5startEv", on([](ProcLanQoS& qos) { return qos.start(); }))
                       .kernel()
                       .logs()
                       .needs(kFeatures)
                       .undone_by(stop));
    rows.push_back(Row("_ZN10ProcLanQoS4stopEv", on([](ProcLanQoS& qos) {
                           {
                               const fault::Spared here;
                               qos.start();
                           }
                           return qos.stop();
                       }))
                       .kernel()
                       .needs(kFeatures));
    rows.push_back(Row("_ZN10ProcLanQoS7restartEv", on([](ProcLanQoS& qos) { return qos.restart(); }))
                       .kernel()
                       .logs()
                       .needs(kFeatures));
    rows.push_back(Row("_Z13setup_lan_qosiR" + kString + "S5_S5_",
                       [](Machine&) {
                           auto dev = std::make_shared<std::string>("all");
                           auto conf = std::make_shared<std::string>("/etc/networkmanagement/lan_qos.json");
                           auto info = std::make_shared<std::string>(kInfo);
                           return Call([=] { return setup_lan_qos(2, *dev, *conf, *info); });
                       })
                       .kernel()
                       .logs()
                       .slow()
                       .needs({"htb", "fq", "u32", "ingress", "mirred"}));
}

template <int (*function)()>
Call repeated() {
    return [] { return function(); };
}

// A listing that fails is no line in the log, and a kernel without one of the features fails undisturbed,
// too.
void add_presetup(std::vector<Row>& rows) {
    rows.push_back(Row("_Z14module_probingv", [](Machine&) {
                       auto modprobe = std::make_shared<Recorder>("/sbin/modprobe");
                       auto ifconfig = std::make_shared<Recorder>("/sbin/ifconfig");
                       return Call([=] { return module_probing(), 0; });
                   }).logs());
    rows.push_back(Row("_Z13presetup_ipv4v", [](Machine&) { return repeated<presetup_ipv4>(); })
                       .gives_what_it_gives()
                       .slow());
    rows.push_back(Row("_Z13presetup_ipv6v", [](Machine&) { return repeated<presetup_ipv6>(); })
                       .gives_what_it_gives()
                       .slow());
    rows.push_back(
        Row("_Z16presetup_rps_xpsv", [](Machine&) { return repeated<presetup_rps_xps>(); }).slow());
    rows.push_back(Row("_Z14presetup_mptcpv", [](Machine&) { return repeated<presetup_mptcp>(); })
                       .gives_what_it_gives()
                       .logs());
}

}  // namespace

void add_shaping_rows(std::vector<Row>& rows) {
    add_wan(rows);
    add_lan(rows);
    add_presetup(rows);
}

}  // namespace corvo::test
