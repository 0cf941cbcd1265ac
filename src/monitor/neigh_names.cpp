#include <mutex>

#include "corvosetup/neigh.h"
#include "monitor/neighbour.h"

// After the log, before everything without a priority: monitors may be created by other initialisers.
__attribute__((init_priority(110))) std::map<int, std::string> neigh_state_str = {
    {0, "NONE"},   {1, "INCOMPLETE"}, {2, "REACHABLE"}, {4, "STALE"},       {8, "DELAY"},
    {16, "PROBE"}, {32, "FAILED"},    {64, "NOARP"},    {128, "PERMANENT"},
};
__attribute__((init_priority(111))) std::map<int, std::string> neigh_stat_mapping = {
    {0, "Link is connected."},
    {1, "gateway neigh failed."},
};

// Programs that look the tables up by their plain names get the same objects. Weak: where the linker copies
// them into a program, both names then follow the copy.
asm(".weak neigh_state_str\n.type neigh_state_str, @object\n.size neigh_state_str, 48\n"
    ".set neigh_state_str, _Z15neigh_state_strB5cxx11\n"
    ".weak neigh_stat_mapping\n.type neigh_stat_mapping, @object\n.size neigh_stat_mapping, 48\n"
    ".set neigh_stat_mapping, _Z18neigh_stat_mappingB5cxx11");

namespace {

// Looking up inserts, and several probes do it at once.
std::mutex names_lock;
bool names_gone = false;

// Destroyed before the tables: a probe that still runs at exit finds no table rather than a dead one.
struct CloseAtExit {
    ~CloseAtExit() {
        std::lock_guard hold(names_lock);
        names_gone = true;
    }
};
__attribute__((init_priority(112))) CloseAtExit close_at_exit;

std::string look_up(std::map<int, std::string>& table, int value) {
    std::lock_guard hold(names_lock);
    return names_gone ? std::string() : table[value];
}

}  // namespace

namespace corvo {

std::string neighbour_state_text(int state) {
    return look_up(neigh_state_str, state);
}

std::string link_status_text(int status) {
    return look_up(neigh_stat_mapping, status);
}

}  // namespace corvo
