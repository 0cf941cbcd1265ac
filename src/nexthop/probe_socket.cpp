#include "nexthop/probe_socket.h"

#include <sys/socket.h>

namespace corvo {

bool set_management_mark(int fd) {
    return ::setsockopt(fd, SOL_SOCKET, SO_MARK, &kManagementMark, sizeof kManagementMark) == 0;
}

}  // namespace corvo
