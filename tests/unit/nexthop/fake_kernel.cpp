#include "fake_kernel.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

std::atomic<corvo::test::FakeKernel*> kernel{nullptr};

template <class Function>
Function real(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

std::string dotted(const sockaddr* address) {
    const auto* in = reinterpret_cast<const sockaddr_in*>(address);
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
    return text;
}

std::string with_port(const sockaddr* address) {
    return dotted(address) + ":" +
           std::to_string(ntohs(reinterpret_cast<const sockaddr_in*>(address)->sin_port));
}

// -1 with errno when the call is told to fail, else 0.
int injected(const char* call) {
    auto* fake = corvo::test::FakeKernel::current();
    if (fake == nullptr) return 0;
    const int error = fake->error_of(call);
    if (error == 0) return 0;
    errno = error;
    return -1;
}

}  // namespace

namespace corvo::test {

FakeKernel::FakeKernel() {
    kernel = this;
}

FakeKernel::~FakeKernel() {
    {
        std::unique_lock hold(lock_);
        going_ = true;
        gone_.notify_all();
        gone_.wait(hold, [&] { return resolving_ == 0; });
    }
    kernel = nullptr;
    for (auto& thread : late_) thread.join();
    for (auto& [fd, socket] : sockets_) ::close(socket.peer);
    for (const int fd : old_peers_) ::close(fd);
}

FakeKernel* FakeKernel::current() {
    return kernel;
}

void FakeKernel::fail(const std::string& call, int error, int times) {
    std::lock_guard hold(lock_);
    failures_[call] = {error, times};
}

void FakeKernel::heal(const std::string& call) {
    std::lock_guard hold(lock_);
    failures_.erase(call);
}

int FakeKernel::error_of(const std::string& call) {
    std::lock_guard hold(lock_);
    const auto found = failures_.find(call);
    if (found == failures_.end() || found->second.times == 0) return 0;
    --found->second.times;
    return found->second.error;
}

std::vector<std::string> FakeKernel::calls() {
    std::lock_guard hold(lock_);
    return calls_;
}

std::size_t FakeKernel::count(const std::string& beginning) {
    std::size_t number = 0;
    for (const auto& call : calls()) number += call.starts_with(beginning) ? 1 : 0;
    return number;
}

std::vector<std::string> FakeKernel::sent() {
    std::lock_guard hold(lock_);
    return sent_;
}

void FakeKernel::note(const std::string& call) {
    std::lock_guard hold(lock_);
    calls_.push_back(call);
}

int FakeKernel::open_socket(int type, int protocol) {
    note("socket 2 " + std::to_string(type & 0xf) + " " + std::to_string(protocol) +
         ((type & SOCK_CLOEXEC) != 0 ? "" : " inherited"));
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) != 0) return -1;
    std::lock_guard hold(lock_);
    Socket& socket = sockets_[ends[0]];
    if (socket.peer >= 0) old_peers_.push_back(socket.peer);  // an earlier socket had this number
    socket = Socket{};
    socket.peer = ends[1];
    newest_ = ends[0];
    return ends[0];
}

bool FakeKernel::owns(int fd) {
    std::lock_guard hold(lock_);
    return sockets_.contains(fd);
}

int FakeKernel::peer_of(int fd) {
    std::lock_guard hold(lock_);
    return sockets_[fd].peer;
}

int FakeKernel::left_open() {
    std::lock_guard hold(lock_);
    // Sending to the other end fails when nobody has that open any more.
    int open = 0;
    for (const auto& [fd, socket] : sockets_)
        open += ::send(socket.peer, "", 0, MSG_DONTWAIT | MSG_NOSIGNAL) == 0;
    for (const int fd : old_peers_) open += ::send(fd, "", 0, MSG_DONTWAIT | MSG_NOSIGNAL) == 0;
    return open;
}

void FakeKernel::push(int fd, const FakeReply& reply) {
    std::lock_guard hold(lock_);
    Socket& socket = sockets_[fd];
    socket.queued.push_back(reply);
    ::send(socket.peer, reply.bytes.data(), reply.bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

void FakeKernel::arrive(const FakeReply& packet) {
    std::unique_lock hold(lock_);
    const int fd = newest_;
    hold.unlock();
    push(fd, packet);
}

void FakeKernel::deliver(int fd, const std::string& to, const std::string& packet) {
    {
        std::lock_guard hold(lock_);
        sent_.push_back(packet);
    }
    const auto peer = peers.find(to);
    if (peer == peers.end()) return;
    for (const auto& reply : peer->second(packet)) {
        if (reply.after.count() == 0) {
            push(fd, reply);
            continue;
        }
        const int socket = peer_of(fd);
        std::thread later([this, fd, reply, socket] {
            std::unique_lock wait(lock_);
            gone_.wait_for(wait, reply.after, [&] { return going_; });
            if (going_ || sockets_[fd].peer != socket) return;
            wait.unlock();
            push(fd, reply);
        });
        std::lock_guard hold(lock_);
        late_.push_back(std::move(later));
    }
}

sockaddr_in FakeKernel::next_source(int fd) {
    std::lock_guard hold(lock_);
    sockaddr_in from{};
    from.sin_family = AF_INET;
    auto& queued = sockets_[fd].queued;
    if (queued.empty()) return from;
    inet_pton(AF_INET, queued.front().from, &from.sin_addr);
    from.sin_port = htons(static_cast<std::uint16_t>(queued.front().port));
    queued.erase(queued.begin());
    return from;
}

bool FakeKernel::block_resolver() {
    std::unique_lock hold(lock_);
    ++resolving_;
    gone_.wait(hold, [&] { return going_; });
    --resolving_;
    gone_.notify_all();
    return true;
}

FakeKernel::Peer echo_peer(std::chrono::milliseconds after) {
    return [after](const std::string& packet) -> std::vector<FakeReply> {
        std::string reply(20, 'E');
        reply.append(1, '\0').append(packet, 1);
        return {{reply, after}};
    };
}

FakeKernel::Peer saying(const std::string& bytes) {
    return [bytes](const std::string&) -> std::vector<FakeReply> { return {{bytes}}; };
}

}  // namespace corvo::test

using corvo::test::FakeKernel;

extern "C" {

int socket(int domain, int type, int protocol) {
    auto* fake = FakeKernel::current();
    if (fake == nullptr || domain != AF_INET)
        return real<decltype(&socket)>("socket")(domain, type, protocol);
    return injected("socket") != 0 ? -1 : fake->open_socket(type, protocol);
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t size) {
    auto* fake = FakeKernel::current();
    if (fake == nullptr || level != SOL_SOCKET || !fake->owns(fd))
        return real<decltype(&setsockopt)>("setsockopt")(fd, level, option, value, size);
    int number = 0;
    switch (option) {
        case SO_MARK:
            std::memcpy(&number, value, sizeof number);
            fake->note("SO_MARK " + std::to_string(number));
            return injected("SO_MARK");
        case SO_BINDTODEVICE:
            fake->note("SO_BINDTODEVICE " + std::string(static_cast<const char*>(value), size));
            return injected("SO_BINDTODEVICE");
        case SO_RCVTIMEO: {
            timeval time{};
            std::memcpy(&time, value, sizeof time);
            fake->note("SO_RCVTIMEO " + std::to_string(time.tv_sec) + "." + std::to_string(time.tv_usec));
            return injected("SO_RCVTIMEO");
        }
        default:
            return 0;
    }
}

int bind(int fd, const sockaddr* address, socklen_t size) {
    auto* fake = FakeKernel::current();
    if (fake == nullptr || !fake->owns(fd)) return real<decltype(&bind)>("bind")(fd, address, size);
    fake->note("bind " + with_port(address));
    return injected("bind");
}

ssize_t sendto(int fd, const void* data, size_t size, int flags, const sockaddr* to, socklen_t to_size) {
    auto* fake = FakeKernel::current();
    if (fake == nullptr || to == nullptr || !fake->owns(fd))
        return real<decltype(&sendto)>("sendto")(fd, data, size, flags, to, to_size);
    fake->note("sendto " + with_port(to));
    if (injected("sendto") != 0) return -1;
    fake->deliver(fd, dotted(to), std::string(static_cast<const char*>(data), size));
    return static_cast<ssize_t>(size);
}

ssize_t recvfrom(int fd, void* data, size_t size, int flags, sockaddr* from, socklen_t* from_size) {
    auto* fake = FakeKernel::current();
    const auto receive = real<decltype(&recvfrom)>("recvfrom");
    if (fake == nullptr || from == nullptr || !fake->owns(fd))
        return receive(fd, data, size, flags, from, from_size);
    if (injected("recvfrom") != 0) return -1;
    const ssize_t got = receive(fd, data, size, flags, nullptr, nullptr);
    if (got >= 0) {
        const sockaddr_in source = fake->next_source(fd);
        std::memcpy(from, &source, sizeof source);
        *from_size = sizeof source;
    }
    return got;
}

int poll(pollfd* wait, nfds_t count, int timeout) {
    // Looking whether a stop was requested (no time to wait) is not what the tests make fail.
    if (count == 2 && timeout != 0 && injected("poll") != 0) return -1;
    return real<decltype(&poll)>("poll")(wait, count, timeout);
}

pid_t getpid(void) {
    auto* fake = FakeKernel::current();
    if (fake != nullptr && fake->process != 0) return fake->process;
    return real<decltype(&getpid)>("getpid")();
}

int gethostbyname_r(const char* name, hostent* entry, char* buffer, size_t size, hostent** result,
                    int* reason) {
    auto* fake = FakeKernel::current();
    if (fake == nullptr)
        return real<decltype(&gethostbyname_r)>("gethostbyname_r")(name, entry, buffer, size, result, reason);
    *result = nullptr;
    *reason = HOST_NOT_FOUND;
    const auto found = fake->names.find(name);
    if (found == fake->names.end()) return 0;
    if (found->second == "block") {
        fake->block_resolver();
        return 0;
    }
    if (found->second == "large" && size < 4096) return ERANGE;
    auto* list = reinterpret_cast<char**>(buffer);
    char* address = buffer + 2 * sizeof(char*);
    inet_pton(AF_INET, found->second == "large" ? "192.0.2.1" : found->second.c_str(), address);
    list[0] = address;
    list[1] = nullptr;
    entry->h_addrtype = AF_INET;
    entry->h_length = 4;
    entry->h_addr_list = list;
    *result = entry;
    return 0;
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) {
    auto* fake = FakeKernel::current();
    if (fake != nullptr) {
        if (const int error = fake->error_of("pthread_create"); error != 0) return error;
    }
    return real<decltype(&pthread_create)>("pthread_create")(thread, attributes, body, argument);
}

}  // extern "C"
