#include "monitor/link_address.h"

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "netlink/message.h"
#include "netlink/raw_socket.h"

namespace corvo {

namespace {

constexpr unsigned kUpAndRunning = IFF_UP | IFF_RUNNING;
constexpr std::uint32_t kSkipStatistics = 1U << 3;  // RTEXT_FILTER_SKIP_STATS

std::string mac_text(nl::Bytes bytes) {
    unsigned char mac[6] = {};
    std::copy_n(bytes.begin(), std::min(bytes.size(), sizeof mac), mac);
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                  mac[5]);
    return text;
}

int read_link(const nl::MessageView& message, LinkAddresses& out) {
    ifinfomsg header{};
    if (message.head.nlmsg_type != RTM_NEWLINK || !message.read_header(header)) return 0;
    out.present = true;
    for (const nl::Attr& attr : message.attrs(sizeof header)) {
        if (attr.type != IFLA_ADDRESS) continue;
        out.mac = mac_text(attr.data);
        out.usable = (header.ifi_flags & kUpAndRunning) == kUpAndRunning;
    }
    return header.ifi_index;
}

void read_address(const nl::MessageView& message, int ifindex, const std::string& dev, LinkAddresses& out) {
    ifaddrmsg header{};
    if (message.head.nlmsg_type != RTM_NEWADDR || !message.read_header(header)) return;
    if (header.ifa_family != AF_INET || static_cast<int>(header.ifa_index) != ifindex) return;
    nl::Bytes local;
    nl::Bytes address;
    std::string_view label = dev;
    for (const nl::Attr& attr : message.attrs(sizeof header)) {
        if (attr.type == IFA_LOCAL) local = attr.data;
        if (attr.type == IFA_ADDRESS) address = attr.data;
        if (attr.type == IFA_LABEL) label = attr.text();
    }
    if (local.empty()) local = address;  // links with a peer have both
    if (label != dev || local.size() != sizeof(in_addr)) return;
    char text[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, local.data(), text, sizeof text);
    out.ip = text;
}

}  // namespace

bool find_link_addresses(const std::string& dev, LinkAddresses& out) {
    out = {};
    if (dev.empty() || dev.size() >= IFNAMSIZ) return true;  // no such device
    std::unique_ptr<nl::RawSocket> socket;
    if (nl::RawSocket::open(socket) != nl::RawSocket::Opened::kYes) return false;

    nl::MessageWriter request;
    request.begin(RTM_GETLINK, NLM_F_REQUEST);
    request.header(ifinfomsg{});
    request.attr_text(IFLA_IFNAME, dev);
    request.attr_u32(IFLA_EXT_MASK, kSkipStatistics);
    request.end();
    int ifindex = 0;
    const nl::Answer link =
        socket->query(request, [&](const nl::MessageView& message) { ifindex = read_link(message, out); });
    if (link.refused() && link.error == ENODEV) return true;
    if (!link.done()) return false;

    request.clear();
    request.begin(RTM_GETADDR, NLM_F_REQUEST | NLM_F_DUMP);
    ifaddrmsg header{};
    header.ifa_family = AF_INET;
    header.ifa_index = static_cast<unsigned>(ifindex);
    request.header(header);
    request.end();
    return nl::consistent_dump(
               *socket, request, [&] { out.ip.reset(); },
               [&](const nl::MessageView& message) { read_address(message, ifindex, dev, out); })
        .done();
}

}  // namespace corvo
