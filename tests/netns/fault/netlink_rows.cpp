// Rows of links, addresses, routes, rules and traffic control.
#include <net/if.h>

#include "corvosetup/link.h"
#include "corvosetup/routing.h"
#include "corvosetup/tc.h"
#include "foundation/text.h"
#include "rows.h"

namespace corvo::test {

namespace {

// The same after a step that is made undisturbed, each time before the call.
int index() {
    const fault::Spared here;
    return index_of("eth2");
}

template <class Record>
Record rule_record(const char* source) {
    Record record{};
    record.prio = 12345;
    record.table = 100;
    record.mark = 5;
    record.mask = 15;
    copy_text(record.src, source);
    return record;
}
int rule(int op) {
    auto record = rule_record<rule_conf>("10.1.0.0/16");
    return edit_rule(op, &record);
}
int rule6(int op) {
    auto record = rule_record<rule6_conf>("2001:db8::/32");
    return edit_rule6(op, &record);
}

int route(int op) {
    nexthop second{};
    copy_text(second.gw, "203.0.113.2");
    copy_text(second.dev, "eth1");
    second.weight = 2;
    nexthop first{};
    copy_text(first.gw, "203.0.113.1");
    copy_text(first.dev, "eth1");
    first.weight = 3;
    first.next = &second;
    route_conf record{};
    record.prefixlen = 16;
    record.table = 1000;
    record.priority = 7;
    copy_text(record.dst, "10.9.0.0");
    record.nexthops = &first;
    return edit_route(op, &record);
}
int route6(int op) {
    nexthop6 hop{};
    copy_text(hop.dev, "eth1");
    route6_conf record{};
    record.prefixlen = 48;
    record.table = 1000;
    record.priority = 7;
    copy_text(record.dst, "2001:db8:9::");
    record.nexthops = &hop;
    return edit_route6(op, &record);
}

template <int (*edit)(int)>
void add_edit_rows(std::vector<Row>& rows, const std::string& symbol) {
    rows.push_back(Row(symbol, plain([] { return edit(0); })).kernel());
    rows.push_back(
        Row(symbol, after([] { edit(0); }, [] { return edit(1); })).kernel().called(symbol + "_delete"));
    rows.push_back(
        Row(symbol, after([] { edit(0); }, [] { return edit(2); })).kernel().called(symbol + "_flush"));
}

void add_links(std::vector<Row>& rows) {
    rows.push_back(
        Row("edit_dummy", plain([] { return edit_dummy(0, "dummy7", 2); })).kernel().needs({"dummy"}));
    rows.push_back(Row("edit_dummy",
                       after([] { edit_dummy(0, "dummy7", 2); }, [] { return edit_dummy(1, "dummy7", 0); }))
                       .kernel()
                       .needs({"dummy"}));
    static ipip_conf ipip{};
    copy_text(ipip.name, "tun9");
    copy_text(ipip.local, "203.0.113.11");
    copy_text(ipip.remote, "0.0.0.0");
    ipip.dport = 5555;
    static sit_conf sit{};
    copy_text(sit.name, "sit9");
    copy_text(sit.local, "203.0.113.11");
    copy_text(sit.remote, "0.0.0.0");
    // Creation is exclusive: who does not know whether it happened deletes first.
    rows.push_back(Row("edit_ipip_tunnel", plain([] { return edit_ipip_tunnel(0, &ipip); }))
                       .kernel()
                       .needs({"ipip-gue"})
                       .undone_by([] { edit_ipip_tunnel(1, &ipip); }));
    rows.push_back(Row("edit_sit_tunnel", plain([] { return edit_sit_tunnel(0, &sit); }))
                       .kernel()
                       .needs({"sit"})
                       .undone_by([] { edit_sit_tunnel(1, &sit); }));
    rows.push_back(Row("edit_fou", plain([] { return edit_fou(0); })));
    rows.push_back(Row("edit_fou", plain([] { return edit_fou(2); })));
    rows.push_back(Row("get_dev_flags", plain([] {
                           unsigned flags = 0;
                           return get_dev_flags(1, &flags);
                       })));
    rows.push_back(
        Row("set_dev_flags", plain([] { return set_dev_flags(index(), IFF_NOARP); })).kernel().undone_by([] {
            unset_dev_flags(index(), IFF_NOARP);
        }));
    rows.push_back(
        Row("unset_dev_flags", plain([] { return unset_dev_flags(index(), IFF_MULTICAST); })).kernel());
    rows.push_back(Row("flush_ipv4_addr", plain([] { return flush_ipv4_addr(index()); })).kernel());
    rows.push_back(Row("get_ipv4_addr", plain([] {
                           char address[64];
                           return get_ipv4_addr(index(), address);
                       })));
    rows.push_back(
        Row("set_ipv4_addr", plain([] { return set_ipv4_addr(index(), "192.0.2.7/24"); })).kernel());
    rows.push_back(
        Row("set_ipv6_addr", plain([] { return set_ipv6_addr(index(), "2001:db8:7::7/64"); })).kernel());
}

void add_hops(std::vector<Row>& rows) {
    rows.push_back(Row("add_nexthop free_nexthop", plain([] {
                           nexthop* head = nullptr;
                           const bool made = add_nexthop(&head) != nullptr && add_nexthop(&head) != nullptr;
                           free_nexthop(head);
                           return made ? 1 : 0;
                       }))
                       .value()
                       .gives(1));
    rows.push_back(Row("add_nexthop6 free_nexthop6", plain([] {
                           nexthop6* head = nullptr;
                           const bool made = add_nexthop6(&head) != nullptr && add_nexthop6(&head) != nullptr;
                           free_nexthop6(head);
                           return made ? 1 : 0;
                       }))
                       .value()
                       .gives(1));
}

tc_options options{0, 1000000, 2000000, 1};

void root() {
    clean_qdisc("eth1", "root");
    setup_qdisc("eth1", "root", "1:", "htb", &options);
}
void tree() {
    root();
    setup_class("eth1", "1:", "1:1", "htb", &options);
}
void ingress() {
    clean_qdisc("eth1", "ingress");
    setup_qdisc_ingress("eth1", "ifb0", 0x800);
}

// Objects are made exclusively; the calls start from a tree that is made anew each time.
void add_traffic_control(std::vector<Row>& rows) {
    rows.push_back(
        Row("setup_qdisc", after([] { clean_qdisc("eth1", "root"); },
                                 [] { return setup_qdisc("eth1", "root", "1:", "htb", &options); }))
            .kernel()
            .needs({"htb"}));
    rows.push_back(
        Row("clean_qdisc", after(root, [] { return clean_qdisc("eth1", nullptr); })).kernel().needs({"htb"}));
    rows.push_back(
        Row("setup_qdisc_ingress", after([] { clean_qdisc("eth1", "ingress"); },
                                         [] { return setup_qdisc_ingress("eth1", "ifb0", 0x800); }))
            .kernel()
            .needs({"ingress"}));
    rows.push_back(Row("setup_qdisc_ingress_filter",
                       after(ingress, [] { return setup_qdisc_ingress_filter("eth1", "ifb0", 0x800); }))
                       .kernel()
                       .needs({"ingress", "u32", "mirred"}));
    rows.push_back(
        Row("setup_class", after(root, [] { return setup_class("eth1", "1:", "1:1", "htb", &options); }))
            .kernel()
            .needs({"htb"}));
    rows.push_back(
        Row("setup_fw_filter", after(tree, [] { return setup_fw_filter("eth1", "1:", ":40", "1:1"); }))
            .kernel()
            .needs({"htb", "fw"}));
    rows.push_back(Row("setup_u32_filter", after(tree,
                                                 [] {
                                                     U32QoSObj match{};
                                                     match.prio = 1;
                                                     match.protocol = 0x800;
                                                     match.dport = 443;
                                                     return setup_u32_filter("eth1", "1:", "1:1", &match);
                                                 }))
                       .kernel()
                       .needs({"htb", "u32"}));
    rows.push_back(Row("get_tx_queue_status free_tqs_head",
                       after(tree,
                             [] {
                                 tqs_link* head = get_tx_queue_status("eth1");
                                 int count = 0;
                                 if (head != nullptr)
                                     for (const tqs_link* link = head->next; link != head; link = link->next)
                                         ++count;
                                 free_tqs_head(head);
                                 return count;
                             }))
                       .value()
                       .gives(2)
                       .needs({"htb"}));
}

}  // namespace

void add_netlink_rows(std::vector<Row>& rows) {
    add_links(rows);
    add_edit_rows<route>(rows, "edit_route");
    add_edit_rows<route6>(rows, "edit_route6");
    add_edit_rows<rule>(rows, "edit_rule");
    add_edit_rows<rule6>(rows, "edit_rule6");
    add_hops(rows);
    add_traffic_control(rows);
}

}  // namespace corvo::test
