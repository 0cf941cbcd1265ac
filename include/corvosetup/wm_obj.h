// libcorvosetup: the monitor of one WAN device.
//
// A WmObj owns everything that watches one device: the neighbour probe (Ethernet-like links) or the ping
// probe (point-to-point links), the queue monitor and the UDP responder, and hands every call on to them in
// that order. Life: Create_wm_obj -> start -> (get_state, reset_bandwidth, reload_nf_condition, ...) -> stop
// -> delete.
//
// Threading: everything but the destructor may be called from any thread. stop() can take as long as the
// service call that a member is just in; a start() that comes meanwhile waits, member by member.
#pragma once

#include <json/value.h>
#include <string>

#include "corvosetup/export.h"
#include "corvosetup/neigh.h"
#include "corvosetup/ping.h"
#include "corvosetup/qdm.h"
#include "corvosetup/udp.h"

class CORVO_API WmObj {
    bool is_ppp;        // the name contains "ppp-", "ds-" or "me-": watched by `ping`, else by `neigh`
    std::string dev;    // as given, prefix included
    std::string slave;  // the underlying device, which `qdm` watches; a VLAN suffix stays
    std::string type;   // exactly "WAN": the link takes part in the default gateways
    ProcNeigh* neigh;   // owned; exactly one of neigh and ping is set
    ProcPing* ping;     // owned
    ProcQdm* qdm;       // owned, always set
    ProcUdp* udp;       // owned, always set

public:
    // target_ip: the gateway to watch. bandwidth: the link's weight among the default gateways, any unit. id:
    // the WAN's number, which names its condition file. Throws the int code of the probe that refused (-3007
    // wrong target address, -3005 no such interface) or a standard exception; nothing is left behind then.
    WmObj(std::string dev, std::string target_ip, unsigned long bandwidth, std::string type,
          unsigned char id);

    // Ends the members' threads and frees them. Reports nothing: the link's state is as stop() left it.
    ~WmObj();

    std::string get_dev();
    std::string get_slave();
    std::string get_type();

    // Start (stop) every member whatever the others return. The result is that of the last one, the UDP
    // responder; failures of the others are in the log only.
    int start();
    int stop();

    void setup_dbg(int level);

    // The link's new weight; 0 or the code of adding the gateway again.
    int reset_bandwidth(unsigned long bw);

    // Writes the status documents to standard output. Always 0.
    int show();

    // {dev: {"TYPE": ..., "ARP" or "PING": ..., "QDM": ...}}; a member without a report yet is null.
    Json::Value get_state();

    // Writes the condition file again from the last reported status: 0, or -3016 when it cannot be opened.
    int reload_nf_condition();
};

// Makes a monitor and stores it in *out. 0; -3002: out is null; -3004: *out already holds one (left alone);
// -3010: construction failed, the reason is in the log and *out stays null.
CORVO_API int Create_wm_obj(WmObj** out, std::string dev, std::string target_ip, unsigned long bandwidth,
                            std::string type, unsigned char id);
