// libcorvosetup: the probe of point-to-point links.
//
// A point-to-point link has no neighbour to watch and counts as up for as long as its monitor exists: the
// worker reports it connected once and ends; stop() reports it down. ping() is there for callers that want to
// know more about the link.
//
// Threading: everything but the destructor may be called from any thread; start and stop wait for each other.
// Errors: negative result codes; the constructor throws one as an int.
#pragma once

#include <json/value.h>
#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "corvosetup/export.h"

class CORVO_API ProcPing {
    unsigned char id;           // the WAN's number: names the condition file, goes into status calls
    std::atomic<bool> running;  // the worker goes on while this is true
    int dbg;                    // non-zero: ping() writes its function traces
    bool local_mgmt;            // local management: the worker leaves the condition file alone
    bool is_wan;
    int status;         // last reported: 0 connected, 1 failed
    std::string dev;    // with its prefix
    std::string slave;  // without prefix and VLAN suffix
    std::string ip;     // own IPv4 address; only prepare() fills it
    std::string target_ip;
    unsigned short vlan;      // reported; 0 for every name
    unsigned long bandwidth;  // weight among the default gateways
    std::thread* thread;      // null: not started
    Json::Value state;        // the status document; null until the first report
    unsigned int fail_count;

    mutable std::mutex guard;  // the fields above that both the worker and the daemon use
    std::mutex lifecycle;      // held by start and stop, across the join

public:
    // Throws -3007 when target_ip is no address.
    ProcPing(std::string dev, std::string target_ip, unsigned long bandwidth, bool is_wan, unsigned char id);
    ~ProcPing();  // ends the thread, reports nothing

    // 0; -3026: started already, even if the worker has ended since; -3010: no thread to be had.
    int start();

    // Ends the thread, then reports the link down: condition "0", MPTCP default route flushed, gateway
    // removed (both whatever kind of link it is), hub manager told. Always 0; repeated on a stopped probe.
    int stop();

    int reset_bandwidth(unsigned long bw);  // as ProcNeigh's
    int update_condition(int status);       // "1" for 0, "0" for all else: 0 or -3016
    int reload_condition();                 // from the last reported status
    Json::Value get_state();                // {dev: {...}} or null
    int show();                             // the status document to standard output
    void setup_dbg(int level);

    // Takes over the device's IPv4 address. 0, or -3001 when the interfaces cannot be listed.
    int prepare();

    // One ICMP echo exchange (RFC 792) with the target over this device, at most 2 s. 0: answered; -3001 time
    // out, -3007 unknown host, -3008 socket, -3010 memory, -3012 send, -3013 receive. Needs CAP_NET_RAW, and
    // a process id below 65536: the answer's 16-bit identifier is compared with the whole process id.
    int ping();

    // The Internet checksum (RFC 1071) over `len` bytes, in the byte order of the buffer.
    unsigned short checksum(unsigned short* buf, unsigned int len);

    // The worker's pieces.
    void thread_task();
    int probe();
    int save_state();
};
