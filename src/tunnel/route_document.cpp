#include "tunnel/route_document.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "foundation/document.h"
#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/plain_json.h"
#include "foundation/result.h"

namespace corvo::tunnel {

void RouteList::each(const std::function<void(const Json::Value& element)>& visit) const {
    if (values_ != nullptr) {
        if (!values_->isArray()) return;
        for (const Json::Value& element : *values_) visit(element);
        return;
    }
    PlainJson json(text_);
    json.array([&] {
        Json::Value element;
        const PlainJson start = json;
        const auto make = [&]() -> int { return json.value(&element) ? kOk : kFailed; };
        if (guarded(make) != kOk) {  // it is plain, so there was no memory: this one fails, as null
            element = Json::Value();
            json = start;
            json.value(nullptr);
        }
        visit(element);
        return true;
    });
}

bool RouteList::empty() const {
    if (values_ != nullptr) return !values_->isArray() || values_->empty();
    bool none = true;
    PlainJson(text_).array([&] { return none = false; });
    return none;
}

bool RouteDocument::load(const std::string& path) {
    const auto take = [this](std::string_view reply) {
        text_ = reply;
        return find_lists_of_reply();
    };
    if (document_from_service(path, values_, take) == kOk) return true;
    if (text_of_document(path, text_) != kOk) return false;
    return find_lists_of_file() || parse_document(text_, values_) == kOk;
}

// The first walk over a text goes to its end: an error there must be found before anything is applied.
bool RouteDocument::find_lists_of_file() {
    PlainJson json(text_);
    return (find_lists(json) && json.at_end()) || forget_lists();
}

bool RouteDocument::find_lists_of_reply() {
    PlainJson json(text_);
    Json::Value error;
    bool found = false;
    const bool plain = json.object([&](std::string_view key) {
        if (key == "error") return error.isNull() && json.value(&error);
        if (key != "data") return json.value(nullptr);
        return !std::exchange(found, true) && find_lists(json);
    });
    return (plain && json.at_end() && found && error == 0) || forget_lists();
}

bool RouteDocument::forget_lists() {
    std::fill(std::begin(lists_), std::end(lists_), std::string_view());
    return false;
}

// `json` is where the document starts.
bool RouteDocument::find_lists(PlainJson& json) {
    return json.object([&](std::string_view key) {
        const char* const begin = json.place();
        if (!json.value(nullptr)) return false;
        const auto* const known = std::find(std::begin(kKeys), std::end(kKeys), key);
        if (known == std::end(kKeys)) return true;
        std::string_view& list = lists_[known - std::begin(kKeys)];
        if (!list.empty()) return false;  // given twice
        list = {begin, static_cast<std::size_t>(json.place() - begin)};
        return true;
    });
}

RouteList RouteDocument::list(Which which) const {
    return values_.isNull() ? RouteList(lists_[which]) : RouteList(j_arr(values_, kKeys[which]));
}

}  // namespace corvo::tunnel
