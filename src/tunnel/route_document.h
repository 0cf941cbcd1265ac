// Route documents: where their lists come from and how the elements are gone through.
//
// Who may include this: this area. A document has a list of routes to delete ("del") and one of routes to add
// ("add"), either of up to a hundred thousand elements. Written as programs write it, its text is checked
// once and then read element by element as the routes are sent; everything else is jsoncpp's to read.
#pragma once

#include <json/value.h>

#include <functional>
#include <string>
#include <string_view>

#include "foundation/plain_json.h"

namespace corvo::tunnel {

// The elements of a list that lives elsewhere: as values, or as the text of a plain array.
class RouteList {
public:
    RouteList() = default;
    explicit RouteList(const Json::Value& list) : values_(&list) {}
    explicit RouteList(std::string_view text) : text_(text) {}

    // Every element in order, as null one that there is no memory for; none when it is no array at all.
    void each(const std::function<void(const Json::Value& element)>& visit) const;
    bool empty() const;

private:
    const Json::Value* values_ = nullptr;
    std::string_view text_;
};

class RouteDocument {
public:
    // Loads it as CfgFile does: false, and one line from each source, when there is none.
    bool load(const std::string& path);

    RouteList to_delete() const { return list(kDelete); }
    RouteList to_add() const { return list(kAdd); }

    RouteDocument() = default;
    RouteDocument(const RouteDocument&) = delete;  // the lists point into it
    RouteDocument& operator=(const RouteDocument&) = delete;

private:
    enum Which { kDelete, kAdd };
    static constexpr const char* kKeys[] = {"del", "add"};

    RouteList list(Which which) const;
    // Whether the text is plain, and the lists then found in it.
    bool find_lists_of_file();
    bool find_lists_of_reply();
    bool find_lists(PlainJson& json);
    bool forget_lists();  // false

    Json::Value values_;  // unless it is read from the text
    std::string text_;
    std::string_view lists_[2];
};

}  // namespace corvo::tunnel
