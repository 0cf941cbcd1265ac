#include "qos/document_ahead.h"

#include <utility>

#include "corvosetup/cfg_file.h"

namespace corvo::qos {
namespace {

thread_local DocumentAhead* waiting = nullptr;

std::optional<Json::Value> read_now(const std::string& path) {
    CfgFile file(path);
    if (!file.good()) return std::nullopt;
    Json::Value document;
    file >> document;
    return document;
}

}  // namespace

DocumentAhead::DocumentAhead(std::string path) : path_(std::move(path)), document_(read_now(path_)) {
    waiting = this;
}

DocumentAhead::~DocumentAhead() {
    if (waiting == this) waiting = nullptr;
}

std::optional<Json::Value> DocumentAhead::load(const std::string& path) {
    if (!waiting || waiting->path_ != path) return read_now(path);
    return std::move(std::exchange(waiting, nullptr)->document_);
}

}  // namespace corvo::qos
