// The decision about one neighbour entry, and the names of the states.
#pragma once

#include <string>

#include "netlink/neigh_query.h"

class ProcNeigh;

namespace corvo {

// Takes the entry over into the probe: an unusable state clears the target's address, a usable one stores it
// if the entry is the target's.
void judge_neighbour(ProcNeigh& probe, const Neighbour& entry);

// Entries of neigh_state_str and neigh_stat_mapping; an unknown value gets an empty entry. Threading: any
// thread, the end of the process included (empty texts then).
std::string neighbour_state_text(int state);
std::string link_status_text(int status);

}  // namespace corvo
