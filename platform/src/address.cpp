#include "address.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdlib>
#include <cstring>

#include "vx_serve.h"

namespace vx {

std::string runtime_dir() {
    // secure_getenv: a program with file capabilities must not be led to somebody else's sockets.
    const char* chosen = ::secure_getenv("VX_RUNTIME_DIR");
    return chosen != nullptr && *chosen != '\0' ? chosen : "/run/vx";
}

std::string socket_path(const std::string& directory, std::string_view service) {
    std::string path;
    path.reserve(directory.size() + service.size() + 6);
    return path.append(directory).append("/").append(service).append(".sock");
}

bool fill_address(const std::string& path, sockaddr_un& address) {
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.data(), path.size());
    return true;
}

}  // namespace vx
