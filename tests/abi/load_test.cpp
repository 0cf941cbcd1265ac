// The library as a program that loads it at run time sees it: plain names, found with dlsym.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <map>
#include <string>

namespace {

TEST(LoadedLibrary, GivesItsVariablesUnderTheirPlainNames) {
    void* library = ::dlopen(CORVO_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << ::dlerror();
    const std::map<std::string, std::string> aliases{{"log_target", "_Z10log_targetB5cxx11"},
                                                     {"conf_map", "_Z8conf_mapB5cxx11"},
                                                     {"conf6_map", "_Z9conf6_mapB5cxx11"},
                                                     {"tcp_map", "_Z7tcp_mapB5cxx11"},
                                                     {"udp_msg", "_Z7udp_msgB5cxx11"},
                                                     {"neigh_state_str", "_Z15neigh_state_strB5cxx11"},
                                                     {"neigh_stat_mapping", "_Z18neigh_stat_mappingB5cxx11"}};
    for (const auto& [plain, mangled] : aliases) {
        EXPECT_NE(::dlsym(library, plain.c_str()), nullptr) << plain;
        EXPECT_EQ(::dlsym(library, plain.c_str()), ::dlsym(library, mangled.c_str())) << plain;
    }
    for (const char* name :
         {"setup_logger", "max_log_size", "verbose", "gws", "tmp_gws", "ping_test", "udp_test"})
        EXPECT_NE(::dlsym(library, name), nullptr) << name;
    EXPECT_EQ(*static_cast<std::string*>(::dlsym(library, "log_target")), "/var/log/network/corvo.log");
    using Table = std::map<std::string, std::string>;
    EXPECT_EQ(static_cast<const Table*>(::dlsym(library, "conf_map"))->at("arp_announce"), "2");
}

TEST(LoadedLibrary, StaysMappedAfterItWasClosed) {
    void* library = ::dlopen(CORVO_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << ::dlerror();
    auto* get_ifindex = reinterpret_cast<int (*)(const char*)>(::dlsym(library, "get_ifindex"));
    ASSERT_NE(get_ifindex, nullptr);
    ::dlclose(library);
    EXPECT_EQ(get_ifindex(nullptr), 0);
    EXPECT_NE(::dlopen(CORVO_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
}

}  // namespace
