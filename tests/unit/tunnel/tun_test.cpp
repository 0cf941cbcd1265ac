// IPv4 tunnels: construction, creation, deletion and rules.
#include "corvosetup/tun.h"

#include <net/if.h>
#include <sys/sysinfo.h>

#include "fake_device.h"

using corvo::test::FailingStep;
using corvo::test::FakeDevice;
using corvo::test::json;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace {

class TunTest : public FakeDevice {
protected:
    TunTest() { entry("wan0", R"({"slave": "eth0", "id": 3, "tun_addr": "198.19.0.50", "prio": 9})"); }

    Tun tun(unsigned queue = 2) { return Tun("eth0", entries["wan0"], queue); }
    Tun existing_tun() {
        devices["tun3"] = 12;
        return tun();
    }
    int setup(int op, const std::string& ifname = "all", unsigned queue = 2) {
        std::string source = "/etc/x.json";
        return ::setup_tun(op, ifname, source, queue);
    }
};

TEST_F(TunTest, ConstructorNamesTheDeviceAfterTheId) {
    Tun link = tun();
    EXPECT_EQ(link.get_dev(), "tun3");
    EXPECT_THAT(log(), ElementsAre("[DEBUG] Assigned queue num: 2",
                                   "[DEBUG] SLAVE: eth0, DEV: tun3, ID: 3, DEV_IDX: 7, PRIO: 9, LOCAL: "
                                   "198.19.0.50, QUEUE: 2"));
}

TEST_F(TunTest, QueueZeroMeansOnePerProcessor) {
    Tun link = tun(0);
    EXPECT_THAT(log(), ElementsAre("[DEBUG] SLAVE: eth0, DEV: tun3, ID: 3, DEV_IDX: 7, PRIO: 9, LOCAL: "
                                   "198.19.0.50, QUEUE: " +
                                   std::to_string(get_nprocs())));
    ipip_conf conf{};
    link.dump2struct(&conf);
    EXPECT_EQ(conf.queues, get_nprocs());
}

TEST_F(TunTest, WithoutASlaveOrADeviceIdTheObjectStaysEmpty) {
    Tun no_slave("", entries["wan0"], 2);
    EXPECT_EQ(no_slave.get_dev(), "");
    device_id = 0;
    Tun no_device = tun();
    EXPECT_EQ(no_device.get_dev(), "");
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(TunTest, ConstructorSurvivesAnyEntry) {
    for (const char* text : {"null", "[]", "5", "\"x\"", R"({"id": {}, "tun_addr": [], "prio": "x"})"}) {
        Json::Value entry = json(text);
        Tun link("eth0", entry, 1);
        EXPECT_EQ(link.get_dev(), "tun0") << text;
    }
}

TEST_F(TunTest, ConstructorKeepsAnInvalidTunnelAddress) {
    entries["wan0"]["tun_addr"] = "10.0.0.999";
    ipip_conf conf{};
    Tun link = tun();
    EXPECT_EQ(link.dump2struct(&conf), 0);
    EXPECT_STREQ(conf.local, "10.0.0.999");
    EXPECT_STREQ(conf.addr, "10.0.0.999");
}

TEST_F(TunTest, DeviceNameAndAddressAreCutAt15Characters) {
    entries["wan0"]["tun_addr"] = "a-text-longer-than-any-address";
    entries["wan0"]["id"] = -2147483647;
    ipip_conf conf{};
    Tun link = tun();
    link.dump2struct(&conf);
    EXPECT_STREQ(conf.name, "tun-2147483647");
    EXPECT_STREQ(conf.local, "a-text-longer-t");
}

TEST_F(TunTest, SetLocalRefusesWhatIsNoAddressAndKeepsTheOldOne) {
    Tun link = tun();
    std::string bad = "10.0.0.256", good = "10.0.0.1";
    ipip_conf conf{};
    EXPECT_EQ(link.set_local(bad), -3007);
    link.dump2struct(&conf);
    EXPECT_STREQ(conf.local, "198.19.0.50");
    EXPECT_EQ(link.set_local(good), 0);
    link.dump2struct(&conf);
    EXPECT_STREQ(conf.local, "10.0.0.1");
}

TEST_F(TunTest, Dump2structFillsTheRecordAndTheFourthFieldWithLocal) {
    Tun link = tun();
    clear();
    ipip_conf conf{};
    EXPECT_EQ(link.dump2struct(&conf), 0);
    EXPECT_STREQ(conf.name, "tun3");
    EXPECT_STREQ(conf.local, "198.19.0.50");
    EXPECT_STREQ(conf.remote, "0.0.0.0");
    EXPECT_STREQ(conf.addr, "198.19.0.50");
    EXPECT_EQ(conf.queues, 2);
    EXPECT_EQ(conf.ttl, 0);
    EXPECT_EQ(conf.sport, 5555);
    EXPECT_EQ(conf.dport, 5555);
    EXPECT_THAT(log(),
                ElementsAre("[DEBUG] [tun3] local: 198.19.0.50, remote: 0.0.0.0, ip: 198.19.0.50, ttl: 0, "
                            "sport: 5555, dport: 5555, queue: 2"));
}

TEST_F(TunTest, Dump2structOfNullIsAGeneralFailure) {
    EXPECT_EQ(tun().dump2struct(nullptr), -3001);
}

TEST_F(TunTest, IfindexIsLookedUpUntilFoundAndCachedThen) {
    Tun link = tun();
    EXPECT_EQ(link.obtain_ifindex(), 0);
    devices["tun3"] = 12;
    EXPECT_EQ(link.obtain_ifindex(), 12);
    devices.clear();
    EXPECT_EQ(link.obtain_ifindex(), 12);
}

TEST_F(TunTest, FlagsNeedADevice) {
    Tun link = tun();
    unsigned flags = 0;
    EXPECT_EQ(link.get_tun_flag(flags), -3005);
    EXPECT_EQ(link.set_tun_flag(IFF_UP), -3005);
    EXPECT_EQ(link.unset_tun_flag(IFF_UP), -3005);
    EXPECT_THAT(calls, IsEmpty());
    devices["tun3"] = 12;
    fail("unset_dev_flags", -3011);
    EXPECT_EQ(link.get_tun_flag(flags), 0);
    EXPECT_EQ(flags, 0x1043u);
    EXPECT_EQ(link.set_tun_flag(IFF_UP), 0);
    EXPECT_EQ(link.unset_tun_flag(IFF_UP), -3011);
    EXPECT_THAT(calls, ElementsAre("get_dev_flags 12 0", "set_dev_flags 12 1", "unset_dev_flags 12 1"));
}

TEST_F(TunTest, SetupTunIpv4NeedsADeviceAndAnAddress) {
    Tun link = tun();
    EXPECT_EQ(link.setup_tun_ipv4(), -3005);
    devices["tun3"] = 12;
    EXPECT_EQ(link.setup_tun_ipv4(), 0);
    EXPECT_THAT(calls, ElementsAre("set_ipv4_addr 12 198.19.0.50"));
    entries["wan0"]["tun_addr"] = "";
    EXPECT_EQ(tun().setup_tun_ipv4(), -3007);
}

TEST_F(TunTest, CreationRunsItsStepsInOrder) {
    EXPECT_EQ(tun().setup_tun(0), 0);
    EXPECT_THAT(
        calls,
        ElementsAre("edit_ipip_tunnel 0 tun3 local=198.19.0.50 remote=0.0.0.0 addr=198.19.0.50 queues=2 "
                    "ttl=0 sport=5555 dport=5555",
                    "setup_cpus tun3", "write_value /proc/sys/net/ipv4/neigh/tun3/mcast_solicit 0",
                    "set_ipv4_addr 40 198.19.0.50", "set_dev_flags 40 1",
                    "edit_rule 0 prio=10003 table=10003 mark=3/15",
                    "edit_rule 0 prio=10003 table=15003 mark=3/15",
                    "edit_rule 0 prio=20003 table=20003 from=198.19.0.50",
                    "edit_rule 0 prio=20003 table=20003 oif=tun3", "edit_rule 0 prio=30003 table=30003"));
}

class TunCreationStops : public TunTest, public testing::WithParamInterface<FailingStep> {};

TEST_P(TunCreationStops, AtTheFirstFailingStepAndLeavesWhatWasDone) {
    fail(GetParam().step, -3011);
    EXPECT_EQ(tun().setup_tun(0), -3011);
    EXPECT_THAT(calls.back(), StartsWith(GetParam().step));
    EXPECT_THAT(errors(), ElementsAre(GetParam().message));
    EXPECT_THAT(only("edit_ipip_tunnel 1"), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Steps, TunCreationStops,
    testing::Values(FailingStep{"edit_ipip_tunnel", "[ERROR] edit_ipip_tunnel(): tun3 failed."},
                    FailingStep{"setup_cpus", "[ERROR] tun3setup rps/xps failed, Ret: -3011"},
                    FailingStep{"write_value", "[ERROR] tun3Write mcast_solicit to 0 failed, Ret: -3011"},
                    FailingStep{"set_ipv4_addr", "[ERROR] setup_tun_ipv4(): tun3 failed, Ret: -3011"},
                    FailingStep{"set_dev_flags", "[ERROR] set_tun_flag() IFF_UP: tun3 failed."}));

TEST_F(TunTest, InvalidTunnelAddressLeavesTheDeviceDownWithoutAnAddress) {
    entries["wan0"]["tun_addr"] = "10.0.0.999";
    EXPECT_EQ(tun().setup_tun(0), -3007);
    EXPECT_EQ(devices.count("tun3"), 1u);
    EXPECT_THAT(only("set_"), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("[ERROR] setup_tun_ipv4(): tun3 failed, Ret: -3007"));
}

TEST_F(TunTest, AnyOtherOperationEndsAtTheDevice) {
    fail("edit_ipip_tunnel 2", -3004);
    EXPECT_EQ(tun().setup_tun(2), -3004);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] edit_ipip_tunnel(): tun3 failed."));
}

TEST_F(TunTest, DeletionTakesRulesAndAllFourTablesAwayFirst) {
    EXPECT_EQ(existing_tun().setup_tun(1), 0);
    EXPECT_THAT(calls,
                ElementsAre("edit_rule 1 prio=10003", "edit_rule 1 prio=10003", "edit_rule 1 prio=20003",
                            "edit_rule 1 prio=20003", "edit_rule 1 prio=30003",
                            "edit_route 2 /0 table=10003 metric=0", "edit_route 2 /0 table=15003 metric=0",
                            "edit_route 2 /0 table=20003 metric=0", "edit_route 2 /0 table=30003 metric=0",
                            StartsWith("edit_ipip_tunnel 1 tun3 ")));
    EXPECT_THAT(log(), Contains("[DEBUG] Del tun: tun3 done"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(TunTest, DeletionOfAnAbsentDeviceIsASuccessWithAWarning) {
    EXPECT_EQ(tun().setup_tun(1), 0);
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("[WARNING] Tunnel tun3 does not exist."));
}

TEST_F(TunTest, DeletionGoesOnPastFailures) {
    Tun link = existing_tun();
    fail("edit_rule", -3011);
    fail("edit_route", -3010);
    EXPECT_EQ(link.setup_tun(1), 0);
    EXPECT_EQ(devices.count("tun3"), 0u);
    EXPECT_THAT(
        errors(),
        ElementsAre(
            "[ERROR] delete site-to-site fwmark rule failed.",
            "[ERROR] delete static route fwmark rule failed.", "[ERROR] delete mptcp first rule failed.",
            "[ERROR] delete mptcp second rule failed.", "[ERROR] delete mptcp defult rule failed.",
            "[ERROR] Edit Route failed, ret: -3010, result: Unspecific failureop: 2 dst: /0, table: 10003, "
            "prio: 0",
            "[ERROR] tun3 flush route failed. table [10003]",
            "[ERROR] Edit Route failed, ret: -3010, result: Unspecific failureop: 2 dst: /0, table: 15003, "
            "prio: 0",
            "[ERROR] tun3 flush route failed. table [15003]",
            "[ERROR] Edit Route failed, ret: -3010, result: Unspecific failureop: 2 dst: /0, table: 20003, "
            "prio: 0",
            "[ERROR] tun3 flush route failed. table [20003]",
            "[ERROR] Edit Route failed, ret: -3010, result: Unspecific failureop: 2 dst: /0, table: 30003, "
            "prio: 0",
            "[ERROR] tun3 flush route failed. table [30003]"));
}

TEST_F(TunTest, DeletionGoesOnWithoutMemoryForItsRoutesAndRules) {
    Tun link = existing_tun();
    run_out_of_memory("edit_r");
    EXPECT_EQ(link.setup_tun(1), 0);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] destroy_tun_rule(): tun3 failed.",
                                      "[ERROR] destroy_tun_route(): tun3 failed."));
    EXPECT_EQ(devices.count("tun3"), 0u);
}

TEST_F(TunTest, DeletionThatTheKernelRefusesIsReported) {
    Tun link = existing_tun();
    fail("edit_ipip_tunnel 1", -3011);
    EXPECT_EQ(link.setup_tun(1), -3011);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] edit_ipip_tunnel(): tun3 failed."));
}

// A kind whose steps can be made to fail where Tun's own never do.
class FailingTun : public Tun {
public:
    FailingTun(Json::Value& info, int rule_result) : Tun("eth0", info, 2), rule_result_(rule_result) {}
    int setup_tun_rule() override { return rule_result_; }
    int destroy_tun_rule() override { return rule_result_; }

private:
    int rule_result_;
};

TEST_F(TunTest, FailingRuleOperationsOfDerivedTunnelsAreReported) {
    FailingTun link(entries["wan0"], -3001);
    EXPECT_EQ(link.setup_tun(0), -3001);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] setup_tun_rule(): tun3 failed."));
    clear();
    EXPECT_EQ(link.setup_tun(1), 0);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] destroy_tun_rule(): tun3 failed."));
}

TEST_F(TunTest, VirtualSlotsKeepTheirOrder) {
    // Programs call through the table: setup_tun, setup_tun_rule, destroy_tun_rule, setup_mptcp_default_rule.
    FailingTun link(entries["wan0"], -42);
    using Slot = int (*)(void*);
    Slot* table = *reinterpret_cast<Slot**>(static_cast<TunBase*>(&link));
    EXPECT_EQ(table[1](&link), -42);
    EXPECT_EQ(table[2](&link), -42);
    static_assert(!std::has_virtual_destructor_v<TunBase>);
    static_assert(sizeof(TunBase) == 112 && sizeof(Tun) == 120);
}

TEST_F(TunTest, RulesNeedADevice) {
    Tun link = tun();
    EXPECT_EQ(link.setup_tun_rule(), 0);
    EXPECT_EQ(link.destroy_tun_rule(), 0);
    EXPECT_EQ(link.setup_mptcp_default_rule(0), 0);
    EXPECT_EQ(link.destroy_tun_route(-1), 0);
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(TunTest, EveryFailingRuleIsLoggedAndTheResultIsSuccess) {
    Tun link = existing_tun();
    clear();
    fail("edit_rule", -3011);
    EXPECT_EQ(link.setup_tun_rule(), 0);
    EXPECT_EQ(calls.size(), 5u);
    EXPECT_THAT(log(), ElementsAre("[ERROR] setup site-to-site fwmark rule failed.",
                                   "[ERROR] setup static route fwmark rule failed.",
                                   "[ERROR] setup mptcp source first rule failed.",
                                   "[ERROR] setup mptcp second rule failed.",
                                   "[ERROR] setup mptcp default rule failed."));
    EXPECT_EQ(link.destroy_tun_rule(), 0);
}

TEST_F(TunTest, NoRuleFromEverywhereIsMadeOfAMissingAddress) {
    entries["wan0"]["tun_addr"] = "";
    Tun link = existing_tun();
    EXPECT_EQ(link.setup_tun_rule(), 0);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] setup mptcp source first rule failed."));
    EXPECT_EQ(calls.size(), 4u);
}

TEST_F(TunTest, NumbersOutsideOurTablesNeverReachTheKernel) {
    // 30000 - 29746 would be 254, the main table; 10000 - 10000 an unset one.
    for (const int id : {-29746, -10000, -30000, 2147483647}) {
        entries["wan0"]["id"] = id;
        Tun link = tun();
        devices[link.get_dev()] = 12;
        clear();
        link.setup_tun_rule();
        link.destroy_tun_rule();
        link.destroy_tun_route(-1);
        link.setup_mptcp_default_rule(1);
        link.setup_mptcp_default_route(2);
        for (const std::string& call : calls) {
            for (const char* word : {"table=", "prio="}) {
                const auto at = call.find(word);
                if (at != std::string::npos) {
                    EXPECT_GE(std::stoll(call.substr(at + std::string(word).size())), 256) << call;
                }
            }
        }
    }
}

TEST_F(TunTest, MptcpDefaultRuleIsAddedByZeroAndDeletedByAnythingElse) {
    Tun link = existing_tun();
    clear();
    EXPECT_EQ(link.setup_mptcp_default_rule(0), 0);
    EXPECT_EQ(link.setup_mptcp_default_rule(1), 0);
    EXPECT_EQ(link.setup_mptcp_default_rule(-7), 0);
    EXPECT_THAT(calls, ElementsAre("edit_rule 0 prio=30003 table=30003", "edit_rule 1 prio=30003 table=30003",
                                   "edit_rule 1 prio=30003 table=30003"));
    fail("edit_rule", -3011);
    EXPECT_EQ(link.setup_mptcp_default_rule(5), -3011);
    EXPECT_THAT(log(), ElementsAre("[ERROR]  op: 5 mptcp default rule failed."));
}

TEST_F(TunTest, SetupTunSelectsAllEntries) {
    entry("wan1", R"({"slave": "eth1", "id": 4, "tun_addr": "198.19.0.51"})");
    for (const char* all : {"", "all"}) {
        clear();
        devices.clear();
        EXPECT_EQ(setup(0, all), 0);
        EXPECT_EQ(asked, "wan /etc/x.json 1");
        EXPECT_THAT(only("edit_ipip"), UnorderedElementsAre(StartsWith("edit_ipip_tunnel 0 tun3 "),
                                                            StartsWith("edit_ipip_tunnel 0 tun4 ")));
    }
}

TEST_F(TunTest, SetupTunPrefersNamesOverSlaves) {
    // "eth0" is the slave of one entry and the name of another.
    entry("eth0", R"({"slave": "wan9", "id": 8, "tun_addr": "198.19.0.58"})");
    EXPECT_EQ(setup(0, "eth0"), 0);
    EXPECT_THAT(only("edit_ipip"), ElementsAre(StartsWith("edit_ipip_tunnel 0 tun8 ")));
    clear();
    EXPECT_EQ(setup(0, "wan9"), 0);
    EXPECT_THAT(only("edit_ipip"), ElementsAre(StartsWith("edit_ipip_tunnel 0 tun8 ")));
    clear();
    EXPECT_EQ(setup(0, "wan0"), 0);
    EXPECT_THAT(only("edit_ipip"), ElementsAre(StartsWith("edit_ipip_tunnel 0 tun3 ")));
}

TEST_F(TunTest, SetupTunReturnsSuccessWhateverATunnelDid) {
    fail("edit_ipip_tunnel", -3011);
    EXPECT_EQ(setup(0), 0);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] edit_ipip_tunnel(): tun3 failed."));
    clear();
    EXPECT_EQ(setup(0, "wan7"), 0);
    EXPECT_THAT(log(), ElementsAre("[ERROR] Could not find [wan7] in available_wan_info map!"));
}

TEST_F(TunTest, SetupTunRefusesOtherOperationsBeforeAnyServiceCall) {
    for (const int op : {2, 5, -1}) EXPECT_EQ(setup(op), -3004);
    EXPECT_EQ(asked, "");
}

TEST_F(TunTest, SetupTunReturnsTheServicesCode) {
    service_result = -3023;
    EXPECT_EQ(setup(0), -3023);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] get_available_wan_info failed! ret: -3023"));
}

TEST_F(TunTest, EntryPointsTraceWithInitEnter) {
    setup(9);
    const auto texts = corvo::test::log_texts(log_file());
    EXPECT_THAT(texts,
                Contains(testing::ContainsRegex("^\\[DEBUG\\] INIT Enter tun.cpp::[0-9]+::setup_tun$")));
    EXPECT_THAT(texts,
                Contains(testing::ContainsRegex("^\\[DEBUG\\] Exit tun.cpp::[0-9]+::setup_tun: -3004$")));
}

TEST_F(TunTest, EntryPointsMakeARemovedLogFileAgain) {
    std::filesystem::remove(log_file());
    setup(9);
    EXPECT_THAT(corvo::test::log_texts(log_file()), Contains("[DEBUG] Reopen setup_logger to " + log_file()));
}

}  // namespace
