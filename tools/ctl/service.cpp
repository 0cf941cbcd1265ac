// corvoctl service, doc: what the other services of the device answer.
#include <corvosetup/cfg_file.h>
#include <corvosetup/service.h>
#include <json/writer.h>

#include <ctime>

#include "ctl/app.h"

namespace corvoctl {

namespace {

std::vector<std::string> pretty(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    return {Json::writeString(builder, value)};
}

struct Query {
    const char* name;
    const char* help;
    int (*ask)(Json::Value& out, std::string path, int comprehensive);
};

constexpr Query kQueries[] = {
    {"wan", "The WAN links", vxh_get_available_wan_info},
    {"private", "The private links", vxh_get_available_private_info},
    {"rglink", "The regional links", vxh_get_available_rglink_info},
};

struct Arguments {
    std::string text = "/etc/networkmanagement/device_info.json";
    int number = 0;
    unsigned id = 0;
    bool flag = false;
};

void add_queries(CLI::App& family, Context& context) {
    for (const auto& query : kQueries) {
        auto arguments = std::make_shared<Arguments>();
        arguments->number = 1;
        auto* command = family.add_subcommand(query.name, query.help);
        command->add_option("--path", arguments->text, "Document that the service answers from")
            ->capture_default_str();
        command->add_option("--comprehensive", arguments->number, "Passed to the service")
            ->capture_default_str();
        context.on(command, [&query, arguments] {
            Outcome outcome;
            Json::Value elements;
            outcome.code = query.ask(elements, arguments->text, arguments->number);
            outcome.data["elements"] = elements;
            if (outcome.ok()) outcome.lines = pretty(elements);
            return outcome;
        });
    }
}

void add_reports(CLI::App& family, Context& context) {
    auto status = std::make_shared<Arguments>();
    auto* command = family.add_subcommand("nexthop-status", "Tell the hub manager the state of a link");
    command->add_option("id", status->id, "WAN id or private port")->required()->check(CLI::Range(0, 255));
    command->add_option("stat", status->number, "0 up, 1 down")->required();
    command->add_flag("--private", status->flag, "Of a private link");
    context.on(command, [status] {
        return from_code(
            vxh_update_nexthop_status(static_cast<unsigned char>(status->id), status->number, status->flag));
    });

    auto hub = std::make_shared<Arguments>();
    command = family.add_subcommand("active-hub", "Tell the hub manager which hub is active");
    command->add_option("site", hub->text, "Device id of the hub")->required();
    context.on(command, [hub] { return from_code(vxh_update_next_active_hub(hub->text)); });

    auto log = std::make_shared<Arguments>();
    command = family.add_subcommand("post-log", "Hand a ping failure to the log forwarder");
    command->add_option("text", log->text, "The message")->required();
    context.on(command, [log] { return from_code(vxh_post_ping_failed_log(log->text, std::time(nullptr))); });

    auto cpu = std::make_shared<Arguments>();
    command = family.add_subcommand("port-cpu", "Let the CPU tuning service pin a port");
    command->add_option("ifname", cpu->text, "The port")->required();
    context.on(command, [cpu] { return from_code(vxh_set_port_cpu(cpu->text)); });

    auto flag = std::make_shared<Arguments>();
    command = family.add_subcommand("pluvd", "Run an action of the system-services daemon");
    command->add_option("flag", flag->number, "2 interface down, 4 interface up")->required();
    context.on(command, [flag] { return from_code(pluvd_exec(flag->number)); });
}

}  // namespace

void add_service_verbs(CLI::App& app, Context& context) {
    auto* family = app.add_subcommand("service", "Call one of the device's services");
    family->require_subcommand(1);
    context.on(family->add_subcommand("devid", "This device's id"), [] {
        Outcome outcome;
        const int id = get_device_id();
        outcome.data["device_id"] = id;
        outcome.lines.push_back(std::to_string(id));
        if (id == 0) outcome.failure = "the configuration service gave no device id";
        return outcome;
    });
    context.on(family->add_subcommand("local-mgmt", "Whether the device is managed locally"), [] {
        Outcome outcome;
        const bool on = get_local_mgmt();
        outcome.data["local_mgmt"] = on;
        outcome.lines.emplace_back(on ? "on (also when the service does not answer)" : "off");
        return outcome;
    });
    add_queries(*family, context);
    add_reports(*family, context);

    auto arguments = std::make_shared<Arguments>();
    auto* doc = app.add_subcommand("doc", "Load a configuration document as the library does");
    doc->add_option("path", arguments->text, "Path of the document")->required();
    context.on(doc, [arguments] {
        Outcome outcome;
        CfgFile file(arguments->text);
        Json::Value root;
        file >> root;
        outcome.data["source"] = file.get_cfg_flag() == 1   ? "service"
                                 : file.get_cfg_flag() == 2 ? "file"
                                                            : "none";
        outcome.data["document"] = root;
        if (file.good()) {
            outcome.lines = pretty(root);
        } else {
            outcome.code = -3016;
        }
        return outcome;
    });
}

}  // namespace corvoctl
