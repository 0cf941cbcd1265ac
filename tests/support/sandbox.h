// A machine of its own for a test: what the netns and device tiers run in.
//
// Linking corvo_test_support_netns gives the executable a main() that puts the process into fresh network,
// mount, process and IPC namespaces before the first test:
//   - the network namespace is empty but for lo, which is up;
//   - /proc and /sys are those of the new namespaces; /run (with /run/vx and /run/netns) is empty;
//   - /etc/networkmanagement and /var/log/network are private and empty, all else under /etc is as it was;
//   - /proc/net/nf_condition is a private directory, seen by this process but not by its children (but see
//     share_conditions()). In the device tier it is the real one, and values exist while a rule refers to
//     them;
//   - /sys/module/sch_htb/parameters/htb_rate_est is private (in the device tier the real one).
// All of it is made again before every TEST, the library's globals of the log included, so that tests pass
// alone and in any order in one process. Nothing remains on the machine afterwards. Needs root; listing the
// tests does not.
//
// Threading: these functions act for the whole process; call them from the test's own thread.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <string_view>

#include "support/files.h"
#include "support/leak_check.h"
#include "support/log.h"
#include "support/net.h"
#include "support/process.h"
#include "support/wait.h"

namespace corvo::test {

inline constexpr const char* kDocumentDir = "/etc/networkmanagement/";
inline constexpr const char* kConditionDir = "/proc/net/nf_condition/";
inline constexpr const char* kServiceDir = "/run/vx";

// Whether the process runs on the device testbed (CORVO_TEST_TIER=device), where every kernel feature that a
// device has must be there.
bool in_device_tier();

// Writes /etc/networkmanagement/NAME and gives that path. The text need not be JSON.
std::string write_document(const std::string& name, const Json::Value& document);
std::string write_document(const std::string& name, std::string_view text);
std::string write_document(const std::string& name, const std::string& text);
std::string write_document(const std::string& name, const char* text);

// Makes the condition NAME ("PORT3") exist with a value; on the device testbed by a rule that refers to it.
void make_condition(const std::string& name, const std::string& value = "1");

// The condition's value without the line break; nothing when there is no such condition.
std::optional<std::string> condition(const std::string& name);

// In a child between fork() and exec(): lets the program to come see the condition files of this process,
// which is `parent`. Nothing on the device testbed, where they are the kernel's own.
void share_conditions(int parent);

// A directory that vanishes with the process, for what a test or the support itself wants to keep.
std::string scratch_dir();

}  // namespace corvo::test
