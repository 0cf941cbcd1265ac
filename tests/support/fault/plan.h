// What the interposed functions ask. Who may include this: this folder.
#pragma once

#include "support/fault/fault.h"

namespace corvo::test::fault {

// Whether the call of `where` that is about to be made has to fail; `variant` says how.
bool strikes(Kind kind, const char* where, int* variant = nullptr);

// Whether faults can strike the calling thread; a thread that it starts is a target, too.
bool is_target();
void become_target();

// The errno of a failed call of the kind.
int errno_of(Kind kind, int variant);

// Whether a path or a descriptor is the log's.
bool is_log(const char* path);
bool is_log(int fd);

int service_limit();
void set_service_fault(ServiceFault fault);

void note_spawn(char* const* argv);

// Turns the allocations inside libnl and libmnl to this layer.
void interpose_allocations();

}  // namespace corvo::test::fault
