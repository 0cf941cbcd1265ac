// libcorvosetup: what the tunnels of a WAN link share.
//
// A tunnel object describes one tunnel device for one operation; nothing of it lives in the library between
// calls, the kernel holds the state. It is built from the WAN's entry in the network information service's
// list ("id", "tun_addr", "prio") and the WAN interface that the tunnel rides on.
//
// Results: 0 or a negative code; no member throws, constructors throw only std::bad_alloc. Threading: an
// object belongs to one thread. The order of the fields and of the virtual operations is part of the binary
// interface.
#pragma once

#include <json/value.h>
#include <string>

#include "corvosetup/export.h"

// Objects live on their builder's stack and are never deleted through the base: no virtual destructor.
class CORVO_API TunBase {  // vptr at 0; abstract; sizeof 112
protected:
    char dev[16];        //   8 tunnel device: the kind's prefix and the id; empty: the entry cannot be used
    char local[16];      //  24 outer and tunnel IPv4 address, text; what "tun_addr" holds, valid or not
    char remote[16];     //  40 "0.0.0.0": one device reaches every peer, the route names it
    unsigned int queue;  //  56 transmit and receive queues
    unsigned char ttl;   //  60 outer TTL; 0 inherits
    int id;              //  64 tunnel id
    int ifindex;         //  68 kernel index of dev; 0 until found
    int device_id;       //  72 this device's own id
    int prio;            //  76
    std::string slave;   //  80 the WAN interface
public:
    // Without a slave or a device id the object stays empty and every operation on it fails or does nothing.
    // `queue` 0: one queue per online processor.
    TunBase(std::string prefix, std::string slave, Json::Value& info, unsigned int queue);

    // Creates (0) or deletes (1) the device with its address, flags and rules. Creation stops at the first
    // failing step, leaves what was done and returns the step's code; deleting an absent device is 0.
    virtual int setup_tun(int op) = 0;
    // Adds the policy rules; 0 whatever failed (each failure is in the log), and when there is no device.
    virtual int setup_tun_rule() = 0;
    // Deletes them, by priority.
    virtual int destroy_tun_rule() = 0;
    // Adds (0) or deletes (any other op) the rule of the tunnel's default table; 0 without a device.
    virtual int setup_mptcp_default_rule(int op) = 0;

    std::string get_dev();
    // Sets `local`; -3007, and nothing changed, when `ip` is no address.
    int set_local(std::string& ip);
    // The index of dev, looked up until there is one; 0 while there is none.
    int obtain_ifindex();
    // Device flags as in <net/if.h>; -3005 without a device, else the codes of get_dev_flags and its
    // siblings.
    int get_tun_flag(unsigned int& flags);
    int set_tun_flag(unsigned int flags);
    int unset_tun_flag(unsigned int flags);
};
