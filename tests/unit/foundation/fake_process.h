// Stand-ins for what a process gets from its surroundings: the tools it starts, the number of processors, the
// cancellation state. The test executable defines the C library's functions itself and passes on what no test
// has asked to change.
#pragma once

#include <string>
#include <vector>

namespace fake_process {

using Argv = std::vector<std::string>;

// Every start whose command line (the words joined by blanks) begins with `prefix` runs `script` with /bin/sh
// instead; the words are its $0, $1, ...
void replace(const std::string& prefix, const std::string& script);

// Every start fails with this error number (0: none does).
void refuse_starts(int error);

// What was started, in order.
std::vector<Argv> started();

// get_nprocs() gives this (0: the truth).
void processors(int number);

// The next calls of pthread_setcancelstate with this state fail.
void refuse_cancel_state(int state);

// The next waitpid() asks for the cancellation of its thread first, as a daemon may at any moment.
void cancel_at_wait();

// syscall(SYS_pidfd_open) fails, as on a kernel that does not have it.
void refuse_process_descriptors();

// What opendir() was called with, in order.
std::vector<std::string> opened_directories();

void reset();

}  // namespace fake_process
