// What comes from outside (documents, services, peers, names of interfaces) meets no shell and no format
// string: texts that would do harm there are put into every place in turn, and the commands that the library
// starts are watched.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <functional>
#include <set>

#include "corvosetup/cfg_file.h"
#include "corvosetup/lan_qos.h"
#include "corvosetup/log.h"
#include "corvosetup/ping_test.h"
#include "corvosetup/presetup.h"
#include "corvosetup/privatelink.h"
#include "corvosetup/qos.h"
#include "corvosetup/rglink.h"
#include "corvosetup/route.h"
#include "corvosetup/service.h"
#include "corvosetup/tun.h"
#include "corvosetup/tun6.h"
#include "corvosetup/udp.h"
#include "corvosetup/utils.h"
#include "corvosetup/wm_obj.h"
#include "foundation/json.h"
#include "machine.h"
#include "support/fault/fault.h"
#include "support/recorder.h"

namespace corvo::test {
namespace {

constexpr const char* kMark = "/tmp/hostile";

// Each would create the file, write through a format or end a text early, where it is interpreted.
const std::vector<std::string>& hostile_texts() {
    static const std::vector<std::string> all = {";touch /tmp/hostile;",
                                                 "$(touch /tmp/hostile)",
                                                 "`touch /tmp/hostile`",
                                                 "a\ntouch /tmp/hostile\n",
                                                 "'\"|touch /tmp/hostile&",
                                                 "%n%n%s%s%p%999999d",
                                                 std::string("eth1\0;touch /tmp/hostile", 24),
                                                 "\xff\xfe\x80 touch",
                                                 "-batch",
                                                 std::string(5000, 'A'),
                                                 "../../../../tmp/hostile"};
    return all;
}

// The only texts that a shell ever gets; a device name of ours or an address stands at the '#'.
bool is_known_script(const std::string& script) {
    static const std::set<std::string> kFixed = {
        "/bin/mpstat | /bin/awk '$12 ~ /[0-9.]+/ {print 100 - $12}'",
        "/bin/free -m | /bin/grep Mem | /bin/awk '{print $3/$2 * 100.0}'",
        "/bin/jq '.WAN_PORT|length' /etc/networkmanagement/device_info.json",
        "/sbin/ipsec statusall | /bin/grep -c INSTALLED"};
    if (kFixed.count(script) != 0) return true;
    static const std::string kFlush = "/usr/sbin/conntrack -D -n ";
    if (script.starts_with(kFlush)) {
        in_addr address{};
        return ::inet_pton(AF_INET, script.c_str() + kFlush.size(), &address) == 1;
    }
    static const std::string kShow = "/sbin/tc ";
    return script.starts_with(kShow) && script.find_first_of(";$`\n'\"%") == std::string::npos &&
           script.ends_with(" >/dev/null 2>&1") && script.find("hostile") == std::string::npos;
}

// Every place of a document where a text, a number or a name stands.
void for_each_place(Json::Value& value, const std::function<void(Json::Value&)>& visit) {
    if (value.isObject()) {
        for (const auto& name : value.getMemberNames()) for_each_place(value[name], visit);
    } else if (value.isArray()) {
        for (auto& element : value) for_each_place(element, visit);
    } else {
        visit(value);
    }
}

class Hostile : public testing::Test {
protected:
    Hostile() { fault::set_service_limit(1); }
    ~Hostile() override { fault::set_service_limit(0); }

    void check(const std::string& what) {
        for (const auto& argv : spawns_.take()) {
            if (argv.at(0) != "/bin/sh") continue;
            ASSERT_EQ(argv.size(), 3U) << what;
            EXPECT_TRUE(argv[1] == "-c" && is_known_script(argv[2]))
                << what << ": the shell gets " << argv[2];
        }
        EXPECT_NE(::access(kMark, F_OK), 0) << what << " was executed";
        ::unlink(kMark);
    }

    // Calls `use` with every place of `document` made hostile, one place and one text at a time.
    void walk(const Json::Value& document, const std::function<void(const Json::Value&)>& use,
              const std::string& what) {
        std::size_t places = 0;
        Json::Value changed = document;
        for_each_place(changed, [&](Json::Value&) { ++places; });
        for (std::size_t place = 0; place < places; ++place) {
            for (const auto& text : hostile_texts()) {
                changed = document;
                std::size_t at = 0;
                for_each_place(changed, [&](Json::Value& value) {
                    if (at++ == place) value = Json::Value(text.data(), text.data() + text.size());
                });
                use(changed);
                check(what + ", place " + std::to_string(place) + ", " + text.substr(0, 40));
                if (HasFailure()) return;
            }
        }
        EXPECT_GT(places, 0U);
    }
    void walk_document(const std::string& name, const std::function<void(std::string& path)>& use) {
        Json::Value document;
        ASSERT_TRUE(parse_json(read_file(kDocumentDir + name), document));
        walk(
            document,
            [&](const Json::Value& changed) {
                std::string path = write_document(name, changed);
                use(path);
            },
            name);
        write_document(name, document);
    }

    Machine machine_;
    Recorder ipsec_{"/sbin/ipsec"};
    Recorder tc_{"/sbin/tc"};
    Recorder conntrack_{"/usr/sbin/conntrack"};
    Recorder modprobe_{"/sbin/modprobe"};
    Recorder ifconfig_{"/sbin/ifconfig"};
    fault::SpawnRecord spawns_;
};

TEST_F(Hostile, RouteDocuments) {
    std::string dev = "eth1";
    std::string port = "swdev3";
    std::string type;
    walk_document("routes.json", [&](std::string& path) { setup_tun_route(dev, type = "s2s", path); });
    walk_document("routes6.json", [&](std::string& path) { setup_tun_route6(type = "s2s6", path); });
    walk_document("private.json",
                  [&](std::string& path) { setup_private_route(port, type = "private_s2s", path); });
    walk_document("regional.json", [&](std::string& path) { setup_regional_route(type = "regional", path); });
}

TEST_F(Hostile, ShapingAndSiteDocuments) {
    std::string all;
    walk_document("qos.json", [&](std::string&) {
        std::string info = std::string(kDocumentDir) + "device_info.json";
        setup_qos(2, all = "eth2", info, false);
    });
    walk_document("lan_qos.json", [&](std::string& path) {
        std::string info = std::string(kDocumentDir) + "device_info.json";
        setup_lan_qos(2, all = "all", path, info);
    });
    walk_document("site.json", [&](std::string&) {
        Json::Value info;
        parse_json(R"({"ip4_addr":"10.200.0.11","prio":3,"private_group_id":"mpls-a"})", info);
        PrivateLink("swdev3", info).presetup_tun_routing();
    });
}

TEST_F(Hostile, ServiceReplies) {
    std::string source = std::string(kDocumentDir) + "device_info.json";
    const auto replies = [&](const std::string& method, const std::string& elements,
                             const std::function<void()>& use) {
        Json::Value reply;
        ASSERT_TRUE(parse_json(R"({"error":0,"data":[)" + elements + "]}", reply));
        walk(
            reply,
            [&](const Json::Value& changed) {
                machine_.answer("TarnService." + method, compact_json(changed));
                use();
            },
            method);
    };
    replies(
        "Get_available_wan_info",
        R"({"ifname":"eth2","slave":"eth2","id":2,"tun_addr":"198.19.0.81","prio":2,"ip4_gw":"198.51.100.1","ip6_addr":"2001:db8::1","tx_rate":1})",
        [&] {
            setup_tun(0, "all", source, 1);
            setup_tun6(0, "all", source, 1);
            setup_tun(1, "all", source, 1);
            setup_tun6(1, "all", source, 1);
            setup_tun_mptcp_default_rule(0, "all");
            setup_def(Json::Value(Json::arrayValue));
        });
    replies(
        "Get_available_private_info",
        R"({"ifname":"swdev5","slave":"swdev5","ip4_addr":"10.201.0.11","prio":5,"private_group_id":"mpls-a"})",
        [&] {
            setup_private(0, "all", source);
            setup_private(1, "all", source);
        });
    replies("Get_available_rglink_info", R"({"ifname":"swdev6","slave":"swdev6","ip4_addr":"10.211.0.11"})",
            [&] {
                setup_rglink(0, "all", source);
                setup_rglink(1, "all", source);
            });
}

TEST_F(Hostile, NamesOfInterfaces) {
    // What the kernel takes as a name: no blank, no slash, up to 15 bytes.
    for (const std::string name : {"eth;reboot", "eth$(id)", "eth`id`", "eth%n%n%s", "eth'\"|&", "ifb;id",
                                   "swdev;1", "eth\xff\xfe", "-batch"}) {
        if (!run_tool({"ip", "link", "add", "name", name, "type", "veth", "peer", "name", "other"}).ok())
            continue;
        module_probing();
        presetup_rps_xps();
        presetup_ipv4();
        presetup_ipv6();
        setup_cpus(name);
        std::string dev = name;
        std::string path;
        setup_qos(2, dev, path, false);
        WmObj* monitor = nullptr;
        if (Create_wm_obj(&monitor, name, "203.0.113.1", 100, "WAN", 1) == 0) {
            monitor->start();
            monitor->stop();
        }
        delete monitor;
        check(name);
        run_tool({"ip", "link", "del", "other"});
    }
    EXPECT_FALSE(ifconfig_.commands().empty());
}

// Texts of callers and of services reach the log and other services as they are.
TEST_F(Hostile, TextsArriveUnchangedInTheLogAndInRequests) {
    const std::string text = "%n%s\"\\;$(touch /tmp/hostile)";
    CfgFile file("/etc/" + text);
    EXPECT_EQ(count_log("[ERROR] Config file: [/etc/" + text + "] does not exist."), 1);
    EXPECT_EQ(vxh_update_next_active_hub(text), 0);
    Json::Value request;
    ASSERT_TRUE(parse_json(machine_.last_request("nm-halor.UpdateActiveHUB"), request));
    EXPECT_EQ(request["remote_site"].asString(), text);
    check("texts");
}

TEST_F(Hostile, DatagramsOfPeers) {
    std::string dev = "eth1";
    ProcUdp responder(dev);
    ASSERT_EQ(responder.start(), 0);
    const auto bound = [] {
        return read_file("/proc/thread-self/net/udp").find("0B7100CB:1E6C") != std::string::npos;
    };
    ASSERT_TRUE(wait_until(bound));
    const UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(7788);
    ::inet_pton(AF_INET, "203.0.113.11", &to.sin_addr);
    const auto send = [&](const std::string& text) {
        ::sendto(fd.get(), text.data(), std::min<std::size_t>(text.size(), 1400), 0,
                 reinterpret_cast<sockaddr*>(&to), sizeof to);
    };
    Json::Value request;
    parse_json(
        R"({"Sender":12,"Receiver":11,"Wan":0,"RemoteWan":0,"Cpu":0,"Memory":0,"Connections":0,"Result":0})",
        request);
    for (const auto& text : hostile_texts()) send(text);
    walk(
        request, [&](const Json::Value& changed) { send(compact_json(changed)); }, "datagram");
    clear_log();
    send(compact_json(request));
    EXPECT_TRUE(wait_until(
        [] { return count_log("[DEBUG] Receive request from [12]@203.0.113.11 to [11]@203.0.113.11") > 0; }));
    responder.stop();
    check("datagrams");
}

// Whatever mask the daemon runs with.
TEST_F(Hostile, LogIsNotForEverybodyToWrite) {
    const mode_t old = ::umask(0);
    ::unlink(kLogFile);
    reopen_setup_logger(kLogFile);
    struct stat info {};
    EXPECT_EQ(::stat(kLogFile, &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644U);
    max_log_size = 1;
    get_device_id();
    max_log_size = 5242880;
    ::unlink(kLogFile);
    get_local_mgmt();
    reopen_setup_logger(kLogFile);
    EXPECT_EQ(::stat(kLogFile, &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644U);
    ::umask(old);
}

}  // namespace
}  // namespace corvo::test
