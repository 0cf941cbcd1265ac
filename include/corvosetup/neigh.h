// libcorvosetup: the neighbour probe.
//
// Watches one Ethernet-like device: every 2 s the kernel must hold a usable neighbour entry (RFC 826, states
// of <linux/neighbour.h>) for its gateway. Six bad cycles in a row report the link down, one good cycle
// reports it up; the first settled cycle of an object always reports (one that was stopped and started again
// reports changes only). A report moves the default gateway and the interface (WAN links only), tells the hub
// manager, writes the netfilter condition file /proc/net/nf_condition/PORT<id> and replaces the status
// document, in that order.
//
// Threading: everything but the destructor may be called from any thread; start and stop wait for each other.
// Errors: negative result codes; the constructor throws one as an int.
#pragma once

#include <json/value.h>
#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "corvosetup/export.h"

struct nl_object;  // libnl

// The names of the kernel's neighbour states (by NUD bit) and of the link statuses, as the status documents
// show them. The library looks up under a lock of its own and inserts an empty text for an unknown value; a
// program that reads them does so while no monitor runs, or copies the entries it needs beforehand.
extern CORVO_API std::map<int, std::string> neigh_state_str;
extern CORVO_API std::map<int, std::string> neigh_stat_mapping;

class CORVO_API ProcNeigh {
    unsigned char id;           // the WAN's number: names the condition file, goes into status calls
    std::atomic<bool> running;  // the worker goes on while this is true
    bool local_mgmt;            // local management: cycles leave the condition file alone
    bool is_wan;                // the link takes part in the default gateways
    int dbg;                    // stored for the daemon; the traces follow `verbose`
    int ifindex;                // looked up once, at construction
    int status;                 // last reported: 0 connected, 1 failed
    int neigh_state;            // last seen NUD bit, 0: none
    std::string dev;
    std::string mac;         // own link-layer address, "xx:xx:xx:xx:xx:xx"
    std::string ip;          // own IPv4 address; stays when the address goes
    std::string target_mac;  // the gateway's; empty: no usable entry
    std::string target_ip;
    unsigned long bandwidth;  // weight among the default gateways
    std::thread* thread;      // null: not started
    Json::Value state;        // the status document; null until the first report
    unsigned int fail_count;  // bad cycles in a row

    mutable std::mutex guard;  // the fields above that both the worker and the daemon use
    std::mutex lifecycle;      // held by start and stop, across the join

public:
    // Throws -3007 when target_ip is no address, -3005 when there is no interface of that name.
    ProcNeigh(std::string dev, std::string target_ip, unsigned long bandwidth, bool is_wan, unsigned char id);
    ~ProcNeigh();  // ends the thread, reports nothing

    // 0; -3026: started already; -3010: no thread to be had.
    int start();

    // Ends the thread once the cycle it is in is through, then reports the link down: condition "0" (in local
    // management too), MPTCP default routes flushed, gateway removed (WAN), hub manager told. Always 0. On a
    // stopped probe the report is repeated.
    int stop();

    // Removes the gateway and adds it again with the new weight, whatever the link's kind and status. The
    // code of the adding.
    int reset_bandwidth(unsigned long bw);

    Json::Value get_state();  // {dev: {...}} or null
    int reload_condition();   // the condition file again, from the last reported status: 0 or -3016
    int show();               // the status document to standard output

    int get_neigh_state();
    void set_neigh_state(int state);
    std::string get_dev();
    std::string get_target_ip();
    std::string get_target_mac();
    void set_target_mac(std::string mac);
    void setup_dbg(int level);

    // The worker's pieces; the worker alone calls them while it runs.
    void thread_task();
    int prepare();     // own addresses and flags: 0 up and running, 1 not (or no such device)
    int scan_neigh();  // the gateway's entry: 0 usable, 1 not
    int probe();       // one cycle: 0 good, 1 bad

    int update_condition(int status);  // "1" for 0, "0" for all else: 0 or -3016
    int save_state();
};

// Judges one neighbour entry (a libnl rtnl_neigh) for the ProcNeigh that `arg` points to; a callback of
// nl_cache_foreach and its kin.
CORVO_API void probe_mac_cb(struct nl_object* obj, void* arg);
