#include "support/sandbox.h"

#include <json/writer.h>
#include <unistd.h>

#include "support/isolation.h"

namespace corvo::test {

std::string write_document(const std::string& name, std::string_view text) {
    const std::string path = kDocumentDir + name;
    write_file(path, text);
    return path;
}

std::string write_document(const std::string& name, const std::string& text) {
    return write_document(name, std::string_view(text));
}

std::string write_document(const std::string& name, const char* text) {
    return write_document(name, std::string_view(text));
}

std::string write_document(const std::string& name, const Json::Value& document) {
    return write_document(name, std::string_view(Json::writeString(Json::StreamWriterBuilder(), document)));
}

void make_condition(const std::string& name, const std::string& value) {
    if (in_device_tier()) must_run("iptables -w -A OUTPUT -m condition --condition " + name);
    write_file(kConditionDir + name, value);
}

void share_conditions(int parent) {
    if (in_device_tier()) return;
    isolation::make_condition_dir("/proc/" + std::to_string(parent) + "/net/nf_condition");
}

std::optional<std::string> condition(const std::string& name) {
    const std::string path = kConditionDir + name;
    if (::access(path.c_str(), F_OK) != 0) return {};
    std::string value = read_file(path);
    while (!value.empty() && value.back() == '\n') value.pop_back();
    return value;
}

}  // namespace corvo::test
