// The stand-in for the device's services: what each method answers, apart from every socket.
#pragma once

#include <json/value.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "documents.h"
#include "faults.h"
#include "journal.h"
#include "network_info.h"
#include "vx_serve.h"

namespace standin {

struct Options {
    std::string documents = "/etc/networkmanagement";
    std::string replies;  // directory of verbatim replies; empty: "replies" in the documents' directory
    std::string journal;  // file; empty: memory only
    std::string faults;   // file; empty: none
    bool live = true;     // fill in addresses from the kernel
};

// Threading: one thread.
class Standin {
public:
    explicit Standin(Options options);

    // The services and their methods; "control" is not among them.
    static const std::map<std::string, std::vector<std::string>>& catalogue();

    // Answers one call of a service; never throws for whatever the request holds.
    vx::Reply call(const vx::Call& call);

    // Answers a call of the "control" service: ping, set_fault, clear_faults, set, unset, journal,
    // clear_journal, state, crash, revive.
    vx::Reply control(const vx::Call& call);

    // Called for a fault "die" and for control's crash and revive, with a service's name.
    std::function<bool(const std::string&)> on_crash;
    std::function<bool(const std::string&)> on_revive;
    // Called for a fault "kill".
    std::function<void()> on_kill;

    // Registers the services in `names` (empty: all) and, unless told otherwise, "control".
    void serve(vx::Server& server, const std::vector<std::string>& names, bool with_control);

private:
    Json::Value proper(const vx::Call& call, const Json::Value& request, std::string& text);
    Json::Value read_json(const Json::Value& request, std::string& text);
    Json::Value device_query(bool id);
    Json::Value links(LinkKind kind, const Json::Value& request);
    Json::Value hub_status(const char* table, const std::string& key, const Json::Value& request);
    bool verbatim(const vx::Call& call, std::string& text);
    vx::Reply misbehave(const Fault& fault, const vx::Call& call, std::string text);
    void record(const vx::Call& call, const Json::Value& request, bool parsed, const std::string& reply,
                const std::string& fault, std::int64_t mono_us, std::int64_t duration_us);

    Options options_;
    Documents documents_;
    Faults faults_;
    Journal journal_;
    std::map<std::string, std::string, std::less<>> set_replies_;
    Json::Value state_{Json::objectValue};
};

}  // namespace standin
