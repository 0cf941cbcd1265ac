// libcorvosetup: the ping next-hop test and the regional link test.
//
// Both send one ICMP echo request (RFC 792; 64 bytes, identifier: the low 16 bits of the process id, sequence
// 12345, both in host byte order, zeros as payload) over a raw socket that carries the packet mark 0x3c0, and
// wait 2 s for the answer. Identifier and whole process id are compared: in a process with an id above 65535
// every exchange times out (keep kernel.pid_max at 65536 or below). Needs CAP_NET_RAW and CAP_NET_ADMIN.
//
// All failures are logged at ERROR. No function here throws.
#pragma once

#include <string>
#include <thread>

#include "corvosetup/export.h"

namespace corvo {
struct PingTestRun;
}

// The ping next-hop test: one pass over the current hub and, when that does not answer, over the candidates
// of the site document ("/etc/networkmanagement/site.json"), in which the first hub that answers becomes the
// active one. Only ports that are not behind address translation are pinged.
//
// Threading: start_nexthop_ptest, stop_nexthop_ptest, ping and checksum may be called from any thread; one
// run at a time per object; probe_rglink stores the device id and is not for an object whose run is under
// way.
class CORVO_API ProcPingTest {  // sizeof 40
    std::string dev_id;         // decimal, empty before the first run
    std::thread* thread;
    friend struct corvo::PingTestRun;

public:
    ProcPingTest();

    // Ends the run.
    ~ProcPingTest();

    // Starts a run on a thread of its own. 0; -3026 when there is one, finished or not, that was not stopped;
    // -3010 when there can be no thread.
    int start_nexthop_ptest();

    // Ends the run, also while it waits for an answer; 0 always.
    int stop_nexthop_ptest();

    // One echo to `ip` (dotted IPv4 or a host name), bound to device `dev` unless that is empty. 0: answered.
    // -3001: no answer in time, or an unknown host. -3005: the device cannot be bound. -3008: no socket, or
    // the packet mark was refused. -3010: no memory. -3012, -3013: sending, receiving failed.
    int ping(std::string& ip, std::string dev);

    // The Internet checksum (RFC 1071) over `len` bytes; of a null pointer that of no bytes.
    unsigned short checksum(unsigned short* buf, unsigned int len);

    // The thread: reads the device id, ends at once when that is 0, makes one pass.
    void thread_task();

    // One pass on the calling thread, with the device id that thread_task stored. 0: a hub answered (whatever
    // the hub manager said to it). -3016: no site document. -3001: this device is no edge, lacks hub, group
    // or domain, or there was nothing to ping. Else the last ping's code.
    int probe_nexthop();

    // One echo over regional link `n`: from device "swdev<n>" to the far end that this device's "RGLINK<n>"
    // names. 0: answered. -3016: no site document. -3005: no such link, or its device cannot be bound. -3003:
    // no remote site. -3031: no remote link. -3007: no own address. -3032: no address of the far end. Else
    // the ping's code.
    int probe_rglink(int n);
};

// The test that the next two functions run.
extern CORVO_API ProcPingTest ping_test;

// Ends a run that is under way and starts a new one. 0, -3026 as start_nexthop_ptest; -3001 when the thread
// cannot be had.
CORVO_API int Start_nexthop_ping_test();

// Ends the run; 0 always.
CORVO_API int Stop_nexthop_ping_test();

// Tests regional link `n` on the calling thread, which takes up to 2 s. Results as probe_rglink.
CORVO_API int Start_rglink_ping_test(int n);
