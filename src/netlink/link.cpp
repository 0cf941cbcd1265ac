// Links: dummy and tunnel devices, flags, the FOU port.

#include "corvosetup/link.h"

#include <linux/fou.h>
#include <linux/genetlink.h>
#include <linux/rtnetlink.h>

#include <cerrno>
#include <cstring>

#include "foundation/guard.h"
#include "foundation/text.h"
#include "netlink/link_message.h"
#include "netlink/raw_socket.h"

namespace {

using corvo::guarded;
using corvo::nl::Answer;
using corvo::nl::MessageView;
using corvo::nl::MessageWriter;
using corvo::nl::RawSocket;
using Socket = std::unique_ptr<RawSocket>;

enum : unsigned { kAdd = 0, kDelete = 1, kList = 2 };

// One request and its acknowledgement on a socket of its own, where everything but success is a refusal.
int request(MessageWriter& message) {
    Socket socket;
    const int opened = RawSocket::open_as_result(socket);
    if (opened < 0) return opened;
    return socket->transact(message).done() ? corvo::kOk : corvo::kRefused;
}

// The same for the tunnel devices, whose sending and receiving have codes of their own.
int request_tunnel(MessageWriter& message) {
    Socket socket;
    if (RawSocket::open(socket) != RawSocket::Opened::kYes) return corvo::kSocketFailed;
    switch (socket->transact(message).outcome) {
        case Answer::Outcome::kDone:
            return corvo::kOk;
        case Answer::Outcome::kSendFailed:
            return corvo::kSendFailed;
        case Answer::Outcome::kReceiveFailed:
            return corvo::kReceiveFailed;
        default:
            return corvo::kRefused;
    }
}

template <class Conf>
int edit_tunnel(int op, const Conf* conf, void (*build)(MessageWriter&, const Conf&)) {
    if (!conf) return corvo::kNullArgument;
    const auto operation = static_cast<unsigned>(op);
    if (operation > kDelete) return corvo::kInvalidArgument;
    // The kernel reads an empty name as "choose one" and would leave a stray device behind.
    if (corvo::array_text(conf->name).empty()) return corvo::kInvalidArgument;
    MessageWriter message;
    if (operation == kAdd) {
        build(message, *conf);
    } else {
        corvo::nl::build_delete_link(message, corvo::array_text(conf->name));
    }
    return request_tunnel(message);
}

int change_flags(int ifindex, unsigned flags, unsigned mask) {
    if (ifindex < 1) return corvo::kInvalidArgument;
    if (mask == 0) return corvo::kEmptyInput;
    MessageWriter message;
    corvo::nl::build_change_flags(message, ifindex, flags, mask);
    return request(message);
}

// 0: no such family.
std::uint16_t family_id(RawSocket& socket, const char* name) {
    MessageWriter message;
    corvo::nl::build_get_family(message, name);
    std::uint16_t id = 0;
    socket.query(message, [&](const MessageView& reply) { id = corvo::nl::read_family_id(reply); });
    return id;
}

}  // namespace

extern "C" {

int edit_dummy(int op, const char* name, int queues) {
    return guarded([&]() -> int {
        if (!name) return corvo::kNullArgument;
        const auto operation = static_cast<unsigned>(op);
        if (operation > kDelete || *name == '\0') return corvo::kInvalidArgument;
        if (std::strlen(name) >= sizeof ipip_conf::name) return corvo::kRefused;  // no device has such a name
        MessageWriter message;
        if (operation == kAdd) {
            corvo::nl::build_new_dummy(message, name, queues);
        } else {
            corvo::nl::build_delete_link(message, name);
        }
        return request(message);
    });
}

int edit_ipip_tunnel(int op, struct ipip_conf* conf) {
    return guarded([&] { return edit_tunnel<ipip_conf>(op, conf, corvo::nl::build_new_ipip); });
}

int edit_sit_tunnel(int op, struct sit_conf* conf) {
    return guarded([&] { return edit_tunnel<sit_conf>(op, conf, corvo::nl::build_new_sit); });
}

int edit_fou(int op) {
    const auto operation = static_cast<unsigned>(op);
    if (operation > kList) return 0;
    // Nobody asks how it ended: opening a port that is open is as good as opening it.
    corvo::guarded_void([&] {
        Socket socket;
        if (RawSocket::open(socket, NETLINK_GENERIC) != RawSocket::Opened::kYes) return;
        const std::uint16_t fou = family_id(*socket, FOU_GENL_NAME);
        if (fou == 0 || family_id(*socket, "nlctrl") != GENL_ID_CTRL) return;
        MessageWriter message;
        corvo::nl::build_fou(message, fou, operation);
        if (operation == kList) {
            bool interrupted = false;
            socket->dump(
                message, [](const MessageView&) {}, interrupted);
        } else {
            const Answer answer = socket->transact(message);
            if (!answer.refused() || answer.error != ERANGE) return;
            // Kernels that check the protocol's range do not take the 0 that older ones get.
            MessageWriter without;
            corvo::nl::build_fou(without, fou, operation, false);
            socket->transact(without);
        }
    });
    return 0;
}

int get_dev_flags(int ifindex, unsigned int* flags) {
    return guarded([&]() -> int {
        if (ifindex < 1) return corvo::kInvalidArgument;
        if (!flags) return corvo::kNullArgument;
        Socket socket;
        const int opened = RawSocket::open_as_result(socket);
        if (opened < 0) return opened;
        MessageWriter message;
        corvo::nl::build_get_link(message, ifindex);
        int result = corvo::kRefused;
        const Answer answer = socket->query(message, [&](const MessageView& reply) {
            ifinfomsg link{};
            if (reply.head.nlmsg_type != RTM_NEWLINK || !reply.read_header(link)) return;
            *flags = link.ifi_flags;
            result = corvo::kOk;
        });
        if (answer.refused()) return corvo::kNullArgument;  // callers know an unknown link by this code
        return result;
    });
}

int set_dev_flags(int ifindex, unsigned int flags) {
    return guarded([&] { return change_flags(ifindex, flags, flags); });
}

int unset_dev_flags(int ifindex, unsigned int flags) {
    return guarded([&] { return change_flags(ifindex, 0, flags); });
}

}  // extern "C"
