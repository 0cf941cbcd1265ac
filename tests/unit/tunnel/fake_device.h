// A device without a kernel: what the tunnel code asks of the netlink layer, the services and /proc is noted
// here and answered as the test says.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>

#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "support/files.h"
#include "support/log.h"

namespace corvo::test {

Json::Value json(const std::string& text);

class FakeDevice : public testing::Test {
public:
    using EntryMap = std::unordered_map<std::string, Json::Value>;

    FakeDevice();
    ~FakeDevice() override;

    static FakeDevice& current();

    // Every request in order, as one text each: "edit_rule 0 prio=10003 table=10003 mark=3/15".
    std::vector<std::string> calls;
    // The result of a request; the last rule whose text is contained in the request counts. 0 otherwise.
    void fail(const std::string& part, int result) { results_.emplace_back(part, result); }
    void succeed_again() { results_.clear(); }
    // Requests that contain `part` find no memory: they throw.
    void run_out_of_memory(const std::string& part) { no_memory_for_ = part; }
    int answer(const std::string& call);

    std::map<std::string, int> devices;  // name -> index
    std::string port_address = "10.9.0.1/24";
    int device_id = 7;
    int service_result = 0;
    EntryMap entries;         // what all three lists report
    std::string asked;        // the last list request: "wan PATH 1"
    int hops_left = 1 << 30;  // next hops that can still be allocated
    int open_result = 0;      // of route sessions

    // Adds an entry; its "ifname" is the key.
    void entry(const std::string& ifname, const std::string& text);
    // Writes a document and returns its path.
    std::string document(const std::string& text);

    // The log without the traces and without what reading documents says.
    std::vector<std::string> log() const;
    std::vector<std::string> errors() const;  // its [ERROR] and [WARNING] lines
    void clear() {
        calls.clear();
        clear_log(log_);
    }
    // The requests that begin with `what`.
    std::vector<std::string> only(const std::string& what) const;

    std::string log_file() const { return log_; }

private:
    TempDir dir_;
    std::string log_ = dir_ / "corvo.log";
    int documents_ = 0;
    std::vector<std::pair<std::string, int>> results_;
    std::string no_memory_for_;
};

// A step of a creation that fails, and what is then logged.
struct FailingStep {
    const char* step;
    const char* message;
};

}  // namespace corvo::test
