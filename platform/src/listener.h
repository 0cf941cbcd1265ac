// A service's listening socket.
#pragma once

#include <sys/types.h>

#include <string>

#include "foundation/fd.h"

namespace vx {

// Owns the socket and its file. A lock file beside it, locked for as long as the owner lives, tells a socket
// in use from one that a dead process left behind; it stays when the listener goes, so that two owners never
// lock two different files.
class Listener {
public:
    Listener(const std::string& directory, std::string service, mode_t mode);

    void open();   // throws std::system_error
    void close();  // removes the socket file
    void crash();  // leaves it

    int fd() const { return fd_.get(); }  // -1 while closed
    const std::string& service() const { return service_; }

private:
    std::string service_;
    std::string path_;
    std::string lock_path_;
    mode_t mode_;
    corvo::UniqueFd lock_;
    corvo::UniqueFd fd_;
};

// Creates `directory` and its parents, mode 0755. Throws std::system_error.
void make_directories(const std::string& directory);

}  // namespace vx
