// What each kind of answer makes of every service call: its result, and the lines of those that log.
#include <pthread.h>

#include <algorithm>
#include <functional>

#include "corvosetup/service.h"
#include "service_fixture.h"

namespace {

using fake_vx::Answer;
using fake_vx::reply;
using InterfaceMap = std::unordered_map<std::string, Json::Value>;

// ---- the functions that return a code

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

using VestaAnswer = ServiceFixture;

TEST_F(VestaAnswer, DeviceIdLogsWhatItGot) {
    reply(R"({"error":0,"data":4711})");
    EXPECT_EQ(get_device_id(), 4711);
    EXPECT_EQ(lines(), Lines{"[DEBUG] Get device ID: 4711"});
}

TEST_F(VestaAnswer, DeviceIdIsZeroWhenAbsent) {
    reply(R"({"error":0})");
    EXPECT_EQ(get_device_id(), 0);
    EXPECT_EQ(lines(), Lines{"[DEBUG] Get device ID: 0"});
}

TEST_F(VestaAnswer, LocalMgmtLogsOneOrZero) {
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

}  // namespace
