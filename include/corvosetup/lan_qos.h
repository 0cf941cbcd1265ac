// libcorvosetup: shaping of LAN ports per host group.
//
// Traffic towards the LAN is shaped on the LAN interfaces, traffic from it on "ifb0", to which the
// interfaces' ingress is redirected when there are uplink classes and rules. Each group is an HTB class (rate
// and ceiling the group's rate), rules sort traffic into them by MAC, IPv4 address and port; what no rule
// names is not shaped.
//
// Rates are bytes per second, as the document has them. "ifb0" is also the ingress device of the first WAN
// interface (corvosetup/qos.h): a device shapes either WAN ingress there or LAN uplink, the second one to
// start finds the root taken.
#pragma once

#include <string>
#include <vector>

#include "corvosetup/export.h"
#include "corvosetup/tc.h"

struct LanQosCls {       // 16
    unsigned int prio;   // class number and HTB priority
    unsigned long rate;  // rate and ceiling, bytes/s
};
// One device for the time of one operation.
class CORVO_API ProcLanQoS {         // sizeof 120
    std::string dev;                 //   0
    std::vector<LanQosCls> classes;  //  32
    std::vector<U32QoSObj> rules;    //  56
    std::string redirect;            //  80 where ingress goes, empty: nowhere
    unsigned short protocol;         // 112 of the redirect: 0x800, with VLANs 0x8100
public:
    ProcLanQoS(std::string& dev, std::vector<LanQosCls>& classes, std::vector<U32QoSObj>& rules,
               std::string& redirect, unsigned short protocol);
    int check_iface();
    int setup_qos();
    int setup_default_qos();
    int start();
    int stop();
    int restart();
};
// Starts (0), stops (1) or restarts (2) shaping of the LAN interface `dev` ("" or "all": of every one). Empty
// paths are set to "/etc/networkmanagement/lan_qos.json" and "/etc/networkmanagement/device_info.json".
// -3004 for another operation, -3016 when a document does not load, -3019 when a member has the wrong type,
// -3020 without LAN ports, -3005 when `dev` is none of them; else 0. Failures on devices are logged and
// counted in the log, not returned.
CORVO_API int setup_lan_qos(int op, std::string& dev, std::string& conf, std::string& dev_conf);
