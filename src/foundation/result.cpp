#include "foundation/result.h"

#include <algorithm>
#include <array>

namespace corvo {

namespace {

using enum ResultSource;

constexpr std::array kCatalogue{
    ResultInfo{kOk, "Ok", "The operation succeeded.", "Nothing is wrong.", "Nothing is to be done.",
               kLibrary},
    ResultInfo{kFailed, "Failed",
               "A step failed, a rate rule is violated, a pipe could not be opened, or the other side did "
               "not answer in time.",
               "The log line before this code names the step; presetup returns it when any single value "
               "could not be written (a kernel without that feature, a read-only /proc/sys), and a service "
               "reply without a verdict counts as it.",
               "Read the ERROR lines just before in the log and put right what they name; then call the "
               "function again, it rewrites everything.",
               kLibrary},
    ResultInfo{kNullArgument, "NullArgument", "An argument or a list that must be there is null.",
               "The caller passed no record, name or buffer; a defect of the calling program.",
               "Report it with the log to the maintainer of the calling program.", kLibrary},
    ResultInfo{kEmptyInput, "EmptyInput",
               "An input is empty: the address text, the set of gateways, the remote site or the name of the "
               "route document.",
               "The document has no value for it yet, or every WAN gateway is down.",
               "Check the named value in the document; with an empty gateway set, check the WAN links.",
               kLibrary},
    ResultInfo{
        kInvalidArgument, "InvalidArgument",
        "An argument is out of range: operation code, prefix, hardware address, route type or table; or the "
        "output is already filled, or a service delivered its data in another form than a list.",
        "A wrong operation code of the caller, a malformed value in a document, or a network information "
        "service of another release.",
        "Validate the documents with corvoctl check; compare the releases of the services.", kLibrary},
    ResultInfo{kNoInterface, "NoInterface",
               "The interface is missing: it has no index, a socket could not be bound to it, or there is no "
               "regional link.",
               "The device was removed or renamed, its driver is not loaded, or the tunnel has not been "
               "created yet.",
               "Look for the interface with \"ip link\"; create the tunnel before its routes and addresses.",
               kLibrary},
    ResultInfo{kDuplicate, "Duplicate", "A gateway for the device is already present.",
               "The link was reported up twice.",
               "Nothing, unless the gateway address changed: then remove the gateway first and add it again.",
               kLibrary},
    ResultInfo{kBadAddress, "BadAddress",
               "An address does not parse, cannot be formatted, or the source address is empty.",
               "A typing error in a document, an IPv6 address with an embedded dotted quad, or a WAN link "
               "that has no address yet.",
               "Check the address in the document and with \"ip address\"; write IPv6 addresses without a "
               "dotted quad.",
               kLibrary},
    ResultInfo{
        kSocketFailed, "SocketFailed", "A socket could not be allocated, created or bound.",
        "The process is out of descriptors, lacks CAP_NET_RAW or CAP_NET_ADMIN, or the local address or port "
        "is taken.",
        "Check the descriptor limit and the capabilities of the daemon, and the port with \"ss -lunp\".",
        kLibrary},
    ResultInfo{kConnectFailed, "ConnectFailed", "The netlink socket could not be connected.",
               "The process is out of descriptors, or the kernel lacks the netlink family.",
               "Check the descriptor limit of the daemon and the kernel configuration.", kLibrary},
    ResultInfo{
        kAllocFailed, "AllocFailed",
        "A netlink object, a cache, a record or a monitor object could not be made, or a thread could not be "
        "started.",
        "Memory or the number of threads is exhausted; a next hop or address was not accepted by libnl.",
        "Check free memory and the thread limit (pids cgroup, ulimit -u) of the daemon.", kLibrary},
    ResultInfo{kRefused, "Refused",
               "The kernel refused a netlink request, the device was not found, or one or more routes of a "
               "list failed.",
               "The object exists already or is gone, a next hop is not reachable through its device, a "
               "module (ipip, fou, sit, sch_htb) is missing, or CAP_NET_ADMIN is missing.",
               "Repeat the step by hand with \"ip\" or \"tc\", which name the reason; load the module with "
               "modprobe.",
               kLibrary},
    ResultInfo{kSendFailed, "SendFailed", "A message could not be sent.",
               "The interface went down, or the socket buffer is full.",
               "Check the state of the interface and repeat the operation.", kLibrary},
    ResultInfo{kReceiveFailed, "ReceiveFailed", "No answer was received, or it was too short.",
               "The kernel or the peer did not answer within the time limit, or a packet was lost.",
               "Repeat the operation; for a peer, check the path to it with ping.", kLibrary},
    ResultInfo{kNoDirectory, "NoDirectory", "A directory could not be opened.",
               "/proc or /sys is not mounted in this namespace, or the interface has no queues.",
               "Check with \"ls\" that the directory is there and readable for the daemon.", kLibrary},
    ResultInfo{kNoConfigFile, "NoConfigFile", "The configuration file is missing.",
               "The configuration service does not know the document and there is no file under its path.",
               "Put the document in place, normally under /etc/networkmanagement/, or start the "
               "configuration service.",
               kLibrary},
    ResultInfo{kNotOpened, "NotOpened",
               "A file could not be opened, or a configuration document could not be loaded.",
               "A kernel value that this kernel does not have, a missing condition file (the netfilter "
               "module is not loaded), a read-only file system, or a document with a syntax error.",
               "The log names the path: check it with \"ls -l\"; validate documents with corvoctl check.",
               kLibrary},
    ResultInfo{kBadReply, "BadReply",
               "A reply or a document does not parse, or a service answered with an error.",
               "The service refused the request or is of another release; a tunnel that is created but gets "
               "no address, state or rules has this cause when no CPU-tune service answers on a device that "
               "expects one.",
               "Read the log of the service that the line before names; for a tunnel left half done, start "
               "the CPU-tune service and set the tunnel up again.",
               kLibrary},
    ResultInfo{kMissingSection, "MissingSection",
               "A required section of a configuration document is missing.",
               "The document is of another release or was cut short.",
               "Validate the document with corvoctl check and add the section.", kLibrary},
    ResultInfo{kNoCallBuffer, "NoCallBuffer", "The buffer for a service call could not be made.",
               "Memory or descriptors are exhausted.",
               "Check free memory and the descriptor limit of the daemon.", kLibrary},
    ResultInfo{kCallFailed, "CallFailed", "A service call failed.",
               "The service is not running, hung beyond the time limit, or died during the call. Without the "
               "CPU-tune service a tunnel is created but gets no address, is not set up and gets no rules.",
               "Check that the service runs; start it and repeat the operation. For a tunnel left half done, "
               "start the CPU-tune service and set the tunnel up again.",
               kLibrary},
    ResultInfo{kEmptyReply, "EmptyReply", "A service answered with nothing.",
               "The service accepted the call and failed inside, or ended before it replied.",
               "Read the log of the service and restart it.", kLibrary},
    ResultInfo{kAlreadyStarted, "AlreadyStarted", "The worker thread of the object runs already.",
               "The monitor or probe was started twice.", "Nothing; stop it first to start it anew.",
               kLibrary},
    ResultInfo{kEmptyRemoteLink, "EmptyRemoteLink", "The remote regional link is empty.",
               "The site document has no address for the regional link of that site.",
               "Complete the regional link of the site in site.json.", kLibrary},
    ResultInfo{kEmptyTarget, "EmptyTarget", "The target address is empty.",
               "The network information service knows no gateway for the WAN link yet.",
               "Check the gateway of the link (DHCP or PPP state), or set one in the document.", kLibrary},
    ResultInfo{-1, "NetlinkFailure", "An unspecified failure inside libnl.",
               "An error number of the kernel that libnl does not know.",
               "Check the record or document that the log names; repeat the step with \"ip -d route\" or "
               "\"ip rule\", which name the reason.",
               kNetlink},
    ResultInfo{-2, "NetlinkInterrupted", "The operation was interrupted.",
               "A signal reached the daemon during the exchange.",
               "Repeat the operation; if it stays, check the load and memory of the device.", kNetlink},
    ResultInfo{-3, "NetlinkBadSocket", "The netlink socket is not valid.",
               "The socket was closed or never connected.", "Report it with the log.", kNetlink},
    ResultInfo{-4, "NetlinkTryAgain", "No data is there yet; try again.",
               "The kernel did not answer within the receive time limit.",
               "Repeat the operation; if it stays, check the load and memory of the device.", kNetlink},
    ResultInfo{-5, "NetlinkNoMemory", "Memory or kernel buffers are exhausted.",
               "Too little free memory, or a full socket buffer.",
               "Repeat the operation; if it stays, check the load and memory of the device.", kNetlink},
    ResultInfo{-6, "NetlinkObjectExists", "The object exists already.", "The route or rule was added before.",
               "Usually nothing: the kernel is already in the wanted state. Compare with \"ip route show "
               "table all\" and \"ip rule\".",
               kNetlink},
    ResultInfo{-7, "NetlinkInvalidInput", "The kernel found the request invalid.",
               "A prefix, table, address or next hop that does not fit together, or a gateway that is not on "
               "the link.",
               "Check the record or document that the log names; repeat the step with \"ip -d route\" or "
               "\"ip rule\", which name the reason.",
               kNetlink},
    ResultInfo{-8, "NetlinkOutOfRange", "A value is out of range.",
               "A priority, table or metric beyond what the kernel takes.",
               "Check the record or document that the log names; repeat the step with \"ip -d route\" or "
               "\"ip rule\", which name the reason.",
               kNetlink},
    ResultInfo{-9, "NetlinkMessageSize", "The message is too long.", "Too many next hops in one route.",
               "Check the record or document that the log names; repeat the step with \"ip -d route\" or "
               "\"ip rule\", which name the reason.",
               kNetlink},
    ResultInfo{-10, "NetlinkNotSupported", "The operation is not supported.",
               "The kernel lacks multipath routes, policy rules or IPv6.",
               "Use a kernel with the feature, or load its module.", kNetlink},
    ResultInfo{-11, "NetlinkAddressFamily", "The address family is not supported.",
               "IPv6 is disabled, or addresses of both families in one route.",
               "Use a kernel with the feature, or load its module.", kNetlink},
    ResultInfo{-12, "NetlinkNotFound", "The object does not exist.",
               "The route or rule was removed before, or its device went away.",
               "Usually nothing: the kernel is already in the wanted state. Compare with \"ip route show "
               "table all\" and \"ip rule\".",
               kNetlink},
    ResultInfo{-13, "NetlinkNoAttribute", "A required attribute is missing.",
               "A record without destination or next hop.",
               "Check the record or document that the log names; repeat the step with \"ip -d route\" or "
               "\"ip rule\", which name the reason.",
               kNetlink},
    ResultInfo{-14, "NetlinkMissingAttribute", "The kernel answered without a required attribute.",
               "A kernel of another release.", "Use a kernel with the feature, or load its module.",
               kNetlink},
    ResultInfo{-15, "NetlinkFamilyMismatch", "The address families do not match.",
               "An IPv6 next hop in an IPv4 route or the reverse.",
               "Check the record or document that the log names; repeat the step with \"ip -d route\" or "
               "\"ip rule\", which name the reason.",
               kNetlink},
    ResultInfo{-16, "NetlinkSequenceMismatch", "The answer belongs to another request.",
               "Answers of an earlier exchange were left in the socket.",
               "Repeat the operation; if it stays, check the load and memory of the device.", kNetlink},
    ResultInfo{-17, "NetlinkOverflow", "The kernel could not deliver its whole answer.",
               "The socket buffer overflowed under load.",
               "Repeat the operation; if it stays, check the load and memory of the device.", kNetlink},
    ResultInfo{-18, "NetlinkTruncated", "The answer was cut.",
               "The kernel answered with more than the buffer holds.",
               "Repeat the operation; if it stays, check the load and memory of the device.", kNetlink},
    ResultInfo{-19, "NetlinkNoAddress", "The address is not available.",
               "The source address is not on this device.",
               "Check the record or document that the log names; repeat the step with \"ip -d route\" or "
               "\"ip rule\", which name the reason.",
               kNetlink},
    ResultInfo{-20, "NetlinkSourceRouting", "Source routing is not supported.",
               "The kernel lacks policy routing.", "Use a kernel with the feature, or load its module.",
               kNetlink},
    ResultInfo{-21, "NetlinkMessageTooShort", "The answer is too short.", "A kernel of another release.",
               "Use a kernel with the feature, or load its module.", kNetlink},
    ResultInfo{-22, "NetlinkMessageType", "The type of the message is not supported.",
               "The kernel lacks the feature.", "Use a kernel with the feature, or load its module.",
               kNetlink},
    ResultInfo{-23, "NetlinkObjectMismatch", "The type of the object does not match the cache.",
               "A defect of the library.", "Report it with the log.", kNetlink},
    ResultInfo{-24, "NetlinkNoCache", "The required cache is missing.", "A defect of the library.",
               "Report it with the log.", kNetlink},
    ResultInfo{-25, "NetlinkBusy", "The object is busy.", "The device is still in use by another object.",
               "Repeat the operation; if it stays, check the load and memory of the device.", kNetlink},
    ResultInfo{-26, "NetlinkProtocolMismatch", "The protocol does not match.", "A defect of the library.",
               "Report it with the log.", kNetlink},
    ResultInfo{-27, "NetlinkNoAccess", "Access is refused.", "The process may not use this netlink family.",
               "Give the daemon CAP_NET_ADMIN.", kNetlink},
    ResultInfo{-28, "NetlinkNotPermitted", "The operation is not permitted.",
               "The daemon runs without CAP_NET_ADMIN.", "Give the daemon CAP_NET_ADMIN.", kNetlink},
    ResultInfo{-29, "NetlinkPacketLocation", "The location file of the packet library cannot be read.",
               "The files of libnl under /etc/libnl are missing.",
               "Use a kernel with the feature, or load its module.", kNetlink},
    ResultInfo{-30, "NetlinkParseError", "libnl could not parse an object.", "A malformed name or handle.",
               "Check the record or document that the log names; repeat the step with \"ip -d route\" or "
               "\"ip rule\", which name the reason.",
               kNetlink},
    ResultInfo{-31, "NetlinkNoDevice", "The device does not exist.",
               "The interface was removed while the operation ran.",
               "Check the interface with \"ip link\" and repeat the operation.", kNetlink},
    ResultInfo{-32, "NetlinkImmutable", "The attribute cannot be changed.",
               "The object must be removed and made anew to change this.",
               "Check the record or document that the log names; repeat the step with \"ip -d route\" or "
               "\"ip rule\", which name the reason.",
               kNetlink},
    ResultInfo{-33, "NetlinkDumpInterrupted", "The list changed while it was read.",
               "Other programs change routes or links at the same moment.",
               "Repeat the operation; if it stays, check the load and memory of the device.", kNetlink},
    ResultInfo{-34, "NetlinkAttributeSize", "An attribute has a size that is not valid.",
               "A kernel of another release.", "Use a kernel with the feature, or load its module.",
               kNetlink},
    ResultInfo{-1, "HubRejected",
               "The hub answered without a result, or the local address of the device was not found.",
               "A hub of another release; a WAN interface that is down or has no IPv4 address.",
               "Check the interface with \"ip address\" and the release of the hub.", kHub},
    ResultInfo{-3, "HubSendFailed", "The request could not be sent to the hub.",
               "The WAN link is down or there is no route to the hub.",
               "Check the default gateways and the route to the hub with \"ip route get\".", kHub},
    ResultInfo{-4, "HubNoAnswer", "No answer came from the hub after three attempts of two seconds.",
               "The hub is down, port 7788 is filtered, or the reply was lost or unreadable.",
               "Ping the hub; check that UDP port 7788 is open in both directions.", kHub},
    ResultInfo{-5, "HubTimeLimit", "The receive time limit of the probe socket could not be set.",
               "The socket option is refused by the kernel.",
               "Report it with the log and the kernel version.", kHub},
    ResultInfo{-7, "HubMark", "The packet mark of the probe socket could not be set.",
               "The daemon runs without CAP_NET_ADMIN.", "Give the daemon CAP_NET_ADMIN.", kHub},
    ResultInfo{-9, "HubMismatch", "The answer is for another device.",
               "Two devices with the same address, or a device id that changed since the request.",
               "Check the device ids of both sides and the address of the hub in site.json.", kHub},
    ResultInfo{-5017, "HubUnknownInstance", "The hub manager does not know the instance that was reported.",
               "The hub manager was restarted, or the interface was removed from its configuration.",
               "For a link that went down the library restarts the monitor by itself; otherwise check that "
               "the interface is still configured.",
               kHub},
};

template <class Wanted>
const ResultInfo* find(Wanted&& wanted) {
    const auto found = std::find_if(kCatalogue.begin(), kCatalogue.end(), wanted);
    return found != kCatalogue.end() ? &*found : nullptr;
}

}  // namespace

std::span<const ResultInfo> result_catalogue() {
    return kCatalogue;
}

const ResultInfo* find_result(int code) {
    return find([&](const ResultInfo& info) { return info.code == code; });
}

const ResultInfo* find_result(int code, ResultSource source) {
    return find([&](const ResultInfo& info) { return info.code == code && info.source == source; });
}

}  // namespace corvo
