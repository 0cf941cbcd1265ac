// The namespaces and mounts behind sandbox.h. Tests do not include this.
#pragma once

#include <string>

namespace corvo::test::isolation {

// All of the sandbox's own files are on one tmpfs, under this.
inline constexpr const char* kOwnDir = "/run/sandbox";

// Throws std::runtime_error with `what` and errno's text unless `good`.
void check(bool good, const std::string& what);

// Continues in a child that is in process, mount, network and IPC namespaces of its own; the process that
// called it never comes back from here but waits, and ends as the child ends (by the same signal, with the
// same status). Whatever the child leaves running is ended with it, and it ends when this process does.
void enter();

// Makes the private view of the file system. Once per process, after enter().
void build_view();

// Gives the process a new network namespace and empties the private view.
void renew();

// Lays a writable layer of its own over the directory `path`; what is written there is kept under `name`.
void overlay(const std::string& path, const std::string& name);

// Makes the private view of /proc/net for the calling process; its condition files are those in the directory
// `shared`, own ones when that is empty.
void make_condition_dir(const std::string& shared = {});

void loopback_up();

}  // namespace corvo::test::isolation
