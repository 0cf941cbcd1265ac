// Checking documents before anything touches the kernel: their form against a JSON Schema, and what no schema
// can say against the rules that the data plane is built by.
//
// Who may include this: corvoctl and corvo-edged.
#pragma once

#include <json/value.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace check {

enum class Severity { kError, kWarning };

// One finding: where, what, and what to do about it.
struct Finding {
    Severity severity = Severity::kError;
    std::string file;
    std::string pointer;  // JSON pointer (RFC 6901); empty: the whole document
    std::string text;
    std::string advice;
};

// The kinds of documents, by the name of their schema.
enum class Kind { kDeviceInfo, kSite, kQos, kLanQos, kRoute, kRoute6, kRoutePrivate, kRouteRegional };

const char* schema_name(Kind kind);

// The kind that a file's name says ("routes/s2s.json", "qos.json"). False: none.
bool kind_of_file(const std::string& path, Kind& out);

struct Options {
    std::string schema_directory;  // empty: the installed one, or the one in the source tree when built there
    std::string kernel_interfaces = "/sys/class/net";  // empty: do not look for interfaces
};

// A set of documents that belong together.
class Checker {
public:
    explicit Checker(Options options);

    // Reads a file, or every document below a directory. False: there is no such file or directory.
    bool add(const std::string& path);
    void add_document(Kind kind, const std::string& file, const Json::Value& root);

    // Findings in the order of files; errors mean that the documents cannot be right.
    std::vector<Finding> run();

    std::size_t documents() const { return documents_.size(); }

private:
    struct Document {
        Kind kind;
        std::string file;
        Json::Value root;
    };

    void add_file(const std::string& path);

    Options options_;
    std::vector<Document> documents_;
    std::vector<Finding> unreadable_;
};

// Whether any finding is an error.
bool has_errors(const std::vector<Finding>& findings);

}  // namespace check
