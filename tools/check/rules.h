// What schemas cannot say: rules within one document and between documents.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "check/check.h"

namespace check {

// Collects the findings of one file.
class Notes {
public:
    Notes(std::string file, std::vector<Finding>& out) : file_(std::move(file)), out_(out) {}

    void error(const std::string& pointer, const std::string& text, const std::string& advice) {
        out_.push_back({Severity::kError, file_, pointer, text, advice});
    }
    void warning(const std::string& pointer, const std::string& text, const std::string& advice) {
        out_.push_back({Severity::kWarning, file_, pointer, text, advice});
    }

private:
    std::string file_;
    std::vector<Finding>& out_;
};

void check_device_info(const Json::Value& root, const Options& options, Notes notes);
void check_qos(const Json::Value& root, Notes notes);
void check_lan_qos(const Json::Value& root, Notes notes);
// `own`: this device's id as text, empty when unknown.
void check_site(const Json::Value& root, const std::string& own, Notes notes);
void check_routes(Kind kind, const Json::Value& root, Notes notes);

// Reading without trust.
std::string text_of(const Json::Value& object, const char* key);
const Json::Value& member_of(const Json::Value& object, const char* key);
long number_of(const Json::Value& object, const char* key);
std::string escaped(const std::string& member);  // for a JSON pointer

// Strict: dotted quad; IPv6 text. With `prefix`, an optional /length is taken off first and checked.
bool is_ip4(const std::string& text);
bool is_ip6(const std::string& text);
bool is_prefix4(const std::string& text);
bool is_prefix6(const std::string& text);

}  // namespace check
