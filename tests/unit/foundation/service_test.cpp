// Every service call: what goes out, and what is done with the data that comes back.
#include "corvosetup/service.h"

#include <pthread.h>

#include <atomic>
#include <climits>
#include <thread>

#include "cancellation.h"
#include "service_fixture.h"

namespace {

using fake_vx::Answer;
using fake_vx::Call;
using fake_vx::reply;
using InterfaceMap = std::unordered_map<std::string, Json::Value>;

class ServiceTest : public ServiceFixture {};

// ---- what is sent

TEST_F(ServiceTest, DeviceIdAsksWithoutARequestText) {
    reply(R"({"error":0,"data":7})");
    EXPECT_EQ(get_device_id(), 7);
    EXPECT_EQ(call(), (Call{"vesta", "get_devid", "", 5, -1}));
    EXPECT_TRUE(vx().formats.empty());
}

TEST_F(ServiceTest, LocalMgmtAsksWithoutARequestText) {
    reply(R"({"error":0,"data":1})");
    EXPECT_TRUE(get_local_mgmt());
    EXPECT_EQ(call(), (Call{"vesta", "get_local_mgmt", "", 5, -1}));
    EXPECT_TRUE(vx().formats.empty());
}

TEST_F(ServiceTest, InterfaceQueriesSendComprehensiveAsAQuotedNumber) {
    reply(R"({"error":0,"data":[]})");
    Json::Value out;
    EXPECT_EQ(vxh_get_available_wan_info(out, "/etc/x.json", 1), 0);
    EXPECT_EQ(vxh_get_available_private_info(out, "", -2), 0);
    EXPECT_EQ(vxh_get_available_rglink_info(out, "p", 0), 0);
    EXPECT_EQ(call(0), (Call{"TarnService", "Get_available_wan_info",
                             R"({"path": "/etc/x.json", "comprehensive": "1"})", 5, -1}));
    EXPECT_EQ(call(1), (Call{"TarnService", "Get_available_private_info",
                             R"({"path": "", "comprehensive": "-2"})", 5, -1}));
    EXPECT_EQ(call(2), (Call{"TarnService", "Get_available_rglink_info",
                             R"({"path": "p", "comprehensive": "0"})", 5, -1}));
}

TEST_F(ServiceTest, MapQueriesAskTheSameMethods) {
    reply(R"({"error":0,"data":[]})");
    InterfaceMap out;
    EXPECT_EQ(get_available_wan_info(out, "a", 1), 0);
    EXPECT_EQ(get_available_private_info(out, "a", 1), 0);
    EXPECT_EQ(get_available_rglink_info(out, "a", 1), 0);
    EXPECT_EQ(call(0).method, "Get_available_wan_info");
    EXPECT_EQ(call(1).method, "Get_available_private_info");
    EXPECT_EQ(call(2).method, "Get_available_rglink_info");
}

TEST_F(ServiceTest, WanNexthopStatusNamesTheIdAsANumber) {
    reply(R"({"error":0})");
    EXPECT_EQ(vxh_update_nexthop_status(255, 1, false), 0);
    EXPECT_EQ(call(), (Call{"nm-halor", "UpdateWanNexthopStatus", R"({"id":255,"stat":1})", 30, -1}));
}

TEST_F(ServiceTest, PrivateNexthopStatusNamesThePort) {
    reply(R"({"error":0})");
    EXPECT_EQ(vxh_update_nexthop_status(200, 0, true), 0);
    EXPECT_EQ(call(), (Call{"nm-halor", "Update_private_nexthop_status", R"({"portname":"PORT200","stat":0})",
                            30, -1}));
}

TEST_F(ServiceTest, ActiveHubIsNamedByItsSite) {
    reply(R"({"error":0})");
    EXPECT_EQ(vxh_update_next_active_hub("site 1"), 0);
    EXPECT_EQ(call(), (Call{"nm-halor", "UpdateActiveHUB", R"({"remote_site":"site 1"})", 30, -1}));
}

TEST_F(ServiceTest, PingFailedLogCarriesMessage190) {
    reply(R"({"error":0})");
    EXPECT_EQ(vxh_post_ping_failed_log("a to b", LONG_MAX), 0);
    EXPECT_EQ(call(), (Call{"nm-morin-handler", "PostLog",
                            R"({"msg_id":190,"timestamp":9223372036854775807,"values":["a to b"]})", 3, -1}));
}

TEST_F(ServiceTest, PortCpuIsAskedForByInterface) {
    reply(R"({"error":0})");
    EXPECT_EQ(vxh_set_port_cpu("eth0"), 0);
    EXPECT_EQ(call(), (Call{"Corvo_CPU_tune", "Setup_CPU", R"({"ifname": "eth0"})", 5, -1}));
}

TEST_F(ServiceTest, PluvdFlagIsAQuotedNumber) {
    reply(R"({"error":0})");
    EXPECT_EQ(pluvd_exec(3), 0);
    EXPECT_EQ(pluvd_exec(-1), 0);
    EXPECT_EQ(call(0), (Call{"pluvd", "exec", R"({"flag": "3"})", 5, -1}));
    EXPECT_EQ(call(1).request, R"({"flag": "-1"})");
}

TEST_F(ServiceTest, FormatsAreConstantsAndDataGoesInAsArguments) {
    reply(R"({"error":0,"data":[]})");
    Json::Value out;
    vxh_get_available_wan_info(out, "%n%s", 1);
    vxh_update_next_active_hub("%s%s%n");
    vxh_post_ping_failed_log("%d%n", 1);
    vxh_set_port_cpu("%x%n");
    EXPECT_EQ(vx().formats, (std::vector<std::string>{
                                R"({"path": "%s", "comprehensive": "%d"})", R"({"remote_site":"%s"})",
                                R"({"msg_id":%ld,"timestamp":%ld,"values":["%s"]})", R"({"ifname": "%s"})"}));
    EXPECT_EQ(call(1).request, R"({"remote_site":"%s%s%n"})");
}

TEST_F(ServiceTest, QuotesInDataCannotChangeTheRequest) {
    reply(R"({"error":0})");
    vxh_update_next_active_hub("x\",\"evil\":\"\\y\n");
    EXPECT_EQ(call().request, R"({"remote_site":"x\",\"evil\":\"\\y\u000a"})");
}

TEST_F(ServiceTest, BytesAboveAsciiAndSlashesGoOutAsTheyAre) {
    reply(R"({"error":0})");
    vxh_update_next_active_hub("K\xc3\xb6ln/1 \xff");
    EXPECT_EQ(call().request, "{\"remote_site\":\"K\xc3\xb6ln/1 \xff\"}");
}

// ---- interface lists and maps

TEST_F(ServiceTest, ListIsHandedOver) {
    reply(R"({"error":0,"data":[{"ifname":"eth1","id":1}]})");
    Json::Value out = "old";
    EXPECT_EQ(vxh_get_available_wan_info(out, "", 1), 0);
    ASSERT_TRUE(out.isArray());
    EXPECT_EQ(out[0]["ifname"], "eth1");
}

TEST_F(ServiceTest, MissingListIsAnEmptyOne) {
    reply(R"({"error":0})");
    Json::Value out = 5;
    EXPECT_EQ(vxh_get_available_rglink_info(out, "", 1), 0);
    EXPECT_TRUE(out.isArray());
    EXPECT_EQ(out.size(), 0U);
}

TEST_F(ServiceTest, DataThatIsNoListIs3004ButReplacesTheOutput) {
    for (const char* data : {R"({"ifname":"eth1"})", "5", "\"x\"", "null"}) {
        reply(std::string(R"({"error":0,"data":)") + data + "}");
        Json::Value out(Json::arrayValue);
        out.append("old");
        EXPECT_EQ(vxh_get_available_wan_info(out, "", 1), -3004);
        EXPECT_FALSE(out.isArray());
    }
}

TEST_F(ServiceTest, FailedListLeavesTheOutputAlone) {
    reply(R"({"error":1,"data":[]})");
    Json::Value out = "old";
    EXPECT_EQ(vxh_get_available_private_info(out, "", 1), -3019);
    EXPECT_EQ(out, "old");
}

TEST_F(ServiceTest, MapHoldsEachElementUnderItsIfname) {
    reply(R"({"error":0,"data":[{"ifname":"eth1","id":1},{"ifname":"eth2","id":2}]})");
    InterfaceMap out{{"old", 1}};
    EXPECT_EQ(get_available_wan_info(out, "", 1), 0);
    ASSERT_EQ(out.size(), 2U);
    EXPECT_EQ(out["eth2"]["id"], 2);
    EXPECT_EQ(out["eth1"]["ifname"], "eth1");
}

TEST_F(ServiceTest, LaterElementOfTheSameNameWins) {
    reply(R"({"error":0,"data":[{"ifname":"eth1","id":1},{"ifname":"eth1","id":2}]})");
    InterfaceMap out;
    EXPECT_EQ(get_available_wan_info(out, "", 1), 0);
    ASSERT_EQ(out.size(), 1U);
    EXPECT_EQ(out["eth1"]["id"], 2);
}

TEST_F(ServiceTest, ElementsWithoutAUsableIfnameAreDropped) {
    reply(
        R"({"error":0,"data":[{"id":1},{"ifname":""},{"ifname":null},{"ifname":[]},{"ifname":{}},5,"x",null,)"
        R"([],{"ifname":"eth1"}]})");
    InterfaceMap out;
    EXPECT_EQ(get_available_private_info(out, "", 1), 0);
    ASSERT_EQ(out.size(), 1U);
    EXPECT_EQ(out.count("eth1"), 1U);
}

TEST_F(ServiceTest, FailedMapQueryLeavesTheMapAlone) {
    InterfaceMap out{{"old", 1}};
    for (const char* text : {"", "{", R"({"error":5})", R"({"error":0,"data":{}})"}) {
        reply(text);
        EXPECT_NE(get_available_rglink_info(out, "", 1), 0);
        EXPECT_EQ(out.size(), 1U) << text;
    }
    reply(R"({"error":0,"data":{}})");
    EXPECT_EQ(get_available_rglink_info(out, "", 1), -3004);
}

// ---- the hub manager that does not know the instance

class UnknownInstance : public ServiceTest, public ::testing::WithParamInterface<bool> {};

TEST_P(UnknownInstance, LinkDownRestartsTheMonitor) {
    vx().answers = {Answer{R"({"error":-5017})"}, Answer{R"({"error":0})"}};
    EXPECT_EQ(vxh_update_nexthop_status(3, 0, GetParam()), -5017);
    ASSERT_EQ(vx().calls.size(), 2U);
    EXPECT_EQ(call(1), (Call{"nm-halor", "RestartMonitor", "", 10, -1}));
    EXPECT_EQ(vx().reallocs, 1);
    EXPECT_EQ(vx().created, 1);
    EXPECT_EQ(lines(), Lines{"[ERROR] Instance is not existed; Do nm-halor.RestartMonitor."});
}

TEST_P(UnknownInstance, OutcomeOfTheRestartDoesNotMatter) {
    vx().answers = {Answer{R"({"error":-5017})"}, Answer{"", -1}};
    EXPECT_EQ(vxh_update_nexthop_status(3, 0, GetParam()), -5017);
    EXPECT_EQ(vx().calls.size(), 2U);
}

TEST_P(UnknownInstance, LinkUpOnlyWarns) {
    reply(R"({"error":-5017})");
    EXPECT_EQ(vxh_update_nexthop_status(3, 1, GetParam()), -5017);
    EXPECT_EQ(vx().calls.size(), 1U);
    EXPECT_EQ(lines(), Lines{"[WARNING] interface has been removed."});
}

TEST_P(UnknownInstance, AnyOtherStatThanZeroOnlyWarns) {
    reply(R"({"error":-5017})");
    EXPECT_EQ(vxh_update_nexthop_status(3, -1, GetParam()), -5017);
    EXPECT_EQ(vx().calls.size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Links, UnknownInstance, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Private" : "Wan"; });

TEST_F(ServiceTest, ActiveHubDoesNotRestartTheMonitor) {
    reply(R"({"error":-5017})");
    EXPECT_EQ(vxh_update_next_active_hub("s"), -5017);
    EXPECT_EQ(vx().calls.size(), 1U);
    EXPECT_EQ(lines(), Lines{});
}

TEST_F(ServiceTest, CancelledThreadFinishesItsCallFirst) {
    NEEDS_CANCELLATION();
    reply(R"({"error":0})");
    pthread_t self{};
    std::atomic<bool> in_call{false};
    std::atomic<bool> cancelled{false};
    vx().during_call = [&] {
        in_call = true;
        while (!cancelled) std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // a cancellation point
    };
    std::atomic<int> result{1};
    std::thread caller([&] {
        self = pthread_self();
        result = pluvd_exec(1);
        pthread_testcancel();
        ADD_FAILURE() << "the cancellation was lost";
    });
    while (!in_call) std::this_thread::yield();
    pthread_cancel(self);
    cancelled = true;
    caller.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(vx().created, vx().freed);
}

TEST_F(ServiceTest, ThreadsMayCallAtTheSameTime) {
    reply(R"({"error":0,"data":[{"ifname":"eth1"}]})");
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                InterfaceMap out;
                if (get_available_wan_info(out, "p", 1) != 0 || out.size() != 1) ++failures;
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures, 0);
}

}  // namespace
