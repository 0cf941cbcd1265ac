// Every service call: what goes out, and what each kind of answer makes of it.
#include "corvosetup/service.h"

#include <pthread.h>

#include <climits>
#include <cmath>
#include <functional>
#include <map>
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

// ---- results, for every function that returns a code

struct Function {
    const char* name;
    std::function<int()> run;
    bool verdict_as_is;
};
void PrintTo(const Function& function, std::ostream* out) {
    *out << function.name;
}

Json::Value sink;
InterfaceMap map_sink;

const std::vector<Function>& code_functions() {
    static const std::vector<Function> all{
        {"vxh_get_available_wan_info", [] { return vxh_get_available_wan_info(sink, "p", 1); }, false},
        {"vxh_get_available_private_info", [] { return vxh_get_available_private_info(sink, "p", 1); },
         false},
        {"vxh_get_available_rglink_info", [] { return vxh_get_available_rglink_info(sink, "p", 1); }, false},
        {"get_available_wan_info", [] { return get_available_wan_info(map_sink, "p", 1); }, false},
        {"get_available_private_info", [] { return get_available_private_info(map_sink, "p", 1); }, false},
        {"get_available_rglink_info", [] { return get_available_rglink_info(map_sink, "p", 1); }, false},
        {"vxh_update_nexthop_status wan", [] { return vxh_update_nexthop_status(1, 1, false); }, true},
        {"vxh_update_nexthop_status private", [] { return vxh_update_nexthop_status(1, 1, true); }, true},
        {"vxh_update_next_active_hub", [] { return vxh_update_next_active_hub("s"); }, true},
        {"vxh_post_ping_failed_log", [] { return vxh_post_ping_failed_log("s", 1); }, true},
        {"vxh_set_port_cpu", [] { return vxh_set_port_cpu("eth0"); }, false},
        {"pluvd_exec", [] { return pluvd_exec(1); }, false},
    };
    return all;
}

class EveryCall : public ServiceFixture, public ::testing::WithParamInterface<Function> {};

TEST_P(EveryCall, WithoutBufferIs3022AndNothingIsCalled) {
    vx().refuse_create = true;
    EXPECT_EQ(GetParam().run(), -3022);
    EXPECT_TRUE(vx().calls.empty());
    EXPECT_EQ(lines(), Lines{});
}

TEST_P(EveryCall, RefusedCallIs3023) {
    vx().answers = {Answer{R"({"error":0,"data":[]})", 1}};
    EXPECT_EQ(GetParam().run(), -3023);
    vx().answers = {Answer{R"({"error":0,"data":[]})", -1}};
    EXPECT_EQ(GetParam().run(), -3023);
    EXPECT_EQ(lines(), Lines{});
}

TEST_P(EveryCall, EmptyReplyIs3024) {
    reply("");
    EXPECT_EQ(GetParam().run(), -3024);
    EXPECT_EQ(lines(), Lines{});
}

TEST_P(EveryCall, NullReplyIs3024WhateverLengthIsTold) {
    Answer answer;
    answer.null_text = true;
    answer.length = 12;
    vx().answers = {answer};
    EXPECT_EQ(GetParam().run(), -3024);
}

TEST_P(EveryCall, NonsensicalLengthIs3024) {
    Answer answer{"{}"};
    answer.length = 0xffffffffL;  // a vendor's -1
    vx().answers = {answer};
    EXPECT_EQ(GetParam().run(), -3024);
}

TEST_P(EveryCall, UnreadableReplyIs3019) {
    for (const char* text : {"{", "garbage", "{\"error\":", "\xff\xfe", "[", " "}) {
        reply(text);
        EXPECT_EQ(GetParam().run(), -3019) << text;
    }
    reply(std::string(5000, '['));
    EXPECT_EQ(GetParam().run(), -3019) << "nested too deeply";
    EXPECT_EQ(lines(), Lines{});
}

TEST_P(EveryCall, ReplyThatIsNoObjectIs3019) {
    for (const char* text : {"5", "[]", "\"text\"", "null", "true", "[{\"error\":0}]"}) {
        reply(text);
        EXPECT_EQ(GetParam().run(), -3019) << text;
    }
}

TEST_P(EveryCall, MissingErrorCountsAsMinus3001) {
    reply("{}");
    EXPECT_EQ(GetParam().run(), GetParam().verdict_as_is ? -3001 : -3019);
}

TEST_P(EveryCall, ErrorOfAnotherTypeCountsAsMissing) {
    for (const char* text : {R"({"error":"0"})", R"({"error":[]})", R"({"error":{}})", R"({"error":null})",
                             R"({"error":99999999999})", R"({"error":1e300})"}) {
        reply(text);
        EXPECT_EQ(GetParam().run(), GetParam().verdict_as_is ? -3001 : -3019) << text;
    }
}

TEST_P(EveryCall, VerdictOtherThanZero) {
    for (const int error : {1, -1, -42, 2147483647}) {
        reply("{\"error\":" + std::to_string(error) + "}");
        EXPECT_EQ(GetParam().run(), GetParam().verdict_as_is ? error : -3019);
    }
    EXPECT_EQ(lines(), Lines{});
}

TEST_P(EveryCall, LengthMayBeWrittenAsIntOrAsSizeT) {
    for (const bool as_int : {true, false}) {
        Answer answer{R"({"error":0,"data":[]})"};
        answer.int_length = as_int;
        vx().answers = {answer};
        EXPECT_EQ(GetParam().run(), 0);
    }
}

TEST_P(EveryCall, CancellationIsOffDuringTheCallAndRestoredAfterIt) {
    reply(R"({"error":0,"data":[]})");
    GetParam().run();
    EXPECT_EQ(vx().cancel_state_in_call, PTHREAD_CANCEL_DISABLE);
    int state = -1;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    EXPECT_EQ(state, PTHREAD_CANCEL_ENABLE);
}

TEST_P(EveryCall, CallerThatHadCancellationOffKeepsItOff) {
    reply(R"({"error":0,"data":[]})");
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    GetParam().run();
    int state = -1;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    EXPECT_EQ(state, PTHREAD_CANCEL_DISABLE);
}

TEST_P(EveryCall, FailureToDisableCancellationIsLoggedAndTheCallGoesOn) {
    reply(R"({"error":0,"data":[]})");
    fake_process::refuse_cancel_state(PTHREAD_CANCEL_DISABLE);
    EXPECT_EQ(GetParam().run(), 0);
    fake_process::reset();
    EXPECT_EQ(lines(), Lines{"[ERROR] pthread cancel disable error"});
}

TEST_P(EveryCall, FailureToEnableCancellationIsLoggedAndTheResultStands) {
    reply(R"({"error":0,"data":[]})");
    fake_process::refuse_cancel_state(PTHREAD_CANCEL_ENABLE);
    EXPECT_EQ(GetParam().run(), 0);
    fake_process::reset();
    // The log, too, keeps a cancellation out of its writes; this is the call's own line.
    EXPECT_EQ(lines(), Lines{"[ERROR] pthread cancel enable error"});
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
}

TEST_P(EveryCall, LeaksNothingOnAnyPath) {
    const int before = open_descriptors();
    for (const char* text : {"", "{", "5", "{}", R"({"error":0,"data":[]})", R"({"error":3})"}) {
        reply(text);
        GetParam().run();
    }
    EXPECT_EQ(vx().created, vx().freed);
    EXPECT_EQ(vx().created, 6);
    EXPECT_EQ(open_descriptors(), before);
}

INSTANTIATE_TEST_SUITE_P(Services, EveryCall, ::testing::ValuesIn(code_functions()), [](const auto& info) {
    std::string name = info.param.name;
    for (char& c : name)
        if (c == ' ') c = '_';
    return name;
});

// ---- the queries of "vesta", which log each step

TEST_F(ServiceTest, DeviceIdLogsWhatItGot) {
    reply(R"({"error":0,"data":4711})");
    EXPECT_EQ(get_device_id(), 4711);
    EXPECT_EQ(lines(), Lines{"[DEBUG] Get device ID: 4711"});
}

TEST_F(ServiceTest, DeviceIdIsZeroWhenAbsent) {
    reply(R"({"error":0})");
    EXPECT_EQ(get_device_id(), 0);
    EXPECT_EQ(lines(), Lines{"[DEBUG] Get device ID: 0"});
}

TEST_F(ServiceTest, LocalMgmtLogsOneOrZero) {
    for (const auto& [text, value, shown] :
         std::vector<std::tuple<std::string, bool, std::string>>{{R"({"error":0,"data":2})", true, "1"},
                                                                 {R"({"error":0,"data":0})", false, "0"},
                                                                 {R"({"error":0,"data":false})", false, "0"},
                                                                 {R"({"error":0,"data":-1})", true, "1"},
                                                                 {R"({"error":0})", true, "1"}}) {
        forget_lines();
        reply(text);
        EXPECT_EQ(get_local_mgmt(), value) << text;
        EXPECT_EQ(lines(), Lines{"[DEBUG] Get local_mgmt: " + shown}) << text;
    }
}

struct Query {
    const char* method;
    std::function<int()> run;
    int on_failure;
};
void PrintTo(const Query& query, std::ostream* out) {
    *out << query.method;
}

class VestaQuery : public ServiceFixture, public ::testing::WithParamInterface<Query> {
protected:
    int run() const { return GetParam().run(); }
    int failed() const { return GetParam().on_failure; }
};

TEST_P(VestaQuery, WithoutBuffer) {
    vx().refuse_create = true;
    EXPECT_EQ(run(), failed());
    EXPECT_EQ(lines(), Lines{"[ERROR] vx_io_create() failed"});
}

TEST_P(VestaQuery, RefusedCall) {
    vx().answers = {Answer{"{}", -1}};
    EXPECT_EQ(run(), failed());
    EXPECT_EQ(lines(), Lines{std::string("[ERROR] vx_call vesta.") + GetParam().method + " failed."});
}

TEST_P(VestaQuery, EmptyReply) {
    reply("");
    EXPECT_EQ(run(), failed());
    EXPECT_EQ(lines(), Lines{"[ERROR] vx_io_read() failed."});
}

TEST_P(VestaQuery, UnreadableReply) {
    for (const char* text : {"{", "5", "[]", "null"}) {
        forget_lines();
        reply(text);
        EXPECT_EQ(run(), failed());
        EXPECT_EQ(lines(), Lines{"[ERROR] JSON reader parse failed."}) << text;
    }
}

TEST_P(VestaQuery, ServiceError) {
    reply(R"({"error":-42,"data":5})");
    EXPECT_EQ(run(), failed());
    EXPECT_EQ(lines(), Lines{"[ERROR] VXservice get error: -42"});
}

TEST_P(VestaQuery, ReplyWithoutAVerdict) {
    reply(R"({"data":5})");
    EXPECT_EQ(run(), failed());
    EXPECT_EQ(lines(), Lines{"[ERROR] VXservice get error: -3001"});
}

TEST_P(VestaQuery, DataOfAnotherType) {
    for (const char* data : {R"("5")", "[]", "{}", "99999999999", "1e300"}) {
        forget_lines();
        reply(std::string(R"({"error":0,"data":)") + data + "}");
        EXPECT_EQ(run(), failed()) << data;
        EXPECT_EQ(lines(), Lines{"[ERROR] JSON reader parse failed."}) << data;
    }
}

TEST_P(VestaQuery, CancellationThatCannotBeChangedIsLoggedAndTheCallGoesOn) {
    reply(R"({"error":0,"data":1})");
    fake_process::refuse_cancel_state(PTHREAD_CANCEL_DISABLE);
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(lines().front(), "[ERROR] pthread cancel disable error");
    fake_process::refuse_cancel_state(PTHREAD_CANCEL_ENABLE);
    EXPECT_EQ(run(), 1);
    fake_process::reset();
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    const auto all = lines();
    EXPECT_EQ(std::count(all.begin(), all.end(), "[ERROR] pthread cancel enable error"), 1);
}

INSTANTIATE_TEST_SUITE_P(Vesta, VestaQuery,
                         ::testing::Values(Query{"get_devid", [] { return get_device_id(); }, 0},
                                           Query{"get_local_mgmt", [] { return int{get_local_mgmt()}; }, 1}),
                         [](const auto& info) { return info.param.method; });

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
