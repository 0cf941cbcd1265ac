#include "netlink/link_message.h"

#include <arpa/inet.h>
#include <linux/fou.h>
#include <linux/genetlink.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/if_tunnel.h>
#include <linux/rtnetlink.h>

#include <string>

#include "foundation/text.h"

namespace corvo::nl {

namespace {

constexpr std::uint16_t kAsk = NLM_F_REQUEST;
constexpr std::uint16_t kDo = NLM_F_REQUEST | NLM_F_ACK;
constexpr std::uint16_t kCreate = kDo | NLM_F_CREATE;
constexpr std::uint16_t kCreateOnly = kCreate | NLM_F_EXCL;
constexpr std::uint8_t kLoopbackNet = 127;

// Network order; all-ones (INADDR_NONE) for a text that is no address.
std::uint32_t ipv4_or_ones(std::string_view text) {
    return ::inet_addr(std::string(text).c_str());
}

void put_queues(MessageWriter& out, int queues) {
    if (queues == 0) return;
    out.attr_u32(IFLA_NUM_TX_QUEUES, static_cast<std::uint32_t>(queues));
    out.attr_u32(IFLA_NUM_RX_QUEUES, static_cast<std::uint32_t>(queues));
}

// What ipip and sit have in common. `gue_port` below 0: no encapsulation.
template <class Conf>
void build_new_tunnel(MessageWriter& out, const Conf& conf, std::string_view kind, int gue_port) {
    out.begin(RTM_NEWLINK, kCreateOnly);
    out.header(ifinfomsg{});
    out.attr_text(IFLA_IFNAME, array_text(conf.name));
    out.attr_u32(IFLA_MTU, kTunnelMtu);
    put_queues(out, conf.queues);
    const std::size_t info = out.begin_nest(IFLA_LINKINFO);
    out.attr_text(IFLA_INFO_KIND, kind);
    const std::size_t data = out.begin_nest(IFLA_INFO_DATA);
    out.attr_u32(IFLA_IPTUN_LOCAL, ipv4_or_ones(array_text(conf.local)));
    out.attr_u32(IFLA_IPTUN_REMOTE, ipv4_or_ones(array_text(conf.remote)));
    out.attr_u8(IFLA_IPTUN_TTL, conf.ttl);
    // A fixed TTL leaves the kernel's default, path MTU discovery on; an inherited one switches it off.
    if (conf.ttl == 0) out.attr_u8(IFLA_IPTUN_PMTUDISC, 0);
    out.attr_u8(IFLA_IPTUN_PROTO, 0);
    if (gue_port >= 0) {
        out.attr_u16(IFLA_IPTUN_ENCAP_TYPE, TUNNEL_ENCAP_GUE);
        out.attr_port(IFLA_IPTUN_ENCAP_DPORT, static_cast<std::uint16_t>(gue_port));
    }
    out.end_nest(data);
    out.end_nest(info);
    out.end();
}

}  // namespace

void build_new_ipip(MessageWriter& out, const ipip_conf& conf) {
    build_new_tunnel(out, conf, "ipip", conf.dport & 0xffff);
}

void build_new_sit(MessageWriter& out, const sit_conf& conf) {
    build_new_tunnel(out, conf, "sit", -1);
}

void build_new_dummy(MessageWriter& out, std::string_view name, int queues) {
    out.begin(RTM_NEWLINK, kCreate);
    out.header(ifinfomsg{});
    out.attr_text(IFLA_IFNAME, name);
    put_queues(out, queues);
    const std::size_t info = out.begin_nest(IFLA_LINKINFO);
    out.attr_text(IFLA_INFO_KIND, "dummy");
    out.end_nest(info);
    out.end();
}

void build_delete_link(MessageWriter& out, std::string_view name) {
    out.begin(RTM_DELLINK, kDo);
    out.header(ifinfomsg{});
    out.attr_text(IFLA_IFNAME, name);
    out.end();
}

void build_get_link(MessageWriter& out, int ifindex) {
    out.begin(RTM_GETLINK, kAsk);
    out.header(ifinfomsg{}).ifi_index = ifindex;
    out.end();
}

void build_change_flags(MessageWriter& out, int ifindex, unsigned flags, unsigned mask) {
    out.begin(RTM_SETLINK, kDo);
    ifinfomsg& link = out.header(ifinfomsg{});
    link.ifi_index = ifindex;
    link.ifi_flags = flags & mask;
    link.ifi_change = mask;
    out.end();
}

void build_set_address(MessageWriter& out, int ifindex, const Address& address) {
    out.begin(RTM_NEWADDR, kCreate | NLM_F_REPLACE);
    ifaddrmsg& head = out.header(ifaddrmsg{});
    head.ifa_family = address.family;
    head.ifa_prefixlen = address.prefix;
    head.ifa_index = static_cast<std::uint32_t>(ifindex);
    const bool loopback = address.family == AF_INET && address.bytes[0] == kLoopbackNet;
    head.ifa_scope = loopback ? RT_SCOPE_HOST : RT_SCOPE_UNIVERSE;
    out.attr(IFA_LOCAL, address.data());
    out.attr(IFA_ADDRESS, address.data());
    out.end();
}

void build_dump_addresses(MessageWriter& out, int ifindex, int family) {
    out.begin(RTM_GETADDR, kAsk | NLM_F_DUMP);
    ifaddrmsg& head = out.header(ifaddrmsg{});
    head.ifa_family = static_cast<std::uint8_t>(family);
    head.ifa_index = static_cast<std::uint32_t>(ifindex);
    out.end();
}

bool read_interface_address(const MessageView& message, InterfaceAddress& out) {
    ifaddrmsg head{};
    if (message.head.nlmsg_type != RTM_NEWADDR || !message.read_header(head)) return false;
    std::optional<Address> local;
    std::optional<Address> address;
    for (const Attr& attr : message.attrs(sizeof head)) {
        if (attr.type == IFA_LOCAL) local = read_address(attr.data, head.ifa_family, head.ifa_prefixlen);
        if (attr.type == IFA_ADDRESS) address = read_address(attr.data, head.ifa_family, head.ifa_prefixlen);
    }
    if (!local) local = address;
    if (!local) return false;
    out.ifindex = static_cast<int>(head.ifa_index);
    out.scope = head.ifa_scope;
    out.local = *local;
    out.peer = address ? *address : *local;
    return true;
}

void build_delete_address(MessageWriter& out, const InterfaceAddress& address) {
    out.begin(RTM_DELADDR, kDo);
    ifaddrmsg& head = out.header(ifaddrmsg{});
    head.ifa_family = address.local.family;
    head.ifa_prefixlen = address.local.prefix;
    head.ifa_scope = address.scope;
    head.ifa_index = static_cast<std::uint32_t>(address.ifindex);
    out.attr(IFA_LOCAL, address.local.data());
    out.attr(IFA_ADDRESS, address.peer.data());
    out.end();
}

void build_get_family(MessageWriter& out, std::string_view name) {
    out.begin(GENL_ID_CTRL, kAsk);
    out.header(genlmsghdr{CTRL_CMD_GETFAMILY, 1, 0});
    out.attr_text(CTRL_ATTR_FAMILY_NAME, name);
    out.end();
}

std::uint16_t read_family_id(const MessageView& message) {
    if (message.head.nlmsg_type != GENL_ID_CTRL) return 0;
    for (const Attr& attr : message.attrs(sizeof(genlmsghdr))) {
        if (attr.type == CTRL_ATTR_FAMILY_ID) return attr.u16();
    }
    return 0;
}

void build_fou(MessageWriter& out, std::uint16_t family_id, unsigned op, bool with_protocol) {
    constexpr std::uint8_t commands[] = {FOU_CMD_ADD, FOU_CMD_DEL, FOU_CMD_GET};
    const bool list = op == 2;
    out.begin(family_id, list ? kAsk | NLM_F_DUMP : kDo);
    out.header(genlmsghdr{commands[op], FOU_GENL_VERSION, 0});
    if (!list) {
        out.attr_port(FOU_ATTR_PORT, kFouPort);
        out.attr_u8(FOU_ATTR_AF, AF_INET);
        if (with_protocol) out.attr_u8(FOU_ATTR_IPPROTO, 0);
        out.attr_u8(FOU_ATTR_TYPE, FOU_ENCAP_GUE);
    }
    out.end();
}

}  // namespace corvo::nl
