// What every function answers when memory, descriptors or libnl's objects cannot be had.
//
// This executable brings its own operator new, socket() and libnl allocators; each passes through but for the
// one call that a test lets fail.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netlink/netlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <new>

#include "corvosetup/link.h"
#include "corvosetup/routing.h"
#include "foundation/text.h"
#include "netlink/nl.h"
#include "support/leak_check.h"

namespace {

// The how-manieth call from now on fails; 0: none.
struct Fault {
    int fail_at = 0;
    bool fails() { return fail_at > 0 && --fail_at == 0; }
};
thread_local Fault memory;
thread_local Fault descriptor;
thread_local Fault timeout;
thread_local Fault libnl_socket;
thread_local Fault libnl_connect;

template <class Function>
Function real(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

void* allocate(std::size_t size) {
    return memory.fails() ? nullptr : std::malloc(size);
}

}  // namespace

void* operator new(std::size_t size) {
    if (void* got = allocate(size)) return got;
    throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
    if (descriptor.fails()) return errno = EMFILE, -1;
    return real<int (*)(int, int, int)>("socket")(domain, type, protocol);
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t size) noexcept {
    if (level == SOL_SOCKET && option == SO_RCVTIMEO && timeout.fails()) return errno = ENOBUFS, -1;
    return real<int (*)(int, int, int, const void*, socklen_t)>("setsockopt")(fd, level, option, value, size);
}

nl_sock* nl_socket_alloc() {
    return libnl_socket.fails() ? nullptr : real<nl_sock* (*)()>("nl_socket_alloc")();
}

int nl_connect(nl_sock* sock, int protocol) {
    return libnl_connect.fails() ? -NLE_NOMEM : real<int (*)(nl_sock*, int)>("nl_connect")(sock, protocol);
}

}  // extern "C"

namespace {

struct Case {
    const char* name;
    int (*call)();
    bool tunnel = false;  // its sockets are told apart by other codes
};

route_conf route(nexthop& hop) {
    route_conf record{};
    record.table = 1000;
    record.priority = 7;
    corvo::copy_text(record.dst, "10.1.0.0/16");
    corvo::copy_text(hop.gw, "192.0.2.2");
    record.nexthops = &hop;
    return record;
}

template <int op>
int call_route() {
    nexthop hop{};
    route_conf record = route(hop);
    return edit_route(op, &record);
}

template <int op>
int call_route6() {
    route6_conf record{};
    record.table = 1000;
    corvo::copy_text(record.dst, "fd10::1");
    return edit_route6(op, &record);
}

template <int op>
int call_rule() {
    rule_conf record{7, 8, 0, 0, "192.0.2.200/32", "a-long-device"};
    return edit_rule(op, &record);
}

template <int op>
int call_rule6() {
    rule6_conf record{7, 8, 0, 0, "fd10::1", "a-long-device"};
    return edit_rule6(op, &record);
}

int call_ipip() {
    ipip_conf conf{};
    corvo::copy_text(conf.name, "tun5");
    return edit_ipip_tunnel(1, &conf);
}

int call_sit() {
    sit_conf conf{};
    corvo::copy_text(conf.name, "sit5");
    return edit_sit_tunnel(1, &conf);
}

// Nothing here changes anything, whoever runs it: what is deleted is not there.
const Case kCases[] = {
    {"edit_route delete", call_route<1>},
    {"edit_route flush", call_route<2>},
    {"edit_route6 delete", call_route6<1>},
    {"edit_rule delete", call_rule<1>},
    {"edit_rule flush", call_rule<2>},
    {"edit_rule6 delete", call_rule6<1>},
    {"edit_dummy", [] { return edit_dummy(1, "no-such-dummy", 0); }},
    {"set_dev_flags", [] { return set_dev_flags(999999, 1); }},
    {"get_dev_flags",
     [] {
         unsigned flags = 0;
         return get_dev_flags(999999, &flags);
     }},
    {"flush_ipv4_addr", [] { return flush_ipv4_addr(999999); }},
    {"get_ipv4_addr",
     [] {
         char text[64];
         return get_ipv4_addr(999999, text);
     }},
    {"set_ipv4_addr", [] { return set_ipv4_addr(999999, "192.0.2.1/24"); }},
    {"set_ipv6_addr", [] { return set_ipv6_addr(999999, "fd00::1/64"); }},
    {"edit_ipip_tunnel", call_ipip, true},
    {"edit_sit_tunnel", call_sit, true},
};

TEST(Faults, SocketThatCannotBeAllocatedIsMinus3008) {
    corvo::test::LeakCheck leaks;
    for (const Case& each : kCases) {
        int first_of_socket = 0;
        // The socket is the first allocation without an exception; those before it are -3010.
        for (int at = 1; at < 50 && first_of_socket == 0; ++at) {
            memory.fail_at = at;
            const int result = each.call();
            if (memory.fail_at > 0) break;
            if (result == -3008) first_of_socket = at;
        }
        memory.fail_at = 0;
        EXPECT_GT(first_of_socket, 0) << each.name;
    }
}

TEST(Faults, EveryAllocationThatFailsIsAnsweredWithItsCode) {
    corvo::test::LeakCheck leaks;
    for (const Case& each : kCases) {
        memory.fail_at = 0;
        const int good = each.call();
        int failures = 0;
        for (int at = 1; at < 200; ++at) {
            memory.fail_at = at;
            const int result = each.call();
            if (memory.fail_at > 0) {  // it needs no more than that
                memory.fail_at = 0;
                EXPECT_EQ(result, good) << each.name;
                break;
            }
            ++failures;
            EXPECT_TRUE(result == -3008 || result == -3010) << each.name << ": " << result << " at " << at;
        }
        EXPECT_GT(failures, 0) << each.name;
    }
}

TEST(Faults, DescriptorThatCannotBeHadIsMinus3009AndMinus3008ForTunnels) {
    corvo::test::LeakCheck leaks;
    for (const Case& each : kCases) {
        descriptor.fail_at = 1;
        EXPECT_EQ(each.call(), each.tunnel ? -3008 : -3009) << each.name;
        EXPECT_EQ(descriptor.fail_at, 0) << each.name;
        timeout.fail_at = 1;
        EXPECT_EQ(each.call(), each.tunnel ? -3008 : -3009) << each.name;
        EXPECT_EQ(timeout.fail_at, 0) << each.name;
    }
}

TEST(Faults, FouStopsQuietlyWhateverFails) {
    corvo::test::LeakCheck leaks;
    for (int op = 0; op < 3; ++op) {
        for (int at = 1; at < 20; ++at) {
            memory.fail_at = at;
            EXPECT_EQ(edit_fou(op), 0);
            memory.fail_at = 0;
        }
        descriptor.fail_at = 1;
        EXPECT_EQ(edit_fou(op), 0);
        descriptor.fail_at = 0;
    }
}

TEST(Faults, LibnlSocketFailuresHaveTheirCodes) {
    corvo::test::LeakCheck leaks;
    corvo::nl::Socket socket;
    libnl_socket.fail_at = 1;
    EXPECT_EQ(corvo::nl::open_socket(socket), -3008);
    EXPECT_FALSE(socket);
    libnl_connect.fail_at = 1;
    EXPECT_EQ(corvo::nl::open_socket(socket), -3009);
    EXPECT_FALSE(socket);
    timeout.fail_at = 1;
    EXPECT_EQ(corvo::nl::open_socket(socket), -3009);
    EXPECT_FALSE(socket);
    timeout.fail_at = 0;
    EXPECT_EQ(corvo::nl::open_socket(socket), 0);
    EXPECT_TRUE(socket);
}

}  // namespace
