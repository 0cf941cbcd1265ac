#include "corvosetup/presetup.h"

#include <sys/sysinfo.h>

#include <vector>

#include "corvosetup/utils.h"
#include "foundation/command.h"
#include "foundation/guard.h"
#include "foundation/log_line.h"

using StringMap = std::map<std::string, std::string>;

__attribute__((init_priority(110))) extern const StringMap conf_map{
    {"accept_redirects", "0"},
    {"arp_announce", "2"},
    {"arp_ignore", "1"},
    {"forwarding", "1"},
    {"ignore_routes_with_linkdown", "1"},
    {"rp_filter", "0"},
    {"send_redirects", "0"},
};

__attribute__((init_priority(110))) extern const StringMap conf6_map{
    {"accept_ra", "0"},  {"addr_gen_mode", "3"},     {"autoconf", "0"},
    {"forwarding", "0"}, {"keep_addr_on_down", "1"},
};

__attribute__((init_priority(110))) extern const StringMap tcp_map{
    {"/proc/sys/net/ipv4/ip_local_reserved_ports", "58080"},
    {"/proc/sys/net/ipv4/tcp_congestion_control", "bbr"},
    {"/proc/sys/net/mptcp/mptcp_checksum", "0"},
    {"/proc/sys/net/mptcp/mptcp_enabled", "2"},
    {"/proc/sys/net/netfilter/nf_conntrack_tcp_be_liberal", "0"},
    {"/proc/sys/net/netfilter/nf_conntrack_tcp_no_window_check", "1"},
    {"/proc/sys/net/netfilter/nf_conntrack_tcp_timeout_established", "7440"},
    {"/sys/module/sch_htb/parameters/htb_rate_est", "1"},
};

// The plain names, for programs that look them up with dlsym. Weak, so that a linker that copies the object
// into a program makes both names follow the copy.
asm(".weak conf_map\n.type conf_map, @object\n.size conf_map, 48\n.set conf_map, _Z8conf_mapB5cxx11\n"
    ".weak conf6_map\n.type conf6_map, @object\n.size conf6_map, 48\n.set conf6_map, _Z9conf6_mapB5cxx11\n"
    ".weak tcp_map\n.type tcp_map, @object\n.size tcp_map, 48\n.set tcp_map, _Z7tcp_mapB5cxx11");
static_assert(sizeof(StringMap) == 48);

namespace {

using corvo::log::Entry;

constexpr const char* kFile = "presetup.cpp";
constexpr const char* kInterfaces = "/sys/class/net/";
constexpr const char* kIpv4 = "/proc/sys/net/ipv4/";
constexpr const char* kIpv6Conf = "/proc/sys/net/ipv6/conf/";
constexpr int kIfbDevices = 7;

// Kernel values written one after the other; a refusal is logged and remembered, and the next one is tried.
class Writer {
public:
    template <class Value>
    void write(const std::string& path, const Value& value) {
        if (write_value(path, value) == 0) return;
        corvo::log::error("Write value fail, file: ", path);
        failed_ = true;
    }
    void fail() { failed_ = true; }
    int result() const { return failed_ ? corvo::kFailed : corvo::kOk; }

private:
    bool failed_ = false;
};

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const auto& word : words) text.append(text.empty() ? "" : " ").append(word);
    return text;
}

// The tools only run here: what they fail at is logged and changes no result.
void run_logged(const std::vector<std::string>& argv) {
    if (corvo::run_command(argv) != 0) corvo::log::error(joined(argv), " failed.");
}

bool is_pinned(const std::string& name) {
    return name.starts_with("swdev") || name.starts_with("enp") || name.starts_with("eth");
}

// The line numbers of the traces are those that the fleet's log parsers look for.
void ifb_up() {
    const Entry entry(kFile, __func__, Entry::Word::kEnter, 75);
    std::vector<std::string> names;
    if (list_dir(kInterfaces, names) == 0) {
        for (const auto& name : names) {
            if (name.find("ifb") == std::string::npos) continue;
            corvo::log::debug("found IFB: ", name);
            run_logged({"/sbin/ifconfig", name, "up"});
        }
    }
    entry.leave(0, 91);
}

}  // namespace

void module_probing() {
    corvo::guarded_void([] {
        corvo::log::ensure_file();
        const Entry entry(kFile, "module_probing", Entry::Word::kEnter, 97);
        run_logged({"/sbin/modprobe", "ifb", "numifbs=" + std::to_string(kIfbDevices)});
        ifb_up();
        entry.leave(0, 111);
    });
}

int presetup_ipv4() {
    return corvo::guarded([] {
        corvo::log::ensure_file();
        const Entry entry(kFile, "presetup_ipv4", Entry::Word::kInitEnter, 117);
        Writer writer;
        const std::string conf = std::string(kIpv4) + "conf/";
        std::vector<std::string> names;
        if (list_dir(conf, names) != 0) writer.fail();
        for (const auto& name : names)
            for (const auto& [key, value] : conf_map) writer.write(conf + name + "/" + key, value);
        writer.write(std::string(kIpv4) + "ip_forward", 1);
        // Found by PATH, and known to the fleet's own build of the tool only: others refuse the word.
        corvo::run_command_quiet({"ip", "li", "set", "dev", "lo", "multipath", "off"});
        const std::string neigh = std::string(kIpv4) + "neigh/default/";
        writer.write(neigh + "gc_interval", 270);
        writer.write(neigh + "gc_thresh1", 1);
        writer.write(neigh + "gc_thresh2", 3000);
        writer.write(neigh + "gc_thresh3", 3000);
        return entry.leave(writer.result(), 175);
    });
}

int presetup_ipv6() {
    return corvo::guarded([] {
        corvo::log::ensure_file();
        const Entry entry(kFile, "presetup_ipv6", Entry::Word::kInitEnter, 182);
        Writer writer;
        const std::string conf = kIpv6Conf;
        writer.write(conf + "all/forwarding", 1);
        std::vector<std::string> names;
        if (list_dir(conf, names) != 0) writer.fail();
        for (const auto& name : names) {
            for (const auto& [key, value] : conf6_map) {
                // The global switch stays on; it was just set, and writing it changes every interface.
                if (name == "all" && key == "forwarding") continue;
                std::string path = conf + name + "/" + key;
                if (does_file_exist(path)) writer.write(path, value);
            }
        }
        writer.write(conf + "all/disable_ipv6", 0);
        return entry.leave(writer.result(), 217);
    });
}

int presetup_mptcp() {
    return corvo::guarded([] {
        corvo::log::ensure_file();
        const Entry entry(kFile, "presetup_mptcp", Entry::Word::kInitEnter, 224);
        Writer writer;
        for (const auto& [path, value] : tcp_map) writer.write(path, value);
        return entry.leave(writer.result(), 236);
    });
}

int presetup_rps_xps() {
    return corvo::guarded([]() -> int {
        corvo::log::ensure_file();
        const Entry entry(kFile, "presetup_rps_xps", Entry::Word::kInitEnter, 243);
        const int processors = get_nprocs();
        if (processors == 1) return entry.leave(0, 270);
        std::vector<std::string> names;
        if (const int rc = list_dir(kInterfaces, names); rc != 0) return entry.leave(rc, 270);
        corvo::log::debug("CPU num: ", processors);
        Writer writer;
        for (const auto& name : names) {
            if (!is_pinned(name)) continue;
            corvo::log::debug("Setup CPU pinning: ", name);
            if (setup_cpus(name) != 0) {
                corvo::log::error(name, " setup_cpus failed.");
                writer.fail();
            }
        }
        return entry.leave(writer.result(), 270);
    });
}
