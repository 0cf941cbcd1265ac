// libcorvosetup: the kernel settings that the data plane stands on.
//
// Called by the daemon once at its start, in the order module_probing, presetup_ipv4, presetup_ipv6,
// presetup_mptcp, presetup_rps_xps; none depends on another, and each may be repeated. They need write access
// to /proc/sys and /sys.
//
// Every step is tried whatever fails before it. A value that cannot be written is logged ("Write value fail,
// file: PATH"), as is a tool that fails; the result of the presetup_ functions is -3001 when any value failed
// (on a kernel without one of the features that is usual) and 0 otherwise. Failing tools change no result.
//
// Threading: any thread; calls that write the same value at the same time are the caller's to avoid.
#pragma once

#include <map>
#include <string>

#include "corvosetup/export.h"

// Key and value for each entry of /proc/sys/net/ipv4/conf/ and of /proc/sys/net/ipv6/conf/, and path and
// value of the MPTCP, TCP and connection tracking settings. Written in order of the keys. Constant.
extern CORVO_API const std::map<std::string, std::string> conf_map;
extern CORVO_API const std::map<std::string, std::string> conf6_map;
extern CORVO_API const std::map<std::string, std::string> tcp_map;

// Loads the ifb module with 7 devices ("/sbin/modprobe") and brings every interface up whose name contains
// "ifb" ("/sbin/ifconfig").
CORVO_API void module_probing();

// Spreads the queues of every interface whose name begins with "swdev", "enp" or "eth" (setup_cpus). With one
// processor there is nothing to do. -3014 /sys/class/net cannot be listed, -3001 an interface failed.
CORVO_API int presetup_rps_xps();

// conf_map for every entry ("all" and "default" too), forwarding, and the limits of the neighbour table:
// cleaned every 270 s, 1 / 3000 / 3000 entries.
CORVO_API int presetup_ipv4();

// conf6_map for every entry, keys that an entry does not have passed over; "all/forwarding" stays 1.
CORVO_API int presetup_ipv6();

// tcp_map: port 58080 reserved, congestion control bbr, MPTCP on without checksums, lenient connection
// tracking with established connections kept 7440 s.
CORVO_API int presetup_mptcp();
