// What each method of the stand-in answers, without sockets.

#include "standin.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <sstream>

#include "foundation/json.h"
#include "support/files.h"
#include "wire.h"

namespace {

using corvo::test::read_file;
using corvo::test::TempDir;
using corvo::test::write_file;

constexpr char kDevice[] = R"({"DEVICE_ID":"11","LOCAL_MGMT":"1","WAN_IFACE_INFO":{"eth1":{"ID":"1",
    "IP4_ADDR":"192.0.2.2","IP4_GW":"192.0.2.1"},"eth2":{"ID":"2","IP4_ADDR":"","IP4_GW":""}},
    "PRIVATE_IFACE_INFO":{"swdev3":{"ID":"3","IP4_ADDR":"10.0.0.1"}},
    "RGLINK_IFACE_INFO":{"swdev4":{"ID":"4","IP4_ADDR":"10.0.0.2"}}})";

class Standin : public testing::Test {
protected:
    Standin() {
        write_file(directory_ / "device_info.json", kDevice);
        write_file(directory_ / "qos.json", R"({"QOS":{"RATE":[50,50]}})");
        standin::Options options;
        options.documents = directory_.path();
        options.journal = directory_ / "journal";
        options.faults = directory_ / "faults.json";
        options.live = false;
        services_ = std::make_unique<standin::Standin>(options);
    }

    vx::Reply raw(const std::string& service, const std::string& method, const std::string& request = {}) {
        return services_->call({service, method, request});
    }
    std::string ask(const std::string& service, const std::string& method, const std::string& request = {}) {
        return raw(service, method, request).payload;
    }
    std::string control(const std::string& method, const std::string& request = {}) {
        return services_->control({"control", method, request}).payload;
    }
    Json::Value parsed(const std::string& text) {
        Json::Value out;
        EXPECT_TRUE(corvo::parse_json(text, out)) << text;
        return out;
    }
    std::vector<Json::Value> journal() {
        std::vector<Json::Value> out;
        std::istringstream lines(read_file(directory_ / "journal"));
        for (std::string line; std::getline(lines, line);) out.push_back(parsed(line));
        return out;
    }

    TempDir directory_;
    std::unique_ptr<standin::Standin> services_;
};

TEST_F(Standin, ReadJsonAnswersTheDocumentInItsDirectory) {
    EXPECT_EQ(ask("vesta", "read_json", R"({"path": "/etc/networkmanagement/qos.json"})"),
              R"({"data":{"QOS":{"RATE":[50,50]}},"error":0})");
}

TEST_F(Standin, ReadJsonSeesAChangedDocument) {
    const std::string request = R"({"path": "/etc/networkmanagement/qos.json"})";
    ask("vesta", "read_json", request);
    write_file(directory_ / "qos.json", R"({"QOS":{"RATE":[1,2,3]}})");
    EXPECT_EQ(ask("vesta", "read_json", request), R"({"data":{"QOS":{"RATE":[1,2,3]}},"error":0})");
    std::filesystem::remove(directory_ / "qos.json");
    EXPECT_EQ(ask("vesta", "read_json", request), R"({"error":-3015})");
}

TEST_F(Standin, ReadJsonOfAMissingDocumentIsAnError) {
    EXPECT_EQ(ask("vesta", "read_json", R"({"path": "/etc/networkmanagement/none.json"})"),
              R"({"error":-3015})");
}

TEST_F(Standin, ReadJsonOfABrokenDocumentIsAnError) {
    write_file(directory_ / "bad.json", "{not json");
    EXPECT_EQ(ask("vesta", "read_json", R"({"path": "/etc/networkmanagement/bad.json"})"),
              R"({"error":-3019})");
}

TEST_F(Standin, ReadJsonStaysInsideItsDirectory) {
    for (const char* path : {"/etc/passwd", "/etc/networkmanagement/../passwd", "qos.json", "",
                             "/etc/networkmanagement/x/../../../etc/hostname"}) {
        EXPECT_EQ(ask("vesta", "read_json", "{\"path\": \"" + std::string(path) + "\"}"),
                  R"({"error":-3015})")
            << path;
    }
}

TEST_F(Standin, ReadJsonNeedsAPath) {
    for (const char* request : {"", "{}", "[]", "5", R"({"path": 5})", "{not json"}) {
        EXPECT_EQ(ask("vesta", "read_json", request), R"({"error":-3004})") << request;
    }
}

TEST_F(Standin, DeviceQueriesNeedNoRequest) {
    EXPECT_EQ(ask("vesta", "get_devid"), R"({"data":11,"error":0})");
    EXPECT_EQ(ask("vesta", "get_local_mgmt"), R"({"data":1,"error":0})");
}

TEST_F(Standin, DeviceQueriesWithoutADocumentAreAnError) {
    std::filesystem::remove(directory_ / "device_info.json");
    EXPECT_EQ(ask("vesta", "get_devid"), R"({"error":-3015})");
    EXPECT_EQ(ask("vesta", "get_local_mgmt"), R"({"error":-3015})");
}

TEST_F(Standin, LinkQueriesTakeTheNumberAsAQuotedText) {
    const auto count = [&](const char* method, const char* number) {
        const Json::Value reply = parsed(
            ask("TarnService", method,
                std::string(R"({"path": "/etc/networkmanagement/device_info.json", "comprehensive": )") +
                    number + "}"));
        EXPECT_EQ(reply["error"], 0);
        return reply["data"].size();
    };
    EXPECT_EQ(count("Get_available_wan_info", "\"0\""), 1U);
    EXPECT_EQ(count("Get_available_wan_info", "\"1\""), 2U);
    EXPECT_EQ(count("Get_available_wan_info", "1"), 2U);
    EXPECT_EQ(count("Get_available_private_info", "\"0\""), 1U);
    EXPECT_EQ(count("Get_available_rglink_info", "\"0\""), 1U);
}

TEST_F(Standin, LinkQueriesReadAnyDocumentTheyAreGiven) {
    TempDir elsewhere;
    write_file(elsewhere / "my.json", R"({"WAN_IFACE_INFO":{"a":{"ID":"1"}}})");
    const Json::Value reply =
        parsed(ask("TarnService", "Get_available_wan_info",
                   "{\"path\": \"" + (elsewhere / "my.json") + "\", \"comprehensive\": \"1\"}"));
    EXPECT_EQ(reply["data"][0]["ifname"], "a");
}

TEST_F(Standin, BadLinkQueriesAreErrors) {
    for (const char* request :
         {"", R"({"path": "/etc/networkmanagement/device_info.json"})",
          R"({"path": "/etc/networkmanagement/device_info.json", "comprehensive": "yes"})",
          R"({"path": "/etc/networkmanagement/device_info.json", "comprehensive": []})",
          R"({"comprehensive": "1"})"}) {
        EXPECT_EQ(ask("TarnService", "Get_available_wan_info", request), R"({"error":-3004})") << request;
    }
    EXPECT_EQ(ask("TarnService", "Get_available_wan_info", R"({"path": "/none", "comprehensive": "1"})"),
              R"({"error":-3015})");
}

TEST_F(Standin, HubManagerKeepsTheLastReportOfEachLink) {
    EXPECT_EQ(ask("nm-halor", "UpdateWanNexthopStatus", R"({"id":1,"stat":0})"), R"({"error":0})");
    EXPECT_EQ(ask("nm-halor", "UpdateWanNexthopStatus", R"({"id":1,"stat":1})"), R"({"error":0})");
    EXPECT_EQ(ask("nm-halor", "Update_private_nexthop_status", R"({"portname":"PORT3","stat":1})"),
              R"({"error":0})");
    EXPECT_EQ(ask("nm-halor", "UpdateActiveHUB", R"({"remote_site":"21"})"), R"({"error":0})");
    EXPECT_EQ(ask("nm-halor", "RestartMonitor"), R"({"error":0})");
    EXPECT_EQ(control("state"),
              R"({"data":{"hub":{"active":"21","private":{"PORT3":{"reports":1,"stat":1}},"restarts":1,)"
              R"("wan":{"1":{"reports":2,"stat":1}}}},"error":0})");
}

TEST_F(Standin, HubManagerRefusesReportsOfTheWrongShape) {
    for (const char* request :
         {"", "{}", R"({"id":"1","stat":0})", R"({"id":256,"stat":0})", R"({"id":1})"}) {
        EXPECT_EQ(ask("nm-halor", "UpdateWanNexthopStatus", request), R"({"error":-3004})") << request;
    }
    EXPECT_EQ(ask("nm-halor", "Update_private_nexthop_status", R"({"portname":"X","stat":0})"),
              R"({"error":-3004})");
    EXPECT_EQ(ask("nm-halor", "UpdateActiveHUB", R"({"remote_site":21})"), R"({"error":-3004})");
}

TEST_F(Standin, LogForwarderTakesAWholePostOnly) {
    EXPECT_EQ(ask("nm-morin-handler", "PostLog", R"({"msg_id":190,"timestamp":1700000000,"values":["x"]})"),
              R"({"error":0})");
    EXPECT_EQ(ask("nm-morin-handler", "PostLog", R"({"msg_id":190,"values":["x"]})"), R"({"error":-3004})");
    EXPECT_EQ(parsed(control("state"))["data"]["log"]["last"]["values"][0], "x");
}

TEST_F(Standin, SystemDaemonTakesItsFlagAsAQuotedNumber) {
    EXPECT_EQ(ask("pluvd", "exec", R"({"flag": "3"})"), R"({"error":0})");
    EXPECT_EQ(parsed(control("state"))["data"]["pluvd"]["last"], 3);
    EXPECT_EQ(ask("pluvd", "exec", R"({"flag": "x"})"), R"({"error":-3004})");
    EXPECT_EQ(ask("pluvd", "exec"), R"({"error":-3004})");
}

TEST_F(Standin, CpuTuningTakesAnInterface) {
    EXPECT_EQ(ask("Corvo_CPU_tune", "Setup_CPU", R"({"ifname": "tun1"})"), R"({"error":0})");
    EXPECT_EQ(parsed(control("state"))["data"]["cpu"]["tun1"], 1);
    EXPECT_EQ(ask("Corvo_CPU_tune", "Setup_CPU", "{}"), R"({"error":-3004})");
}

TEST_F(Standin, EveryMethodOfTheCatalogueSurvivesAnyRequest) {
    const std::string nested(5000, '[');
    for (const auto& [service, methods] : standin::Standin::catalogue()) {
        for (const std::string& method : methods) {
            for (const std::string& request :
                 {std::string(), std::string("null"), std::string("[1,{}]"), nested, std::string("\0\xff", 2),
                  std::string(R"({"id":1e99,"path":"\u0000"})")}) {
                EXPECT_TRUE(parsed(ask(service, method, request))["error"].isInt())
                    << service << "." << method;
            }
        }
    }
}

TEST_F(Standin, AReplyDocumentStandsForTheMethod) {
    write_file(directory_ / "replies/vesta.get_devid.json", "{\"error\": 0, \"data\": \"verbatim\"}\n");
    EXPECT_EQ(ask("vesta", "get_devid"), "{\"error\": 0, \"data\": \"verbatim\"}\n");
    std::filesystem::remove(directory_ / "replies/vesta.get_devid.json");
    EXPECT_EQ(ask("vesta", "get_devid"), R"({"data":11,"error":0})");
}

TEST_F(Standin, ASetReplyStandsForTheMethodUntilItIsUnset) {
    EXPECT_EQ(control("set", R"({"target":"vesta.get_devid","reply":{"error":0,"data":5}})"),
              R"({"error":0})");
    EXPECT_EQ(ask("vesta", "get_devid"), R"({"data":5,"error":0})");
    EXPECT_EQ(control("set", R"({"target":"vesta.get_devid","text":"{raw"})"), R"({"error":0})");
    EXPECT_EQ(ask("vesta", "get_devid"), "{raw");
    EXPECT_EQ(control("unset", R"({"target":"vesta.get_devid"})"), R"({"error":0})");
    EXPECT_EQ(ask("vesta", "get_devid"), R"({"data":11,"error":0})");
    EXPECT_EQ(control("set", R"({"target":"vesta.get_devid"})"), R"({"error":-3004})");
}

TEST_F(Standin, FaultErrorAnswersItsValue) {
    control("set_fault", R"({"target":"nm-halor.UpdateWanNexthopStatus","kind":"error","value":-5017})");
    EXPECT_EQ(ask("nm-halor", "UpdateWanNexthopStatus", R"({"id":1,"stat":0})"), R"({"error":-5017})");
}

TEST_F(Standin, FaultsEndAfterTheirTimesAndBeginAfterTheirSkip) {
    control("set_fault", R"({"target":"vesta.get_devid","kind":"error","value":-1,"skip":1,"times":2})");
    const std::string good = R"({"data":11,"error":0})";
    const std::string bad = R"({"error":-1})";
    for (const std::string& expected : {good, bad, bad, good, good})
        EXPECT_EQ(ask("vesta", "get_devid"), expected);
}

TEST_F(Standin, TheMostParticularFaultHits) {
    control("set_fault", R"({"target":"*","kind":"error","value":-1})");
    control("set_fault", R"({"target":"vesta.*","kind":"error","value":-2})");
    control("set_fault", R"({"target":"vesta.get_devid","kind":"error","value":-3})");
    EXPECT_EQ(ask("vesta", "get_devid"), R"({"error":-3})");
    EXPECT_EQ(ask("vesta", "get_local_mgmt"), R"({"error":-2})");
    EXPECT_EQ(ask("pluvd", "exec", R"({"flag": "1"})"), R"({"error":-1})");
    control("clear_faults", R"({"target":"vesta.get_devid"})");
    EXPECT_EQ(ask("vesta", "get_devid"), R"({"error":-2})");
    control("clear_faults");
    EXPECT_EQ(ask("vesta", "get_devid"), R"({"data":11,"error":0})");
}

TEST_F(Standin, AFaultOfAnUnknownKindIsRefused) {
    EXPECT_EQ(control("set_fault", R"({"target":"*","kind":"explode"})"), R"({"error":-3004})");
    EXPECT_EQ(control("set_fault", R"({"kind":"hang"})"), R"({"error":-3004})");
    EXPECT_EQ(control("set_fault", "garbage"), R"({"error":-3004})");
}

TEST_F(Standin, FaultsOfTheFileAreReadAgainWhenItChanges) {
    write_file(directory_ / "faults.json", R"({"vesta.get_devid":{"kind":"error","value":-1},"bad":5})");
    EXPECT_EQ(ask("vesta", "get_devid"), R"({"error":-1})");
    write_file(directory_ / "faults.json", R"({"vesta.get_devid":{"kind":"error","value":-22}})");
    EXPECT_EQ(ask("vesta", "get_devid"), R"({"error":-22})");
    std::filesystem::remove(directory_ / "faults.json");
    EXPECT_EQ(ask("vesta", "get_devid"), R"({"data":11,"error":0})");
}

TEST_F(Standin, EveryKindOfFaultDoesWhatItSays) {
    using Ending = vx::Reply::Ending;
    const auto with = [&](const std::string& rest) {
        EXPECT_EQ(control("set_fault", R"({"target":"vesta.get_devid",)" + rest + "}"), R"({"error":0})");
        return raw("vesta", "get_devid");
    };
    EXPECT_EQ(with(R"("kind":"reply","reply":[1])").payload, "[1]");
    EXPECT_EQ(with(R"("kind":"reply","text":"{\"a\"")").payload, "{\"a\"");
    Json::Value out;
    EXPECT_FALSE(corvo::parse_json(with(R"("kind":"garbage")").payload, out));
    EXPECT_TRUE(parsed(with(R"("kind":"wrong_types")").payload)["data"].isObject());
    EXPECT_EQ(with(R"("kind":"empty")").payload, "");
    EXPECT_EQ(with(R"("kind":"empty")").ending, Ending::kAnswer);
    EXPECT_EQ(with(R"("kind":"huge","size":100000)").payload.size(), 100000U);
    EXPECT_EQ(parsed(with(R"("kind":"huge","size":100000)").payload)["error"], 0);
    const vx::Reply huge = with(R"("kind":"huge")");
    EXPECT_EQ(huge.ending, Ending::kRaw);
    EXPECT_EQ(vx::wire::parse_reply_head(huge.payload).progress, vx::wire::Progress::kBad);
    EXPECT_EQ(with(R"("kind":"half")").ending, Ending::kHalf);
    EXPECT_EQ(with(R"("kind":"close")").ending, Ending::kClose);
    EXPECT_EQ(with(R"("kind":"hang")").ending, Ending::kHang);
    const vx::Reply late = with(R"("kind":"none","delay_ms":250)");
    EXPECT_EQ(late.delay, std::chrono::milliseconds(250));
    EXPECT_EQ(late.payload, R"({"data":11,"error":0})");
}

TEST_F(Standin, DieTakesTheServiceAwayAndKillTheProgram) {
    std::string crashed;
    int killed = 0;
    services_->on_crash = [&](const std::string& service) {
        crashed = service;
        return true;
    };
    services_->on_kill = [&] { ++killed; };
    control("set_fault", R"({"target":"vesta.get_devid","kind":"die"})");
    EXPECT_EQ(raw("vesta", "get_devid").ending, vx::Reply::Ending::kClose);
    EXPECT_EQ(crashed, "vesta");
    control("set_fault", R"({"target":"vesta.get_devid","kind":"kill"})");
    raw("vesta", "get_devid");
    EXPECT_EQ(killed, 1);
}

TEST_F(Standin, EachCallIsOneLineOfTheJournal) {
    ask("vesta", "get_devid");
    control("set_fault", R"({"target":"pluvd.exec","kind":"error","value":-7})");
    ask("pluvd", "exec", R"({"flag": "3"})");
    const auto lines = journal();
    ASSERT_EQ(lines.size(), 2U) << "calls of control are not recorded";
    EXPECT_EQ(lines[0]["service"], "vesta");
    EXPECT_EQ(lines[0]["method"], "get_devid");
    EXPECT_TRUE(lines[0]["request"].isNull());
    EXPECT_EQ(lines[0]["reply"]["data"], 11);
    EXPECT_EQ(lines[0]["seq"], 1);
    EXPECT_GT(lines[0]["time"].asDouble(), 1.6e9);
    EXPECT_TRUE(lines[0]["duration_us"].isIntegral());
    EXPECT_FALSE(lines[0].isMember("fault"));
    EXPECT_EQ(lines[1]["request"]["flag"], "3");
    EXPECT_EQ(lines[1]["reply"]["error"], -7);
    EXPECT_EQ(lines[1]["fault"], "error");
    EXPECT_GE(lines[1]["mono_us"].asInt64(), lines[0]["mono_us"].asInt64());
}

TEST_F(Standin, WhatIsNoJsonIsRecordedAsText) {
    control("set_fault", R"({"target":"vesta.get_devid","kind":"garbage"})");
    ask("vesta", "get_devid", "not json");
    const auto lines = journal();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0]["request_text"], "not json");
    EXPECT_TRUE(lines[0]["reply_text"].isString());
}

TEST_F(Standin, ALongReplyIsRecordedByItsSize) {
    control("set_fault", R"({"target":"vesta.get_devid","kind":"huge","size":100000})");
    ask("vesta", "get_devid");
    EXPECT_EQ(journal()[0]["reply_size"], 100000);
    EXPECT_FALSE(journal()[0].isMember("reply"));
}

TEST_F(Standin, ControlHandsOutTheJournal) {
    ask("vesta", "get_devid");
    ask("vesta", "get_local_mgmt");
    const Json::Value all = parsed(control("journal"))["data"];
    ASSERT_EQ(all.size(), 2U);
    const Json::Value later = parsed(control("journal", R"({"since":1})"))["data"];
    ASSERT_EQ(later.size(), 1U);
    EXPECT_EQ(later[0]["method"], "get_local_mgmt");
    control("clear_journal");
    EXPECT_TRUE(parsed(control("journal"))["data"].empty());
    EXPECT_EQ(journal().size(), 2U) << "the file keeps what it has";
}

TEST_F(Standin, AJournalOnAFullDiskDoesNotStopTheServices) {
    standin::Options options;
    options.documents = directory_.path();
    options.journal = "/dev/full";
    standin::Standin services(options);
    EXPECT_EQ(services.call({"vesta", "get_devid", ""}).payload, R"({"data":11,"error":0})");
}

TEST_F(Standin, AJournalThatCannotBeOpenedIsAnErrorAtTheStart) {
    standin::Options options;
    options.journal = directory_ / "no/such/dir/journal";
    EXPECT_THROW(standin::Standin services(options), std::system_error);
}

TEST_F(Standin, AnUnknownControlMethodIsRefused) {
    EXPECT_EQ(services_->control({"control", "explode", ""}).ending, vx::Reply::Ending::kRefused);
    EXPECT_EQ(control("ping"), R"({"error":0})");
    EXPECT_EQ(control("crash", R"({"service":"vesta"})"), R"({"error":-3004})") << "nothing is served here";
}

}  // namespace
