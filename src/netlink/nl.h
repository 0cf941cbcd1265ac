// Owners of libnl's objects, and the one way to open a libnl socket.
//
// Who may include this: every area that speaks netlink through libnl. Plain requests (links, addresses,
// routes, rules) do not need libnl: see netlink/message.h and netlink/raw_socket.h.
//
// Rules of use: never libnl's link cache (look one device up by name, RawSocket::link_index()), never its
// cache manager, never its class-name file functions with text from outside. libnl asserts on some misuse;
// what could reach such an assertion is refused before libnl sees it. Threading: an object belongs to one
// thread; different objects may be used by different threads at once.
#pragma once

#include <netlink/addr.h>
#include <netlink/cache.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/route/action.h>
#include <netlink/route/addr.h>
#include <netlink/route/class.h>
#include <netlink/route/classifier.h>
#include <netlink/route/link.h>
#include <netlink/route/neighbour.h>
#include <netlink/route/nexthop.h>
#include <netlink/route/qdisc.h>
#include <netlink/route/route.h>
#include <netlink/route/rule.h>
#include <netlink/socket.h>

#include <memory>

namespace corvo::nl {

// Releases with a plain libnl function; the owner stays as small as the pointer.
template <auto Release>
struct Releaser {
    template <class T>
    void operator()(T* object) const {
        Release(object);
    }
};

template <class T, auto Release>
using Owner = std::unique_ptr<T, Releaser<Release>>;

using Socket = Owner<nl_sock, nl_socket_free>;
using Message = Owner<nl_msg, nlmsg_free>;
using Cache = Owner<nl_cache, nl_cache_free>;
using Addr = Owner<nl_addr, nl_addr_put>;
using Link = Owner<rtnl_link, rtnl_link_put>;
using IfAddr = Owner<rtnl_addr, rtnl_addr_put>;
using Neigh = Owner<rtnl_neigh, rtnl_neigh_put>;
using Route = Owner<rtnl_route, rtnl_route_put>;
using Rule = Owner<rtnl_rule, rtnl_rule_put>;
using Qdisc = Owner<rtnl_qdisc, rtnl_qdisc_put>;
using Class = Owner<rtnl_class, rtnl_class_put>;
using Cls = Owner<rtnl_cls, rtnl_cls_put>;
using Act = Owner<rtnl_act, rtnl_act_put>;
// Only until rtnl_route_add_nexthop() takes it: release() it there.
using NextHop = Owner<rtnl_nexthop, rtnl_route_nh_free>;

// How long one answer of the kernel may take before the request counts as refused.
inline constexpr int kReceiveTimeoutSeconds = 5;

// Allocates a socket (-3008), connects it to `protocol` (-3009), and bounds every receive. The descriptor is
// close-on-exec.
int open_socket(Socket& socket, int protocol = NETLINK_ROUTE);

// libnl's negative code for a kernel errno, as its own requests return it: EEXIST is -NLE_EXIST. 0 for 0.
int libnl_error(int kernel_errno);

}  // namespace corvo::nl
