// Route lists of documents: reading the elements, sending them, counting what failed.
//
// Who may include this: this area. apply_route_list() is the one loop that all kinds use; a kind hands in how
// one element becomes a record, built from the readers of RouteDraft. Elements are sent many at a time, but
// order, counts, log lines and results are those of elements sent one by one, and no element, whatever it
// holds, stops the ones after it.
#pragma once

#include <json/value.h>

#include <functional>
#include <string>

#include "tunnel/numbering.h"
#include "tunnel/route_document.h"
#include "tunnel/route_send.h"

namespace corvo::tunnel {

// What becomes of an element.
enum class Fate {
    kSend,
    kSkip,  // not a failure; RouteDraft::note is logged if there is one
    kFail,  // counted and logged like a refused route, without being sent
};

// One element on its way to a record. The readers throw on what an element must not hold (a number where a
// list is due, a text that does not fit its field); the element then counts as failed.
template <class Routes>
class RouteDraft {
public:
    RouteDraft() = default;
    RouteDraft(RouteDraft&& other) noexcept;
    RouteDraft& operator=(RouteDraft&&) = delete;
    ~RouteDraft();

    typename Routes::Record record{};  // the next hops belong to the draft
    std::string dst;                   // for messages: the destination's text, even when it fits no record
    std::string note;                  // why the element is skipped
    Fate fate = Fate::kSkip;

    // The first call of every kind: the table, and the check that the element is an object at all.
    void begin(const Json::Value& element, int table);

    // "SITE" into the priority; false when it is 0.
    bool read_site(const Json::Value& element);

    // The destination and its length, split at the slash; false when it is empty. IPv4: an address with a
    // length is reduced to its network; one that cannot be is noted, and false.
    bool read_destination(const Json::Value& value);

    // Whether as many weights as gateways are given, which only matters from two gateways on; notes it if
    // not.
    bool weights_agree(const Json::Value& element);

    // One next hop through `dev` per "RTA_GATEWAY", with the weights of "WEIGHT" from two on.
    void read_hops(const Json::Value& element, const std::string& dev);
    void add_hop(const Json::Value& gateway, const std::string& dev, int weight);

    // The fixed path metrics of a link's routes; MTU and MSS are locked.
    void set_metrics(int mtu, int advmss);

private:
    typename Routes::Hop* last_ = nullptr;
};

template <class Routes>
using FillRoute = std::function<Fate(const Json::Value& element, RouteDraft<Routes>& route)>;

// Applies `list` and returns how many elements failed.
template <class Routes>
int apply_route_list(int op, const RouteList& list, const FillRoute<Routes>& fill);

// The same with every element made into one route per variant 0..variants-1, variants of one element
// together.
template <class Routes>
int apply_route_list(int op, const RouteList& list, std::size_t variants,
                     const std::function<Fate(const Json::Value& element, std::size_t variant,
                                              RouteDraft<Routes>& route)>& fill);

// Applies a document's lists with `apply`: the one to delete, whose failures do not count, then the one to
// add; -3011 when an element of that failed.
int apply_route_lists(const RouteList& to_delete, const RouteList& to_add,
                      const std::function<int(int op, const RouteList& list)>& apply);

// Reading what an element holds: these throw a result code on a type that is not convertible.
std::string text_of(const Json::Value& value);         // null: ""
int number_in(const Json::Value& value);               // decimal text (or a number); 0 without digits
bool truth_of(const Json::Value& value);               // null: false
const Json::Value& list_of(const Json::Value& value);  // an array, or null
const Json::Value& item_of(const Json::Value& list, Json::ArrayIndex index);  // null past the end

}  // namespace corvo::tunnel
