// libcorvosetup: addresses, files, commands and system figures.
//
// Results are 0 or a negative code (docs/result-codes.md). Threading: any thread; nothing is kept between
// calls.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "corvosetup/export.h"

extern "C" {
// Runs `command` with /bin/sh and puts the first line of its output, its line break included, into `buf`,
// which has room for 512 bytes (511 characters and the end). Empty when it prints nothing; the exit status is
// not looked at. -3002 null pointer, -3001 it could not be started.
CORVO_API int exec_c(const char* command, char* buf);

// if_nametoindex and if_indextoname; 0 (null) for a null name. `ifname` has room for IF_NAMESIZE bytes.
CORVO_API int get_ifindex(const char* ifname);
CORVO_API char* get_ifname(unsigned int ifindex, char* ifname);
}  // extern "C"

// The tunnel address of the pair: 198.19.0.0 for (1, 1), eight consecutive ones for each `a`. Meant for
// 0 <= 8a+b-9 <= 65535; beyond, the sum carries from the first octet into the second, as on every peer.
CORVO_API void gen_tun_addr4(int a, int b, std::string& out);

// 0 when the text is an address: IPv4 if it contains ".", else IPv6 if it contains ":". -3007 it does not
// parse (an IPv6 address with a dotted quad does not), -3004 neither character is in it.
CORVO_API int check_ip_correctness(std::string& ip);

// The IPv4 address in host byte order; 0 when it does not parse.
CORVO_API uint32_t str2uint32_t(std::string ip);

// The mask in host byte order of a decimal prefix length, read as atoi reads and cut to 8 bits; shifts are
// modulo 32, so "0" gives 255.255.255.255.
CORVO_API uint32_t prefix2uint32_t(std::string prefix);

// The mask in network byte order; all ones for anything but 1..32.
CORVO_API uint32_t prefix_to_network(unsigned int prefix);

// Clears the host bits of an IPv4 address text. -3003 empty text, -3004 prefix not 1..32, -3007 no address;
// the text is left then.
CORVO_API int network_addr(std::string& ip, unsigned int prefix);

// Six hexadecimal octets with colons into the six bytes at `out`. -3004 and six zeros when there are fewer.
CORVO_API int str2mac(std::string mac, char* out);

// Whether `path` is a regular file (links are followed).
CORVO_API bool does_file_exist(std::string& path);

// The first word of a file. -3016 it cannot be opened. A file without a word leaves `value` and is no
// failure.
CORVO_API int read_value(std::string path, std::string& value);

// Replaces what the file holds, without a line break. -3016 it cannot be opened; what the kernel refuses
// after that is not reported.
CORVO_API int write_value(std::string path, std::string value);
CORVO_API int write_value(std::string path, int value);

// Appends the names in a directory, in its own order, without those that begin with ".". -3014 it cannot be
// opened.
CORVO_API int list_dir(std::string path, std::vector<std::string>& names);

// Runs `command` with /bin/sh and returns its standard output (64 MiB at most); the exit status is not looked
// at. Empty, with an ERROR line, when it could not be started. The caller answers for the text: nothing that
// came from outside belongs into it unchecked. Called on a thread of a monitor or test, it ends when that is
// stopped.
CORVO_API std::string exec(std::string& command);

// Percent busy of all processors since boot (mpstat), percent of memory used (free). 0 when the tool is
// missing or prints no number.
CORVO_API float get_cpu_usage();
CORVO_API float get_mem_usage();

// The number of WAN ports in "/etc/networkmanagement/device_info.json" (jq) and of installed IPsec child SAs
// (ipsec statusall). 0 likewise.
CORVO_API int get_wan_port_num();
CORVO_API int get_ipsec_intalled_num();

// Runs "/usr/sbin/conntrack -D -n FILTER"; what it prints goes to the log. `filter` is the rest of a command
// line, for which the caller answers as for exec().
CORVO_API void conntrack_flush_wan_nat(std::string filter);

// Spreads the queues of an interface over all processors. Transmission (XPS) always; reception by the
// CPU-tune service, and by RPS when that fails. The result is the service's: not 0 means that RPS was set
// instead. With 32 processors the mask is 0, which switches steering off.
CORVO_API int setup_cpus(std::string ifname);
