#include "netlink/nl.h"

#include <netlink/errno.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "foundation/result.h"

namespace corvo::nl {

int open_socket(Socket& socket, int protocol) {
    socket.reset(nl_socket_alloc());
    if (!socket) return kSocketFailed;
    if (nl_connect(socket.get(), protocol) < 0) {
        socket.reset();
        return kConnectFailed;
    }
    const timeval limit{kReceiveTimeoutSeconds, 0};
    if (::setsockopt(nl_socket_get_fd(socket.get()), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) < 0) {
        socket.reset();
        return kConnectFailed;
    }
    return kOk;
}

int libnl_error(int kernel_errno) {
    return kernel_errno == 0 ? 0 : -nl_syserr2nlerr(kernel_errno);
}

}  // namespace corvo::nl
