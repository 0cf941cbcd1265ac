// What the shaping tests share: documents, interfaces, and the log without its traces.
#pragma once

#include <string>
#include <vector>

#include "support/sandbox.h"

namespace corvo::test {

inline constexpr const char* kDevicePath = "/etc/networkmanagement/device_info.json";
inline constexpr const char* kQosPath = "/etc/networkmanagement/qos.json";

// The log lines that are neither function traces nor about loading documents.
std::vector<std::string> messages();
// Of those the ones of level ERROR.
std::vector<std::string> errors();

// "eth1" with the line rates in bits per second, as the device document has it.
void write_wan(const std::string& rx_rate, const std::string& tx_rate, const std::string& name = "eth1");
void write_rates(const std::string& rate_array);

std::string classes(const std::string& device);
std::string qdiscs(const std::string& device);
std::string filters(const std::string& words);

// setup_qos and setup_lan_qos with texts that may be literals.
int shape(int op, std::string dev = "", std::string path = "", bool tun = false);
int shape_lan(int op, std::string dev = "", std::string conf = "", std::string dev_conf = "");

}  // namespace corvo::test
