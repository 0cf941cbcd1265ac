// libcorvosetup: egress and ingress shaping of WAN devices.
//
// A shaped interface has an HTB tree: one class at the line rate (1:1), below it class 1:10 for management
// (one percent, firewall mark 0x3c0), one per percentage of "/etc/networkmanagement/qos.json" (1:20 with mark
// 0x40, 1:30 with 0x80, ...), and a last one, to which unmarked traffic goes, with what is left. Every class
// may borrow up to the line rate and has an fq leaf. An ingress limit redirects what arrives to an ifb device
// and shapes it there. The tree in the kernel is the only state.
//
// Documents give bits per second; everything here is bytes per second. Class rates are handed on in 32 bits
// (modulo 2^32 bytes/s).
//
// Results. 0, or:
//   -3001  the percentages are above 100, or above the ceiling
//   -3004  operation above 2, empty device name, "RATE" no array of unsigned numbers
//   -3005  no such interface in the document, or in the system
//   -3016  a document did not load      -3020  a section of it is missing
//   and the codes of corvosetup/tc.h; with an ingress limit the result of its last step, which may be the raw
//   wait status of a tc command (512: it exited with 2).
// Every failure is logged where it is found. Threading: calls for different interfaces are independent, calls
// for one are not.
#pragma once

#include <string>
#include <vector>

#include "corvosetup/export.h"

struct linerate {  // 16; bits per second, as the document has them
    unsigned long rx_rate;
    unsigned long tx_rate;
};
struct QoSObj {             // 16; one class
    unsigned long rate;     // guaranteed, bytes/s
    unsigned int prio;      // HTB priority and position, from 1
    unsigned int reserved;  // always 0
};
// One interface for the time of one operation.
class CORVO_API ProcQoS {         // sizeof 152
    std::string dev;              //   0
    std::string ifb;              //  32
    unsigned long in_ceil;        //  64 ingress ceiling, bytes/s
    unsigned long out_ceil;       //  72 egress ceiling, bytes/s
    int hidden_prio;              //  80 position of the class that takes the remainder, 0: none
    std::vector<QoSObj> classes;  //  88
    std::string path;             // 112 the device document's path
    unsigned int def_class;       // 144 recorded and logged only
public:
    // Rates in bits per second; no transmit rate means 1 Mbit/s, no receive rate no ingress limit.
    ProcQoS(std::string dev, unsigned long rx_rate, unsigned long tx_rate, std::string path);
    int check_iface();
    bool check_vlan_bridge_iface();  // always false: the hook for interfaces that are not to be shaped
    int rescan_config();             // percentages into classes; adds to what is there
    int check_qos();                 // the remainder into a hidden class
    int show();                      // logs the classes
    int setup_qos();                 // the egress tree; exclusively, and left as it is by a failure
    int setup_default_qos();         // a placeholder
    int start();                     // all of it; an interface that is not there is a warning and 0
    int stop();                      // takes egress and ingress down; always 0
    int restart();                   // the documents are read before the tree goes
    int setup_ingress_limit();       // the tree on the ifb device
    int check_ifb_iface();
};
// Starts (0), stops (1) or restarts (2) shaping of `dev` ("" or "all": of every interface, in the order of
// their names, with the result of the last). `path`: the device document; an empty one is set to
// "/etc/networkmanagement/device_info.json". `tun`: interfaces are "tun" and their "ID".
CORVO_API int setup_qos(int op, std::string& dev, std::string& path, bool tun);
// A placeholder: logs and returns 0.
CORVO_API int setup_tun_qos(int op, std::string a, std::string b);
