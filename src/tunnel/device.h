// Creating and deleting the device of a link: the one sequence that all kinds share.
//
// Who may include this: this area.
#pragma once

#include <functional>
#include <string>

#include "foundation/text.h"

namespace corvo::tunnel {

constexpr unsigned short kFouPort = 5555;

// One named step; `run` returns 0 or the code that ends the creation.
struct Step {
    const char* name;  // as the failure message shows it, with "()"
    std::function<int()> run;
};

// What a kind of link does when its device is created or deleted. Steps that a kind does not have stay empty.
struct DeviceSetup {
    std::string dev;
    std::function<int()> ifindex;              // below 1: there is no such device
    std::function<void()> before_delete = {};  // takes rules and routes away, logging what fails
    std::function<int()> find_local = {};      // the outer address, when the kind has to look it up
    std::function<int()> fill_record;          // dump2struct
    const char* edit_name;
    std::function<int(int op)> edit;  // creates or deletes the device from that record
    bool pin_queues = false;
    Step address;
    std::function<int(unsigned flags)> set_flag;
    bool no_multipath = false;
    std::function<int()> add_rules = {};
    std::function<int()> add_routes = {};  // its failure is logged only

    // Creation stops at the first failing step and leaves what was done; deletion of an absent device is a
    // success.
    int run(int op) const;
};

// The index of `dev`, looked up until there is one and cached in `cache` then.
int cached_ifindex(int& cache, const char* dev);

// The flags of the device behind `ifindex`; -3005 when there is none.
int get_flags(int ifindex, unsigned& flags);
int set_flags(int ifindex, unsigned flags);
int unset_flags(int ifindex, unsigned flags);

// Copies `ip` when it is an address; -3007, and `to` left alone, when it is none.
int copy_address(char (&to)[16], std::string& ip);

// Gives the device the IPv4 address `address`.
int assign_ipv4(int ifindex, const char* address);

}  // namespace corvo::tunnel
