// Bringing overlay devices up and down, each kind through the library's own class.
#pragma once

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

#include "edged/desired.h"
#include "edged/ledger.h"

namespace edged {

// One kind of overlay device.
struct LinkKind {
    const char* name;  // also the prefix of its keys in the ledger
    // The members of an element that the device is made from; a change of any other leaves the device alone.
    std::vector<const char*> members;
    int (*setup)(int op, const Json::Value& element);
    int (*ensure)(const Json::Value& element);  // rules and own routes of a device that is there already
    std::string (*device)(const Json::Value& element);  // empty: this element has no such device
    std::string (*address)(const Json::Value& element, int device_id);
};

extern const LinkKind kTunnel;
extern const LinkKind kTunnel6;
extern const LinkKind kPrivate;
extern const LinkKind kRegional;

// What happened to one link, in a word for the status document and the journal.
enum class Change { kAdopted, kCreated, kReplaced, kRemoved, kFailed };

class Report {
public:
    virtual ~Report() = default;
    virtual void change(const std::string& key, Change change, int code) = 0;
};

// Makes the kernel hold exactly the devices of `elements`; devices that fit are not touched.
void apply_links(const LinkKind& kind, const std::map<std::string, Json::Value>& elements, int device_id,
                 Ledger& ledger, Report& report);

// Removes every device of the kind that the ledger knows.
void remove_links(const LinkKind& kind, Ledger& ledger, Report& report);

}  // namespace edged
