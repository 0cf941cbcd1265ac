// Rows of the monitors, the responder and the next-hop tests.
#include <netlink/route/neighbour.h>

#include <optional>

#include "corvosetup/neigh.h"
#include "corvosetup/ping.h"
#include "corvosetup/ping_test.h"
#include "corvosetup/qdm.h"
#include "corvosetup/route.h"
#include "corvosetup/tc.h"
#include "corvosetup/udp.h"
#include "corvosetup/wm_obj.h"
#include "foundation/result.h"
#include "rows.h"
#include "support/recorder.h"

namespace corvo::test {

namespace {

// An object that is made undisturbed, and made anew for each step.
template <class Make, class Function>
std::function<Call(Machine&)> on(Make make, Function function) {
    return [make, function](Machine&) {
        auto conntrack = std::make_shared<Recorder>("/usr/sbin/conntrack");
        gws.flush_gws();
        return Call([object = make(), conntrack, function] { return function(*object); });
    };
}

// Exceptions that constructors are documented to throw are codes.
template <class Make>
int constructed(Make make) {
    try {
        make();
        return kOk;
    } catch (int code) {
        return code;
    } catch (const std::exception&) {
        return kAllocFailed;
    }
}

void wait_a_little() {
    const fault::Spared here;
    std::this_thread::sleep_for(std::chrono::milliseconds(15));
}

// Start, a first report (which writes the condition files), stop; the code of the start.
template <class Probe>
int life(Probe& probe) {
    {
        const fault::Spared here;
        for (const char* port : {"PORT1", "PORT2"}) write_file(std::string(kConditionDir) + port, "0");
    }
    const int started = probe.start();
    if constexpr (std::is_same_v<Probe, ProcQdm> || std::is_same_v<Probe, ProcUdp>) {
        wait_a_little();
    } else {
        const fault::Spared here;
        wait_until([] { return condition("PORT1") == "1" || condition("PORT2") == "1"; },
                   std::chrono::milliseconds(fault::under_fault() ? 50 : 3000));
    }
    const int stopped = probe.stop();
    return started != kOk ? started : stopped;
}

template <class Make>
auto life_of(Make make) {
    return [make](Machine&) {
        auto conntrack = std::make_shared<Recorder>("/usr/sbin/conntrack");
        // A monitor lives once: the daemon makes another one for a WAN that comes back.
        return Call([make, conntrack] {
            std::optional<fault::Spared> here(std::in_place);
            auto object = make();
            here.reset();
            return life(*object);
        });
    };
}

// What both probes have.
template <class Probe, class Make>
void add_probe_common(std::vector<Row>& rows, const std::string& n, Make make) {
    const std::string at = "_ZN" + n;
    rows.push_back(
        Row(at + "C1E" + kString + "S5_mbh " + at + "C2E" + kString + "S5_mbh " + at + "D1Ev " + at + "D2Ev",
            [](Machine&) {
                return Call([] {
                    return constructed([] { Probe probe(text("eth1"), text("203.0.113.1"), 100, true, 1); });
                });
            }));
    rows.push_back(
        Row(at + "5startEv " + at + "4stopEv " + at + "11thread_taskEv", life_of(make)).kernel().slow());
    rows.push_back(Row(at + "10save_stateEv", on(make, [](Probe& probe) { return probe.save_state(); })));
    rows.push_back(Row(at + "9get_stateEv", on(make,
                                               [](Probe& probe) {
                                                   {
                                                       const fault::Spared here;
                                                       probe.save_state();
                                                   }
                                                   return probe.get_state().isObject() ? 1 : 0;
                                               }))
                       .value()
                       .gives(1));
    rows.push_back(Row(at + "4showEv", on(make, [](Probe& probe) { return probe.show(); })));
    rows.push_back(Row(at + "9setup_dbgEi", on(make, [](Probe& probe) { return probe.setup_dbg(1), 0; })));
    rows.push_back(
        Row(at + "15reset_bandwidthEm", on(make, [](Probe& probe) { return probe.reset_bandwidth(200); }))
            .kernel()
            .logs());
    rows.push_back(
        Row(at + "16reload_conditionEv", on(make, [](Probe& probe) { return probe.reload_condition(); }))
            .kernel());
    rows.push_back(
        Row(at + "16update_conditionEi", on(make, [](Probe& probe) { return probe.update_condition(0); }))
            .kernel());
    rows.push_back(Row(at + "7prepareEv", on(make, [](Probe& probe) { return probe.prepare(); })).value());
    rows.push_back(Row(at + "5probeEv", on(make, [](Probe& probe) { return probe.probe(); })).value().slow());
}

void add_neigh(std::vector<Row>& rows) {
    const auto make = [] { return std::make_shared<ProcNeigh>("eth1", "203.0.113.1", 100, true, 1); };
    add_probe_common<ProcNeigh>(rows, "9ProcNeigh", make);
    rows.push_back(
        Row("_ZN9ProcNeigh10scan_neighEv", on(make, [](ProcNeigh& probe) { return probe.scan_neigh(); }))
            .value());
    rows.push_back(Row("_ZN9ProcNeigh13get_target_ipB5cxx11Ev _ZN9ProcNeigh14get_target_macB5cxx11Ev "
                       "_ZN9ProcNeigh7get_devB5cxx11Ev",
                       on(make,
                          [](ProcNeigh& probe) {
                              return static_cast<int>(probe.get_dev().size() + probe.get_target_ip().size() +
                                                      probe.get_target_mac().size());
                          }))
                       .value()
                       .gives(15));
    rows.push_back(Row("_ZN9ProcNeigh14set_target_macE" + kString +
                           " _ZN9ProcNeigh15get_neigh_stateEv _ZN9ProcNeigh15set_neigh_stateEi",
                       on(make,
                          [](ProcNeigh& probe) {
                              probe.set_target_mac(text("02:00:00:00:00:01"));
                              probe.set_neigh_state(2);
                              return probe.get_neigh_state();
                          }))
                       .value()
                       .gives(2));
    rows.push_back(Row("_Z12probe_mac_cbP9nl_objectPv", [make](Machine&) {
        std::shared_ptr<rtnl_neigh> entry(rtnl_neigh_alloc(), rtnl_neigh_put);
        rtnl_neigh_set_ifindex(entry.get(), index_of("eth1"));
        rtnl_neigh_set_state(entry.get(), 0x80);
        return Call([entry, probe = std::shared_ptr<ProcNeigh>(make())] {
            probe_mac_cb(reinterpret_cast<nl_object*>(entry.get()), probe.get());
            return 0;
        });
    }));
}

void add_ping(std::vector<Row>& rows) {
    // The device's own address answers.
    const auto make = [] { return std::make_shared<ProcPing>("swdev4", "10.210.0.12", 100, true, 2); };
    add_probe_common<ProcPing>(rows, "8ProcPing", make);
    rows.push_back(
        Row("_ZN8ProcPing4pingEv", on(make, [](ProcPing& probe) { return probe.ping(); })).logs().slow());
    rows.push_back(Row("_ZN8ProcPing8checksumEPtj", on(make,
                                                       [](ProcPing& probe) {
                                                           unsigned short words[2] = {0xffff, 0};
                                                           return static_cast<int>(probe.checksum(words, 4));
                                                       }))
                       .value());
}

void add_queue(std::vector<Row>& rows) {
    const auto make = [] {
        tc_options options{0, 1000000, 1000000, 1};
        setup_qdisc("eth1", "root", "1:", "htb", &options);
        setup_class("eth1", "1:", "1:1", "htb", &options);
        return std::make_shared<ProcQdm>("eth1");
    };
    rows.push_back(
        Row("_ZN7ProcQdmC1E" + kString + " _ZN7ProcQdmC2E" + kString + " _ZN7ProcQdmD1Ev _ZN7ProcQdmD2Ev",
            [](Machine&) { return Call([] { return constructed([] { ProcQdm queue(text("eth1")); }); }); }));
    rows.push_back(
        Row("_ZN7ProcQdm5startEv _ZN7ProcQdm4stopEv _ZN7ProcQdm11thread_taskEv", on(make, life<ProcQdm>))
            .slow()
            .needs({"htb"}));
    rows.push_back(
        Row("_ZN7ProcQdm5probeEv", on(make, [](ProcQdm& queue) { return queue.probe(); })).needs({"htb"}));
    rows.push_back(
        Row("_ZN7ProcQdm10save_stateEv", on(make, [](ProcQdm& queue) { return queue.save_state(); }))
            .needs({"htb"}));
    rows.push_back(Row("_ZN7ProcQdm9get_stateEv", on(make,
                                                     [](ProcQdm& queue) {
                                                         {
                                                             const fault::Spared here;
                                                             queue.probe();
                                                         }
                                                         return queue.get_state().isObject() ? 1 : 0;
                                                     }))
                       .value()
                       .gives(1)
                       .needs({"htb"}));
    rows.push_back(
        Row("_ZN7ProcQdm4showEb", on(make, [](ProcQdm& queue) { return queue.show(true); })).needs({"htb"}));
    rows.push_back(
        Row("_ZN7ProcQdm9setup_dbgEi", on(make, [](ProcQdm& queue) { return queue.setup_dbg(1), 0; }))
            .needs({"htb"}));
    rows.push_back(Row("_ZN7ProcQdm17refill_obj_statusEP8tqs_link", [make](Machine&) {
                       auto queue = make();
                       std::shared_ptr<tqs_link> sample(get_tx_queue_status("eth1"), free_tqs_head);
                       return Call([=] { return queue->refill_obj_status(sample.get()); });
                   }).needs({"htb"}));
}

void add_monitor(std::vector<Row>& rows) {
    const auto make = [] { return std::make_shared<WmObj>("eth1", "203.0.113.1", 100, "WAN", 1); };
    rows.push_back(Row("_Z13Create_wm_objPP5WmObj" + kString + "S7_mS7_h _ZN5WmObjC1E" + kString +
                           "S5_mS5_h _ZN5WmObjC2E" + kString + "S5_mS5_h _ZN5WmObjD1Ev _ZN5WmObjD2Ev",
                       [](Machine&) {
                           return Call([] {
                               WmObj* object = nullptr;
                               const int result = Create_wm_obj(&object, text("eth1"), text("203.0.113.1"),
                                                                100, text("WAN"), 1);
                               delete object;
                               return result;
                           });
                       })
                       .logs());
    rows.push_back(Row("_ZN5WmObj5startEv _ZN5WmObj4stopEv", life_of(make)).slow().kernel());
    rows.push_back(Row("_ZN5WmObj15reset_bandwidthEm",
                       on(make, [](WmObj& object) { return object.reset_bandwidth(200); }))
                       .kernel());
    rows.push_back(Row("_ZN5WmObj19reload_nf_conditionEv",
                       on(make, [](WmObj& object) { return object.reload_nf_condition(); }))
                       .kernel());
    rows.push_back(Row("_ZN5WmObj4showEv _ZN5WmObj9setup_dbgEi",
                       on(make, [](WmObj& object) { return object.setup_dbg(1), object.show(); })));
    rows.push_back(Row("_ZN5WmObj7get_devB5cxx11Ev _ZN5WmObj8get_typeB5cxx11Ev _ZN5WmObj9get_slaveB5cxx11Ev",
                       on(make,
                          [](WmObj& object) {
                              return static_cast<int>(object.get_dev().size() + object.get_type().size() +
                                                      object.get_slave().size());
                          }))
                       .value()
                       .gives(11));
    rows.push_back(Row("_ZN5WmObj9get_stateEv",
                       on(make, [](WmObj& object) { return object.get_state().isObject() ? 1 : 0; }))
                       .value()
                       .gives(1));
}

void add_responder(std::vector<Row>& rows) {
    const auto make = [] {
        std::string dev = "eth1";
        return std::make_shared<ProcUdp>(dev);
    };
    rows.push_back(
        Row("_ZN7ProcUdpC1ER" + kString + " _ZN7ProcUdpC2ER" + kString + " _ZN7ProcUdpD1Ev _ZN7ProcUdpD2Ev",
            [](Machine&) {
                auto dev = std::make_shared<std::string>("eth1");
                return Call([dev] { return constructed([&] { ProcUdp responder(*dev); }); });
            }));
    rows.push_back(
        Row("_ZN7ProcUdp5startEv _ZN7ProcUdp4stopEv _ZN7ProcUdp11thread_taskEv", on(make, life<ProcUdp>))
            .slow());
    rows.push_back(
        Row("_ZN7ProcUdp7prepareEv", on(make, [](ProcUdp& responder) { return responder.prepare(); })));
    rows.push_back(Row("_ZN7ProcUdp10udp_listenEv _ZN7ProcUdp9setup_dbgEi", on(make, [](ProcUdp& responder) {
                           responder.setup_dbg(1);
                           responder.udp_listen();
                           return 0;
                       })));
}

template <class Test>
std::shared_ptr<Test> fresh_test() {
    return std::make_shared<Test>();
}

// A run's thread ends by itself; its end is waited for as long as a test takes.
template <class Start, class Stop>
int run(Start start, Stop stop) {
    const int started = start();
    wait_a_little();
    const int stopped = stop();
    return started != kOk ? started : stopped;
}

void add_tests(std::vector<Row>& rows) {
    // With the device's id, which a run stores.
    const auto udp = [] {
        auto test = std::make_shared<ProcUdpTest>();
        test->thread_task();
        return test;
    };
    const auto ping = fresh_test<ProcPingTest>;
    const auto construct = [](auto make) {
        return [make](Machine&) { return Call([make] { return constructed([&] { make(); }); }); };
    };
    rows.push_back(Row("_ZN11ProcUdpTestC1Ev _ZN11ProcUdpTestC2Ev _ZN11ProcUdpTestD1Ev _ZN11ProcUdpTestD2Ev",
                       construct([] { ProcUdpTest test; })));
    rows.push_back(
        Row("_ZN12ProcPingTestC1Ev _ZN12ProcPingTestC2Ev _ZN12ProcPingTestD1Ev _ZN12ProcPingTestD2Ev",
            construct([] { ProcPingTest test; })));
    rows.push_back(Row("_ZN11ProcUdpTest11udp_requestEiR" + kString + "b",
                       on(udp,
                          [](ProcUdpTest& test) {
                              const auto address = fault::spared_object<std::string>("127.0.0.21");
                              return test.udp_request(21, *address, false);
                          }))
                       .logs()
                       .slow());
    rows.push_back(Row("_ZN11ProcUdpTest11thread_taskEv",
                       on(udp, [](ProcUdpTest& test) { return test.thread_task(), 0; }))
                       .logs()
                       .slow());
    rows.push_back(
        Row("_ZN11ProcUdpTest13probe_nexthopEv", on(
                                                     [] {
                                                         auto test = std::make_shared<ProcUdpTest>();
                                                         test->thread_task();  // stores the device's id
                                                         return test;
                                                     },
                                                     [](ProcUdpTest& test) { return test.probe_nexthop(); }))
            .logs()
            .slow());
    rows.push_back(Row("_ZN11ProcUdpTest19start_nexthop_utestEb _ZN11ProcUdpTest18stop_nexthop_utestEv",
                       on(udp,
                          [](ProcUdpTest& test) {
                              return run([&] { return test.start_nexthop_utest(false); },
                                         [&] { return test.stop_nexthop_utest(); });
                          }))
                       .slow());
    rows.push_back(Row("_Z22Start_nexthop_udp_testb _Z21Stop_nexthop_udp_testv", [](Machine&) {
                       return Call([] {
                           return run([] { return Start_nexthop_udp_test(false); }, Stop_nexthop_udp_test);
                       });
                   }).slow());
    rows.push_back(Row("_ZN12ProcPingTest4pingER" + kString + "S5_",
                       on(ping,
                          [](ProcPingTest& test) {
                              const auto address = fault::spared_object<std::string>("127.0.0.21");
                              return test.ping(*address, text(""));
                          }))
                       .logs()
                       .slow());
    rows.push_back(Row("_ZN12ProcPingTest8checksumEPtj", on(ping,
                                                            [](ProcPingTest& test) {
                                                                unsigned short words[2] = {0xffff, 0};
                                                                return static_cast<int>(
                                                                    test.checksum(words, 4));
                                                            }))
                       .value());
    rows.push_back(Row("_ZN12ProcPingTest11thread_taskEv",
                       on(ping, [](ProcPingTest& test) { return test.thread_task(), 0; }))
                       .logs()
                       .slow());
    rows.push_back(Row("_ZN12ProcPingTest13probe_nexthopEv",
                       on(
                           [] {
                               auto test = std::make_shared<ProcPingTest>();
                               test->thread_task();
                               return test;
                           },
                           [](ProcPingTest& test) { return test.probe_nexthop(); }))
                       .logs()
                       .slow());
    rows.push_back(Row("_ZN12ProcPingTest12probe_rglinkEi",
                       on(ping, [](ProcPingTest& test) { return test.probe_rglink(4); }))
                       .logs()
                       .slow());
    rows.push_back(Row("_ZN12ProcPingTest19start_nexthop_ptestEv _ZN12ProcPingTest18stop_nexthop_ptestEv",
                       on(ping,
                          [](ProcPingTest& test) {
                              return run([&] { return test.start_nexthop_ptest(); },
                                         [&] { return test.stop_nexthop_ptest(); });
                          }))
                       .slow());
    rows.push_back(Row("_Z23Start_nexthop_ping_testv _Z22Stop_nexthop_ping_testv", [](Machine&) {
                       return Call([] { return run(Start_nexthop_ping_test, Stop_nexthop_ping_test); });
                   }).slow());
    rows.push_back(Row("_Z22Start_rglink_ping_testi",
                       [](Machine&) { return Call([] { return Start_rglink_ping_test(4); }); })
                       .logs()
                       .slow());
}

}  // namespace

void add_probe_rows(std::vector<Row>& rows) {
    add_neigh(rows);
    add_ping(rows);
    add_queue(rows);
    add_monitor(rows);
    add_responder(rows);
    add_tests(rows);
}

}  // namespace corvo::test
