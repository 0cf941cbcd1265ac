// corvoctl hub, udp, monitor: choose the active hub now; ask one device; watch one link by hand.
#include <corvosetup/ping_test.h>
#include <corvosetup/service.h>
#include <corvosetup/udp.h>
#include <corvosetup/wm_obj.h>
#include <json/writer.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>

#include "ctl/app.h"

namespace corvoctl {

namespace {

using namespace std::chrono_literals;

// The object that asks learns this device's id at the beginning of a whole pass over the hubs, and has no
// other way to be told; without an id nobody answers. One question is to be asked here and no pass made, so
// the id is put where the pass would put it: the explicit instantiation may name the private member.
std::string& own_id(ProcUdpTest& asker);
template <std::string ProcUdpTest::*Member>
struct OwnId {
    friend std::string& own_id(ProcUdpTest& asker) { return asker.*Member; }
};
template struct OwnId<&ProcUdpTest::dev_id>;

// What the codes of the exchange mean, which are not the library's own.
const char* meaning_of(int result) {
    switch (result) {
        case -3:
            return "the request could not be sent: is the address right, and is there a route to it?";
        case -4:
            return "no answer within three times 2 s: is the device up, is its responder running, does UDP "
                   "port 7788 "
                   "get through, and is ID its own?";
        case -5:
            return "the receive timeout was refused";
        case -7:
            return "the packet mark was refused: run this with CAP_NET_ADMIN";
        case -9:
            return "the answer was meant for another device";
        default:
            return nullptr;
    }
}

struct Question {
    int id = 0;
    std::string address;
    bool check_connections = false;
};

Outcome ask(Question question) {
    Outcome outcome;
    const int own = get_device_id();
    if (own == 0) {
        outcome.failure =
            "the configuration service gives no device id, and nobody answers a device without one";
        return outcome;
    }
    ProcUdpTest asker;
    own_id(asker) = std::to_string(own);
    const int result = asker.udp_request(question.id, question.address, question.check_connections);
    outcome.data["sender"] = own;
    outcome.data["receiver"] = question.id;
    outcome.data["address"] = question.address;
    outcome.data["result"] = result;
    const std::string who = std::to_string(question.id) + "@" + question.address;
    if (result == 0)
        outcome.lines.push_back(who + " answered and accepted");
    else if (const char* meaning = meaning_of(result))
        outcome.failure = who + ": result " + std::to_string(result) + ": " + meaning;
    else if (result <= -3000)
        outcome.code = result;
    else
        outcome.failure = who + " answered, and refused with code " + std::to_string(result);
    return outcome;
}

std::size_t thread_count() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& task : std::filesystem::directory_iterator("/proc/self/task")) ++count;
    return count;
}

// A test runs on a thread of the library's and tells its result only in the log; it is over when its thread
// is.
Outcome run_hub_test(const std::function<int()>& start, const std::function<int()>& stop) {
    const std::size_t before = thread_count();
    Outcome outcome = from_code(start());
    if (!outcome.ok()) return outcome;
    while (thread_count() > before) std::this_thread::sleep_for(50ms);
    stop();
    outcome.lines.emplace_back("the test has ended; -l shows what it found");
    return outcome;
}

struct MonitorOptions {
    std::string dev;
    std::string target;
    unsigned long bandwidth = 1000000;
    std::string type = "LAN";
    unsigned id = 0;
    unsigned seconds = 5;
};

Outcome monitor(const MonitorOptions& options) {
    WmObj* raw = nullptr;
    Outcome outcome = from_code(Create_wm_obj(&raw, options.dev, options.target, options.bandwidth,
                                              options.type, static_cast<unsigned char>(options.id)));
    const std::unique_ptr<WmObj> object(raw);
    if (!object) return outcome;
    object->start();
    std::this_thread::sleep_for(std::chrono::seconds(options.seconds));
    outcome.data["state"] = object->get_state();
    object->stop();
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    outcome.lines.push_back(Json::writeString(builder, outcome.data["state"]));
    return outcome;
}

}  // namespace

void add_hub_verbs(CLI::App& app, Context& context) {
    auto* hub = app.add_subcommand("hub", "The active hub");
    hub->require_subcommand(1);
    auto* test =
        hub->add_subcommand("test", "Test the current hub and choose another one when it does not answer");
    auto udp = std::make_shared<bool>(false);
    auto ping = std::make_shared<bool>(false);
    auto connections = std::make_shared<bool>(false);
    auto* which = test->add_option_group("method", "How hubs are asked");
    which->add_flag("--udp", *udp, "By UDP request (port 7788)");
    which->add_flag("--ping", *ping, "By ICMP echo");
    which->require_option(1);
    test->add_flag("--check-connections", *connections,
                   "With --udp: send the WAN count, leave other groups out");
    context.on(test, [udp, connections] {
        if (*udp)
            return run_hub_test([connections] { return Start_nexthop_udp_test(*connections); },
                                Stop_nexthop_udp_test);
        return run_hub_test(Start_nexthop_ping_test, Stop_nexthop_ping_test);
    });

    auto* udp_family = app.add_subcommand("udp", "The UDP exchange with another device");
    udp_family->require_subcommand(1);
    auto question = std::make_shared<Question>();
    auto* ask_command = udp_family->add_subcommand("ask", "Ask one device whether it is there and accepts");
    ask_command->add_option("id", question->id, "Its device id")->required()->check(CLI::PositiveNumber);
    ask_command->add_option("address", question->address, "An IPv4 address of one of its WAN links")
        ->required()
        ->check(CLI::ValidIPV4);
    ask_command->add_flag("--check-connections", question->check_connections,
                          "Tell it this device's number of WANs");
    context.on(ask_command, [question] { return ask(*question); });

    auto options = std::make_shared<MonitorOptions>();
    auto* watch = app.add_subcommand("monitor", "Run the monitor of one link for a while, then take it down");
    watch->add_option("dev", options->dev, "Device of the link")->required();
    watch->add_option("target", options->target, "Gateway to watch")->required();
    watch->add_option("--type", options->type, "Link type; WAN also moves the default gateway")
        ->capture_default_str();
    watch->add_option("--bandwidth", options->bandwidth, "Weight of the gateway")->capture_default_str();
    watch->add_option("--id", options->id, "WAN id")->check(CLI::Range(0, 255))->capture_default_str();
    watch->add_option("--seconds", options->seconds, "How long")->capture_default_str();
    context.on(watch, [options] { return monitor(*options); });
}

}  // namespace corvoctl
