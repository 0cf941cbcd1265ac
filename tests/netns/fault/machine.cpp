#include "machine.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "foundation/json.h"
#include "support/fault/fault.h"

namespace corvo::test {

namespace {

using fault::ServiceFault;

const char* const kDevices[] = {"eth1",   "eth2", "eth5", "swdev3", "swdev5",
                                "swdev6", "tun1", "tun3", "tun4",   "ip6tun1"};
const char* const kAddresses[] = {"203.0.113.11/24 dev eth1",  "198.51.100.11/24 dev eth2",
                                  "10.200.0.11/24 dev swdev3", "10.201.0.11/24 dev swdev5",
                                  "10.211.0.11/24 dev swdev6", "2001:db8::11/64 dev ip6tun1",
                                  "10.210.0.11/24 dev swdev4"};

const std::map<std::string, std::string> kAnswers = {
    {"vesta.get_devid", R"({"error":0,"data":11})"},
    {"vesta.get_local_mgmt", R"({"error":0,"data":0})"},
    {"TarnService.Get_available_wan_info", R"({"error":0,"data":[
        {"ifname":"eth1","slave":"eth1","id":1,"tun_addr":"198.19.0.80","prio":1,"ip4_addr":"203.0.113.11","ip4_gw":"203.0.113.1",
         "ip6_addr":"2001:db8:1::11","tx_rate":50000000,"rx_rate":100000000},
        {"ifname":"eth2","slave":"eth2","id":2,"tun_addr":"198.19.0.81","prio":2,"ip4_addr":"198.51.100.11","ip4_gw":"198.51.100.1",
         "ip6_addr":"2001:db8:2::11","tx_rate":20000000,"rx_rate":40000000}]})"},
    {"TarnService.Get_available_private_info", R"({"error":0,"data":[
        {"ifname":"swdev3","slave":"swdev3","ip4_addr":"10.200.0.11","prio":3,"private_group_id":"mpls-a"},
        {"ifname":"swdev5","slave":"swdev5","ip4_addr":"10.201.0.11","prio":5,"private_group_id":"mpls-a"}]})"},
    {"TarnService.Get_available_rglink_info", R"({"error":0,"data":[
        {"ifname":"swdev4","slave":"swdev4","ip4_addr":"10.210.0.11"},{"ifname":"swdev6","slave":"swdev6","ip4_addr":"10.211.0.11"}]})"},
};

vx::Reply ending(vx::Reply::Ending how, std::string payload = {}) {
    vx::Reply reply;
    reply.ending = how;
    reply.payload = std::move(payload);
    return reply;
}

// What a broken service makes of its good answer.
vx::Reply broken(ServiceFault fault, std::string good) {
    using Ending = vx::Reply::Ending;
    vx::Reply reply;
    switch (fault) {
        case ServiceFault::kRefused:
            return vx::Reply::refused();
        case ServiceFault::kHang:
            return ending(Ending::kHang);
        case ServiceFault::kHalf:
            return ending(Ending::kHalf, std::move(good));
        case ServiceFault::kClose:
            return ending(Ending::kClose);
        case ServiceFault::kEmpty:
            return vx::Reply::text("");
        case ServiceFault::kGarbage:
            return vx::Reply::text("%n%s{\"error\":0,");
        case ServiceFault::kWrongTypes:
            return vx::Reply::text(R"({"error":0,"data":"text"})");
        case ServiceFault::kHuge:
            return vx::Reply::text(R"({"error":0,"data":[{"ifname":")" + std::string(4U << 20U, 'x') +
                                   "\"}]}");
        case ServiceFault::kLate:
            reply = vx::Reply::text(std::move(good));
            reply.delay = std::chrono::milliseconds(100);
            return reply;
        case ServiceFault::kError:
            return vx::Reply::text(R"({"error":-5017})");
        default:
            return vx::Reply::text(std::move(good));
    }
}

}  // namespace

Machine::Machine() {
    build_links();
    write_documents();
    start_services();
    hub_stop_.reset(::eventfd(0, EFD_CLOEXEC));
    hub_.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in here{};
    here.sin_family = AF_INET;
    here.sin_port = htons(7788);
    ::inet_pton(AF_INET, "127.0.0.21", &here.sin_addr);
    if (::bind(hub_.get(), reinterpret_cast<sockaddr*>(&here), sizeof here) != 0)
        throw std::runtime_error("hub: bind");
    hub_thread_ = std::thread([this] { be_hub(hub_stop_.get()); });
    base_ = KernelState::now();
}

Machine::~Machine() {
    const std::uint64_t one = 1;
    static_cast<void>(!::write(hub_stop_.get(), &one, sizeof one));
    hub_thread_.join();
}

void Machine::build_links() {
    // Without addresses that the kernel makes by itself, some time later.
    write_file("/proc/sys/net/ipv6/conf/default/addr_gen_mode", "1");
    write_file("/proc/sys/net/ipv6/conf/default/accept_dad", "0");
    std::vector<std::string> commands;
    for (const std::string device : kDevices) {
        commands.push_back("link add " + device + " numtxqueues 2 numrxqueues 2 type veth peer name p-" +
                           device);
        commands.push_back("link set " + device + " up");
        commands.push_back("link set p-" + device + " up");
    }
    commands.push_back("link add ifb0 type ifb");
    ip_batch(commands);
    far_ = std::make_unique<Netns>("far");
    add_veth("swdev4", *far_, "p0", {.peer_address = "10.210.0.12/24"});
    commands.clear();
    for (const std::string address : kAddresses) commands.push_back("addr add " + address);
    commands.push_back("neigh replace 203.0.113.1 lladdr 02:00:00:00:00:01 nud permanent dev eth1");
    ip_batch(commands);
    for (const auto* device : {"eth1", "eth2", "swdev3", "swdev4"}) wait_for_carrier(device);
    for (const auto* port : {"PORT1", "PORT2", "PORT3"}) make_condition(port, "0");
}

void Machine::write_documents() {
    write_document("device_info.json", R"({"DEVICE_ID":"11","LOCAL_MGMT":"0",
        "WAN_PORT":{"WAN1":{"INTERFACE":"eth1"},"WAN2":{"INTERFACE":"eth2"}},"LAN_PORT":{"LAN1":{"INTERFACE":"eth5"}},
        "WAN_IFACE_INFO":{"eth1":{"ID":"1","RX_RATE":"100000000","TX_RATE":"50000000"},
                          "eth2":{"ID":"2","RX_RATE":"0","TX_RATE":"20000000"}}})");
    write_document("site.json", R"({"SITE_INFO":{
        "11":{"ROLE":"EDGE","HUB":"21","GROUP_ID":"g","DOMAIN":"north","LAN":["192.168.11.0/24"],
              "PRIVATE3":{"PRIVATE_ADDR4":"10.200.0.11","PRIVATE_GROUP_ID":"mpls-a","PRIVATE_TUN_ADDR4":"198.19.0.82"},
              "RGLINK4":{"RGLINK_ADDR4":"10.210.0.11","REMOTE_SITE":"12","REMOTE_RGLINK":"RGLINK4"}},
        "12":{"ROLE":"EDGE","HUB":"21","GROUP_ID":"g","DOMAIN":"north","LAN":["192.168.12.0/24"],
              "PRIVATE3":{"PRIVATE_ADDR4":"10.200.0.12","PRIVATE_GROUP_ID":"mpls-a","PRIVATE_TUN_ADDR4":"198.19.0.90"},
              "RGLINK4":{"RGLINK_ADDR4":"10.210.0.12","REMOTE_SITE":"11","REMOTE_RGLINK":"RGLINK4"}},
        "21":{"ROLE":"HUB","GROUP_ID":"g","DOMAIN":"north","LAN":["192.168.21.0/24"],
              "PORT1":{"WAN_ADDR4":"127.0.0.21","REAL_WAN_ADDR4":"127.0.0.21","RX_RATE":"100"}}}})");
    write_document("qos.json", R"({"QOS":{"RATE":[40,30],"DEFAULT_CLASS":3}})");
    write_document("lan_qos.json",
                   R"({"GROUPS":[{"PRIO":"1","UPLINK_RATE":"2500000","DOWNLINK_RATE":"5000000"}],
        "UPLINK":[{"PRIO":"1","SMAC":"02:00:00:00:05:01","DMAC":"","SIP":"192.168.11.0","SMASK":"25","DIP":"","DMASK":"",
                   "SPORT":"0","DPORT":"443"}],
        "DOWNLINK":[{"PRIO":"1","SMAC":"","DMAC":"02:00:00:00:05:01","SIP":"","SMASK":"","DIP":"192.168.11.0","DMASK":"25",
                     "SPORT":"443","DPORT":"0"}]})");
    const auto list = [](const std::string& elements) {
        return R"({"del":[{"SITE":"99","DEST":"192.168.99.0/24"}],"add":[)" + elements + "]}";
    };
    write_document(
        "routes.json",
        list(R"({"SITE":"21","DEST":"192.168.21.0/24","RTA_GATEWAY":["198.19.0.160","198.19.0.161"],
        "WEIGHT":["2","1"]},{"SITE":"12","DEST":"192.168.12.0/24","RTA_GATEWAY":["198.19.0.88"],"WEIGHT":["1"]})"));
    write_document(
        "routes6.json",
        list(R"({"SITE":"21","DEST":"2001:db8:21::/48","RTA_GATEWAY":["2001:db8::160"],"WEIGHT":["1"]})"));
    write_document("private.json",
                   list(R"({"SITE":"21","DEST":"192.168.21.0/24","RTA_GATEWAY":["10.200.0.21"],
        "LOCAL_PORT":["PRIVATE3"],"WEIGHT":["1"],"CROSS_DOMAIN":false})"));
    write_document("regional.json",
                   list(R"({"SITE":"12","DEST":"192.168.12.0/24","RTA_GATEWAY":["198.19.0.91"],
        "WEIGHT":["1"],"DEVICE":"tun4"})"));
}

void Machine::start_services() {
    answers_ = kAnswers;
    services_ = std::make_unique<vx::ServerThread>([this](vx::Server& server) {
        for (const auto* name :
             {"vesta", "TarnService", "nm-halor", "nm-morin-handler", "pluvd", "Corvo_CPU_tune"})
            server.handle(name, "*", [this](const vx::Call& call) { return serve(call); });
    });
}

vx::Reply Machine::serve(const vx::Call& call) {
    const std::string target = std::string(call.service) + "." + std::string(call.method);
    std::string good = R"({"error":0})";
    if (target == "vesta.read_json") {
        Json::Value request;
        parse_json(call.payload, request);
        std::error_code error;
        const std::string path = j_str(request, "path");
        good = std::filesystem::exists(path, error) ? "{\"error\":0,\"data\":" + read_file(path) + "}"
                                                    : R"({"error":-3015})";
    }
    {
        const std::lock_guard hold(lock_);
        requests_[target] = call.payload;
        if (const auto found = answers_.find(target); found != answers_.end()) good = found->second;
    }
    return broken(fault::take_service_fault(), std::move(good));
}

// Accepts every request.
void Machine::be_hub(int stop) const {
    for (;;) {
        pollfd wait[2] = {{stop, POLLIN, 0}, {hub_.get(), POLLIN, 0}};
        if (::poll(wait, 2, -1) < 0) continue;
        if (wait[0].revents != 0) return;
        char text[512];
        sockaddr_in from{};
        socklen_t size = sizeof from;
        const auto got =
            ::recvfrom(hub_.get(), text, sizeof text, 0, reinterpret_cast<sockaddr*>(&from), &size);
        if (got <= 0) continue;
        const std::string answer =
            R"({"Sender":21,"Receiver":11,"RemoteWan":1,"Cpu":1,"Memory":2,"Connections":3,"Result":0})";
        ::sendto(hub_.get(), answer.data(), answer.size(), 0, reinterpret_cast<sockaddr*>(&from), size);
    }
}

void Machine::reset() {
    const KernelState now = KernelState::now();
    if (now == base_) return;
    restore(base_, now);
    const KernelState after = KernelState::now();
    if (!(after == base_))
        throw std::runtime_error("the machine cannot be reset:\n" + base_.difference(after));
}

void Machine::answer(const std::string& target, const std::string& reply) {
    const std::lock_guard hold(lock_);
    answers_[target] = reply;
}

std::string Machine::last_request(const std::string& target) {
    const std::lock_guard hold(lock_);
    return requests_[target];
}

void Machine::answer_error(int error) {
    const std::lock_guard hold(lock_);
    answers_ = kAnswers;
    if (error == 0) return;
    for (auto& [target, answer] : answers_) answer = "{\"error\":" + std::to_string(error) + "}";
}

}  // namespace corvo::test
