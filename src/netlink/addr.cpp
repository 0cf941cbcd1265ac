// Interface addresses.

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "corvosetup/link.h"
#include "foundation/guard.h"
#include "netlink/link_message.h"
#include "netlink/raw_socket.h"

namespace {

using corvo::guarded;
using corvo::nl::Address;
using corvo::nl::Answer;
using corvo::nl::InterfaceAddress;
using corvo::nl::MessageView;
using corvo::nl::MessageWriter;
using corvo::nl::RawSocket;
using Socket = std::unique_ptr<RawSocket>;

// The IPv4 addresses of the device in the kernel's order; -3010 when they cannot be read. A device that does
// not exist has none.
int list_addresses(RawSocket& socket, int ifindex, std::vector<InterfaceAddress>& addresses) {
    MessageWriter message;
    corvo::nl::build_dump_addresses(message, ifindex, AF_INET);
    const Answer answer = corvo::nl::consistent_dump(
        socket, message, [&] { addresses.clear(); },
        [&](const MessageView& reply) {
            InterfaceAddress address;
            if (corvo::nl::read_interface_address(reply, address) && address.ifindex == ifindex) {
                addresses.push_back(address);
            }
        });
    if (answer.done() || (answer.refused() && answer.error == ENODEV)) return corvo::kOk;
    return corvo::kAllocFailed;
}

int set_address(int ifindex, const char* text, int family) {
    if (ifindex < 1) return corvo::kNoInterface;
    if (!text) return corvo::kNullArgument;
    const std::optional<Address> address = corvo::nl::parse_address(text, family);
    if (!address || address->size == 0) return corvo::kBadAddress;
    Socket socket;
    const int opened = RawSocket::open_as_result(socket);
    if (opened < 0) return opened;
    MessageWriter message;
    corvo::nl::build_set_address(message, ifindex, *address);
    return socket->transact(message).done() ? corvo::kOk : corvo::kRefused;
}

}  // namespace

extern "C" {

int flush_ipv4_addr(int ifindex) {
    return guarded([&]() -> int {
        if (ifindex < 1) return corvo::kNoInterface;
        Socket socket;
        const int opened = RawSocket::open_as_result(socket);
        if (opened < 0) return opened;
        std::vector<InterfaceAddress> addresses;
        const int listed = list_addresses(*socket, ifindex, addresses);
        if (listed < 0) return listed;
        int result = corvo::kOk;
        for (const InterfaceAddress& address : addresses) {
            MessageWriter message;
            corvo::nl::build_delete_address(message, address);
            const Answer answer = socket->transact(message);
            // The kernel takes the secondary addresses of a network away with its primary one.
            const bool gone = answer.refused() && (answer.error == EADDRNOTAVAIL || answer.error == ENODEV);
            if (!answer.done() && !gone) result = corvo::kRefused;
        }
        return result;
    });
}

int get_ipv4_addr(int ifindex, char* addr) {
    return guarded([&]() -> int {
        if (ifindex < 1) return corvo::kNoInterface;
        if (!addr) return corvo::kNullArgument;
        Socket socket;
        const int opened = RawSocket::open_as_result(socket);
        if (opened < 0) return opened;
        std::vector<InterfaceAddress> addresses;
        const int listed = list_addresses(*socket, ifindex, addresses);
        if (listed < 0) return listed;
        if (addresses.empty()) return corvo::kRefused;
        const std::string text = addresses.front().local.text();
        std::copy(text.begin(), text.end(), addr);
        addr[text.size()] = '\0';
        return corvo::kOk;
    });
}

int set_ipv4_addr(int ifindex, const char* addr) {
    return guarded([&] { return set_address(ifindex, addr, AF_INET); });
}

int set_ipv6_addr(int ifindex, const char* addr) {
    return guarded([&] { return set_address(ifindex, addr, AF_INET6); });
}

}  // extern "C"
