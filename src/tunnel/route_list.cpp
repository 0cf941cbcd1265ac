#include "tunnel/route_list.h"

#include <utility>
#include <vector>

#include "corvosetup/utils.h"
#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "foundation/text.h"

namespace corvo::tunnel {

namespace {

constexpr std::size_t kBatch = 256;  // elements sent together
constexpr int kMetricLock = 0x104;   // RTAX_MTU and RTAX_ADVMSS

[[noreturn]] void refuse_element(int code) {
    throw code;
}

template <std::size_t N>
void copy_whole(char (&to)[N], std::string_view text, int code) {
    if (text.find('\0') != std::string_view::npos || !copy_text(to, text)) refuse_element(code);
}

// IPv4 destinations are given as a host of their network.
template <class Routes>
constexpr bool kNormalised = std::is_same_v<Routes, Ipv4Routes>;

void mark_onlink(nexthop& hop) {
    hop.onlink = 1;
}
void mark_onlink(nexthop6&) {}

template <class Routes>
class Batch {
public:
    Batch(int op, int& failed) : op_(op), failed_(failed) { drafts_.reserve(kBatch); }

    RouteDraft<Routes>& open() {
        if (drafts_.size() == kBatch) close();
        return drafts_.emplace_back();
    }

    // Sends what there is and reports it in order.
    void close() {
        std::vector<typename Routes::Record*> records;
        for (auto& draft : drafts_) {
            if (draft.fate == Fate::kSend) records.push_back(&draft.record);
        }
        const std::vector<int> results = sender_.send(op_, records);
        std::size_t next = 0;
        for (auto& draft : drafts_) report(draft, draft.fate == Fate::kSend ? results[next++] : kOk);
        drafts_.clear();
    }

private:
    void report(const RouteDraft<Routes>& draft, int result) {
        if (draft.fate == Fate::kSkip) {
            if (!draft.note.empty()) log::error(draft.note);
            return;
        }
        const auto& record = draft.record;
        if (draft.fate == Fate::kSend && report_route<Routes>(op_, record, result) == kOk) return;
        ++failed_;
        log::error(Routes::kVerb, " failed. op: ", op_, ", count: ", failed_, "DST [", draft.dst, "/",
                   record.prefixlen, "], table: ", record.table, ", metric: ", record.priority);
    }

    int op_;
    int& failed_;
    std::vector<RouteDraft<Routes>> drafts_;
    RouteSender<Routes> sender_;
};

}  // namespace

std::string text_of(const Json::Value& value) {
    if (value.isArray() || value.isObject()) refuse_element(kInvalidArgument);
    return as_str(value);
}

int number_in(const Json::Value& value) {
    return text_to_int(text_of(value));
}

bool truth_of(const Json::Value& value) {
    if (!value.isConvertibleTo(Json::booleanValue)) refuse_element(kInvalidArgument);
    return value.asBool();
}

const Json::Value& list_of(const Json::Value& value) {
    if (!value.isArray() && !value.isNull()) refuse_element(kInvalidArgument);
    return value;
}

const Json::Value& item_of(const Json::Value& list, Json::ArrayIndex index) {
    static const Json::Value nothing;
    return list.isArray() && index < list.size() ? list[index] : nothing;
}

template <class Routes>
RouteDraft<Routes>::RouteDraft(RouteDraft&& other) noexcept
    : record(std::exchange(other.record, {})),
      dst(std::move(other.dst)),
      note(std::move(other.note)),
      fate(other.fate),
      last_(std::exchange(other.last_, nullptr)) {}

template <class Routes>
RouteDraft<Routes>::~RouteDraft() {
    Routes::free_hops(record.nexthops);
}

template <class Routes>
void RouteDraft<Routes>::begin(const Json::Value& element, int table) {
    record.table = table;
    if (!element.isObject()) refuse_element(kInvalidArgument);
}

template <class Routes>
bool RouteDraft<Routes>::read_site(const Json::Value& element) {
    record.priority = number_in(j_member(element, "SITE"));
    return record.priority != 0;
}

template <class Routes>
bool RouteDraft<Routes>::read_destination(const Json::Value& value) {
    dst = text_of(value);
    if (dst.empty()) return false;
    const std::size_t slash = dst.find('/');
    if (slash != std::string::npos) {
        record.prefixlen = text_to_int(dst.substr(slash + 1));
        dst.resize(slash);
        if constexpr (kNormalised<Routes>) {
            if (network_addr(dst, static_cast<unsigned>(record.prefixlen)) != kOk) {
                note = "DST netaddr transform failed, IP: " + dst +
                       "prefix: " + std::to_string(record.prefixlen);
                return false;
            }
        }
    }
    copy_whole(record.dst, dst, kBadAddress);
    return true;
}

template <class Routes>
bool RouteDraft<Routes>::weights_agree(const Json::Value& element) {
    const Json::ArrayIndex gateways = list_of(j_member(element, "RTA_GATEWAY")).size();
    if (gateways < 2 || list_of(j_member(element, "WEIGHT")).size() == gateways) return true;
    note = "Gateway number does not equal to Weight number.";
    return false;
}

template <class Routes>
void RouteDraft<Routes>::read_hops(const Json::Value& element, const std::string& dev) {
    const Json::Value& gateways = list_of(j_member(element, "RTA_GATEWAY"));
    const Json::Value& weights = j_member(element, "WEIGHT");
    for (Json::ArrayIndex i = 0; i < gateways.size(); ++i) {
        add_hop(gateways[i], dev, gateways.size() > 1 ? number_in(item_of(weights, i)) : 0);
    }
}

template <class Routes>
void RouteDraft<Routes>::add_hop(const Json::Value& gateway, const std::string& dev, int weight) {
    // The list is walked to its end by the appending function, so it is handed the last record.
    auto* hop = Routes::add_hop(last_ == nullptr ? &record.nexthops : &last_->next);
    if (hop == nullptr) refuse_element(kAllocFailed);
    last_ = hop;
    copy_whole(hop->gw, text_of(gateway), kBadAddress);
    copy_whole(hop->dev, dev, kNoInterface);
    hop->weight = weight;
    mark_onlink(*hop);
}

template <class Routes>
void RouteDraft<Routes>::set_metrics(int mtu, int advmss) {
    record.lock = kMetricLock;
    record.mtu = mtu;
    record.advmss = advmss;
}

template <class Routes>
int apply_route_list(int op, const RouteList& list, std::size_t variants,
                     const std::function<Fate(const Json::Value& element, std::size_t variant,
                                              RouteDraft<Routes>& route)>& fill) {
    int failed = 0;
    Batch<Routes> batch(op, failed);
    list.each([&](const Json::Value& element) {
        for (std::size_t variant = 0; variant < variants; ++variant) {
            RouteDraft<Routes>& draft = batch.open();
            const int filled = guarded([&]() -> int {
                draft.fate = fill(element, variant, draft);
                return kOk;
            });
            if (filled != kOk) draft.fate = Fate::kFail;
        }
    });
    batch.close();
    return failed;
}

template <class Routes>
int apply_route_list(int op, const RouteList& list, const FillRoute<Routes>& fill) {
    return apply_route_list<Routes>(op, list, 1,
                                    [&](const Json::Value& element, std::size_t, RouteDraft<Routes>& route) {
                                        return fill(element, route);
                                    });
}

template class RouteDraft<Ipv4Routes>;
template class RouteDraft<Ipv6Routes>;
template int apply_route_list<Ipv4Routes>(int, const RouteList&, const FillRoute<Ipv4Routes>&);
template int apply_route_list<Ipv6Routes>(
    int, const RouteList&, std::size_t,
    const std::function<Fate(const Json::Value&, std::size_t, RouteDraft<Ipv6Routes>&)>&);

int apply_route_lists(const RouteList& to_delete, const RouteList& to_add,
                      const std::function<int(int op, const RouteList& list)>& apply) {
    if (!to_delete.empty()) apply(kRouteFlush, to_delete);
    if (!to_add.empty() && apply(kRouteAdd, to_add) != 0) return kRefused;
    return kOk;
}

}  // namespace corvo::tunnel
