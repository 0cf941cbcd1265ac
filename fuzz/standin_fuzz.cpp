// The stand-in's request handling and what it derives from a device-information document.
//
// First byte: the method to call ("control" methods included), or the document itself as input.

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "foundation/json.h"
#include "standin.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

constexpr char kDocument[] = R"({"DEVICE_ID":"11","LOCAL_MGMT":"0",
"WAN_IFACE_INFO":{"eth1":{"ID":"1","RX_RATE":"100","TX_RATE":"50","IP4_ADDR":"203.0.113.11/24",
"IP4_GW":"203.0.113.1","IP6_ADDR":"","TUN_ADDR4":"198.19.0.80","PRIO":"1"}}})";

struct Setting {
    std::string directory;
    std::vector<std::pair<std::string, std::string>> methods;

    ~Setting() {
        ::unlink((directory + "/device_info.json").c_str());
        ::rmdir(directory.c_str());
    }
};

const Setting& setting() {
    static Setting made;
    if (made.directory.empty()) {
        Setting& out = made;
        char directory[] = "/tmp/standin_fuzz.XXXXXX";
        require(::mkdtemp(directory) != nullptr);
        out.directory = directory;
        std::ofstream(out.directory + "/device_info.json") << kDocument;
        for (const auto& [service, methods] : standin::Standin::catalogue()) {
            for (const auto& method : methods) out.methods.emplace_back(service, method);
        }
        for (const char* method : {"ping", "set_fault", "clear_faults", "set", "unset", "journal",
                                   "clear_journal", "state", "crash", "revive", "unknown"}) {
            out.methods.emplace_back("control", method);
        }
    }
    return made;
}

void document(std::string_view text) {
    Json::Value root;
    if (!corvo::parse_json(text, root)) return;
    const auto live = [](const std::string&) {
        return standin::LiveAddresses{"192.0.2.1", 24, "2001:db8::1"};
    };
    for (const auto kind :
         {standin::LinkKind::kWan, standin::LinkKind::kPrivate, standin::LinkKind::kRegional}) {
        const Json::Value all = standin::link_elements(root, kind, true, live);
        const Json::Value usable = standin::link_elements(root, kind, false, live);
        require(all.isArray() && usable.isArray() && usable.size() <= all.size());
        for (const Json::Value& link : all) require(!link["ifname"].asString().empty() || link["id"] != 0);
    }
    standin::device_id(root);
    standin::local_management(root);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const Setting& set = setting();
    const std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] == 0xff) {
        document(rest);
        return 0;
    }
    standin::Options options;
    options.documents = set.directory;
    standin::Standin services(options);
    const auto& [service, method] = set.methods[data[0] % set.methods.size()];
    const vx::Call call{service, method, rest};
    if (service == "control") {
        services.control(call);
        services.call({"vesta", "get_devid", ""});  // under whatever fault that has set
        return 0;
    }
    const vx::Reply reply = services.call(call);
    Json::Value answer;
    require(corvo::parse_json(reply.payload, answer) && answer["error"].isInt());
    return 0;
}
