#include "listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "address.h"

namespace vx {

namespace {

[[noreturn]] void fail(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

}  // namespace

Listener::Listener(const std::string& directory, std::string service, mode_t mode)
    : service_(std::move(service)),
      path_(socket_path(directory, service_)),
      lock_path_(directory + "/." + service_ + ".lock"),
      mode_(mode) {}

void Listener::open() {
    sockaddr_un address;
    if (!fill_address(path_, address)) fail(ENAMETOOLONG, path_);
    corvo::UniqueFd lock(::open(lock_path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock) fail(errno, lock_path_);
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        fail(errno == EWOULDBLOCK ? EADDRINUSE : errno, "service " + service_);
    }
    if (::unlink(path_.c_str()) != 0 && errno != ENOENT) fail(errno, path_);

    corvo::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) fail(errno, "socket");
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fail(errno, path_);
    // Before listen nobody can connect, so the file never has a wider mode than it should.
    if (::chmod(path_.c_str(), mode_) != 0) fail(errno, path_);
    if (::listen(fd.get(), SOMAXCONN) != 0) fail(errno, path_);
    lock_ = std::move(lock);
    fd_ = std::move(fd);
}

void Listener::close() {
    if (fd_) ::unlink(path_.c_str());
    crash();
}

void Listener::crash() {
    fd_.reset();
    lock_.reset();
}

void make_directories(const std::string& directory) {
    for (std::size_t at = 1; at != std::string::npos;) {
        at = directory.find('/', at);
        const std::string part = directory.substr(0, at);
        if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) fail(errno, part);
        if (at != std::string::npos) ++at;
    }
}

}  // namespace vx
