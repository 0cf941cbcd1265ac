// The library as a program that is linked with it sees it.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <vector>

#include "corvosetup/log.h"
#include "corvosetup/neigh.h"
#include "corvosetup/ping_test.h"
#include "corvosetup/presetup.h"
#include "corvosetup/route.h"
#include "corvosetup/udp.h"
#include "exported.h"
#include "symbol_list.h"

namespace {

std::vector<std::string> missing_from(const std::set<std::string>& all, const std::set<std::string>& some) {
    std::vector<std::string> missing;
    std::set_difference(all.begin(), all.end(), some.begin(), some.end(), std::back_inserter(missing));
    return missing;
}

TEST(ExportedSymbols, EveryListedOneIsThere) {
    EXPECT_EQ(missing_from(listed_symbols(), built_symbols()), std::vector<std::string>{});
}

TEST(ExportedSymbols, NothingElseIsThere) {
    EXPECT_EQ(missing_from(built_symbols(), listed_symbols()), std::vector<std::string>{});
    EXPECT_GT(built_symbols().size(), 100U);
}

TEST(ExportedSymbols, EachNameStandsInAPublicHeader) {
    std::string headers;
    for (const auto& file : std::filesystem::directory_iterator(CORVO_INCLUDE_DIR "/corvosetup")) {
        std::ifstream in(file.path());
        headers.append(std::istreambuf_iterator<char>(in), {});
    }
    std::string command = "c++filt -p";
    for (const auto& symbol : listed_symbols()) command += " " + symbol;
    std::istringstream names(output_of(command));
    int looked_at = 0;
    for (std::string name; std::getline(names, name); ++looked_at) {
        for (const char* prefix : {"vtable for ", "typeinfo for ", "typeinfo name for "})
            if (name.starts_with(prefix)) name.erase(0, std::string(prefix).size());
        if (const auto tag = name.find("[abi:"); tag != std::string::npos) name.resize(tag);
        if (const auto scope = name.rfind("::"); scope != std::string::npos) name.erase(0, scope + 2);
        EXPECT_NE(headers.find(name), std::string::npos) << name;
    }
    EXPECT_EQ(looked_at, static_cast<int>(listed_symbols().size()));
}

TEST(ExportedSymbols, EveryFunctionOfTheHeadersIsTheLibrarysAndListed) {
    const auto listed = listed_symbols();
    int found = 0;
    for (const Exported address : functions_of_the_headers()) {
        Dl_info info{};
        ASSERT_NE(::dladdr(address, &info), 0);
        EXPECT_TRUE(std::filesystem::equivalent(info.dli_fname, CORVO_LIBRARY)) << info.dli_fname;
        ASSERT_NE(info.dli_sname, nullptr) << "function " << found;
        EXPECT_EQ(info.dli_saddr, address);
        EXPECT_EQ(listed.count(info.dli_sname), 1U) << info.dli_sname;
        ++found;
    }
    EXPECT_GT(found, 200);
}

// A program that names a variable may get the only copy of it, in its own data; dlsym must find that copy
// under both names.
TEST(ExportedVariables, LinkedAndLookedUpAreTheSameObject) {
    const std::map<std::string, const void*> variables{
        {"log_target", &log_target},
        {"_Z10log_targetB5cxx11", &log_target},
        {"setup_logger", &setup_logger},
        {"max_log_size", &max_log_size},
        {"verbose", &verbose},
        {"conf_map", &conf_map},
        {"_Z8conf_mapB5cxx11", &conf_map},
        {"conf6_map", &conf6_map},
        {"_Z9conf6_mapB5cxx11", &conf6_map},
        {"tcp_map", &tcp_map},
        {"_Z7tcp_mapB5cxx11", &tcp_map},
        {"gws", &gws},
        {"tmp_gws", &tmp_gws},
        {"neigh_state_str", &neigh_state_str},
        {"neigh_stat_mapping", &neigh_stat_mapping},
        {"udp_msg", &udp_msg},
        {"udp_test", &udp_test},
        {"ping_test", &ping_test},
    };
    for (const auto& [name, address] : variables)
        EXPECT_EQ(::dlsym(RTLD_DEFAULT, name.c_str()), address) << name;
}

TEST(ExportedVariables, LibraryUsesWhatTheProgramSees) {
    const std::string path = ::testing::TempDir() + "corvo-abi-test.log";
    reopen_setup_logger(path);
    EXPECT_EQ(log_target, path);
    EXPECT_EQ(*static_cast<std::string*>(::dlsym(RTLD_DEFAULT, "log_target")), path);
    max_log_size = 3;
    EXPECT_EQ(check_file_size(path), "file size reach max log size: 3, log rotate.\n");
    max_log_size = 5242880;
    std::filesystem::remove(path);
}

TEST(ExportedVariables, TablesHoldTheFleetsValues) {
    EXPECT_EQ(conf_map, (std::map<std::string, std::string>{{"accept_redirects", "0"},
                                                            {"arp_announce", "2"},
                                                            {"arp_ignore", "1"},
                                                            {"forwarding", "1"},
                                                            {"ignore_routes_with_linkdown", "1"},
                                                            {"rp_filter", "0"},
                                                            {"send_redirects", "0"}}));
    EXPECT_EQ(conf6_map, (std::map<std::string, std::string>{{"accept_ra", "0"},
                                                             {"addr_gen_mode", "3"},
                                                             {"autoconf", "0"},
                                                             {"forwarding", "0"},
                                                             {"keep_addr_on_down", "1"}}));
    EXPECT_EQ(tcp_map, (std::map<std::string, std::string>{
                           {"/proc/sys/net/ipv4/ip_local_reserved_ports", "58080"},
                           {"/proc/sys/net/ipv4/tcp_congestion_control", "bbr"},
                           {"/proc/sys/net/mptcp/mptcp_checksum", "0"},
                           {"/proc/sys/net/mptcp/mptcp_enabled", "2"},
                           {"/proc/sys/net/netfilter/nf_conntrack_tcp_be_liberal", "0"},
                           {"/proc/sys/net/netfilter/nf_conntrack_tcp_no_window_check", "1"},
                           {"/proc/sys/net/netfilter/nf_conntrack_tcp_timeout_established", "7440"},
                           {"/sys/module/sch_htb/parameters/htb_rate_est", "1"}}));
}

TEST(LibraryFile, HasItsSonameAndStaysLoaded) {
    const std::string dynamic = output_of("readelf -dW -- '" CORVO_LIBRARY "'");
    EXPECT_NE(dynamic.find("Library soname: [libcorvosetup.so.1]"), std::string::npos) << dynamic;
    EXPECT_NE(dynamic.find("NODELETE"), std::string::npos) << dynamic;
}

TEST(LibraryFile, LeavesTheServiceCallsToAnotherLibrary) {
    const std::string undefined =
        output_of("nm -D --undefined-only --without-symbol-versions -- '" CORVO_LIBRARY "'");
    for (const char* name :
         {"vx_io_create", "vx_io_printf", "vx_call", "vx_io_read", "vx_io_realloc", "vx_io_free"})
        EXPECT_NE(undefined.find(std::string("U ") + name), std::string::npos) << name;
}

TEST(LibraryFile, CarriesItsVersionOnEverySymbol) {
    std::istringstream lines(output_of("nm -D --defined-only -- '" CORVO_LIBRARY "'"));
    for (std::string line; std::getline(lines, line);)
        EXPECT_TRUE(line.find(" A ") != std::string::npos || line.ends_with("@@CORVOSETUP_1")) << line;
}

}  // namespace
