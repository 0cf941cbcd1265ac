#include "netlink/neigh_query.h"

#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <netlink/addr.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "foundation/result.h"
#include "netlink/nl.h"
#include "netlink/raw_socket.h"

namespace corvo {

namespace {

std::string address_text(in_addr address) {
    char text[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

// As libnl shows a link-layer address: tunnels have IP addresses there.
std::string lladdr_text(nl::Bytes bytes) {
    const int family = bytes.size() == 4 ? AF_INET : bytes.size() == 16 ? AF_INET6 : AF_LLC;
    const nl::Addr address(bytes.empty() ? nullptr : nl_addr_build(family, bytes.data(), bytes.size()));
    char text[128];
    return nl_addr2str(address.get(), text, sizeof text);
}

void begin_neighbour(nl::MessageWriter& request, std::uint16_t flags, int ifindex) {
    request.begin(RTM_GETNEIGH, static_cast<std::uint16_t>(NLM_F_REQUEST | flags));
    ndmsg header{};
    header.ndm_family = AF_INET;
    header.ndm_ifindex = ifindex;
    request.header(header);
}

int result_of(const nl::Answer& answer) {
    switch (answer.outcome) {
        case nl::Answer::Outcome::kDone:
            return kOk;
        case nl::Answer::Outcome::kRefused:
            return kRefused;
        case nl::Answer::Outcome::kSendFailed:
            return kSendFailed;
        case nl::Answer::Outcome::kReceiveFailed:
            break;
    }
    return kReceiveFailed;
}

// What a kernel without the single request has to be asked.
int find_in_dump(nl::RawSocket& socket, int ifindex, in_addr address, Neighbour& out) {
    nl::MessageWriter request;
    build_neighbour_dump(request, ifindex);
    const std::string wanted = address_text(address);
    bool found = false;
    const nl::Answer answer = nl::consistent_dump(
        socket, request, [&] { found = false; },
        [&](const nl::MessageView& message) {
            Neighbour entry;
            if (!read_neighbour(message, ifindex, entry) || entry.dst != wanted) return;
            out = std::move(entry);
            found = true;
        });
    return answer.done() ? found : result_of(answer);
}

}  // namespace

void build_neighbour_query(nl::MessageWriter& request, int ifindex, in_addr address) {
    begin_neighbour(request, 0, ifindex);
    request.attr(NDA_DST, &address, sizeof address);
    request.end();
}

void build_neighbour_dump(nl::MessageWriter& request, int ifindex) {
    // In a strict dump the interface is an attribute and the header's must be 0.
    begin_neighbour(request, NLM_F_DUMP, 0);
    request.attr_u32(NDA_IFINDEX, static_cast<std::uint32_t>(ifindex));
    request.end();
}

bool read_neighbour(const nl::MessageView& message, int ifindex, Neighbour& out) {
    ndmsg header{};
    if (message.head.nlmsg_type != RTM_NEWNEIGH || !message.read_header(header)) return false;
    if (header.ndm_family != AF_INET || header.ndm_ifindex != ifindex) return false;
    in_addr address{};
    nl::Bytes lladdr;
    for (const nl::Attr& attr : message.attrs(sizeof header)) {
        if (attr.type == NDA_DST && attr.data.size() == sizeof address)
            std::memcpy(&address, attr.data.data(), sizeof address);
        if (attr.type == NDA_LLADDR) lladdr = attr.data;
    }
    out.state = header.ndm_state;
    out.dst = address_text(address);
    out.lladdr = lladdr_text(lladdr);
    return true;
}

int find_neighbour(int ifindex, in_addr address, Neighbour& out) {
    std::unique_ptr<nl::RawSocket> socket;
    if (const int opened = nl::RawSocket::open_as_result(socket); opened != kOk) return opened;
    nl::MessageWriter request;
    build_neighbour_query(request, ifindex, address);
    bool found = false;
    const nl::Answer answer = socket->query(
        request, [&](const nl::MessageView& message) { found = read_neighbour(message, ifindex, out); });
    if (answer.done()) return found;
    if (answer.refused() && (answer.error == ENOENT || answer.error == ENODEV)) return 0;
    if (answer.refused() && answer.error == EOPNOTSUPP) return find_in_dump(*socket, ifindex, address, out);
    return result_of(answer);
}

}  // namespace corvo
