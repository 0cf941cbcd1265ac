#include "corvosetup/qdm.h"

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>
#include <utility>

#include "corvosetup/log.h"
#include "corvosetup/tc.h"
#include "foundation/guard.h"
#include "foundation/log_line.h"
#include "foundation/text.h"
#include "monitor/cycle.h"
#include "monitor/link_report.h"

using namespace corvo;

namespace {

const tqs_entry& entry_of(const tqs_link* link) {
    return *reinterpret_cast<const tqs_entry*>(reinterpret_cast<const char*>(link) -
                                               offsetof(tqs_entry, links));
}

// Truncates; what an integer cannot hold goes to the nearest it can.
Json::UInt64 whole(double value) {
    if (!(value > 0)) return 0;  // not a number included
    constexpr double kEnd = 18446744073709551616.0;
    if (value >= kEnd) return std::numeric_limits<Json::UInt64>::max();
    return static_cast<Json::UInt64>(value);
}

Json::Value figures(std::uint32_t ceil, std::uint64_t rate, double utils, std::uint64_t htb_rate) {
    Json::Value out(Json::objectValue);
    out["CEIL"] = Json::UInt64{ceil};
    out["RATE"] = Json::UInt64{rate};
    out["UTILS"] = whole(utils);
    out["HTB_RATE"] = Json::UInt64{htb_rate};
    return out;
}

struct ListOwner {
    explicit ListOwner(tqs_link* head) : head(head) {}
    ~ListOwner() { free_tqs_head(head); }
    ListOwner(const ListOwner&) = delete;
    ListOwner& operator=(const ListOwner&) = delete;

    tqs_link* head;
};

}  // namespace

ProcQdm::ProcQdm(std::string dev)
    : running(false),
      dbg(0),
      dev(std::move(dev)),
      ceil(0),
      qlen(0),
      rate(0),
      htb_rate(0),
      utils(0),
      thread(nullptr) {
    INIT_LOG("wmd");
}

ProcQdm::~ProcQdm() {
    end_worker(running, thread);
}

int ProcQdm::start() {
    return guarded([&] {
        const std::lock_guard in_turn(lifecycle);
        if (thread != nullptr) {
            log::error(dev, "'s qdm thread task has been started already.\n");
            return static_cast<int>(kAlreadyStarted);
        }
        return start_worker(running, thread, [this] { thread_task(); });
    });
}

int ProcQdm::stop() {
    return guarded([&] {
        const std::lock_guard in_turn(lifecycle);
        if (thread == nullptr) {
            // "arping" is what the log watchers of the fleet look for.
            log::error(dev, "'s has no running arping thread task.\n");
        } else {
            end_worker(running, thread);
        }
        return static_cast<int>(kOk);
    });
}

Json::Value ProcQdm::get_state() {
    return guarded_or(Json::Value(), [&] {
        std::lock_guard hold(guard);
        return Json::Value(state);
    });
}

int ProcQdm::show(bool full) {
    return guarded([&] {
        Json::Value copy = get_state();
        if (!full && copy.isObject()) {
            for (auto& report : copy) {
                if (report.isObject()) report.removeMember("COS");
            }
        }
        return print_document(copy, "Parse Qdisc status failed, ");
    });
}

int ProcQdm::refill_obj_status(struct tqs_link* list) {
    return guarded([&] {
        if (list == nullptr) return static_cast<int>(kNullArgument);
        std::lock_guard hold(guard);
        classes.clear();
        for (const tqs_link* link = list->next; link != list; link = link->next) {
            const tqs_entry& entry = entry_of(link);
            const std::string_view handle = array_text(entry.handle);
            if (handle == "1:") {
                qlen = entry.qlen;
            } else if (handle == "1:1") {
                ceil = static_cast<std::uint32_t>(entry.ceil);
                rate = entry.rate;
                htb_rate = entry.htb_rate;
                utils = entry.utilisation;
            } else if (handle != "none") {
                // A handle that comes twice keeps its first figures.
                classes.try_emplace(std::string(handle),
                                    queue_stat{static_cast<std::uint32_t>(entry.ceil), 0, entry.rate,
                                               entry.htb_rate, entry.utilisation});
            }
        }
        return static_cast<int>(kOk);
    });
}

int ProcQdm::save_state() {
    return guarded([&] {
        std::lock_guard hold(guard);
        Json::Value report = figures(ceil, rate, utils, htb_rate);
        report["QLEN"] = Json::UInt64{qlen};
        Json::Value& cos = report["COS"] = Json::Value(Json::arrayValue);
        for (const auto& [handle, stat] : classes) {
            Json::Value element(Json::objectValue);
            element[handle] = figures(stat.ceil, stat.rate, stat.utils, stat.htb_rate);
            cos.append(std::move(element));
        }
        Json::Value next(Json::objectValue);
        next[dev] = std::move(report);
        state.swap(next);
        return static_cast<int>(kOk);
    });
}

void ProcQdm::setup_dbg(int level) {
    std::lock_guard hold(guard);
    dbg = level;
}

void ProcQdm::thread_task() {
    guarded_void([&] {
        log::debug("QDM: ", dev, " <", ::getpid(), ">, @", ::gettid());
        run_cycles(running, periods.queue, [this] { probe(); });
    });
}

int ProcQdm::probe() {
    return guarded([&] {
        const ListOwner list(get_tx_queue_status(dev.c_str()));
        if (list.head == nullptr) {
            log::error(dev, " get_tx_queue_status failed.\n");
        } else if (refill_obj_status(list.head) != kOk) {
            log::error(dev, " refill_obj_status failed.\n");
        }
        return save_state();  // a stale report rather than none
    });
}
