// libcorvosetup: the UDP probe responder and the UDP next-hop test.
//
// The probe is one UDP datagram over IPv4 each way, holding one JSON object on one line. Members of a
// request: "Sender" and "Receiver" (device ids), "Wan" (the asker's number of WANs, when it has no installed
// IPsec tunnels or was told to check connections; else 0), "RemoteWan", "Cpu", "Memory", "Connections",
// "Result" (0). Members of an answer: "Sender", "Receiver", "RemoteWan", "Cpu" and "Memory" (percent, as
// get_cpu_usage and get_mem_usage give them), "Connections" (installed IPsec tunnels), "Result" (0: accepted;
// everything else is a refusal). The answering side has port 7788; the sockets of both carry the packet mark
// 0x3c0 (socket(7), SO_MARK, needs CAP_NET_ADMIN), which the WAN shaping reserves a class for. Datagrams are
// cut at 256 bytes.
//
// All failures are logged at ERROR. No function here throws.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "corvosetup/export.h"

namespace corvo {
struct UdpTestRun;
}

// The responder of one WAN device: answers the probes of other devices on a thread of its own.
//
// Threading: start, stop and setup_dbg may be called from any thread, also at the same time; prepare,
// udp_listen and thread_task are the thread's steps, exported for programs that drive it themselves.
class CORVO_API ProcUdp {
    std::atomic<bool> running;
    int sock;            // the serving socket, -1 while there is none; owned by udp_listen
    int dbg;             // stored, without effect
    std::string dev_id;  // decimal
    std::string dev;
    std::string local_ip;  // dotted IPv4 of dev, empty until prepare succeeds
    std::thread* thread;
    std::mutex lifecycle;  // held by start and stop, across the join
    std::mutex fields;     // guards sock, dev_id and local_ip

    void serve(int fd, const std::string& local, int own);

public:
    // Stores the device's name and does nothing else.
    ProcUdp(std::string& dev);

    // Ends the thread.
    ~ProcUdp();

    // Stored, without effect.
    void setup_dbg(int level);

    // Starts the thread. 0; -3026 when it was started before and not stopped since (also when it has ended by
    // itself); -3010 when there can be no thread.
    int start();

    // Ends the thread and closes its socket; returns when both are done, 0 always. Harmless when stopped.
    int stop();

    // Looks the device's IPv4 address up (getifaddrs(3)). 0, or -1: no such address, or the device is not up
    // and running.
    int prepare();

    // Serves on the address that prepare found, port 7788, until stop; returns at once while the object is
    // not started, and when the socket cannot be had. Answers a request that names this device as its
    // receiver and tells its sender; nothing else is answered. A failing receive is tried again after 100 ms.
    // Load figures younger than a second are used again.
    void udp_listen();

    // The thread: reads the device id once, waits in steps of 3 s for an address, serves.
    void thread_task();
};

// The template of the requests, JSON text. Read for each request; not to be written while a test runs.
extern CORVO_API std::string udp_msg; /* JSON text; could be Json::Value or const char* */

// The UDP next-hop test: one pass over the current hub and, when that does not answer, over the candidates of
// the site document ("/etc/networkmanagement/site.json"), in which the first hub that answers becomes the
// active one.
//
// Threading: start_nexthop_utest, stop_nexthop_utest and udp_request may be called from any thread. One run
// at a time per object.
class CORVO_API ProcUdpTest {  // sizeof 48
    bool check_connections;    // passed on to every request
    std::string dev_id;        // decimal, empty before the first run
    std::thread* thread;
    friend struct corvo::UdpTestRun;

public:
    ProcUdpTest();

    // Ends the run.
    ~ProcUdpTest();

    // Asks device `receiver` at `address` (dotted IPv4), up to three times, each request sent five times over
    // and waited for 2 s. The answer's "Result" (0: answered and accepted; "Rejected by code: <r>" is logged
    // for others), or
    //   -3     the request could not be sent (an empty or wrong address included)
    //   -4     no answer in time
    //   -5     the receive timeout was refused
    //   -7     the packet mark was refused
    //   -9     the answer is for another device
    //   -3008  no socket
    //   -3010  no memory
    //   -3019  no answer was a JSON object
    int udp_request(int receiver, std::string& address, bool check_connections);

    // Starts a run on a thread of its own. 0; -3026 when there is one, finished or not, that was not stopped;
    // -3010 when there can be no thread.
    int start_nexthop_utest(bool check_connections);

    // Ends the run, also while it waits for an answer; 0 always.
    int stop_nexthop_utest();

    // The thread: reads the device id, ends at once when that is 0, makes one pass.
    void thread_task();

    // One pass on the calling thread, with the device id that thread_task stored. 0: a hub answered. -3016:
    // no site document. -3001: this device is no edge, lacks hub, group or domain, or there was nobody to
    // ask. Else the last request's code.
    int probe_nexthop();
};

// The test that the two functions below run.
extern CORVO_API ProcUdpTest udp_test;

// Ends a run that is under way and starts a new one. With `check_connections` only hubs of the own group are
// candidates, and requests tell the number of WANs. Results as start_nexthop_utest.
CORVO_API int Start_nexthop_udp_test(bool check_connections);

// Ends the run; 0 always.
CORVO_API int Stop_nexthop_udp_test();
