// What has been applied to the kernel, kept across restarts of the daemon.
//
// Each step of the bring-up has a key ("tun:wan1") and records what it was applied from, and the index of the
// device it was applied to. A step that was interrupted has no record and is done again; a step whose record
// and device still fit is adopted without touching the kernel. The file lies in a directory that a reboot
// empties.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace edged {

class Ledger {
public:
    // Reads `path`; a missing or unreadable file, or one of another boot or network namespace, is an empty
    // ledger.
    explicit Ledger(std::string path);

    // The record of `key`, null when there is none. "applied" and "ifindex" are those of put(); "begun" is
    // there after begin() and holds what was to be applied.
    const Json::Value& record(const std::string& key) const;
    bool fits(const std::string& key, const Json::Value& applied, int ifindex = 0) const;

    // Before a step changes the kernel: its record fits nothing any more until put() or drop(), and remembers
    // what the step was about to apply, so that a daemon that was killed in between can undo both.
    void begin(const std::string& key, const Json::Value& next);
    void begin(const std::string& key) { begin(key, Json::Value()); }
    // The same for every record whose key begins with `prefix` and ends with `suffix`: something that they
    // rest on goes away.
    void doubt(const std::string& prefix, const std::string& suffix = {});
    void put(const std::string& key, const Json::Value& applied, int ifindex = 0);
    void drop(const std::string& key);

    // Keys that begin with `prefix`.
    std::vector<std::string> keys(const std::string& prefix) const;

private:
    void save() const;

    std::string path_;
    Json::Value root_;
};

}  // namespace edged
