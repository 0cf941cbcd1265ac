// The layout of everything that crosses the boundary. Programs were built against these offsets: a field may
// be added behind the listed ones of a monitor class and nowhere else.
//
// Compiled without access control, so that private fields can be looked at.
#include <cstddef>

#include "corvosetup/cfg_file.h"
#include "corvosetup/lan_qos.h"
#include "corvosetup/link.h"
#include "corvosetup/log.h"
#include "corvosetup/neigh.h"
#include "corvosetup/ping.h"
#include "corvosetup/ping_test.h"
#include "corvosetup/presetup.h"
#include "corvosetup/privatelink.h"
#include "corvosetup/qdm.h"
#include "corvosetup/qos.h"
#include "corvosetup/rglink.h"
#include "corvosetup/route.h"
#include "corvosetup/routing.h"
#include "corvosetup/service.h"
#include "corvosetup/tc.h"
#include "corvosetup/tun.h"
#include "corvosetup/tun6.h"
#include "corvosetup/tun_base.h"
#include "corvosetup/udp.h"
#include "corvosetup/utils.h"
#include "corvosetup/wm_obj.h"

#pragma GCC diagnostic ignored "-Winvalid-offsetof"

#define SIZE(type, bytes) static_assert(sizeof(type) == (bytes), "size of " #type)
#define FIELD(type, field, at) static_assert(offsetof(type, field) == (at), #type "::" #field)

static_assert(sizeof(void*) == 8 && sizeof(long) == 8, "the interface is that of LP64 machines");

SIZE(ipip_conf, 76);
FIELD(ipip_conf, name, 0);
FIELD(ipip_conf, local, 16);
FIELD(ipip_conf, remote, 32);
FIELD(ipip_conf, addr, 48);
FIELD(ipip_conf, queues, 64);
FIELD(ipip_conf, ttl, 68);
FIELD(ipip_conf, sport, 70);
FIELD(ipip_conf, dport, 72);

SIZE(sit_conf, 104);
FIELD(sit_conf, name, 0);
FIELD(sit_conf, local, 16);
FIELD(sit_conf, remote, 32);
FIELD(sit_conf, addr6, 48);
FIELD(sit_conf, queues, 96);
FIELD(sit_conf, ttl, 100);

SIZE(struct nexthop, 48);
FIELD(struct nexthop, onlink, 0);
FIELD(struct nexthop, weight, 4);
FIELD(struct nexthop, gw, 8);
FIELD(struct nexthop, dev, 24);
FIELD(struct nexthop, next, 40);

SIZE(struct nexthop6, 80);
FIELD(struct nexthop6, weight, 0);
FIELD(struct nexthop6, gw, 4);
FIELD(struct nexthop6, dev, 50);
FIELD(struct nexthop6, next, 72);

SIZE(route_conf, 48);
FIELD(route_conf, prefixlen, 0);
FIELD(route_conf, table, 4);
FIELD(route_conf, priority, 8);
FIELD(route_conf, lock, 12);
FIELD(route_conf, mtu, 16);
FIELD(route_conf, advmss, 20);
FIELD(route_conf, dst, 24);
FIELD(route_conf, nexthops, 40);

SIZE(route6_conf, 80);
FIELD(route6_conf, prefixlen, 0);
FIELD(route6_conf, table, 4);
FIELD(route6_conf, priority, 8);
FIELD(route6_conf, lock, 12);
FIELD(route6_conf, mtu, 16);
FIELD(route6_conf, advmss, 20);
FIELD(route6_conf, dst, 24);
FIELD(route6_conf, nexthops, 72);

SIZE(rule_conf, 48);
FIELD(rule_conf, prio, 0);
FIELD(rule_conf, table, 4);
FIELD(rule_conf, mark, 8);
FIELD(rule_conf, mask, 12);
FIELD(rule_conf, src, 16);
FIELD(rule_conf, oif, 32);

SIZE(rule6_conf, 80);
FIELD(rule6_conf, prio, 0);
FIELD(rule6_conf, table, 4);
FIELD(rule6_conf, mark, 8);
FIELD(rule6_conf, mask, 12);
FIELD(rule6_conf, src, 16);
FIELD(rule6_conf, oif, 62);

SIZE(tc_options, 16);
FIELD(tc_options, defcls, 0);
FIELD(tc_options, rate, 4);
FIELD(tc_options, ceil, 8);
FIELD(tc_options, prio, 12);

SIZE(U32QoSObj, 44);
FIELD(U32QoSObj, prio, 0);
FIELD(U32QoSObj, smac, 4);
FIELD(U32QoSObj, dmac, 10);
FIELD(U32QoSObj, protocol, 16);
FIELD(U32QoSObj, saddr, 20);
FIELD(U32QoSObj, smask, 24);
FIELD(U32QoSObj, sport, 28);
FIELD(U32QoSObj, daddr, 32);
FIELD(U32QoSObj, dmask, 36);
FIELD(U32QoSObj, dport, 40);

SIZE(tqs_link, 16);
FIELD(tqs_link, next, 0);
FIELD(tqs_link, prev, 8);

SIZE(tqs_entry, 88);
FIELD(tqs_entry, handle, 0);
FIELD(tqs_entry, ceil, 32);
FIELD(tqs_entry, qlen, 40);
FIELD(tqs_entry, rate, 48);
FIELD(tqs_entry, htb_rate, 56);
FIELD(tqs_entry, utilisation, 64);
FIELD(tqs_entry, links, 72);

SIZE(CfgFile, 80);
FIELD(CfgFile, cfg_flag, 0);
FIELD(CfgFile, path, 8);
FIELD(CfgFile, root, 40);

FIELD(ProcNeigh, id, 0);
FIELD(ProcNeigh, running, 1);
FIELD(ProcNeigh, local_mgmt, 2);
FIELD(ProcNeigh, is_wan, 3);
FIELD(ProcNeigh, dbg, 4);
FIELD(ProcNeigh, ifindex, 8);
FIELD(ProcNeigh, status, 12);
FIELD(ProcNeigh, neigh_state, 16);
FIELD(ProcNeigh, dev, 24);
FIELD(ProcNeigh, mac, 56);
FIELD(ProcNeigh, ip, 88);
FIELD(ProcNeigh, target_mac, 120);
FIELD(ProcNeigh, target_ip, 152);
FIELD(ProcNeigh, bandwidth, 184);
FIELD(ProcNeigh, thread, 192);
FIELD(ProcNeigh, state, 200);
FIELD(ProcNeigh, fail_count, 240);

FIELD(ProcPing, id, 0);
FIELD(ProcPing, running, 1);
FIELD(ProcPing, dbg, 4);
FIELD(ProcPing, local_mgmt, 8);
FIELD(ProcPing, is_wan, 9);
FIELD(ProcPing, status, 12);
FIELD(ProcPing, dev, 16);
FIELD(ProcPing, slave, 48);
FIELD(ProcPing, ip, 80);
FIELD(ProcPing, target_ip, 112);
FIELD(ProcPing, vlan, 144);
FIELD(ProcPing, bandwidth, 152);
FIELD(ProcPing, thread, 160);
FIELD(ProcPing, state, 168);
FIELD(ProcPing, fail_count, 208);

SIZE(queue_stat, 40);
FIELD(queue_stat, ceil, 0);
FIELD(queue_stat, qlen, 8);
FIELD(queue_stat, rate, 16);
FIELD(queue_stat, htb_rate, 24);
FIELD(queue_stat, utils, 32);

FIELD(ProcQdm, running, 0);
FIELD(ProcQdm, dbg, 4);
FIELD(ProcQdm, dev, 8);
FIELD(ProcQdm, ceil, 40);
FIELD(ProcQdm, qlen, 48);
FIELD(ProcQdm, rate, 56);
FIELD(ProcQdm, htb_rate, 64);
FIELD(ProcQdm, utils, 72);
FIELD(ProcQdm, classes, 80);
FIELD(ProcQdm, thread, 136);
FIELD(ProcQdm, state, 144);

FIELD(ProcUdp, running, 0);
FIELD(ProcUdp, sock, 4);
FIELD(ProcUdp, dbg, 8);
FIELD(ProcUdp, dev_id, 16);
FIELD(ProcUdp, dev, 48);
FIELD(ProcUdp, local_ip, 80);
FIELD(ProcUdp, thread, 112);

FIELD(WmObj, is_ppp, 0);
FIELD(WmObj, dev, 8);
FIELD(WmObj, slave, 40);
FIELD(WmObj, type, 72);
FIELD(WmObj, neigh, 104);
FIELD(WmObj, ping, 112);
FIELD(WmObj, qdm, 120);
FIELD(WmObj, udp, 128);

SIZE(DefaultGw, 80);
FIELD(DefaultGw, dev, 0);
FIELD(DefaultGw, gw, 32);
FIELD(DefaultGw, bandwidth, 64);
FIELD(DefaultGw, weight, 72);

SIZE(DefaultGws, 72);
FIELD(DefaultGws, lock, 0);
FIELD(DefaultGws, gateways, 40);
FIELD(DefaultGws, table, 64);
FIELD(DefaultGws, metric, 68);

SIZE(TunBase, 112);
FIELD(TunBase, dev, 8);
FIELD(TunBase, local, 24);
FIELD(TunBase, remote, 40);
FIELD(TunBase, queue, 56);
FIELD(TunBase, ttl, 60);
FIELD(TunBase, id, 64);
FIELD(TunBase, ifindex, 68);
FIELD(TunBase, device_id, 72);
FIELD(TunBase, prio, 76);
FIELD(TunBase, slave, 80);

SIZE(Tun, 120);
FIELD(Tun, fou_sport, 112);
FIELD(Tun, fou_dport, 114);

SIZE(Tun6, 112);

SIZE(V6TunRo, 96);
FIELD(V6TunRo, root, 0);
FIELD(V6TunRo, wans, 40);

SIZE(PrivateLink, 152);
FIELD(PrivateLink, dev, 0);
FIELD(PrivateLink, local, 16);
FIELD(PrivateLink, remote, 32);
FIELD(PrivateLink, tun_addr, 48);
FIELD(PrivateLink, ttl, 64);
FIELD(PrivateLink, fou_sport, 66);
FIELD(PrivateLink, fou_dport, 68);
FIELD(PrivateLink, ifindex, 72);
FIELD(PrivateLink, port, 76);
FIELD(PrivateLink, device_id, 80);
FIELD(PrivateLink, prio, 84);
FIELD(PrivateLink, slave, 88);
FIELD(PrivateLink, group_id, 120);

SIZE(RgLink, 120);
FIELD(RgLink, dev, 0);
FIELD(RgLink, local, 16);
FIELD(RgLink, remote, 32);
FIELD(RgLink, tun_addr, 48);
FIELD(RgLink, ttl, 64);
FIELD(RgLink, fou_sport, 66);
FIELD(RgLink, fou_dport, 68);
FIELD(RgLink, ifindex, 72);
FIELD(RgLink, port, 76);
FIELD(RgLink, device_id, 80);
FIELD(RgLink, slave, 88);

SIZE(linerate, 16);
FIELD(linerate, rx_rate, 0);
FIELD(linerate, tx_rate, 8);

SIZE(QoSObj, 16);
FIELD(QoSObj, rate, 0);
FIELD(QoSObj, prio, 8);
FIELD(QoSObj, reserved, 12);

SIZE(ProcQoS, 152);
FIELD(ProcQoS, dev, 0);
FIELD(ProcQoS, ifb, 32);
FIELD(ProcQoS, in_ceil, 64);
FIELD(ProcQoS, out_ceil, 72);
FIELD(ProcQoS, hidden_prio, 80);
FIELD(ProcQoS, classes, 88);
FIELD(ProcQoS, path, 112);
FIELD(ProcQoS, def_class, 144);

SIZE(LanQosCls, 16);
FIELD(LanQosCls, prio, 0);
FIELD(LanQosCls, rate, 8);

SIZE(ProcLanQoS, 120);
FIELD(ProcLanQoS, dev, 0);
FIELD(ProcLanQoS, classes, 32);
FIELD(ProcLanQoS, rules, 56);
FIELD(ProcLanQoS, redirect, 80);
FIELD(ProcLanQoS, protocol, 112);

SIZE(ProcUdpTest, 48);
FIELD(ProcUdpTest, check_connections, 0);
FIELD(ProcUdpTest, dev_id, 8);
FIELD(ProcUdpTest, thread, 40);

SIZE(ProcPingTest, 40);
FIELD(ProcPingTest, dev_id, 0);
FIELD(ProcPingTest, thread, 32);
