#include "support/fault/plan.h"

#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <vector>

#include "corvosetup/log.h"

namespace corvo::test::fault {

namespace {

std::atomic<bool> armed{false};
std::atomic<bool> struck{false};
std::atomic<const char*> place{nullptr};
std::atomic<int> seen{0};
std::atomic<int> limit{0};
std::atomic<ServiceFault> next_service_fault{ServiceFault::kNone};
Plan current{Kind::kNew, 0};

std::mutex spawn_lock;
bool recording = false;
std::vector<std::vector<std::string>> spawned;

thread_local bool target = false;
thread_local int spare_depth = 0;

struct KindInfo {
    const char* name;
    std::vector<std::pair<const char*, int>> variants;
};

// A system function needs its errno; the other numbers are read where they are used.
const KindInfo& info_of(Kind kind) {
    static const KindInfo all[kKinds] = {
        {"new", {{"no memory", ENOMEM}}},
        {"allocation", {{"no memory", ENOMEM}}},
        {"socket", {{"EMFILE", EMFILE}, {"EPERM", EPERM}}},
        {"send", {{"ENOBUFS", ENOBUFS}, {"EINTR", EINTR}, {"ENETDOWN", ENETDOWN}}},
        {"receive", {{"ENOBUFS", ENOBUFS}, {"EAGAIN", EAGAIN}, {"EINTR", EINTR}, {"end", 0}}},
        {"wait", {{"ENOMEM", ENOMEM}, {"EINTR", EINTR}}},
        {"lookup", {{"ENODEV", ENODEV}}},
        {"file",
         {{"ENOENT", ENOENT},
          {"EROFS", EROFS},
          {"ENOSPC", ENOSPC},
          {"EISDIR", EISDIR},
          {"end", 0},
          {"half a document", 0}}},
        {"log", {{"ENOENT", ENOENT}, {"ENOSPC", ENOSPC}}},
        {"command",
         {{"missing", ENOENT},
          {"no process", EAGAIN},
          {"fails", 0},
          {"prints rubbish", 0},
          {"is killed", 0},
          {"is slow", 0},
          {"prints without end", 0}}},
        {"thread", {{"EAGAIN", EAGAIN}}},
        {"service",
         {{"absent", 0},
          {"refused", 0},
          {"hung", 0},
          {"half", 0},
          {"closed", 0},
          {"empty", 0},
          {"garbage", 0},
          {"wrong types", 0},
          {"huge", 0},
          {"late", 0},
          {"error", 0}}},
    };
    return all[static_cast<int>(kind)];
}

}  // namespace

const char* name_of(Kind kind) {
    return info_of(kind).name;
}

int variants(Kind kind) {
    return static_cast<int>(info_of(kind).variants.size());
}

bool can_last(Kind kind, int variant) {
    return errno_of(kind, variant) != EINTR;
}

int errno_of(Kind kind, int variant) {
    return info_of(kind).variants[static_cast<std::size_t>(variant)].second;
}

std::string Plan::text() const {
    return std::string(name_of(kind)) + " #" + std::to_string(nth) + (lasting ? " and later (" : " (") +
           info_of(kind).variants[static_cast<std::size_t>(variant)].first + ")";
}

bool is_target() {
    return target && spare_depth == 0 && armed.load(std::memory_order_acquire);
}

bool under_fault() {
    return armed;
}

void become_target() {
    target = true;
}

bool strikes(Kind kind, const char* where, int* variant) {
    if (!is_target() || kind != current.kind) return false;
    const int now = seen.fetch_add(1) + 1;
    if (now != current.nth && (!current.lasting || now < current.nth)) return false;
    const char* none = nullptr;
    place.compare_exchange_strong(none, where);
    struck = true;
    if (variant != nullptr) *variant = current.variant;
    return true;
}

bool is_log(const char* path) {
    return path != nullptr && log_target == path;
}

bool is_log(int fd) {
    struct stat mine {};
    struct stat log {};
    return ::fstat(fd, &mine) == 0 && S_ISREG(mine.st_mode) && ::lstat(log_target.c_str(), &log) == 0 &&
           mine.st_ino == log.st_ino && mine.st_dev == log.st_dev;
}

int service_limit() {
    return limit;
}

void set_service_limit(int seconds) {
    limit = seconds;
}

void set_service_fault(ServiceFault fault) {
    next_service_fault = fault;
}

ServiceFault take_service_fault() {
    return next_service_fault.exchange(ServiceFault::kNone);
}

Armed::Armed(const Plan& plan) {
    interpose_allocations();
    info_of(plan.kind);
    current = plan;
    seen = 0;
    struck = false;
    place = nullptr;
    next_service_fault = ServiceFault::kNone;
    target = true;
    armed.store(true, std::memory_order_release);
}

bool Armed::disarm() {
    armed = false;
    return struck;
}

std::string Armed::where() const {
    const char* name = place;
    return name != nullptr ? name : "nowhere";
}

SpawnRecord::SpawnRecord() {
    const std::lock_guard hold(spawn_lock);
    recording = true;
    spawned.clear();
}
SpawnRecord::~SpawnRecord() {
    const std::lock_guard hold(spawn_lock);
    recording = false;
}
std::vector<std::vector<std::string>> SpawnRecord::take() {
    const std::lock_guard hold(spawn_lock);
    return std::exchange(spawned, {});
}
void note_spawn(char* const* argv) {
    const Spared here;
    const std::lock_guard hold(spawn_lock);
    if (!recording) return;
    auto& words = spawned.emplace_back();
    for (; *argv != nullptr; ++argv) words.emplace_back(*argv);
}

Spared::Spared() {
    ++spare_depth;
}
Spared::~Spared() {
    --spare_depth;
}

}  // namespace corvo::test::fault
