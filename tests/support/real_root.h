// Where the machine's own tools are once recorders stand in their places.
#pragma once

#include <string>

namespace corvo::test {

// The path at which the file that the machine has as `path` ("/sbin/x", "/usr/bin/x", ...) can always be
// reached. `path` itself outside of a sandbox.
std::string untouched(const std::string& path);

// `path` with the merged folders under their own names: "/sbin/x" is "/usr/sbin/x".
std::string merged(const std::string& path);

namespace detail {
// Where the sandbox keeps its view of /usr; empty: there is none.
extern std::string real_usr;
}  // namespace detail

}  // namespace corvo::test
