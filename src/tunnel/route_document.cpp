#include "tunnel/route_document.h"

#include <algorithm>
#include <iterator>

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
    if (document_from_service(path, values_) == kOk) return true;
    if (text_of_document(path, text_) != kOk) return false;
    return find_lists() || parse_document(text_, values_) == kOk;
}

// A first walk over the whole text: an error at its end must be found before anything is applied.
bool RouteDocument::find_lists() {
    PlainJson json(text_);
    const bool plain = json.object([&](std::string_view key) {
        const char* const begin = json.place();
        if (!json.value(nullptr)) return false;
        const auto* const known = std::find(std::begin(kKeys), std::end(kKeys), key);
        if (known == std::end(kKeys)) return true;
        std::string_view& list = lists_[known - std::begin(kKeys)];
        if (!list.empty()) return false;  // given twice
        list = {begin, static_cast<std::size_t>(json.place() - begin)};
        return true;
    });
    if (plain && json.at_end()) return true;
    std::fill(std::begin(lists_), std::end(lists_), std::string_view());
    return false;
}

RouteList RouteDocument::list(Which which) const {
    return values_.isNull() ? RouteList(lists_[which]) : RouteList(j_arr(values_, kKeys[which]));
}

}  // namespace corvo::tunnel
