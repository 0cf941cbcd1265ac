// Shaping of WAN, private and regional interfaces and of the LAN ports.
#pragma once

#include "edged/desired.h"
#include "edged/ledger.h"
#include "edged/links.h"

namespace edged {

// Rebuilds the trees whose rates or shares are others than those in the kernel, and removes those that
// `desired` does not have.
void apply_shaping(const Desired& desired, const std::string& work_directory, Ledger& ledger, Report& report);

// Whether an interface to be shaped has come, or is another device than the one that was shaped.
bool shaping_device_changed(const Desired& desired, const Ledger& ledger);

// Removes every tree that the ledger knows.
void remove_shaping(const std::string& work_directory, Ledger& ledger, Report& report);

}  // namespace edged
