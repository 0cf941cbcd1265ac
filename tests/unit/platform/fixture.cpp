#include "fixture.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>

#include "address.h"
#include "wire.h"

namespace platform_test {

namespace {

sockaddr_un address_of(const std::string& service) {
    sockaddr_un address;
    if (!vx::fill_address(vx::socket_path(vx::runtime_dir(), service), address)) {
        throw std::runtime_error("socket path too long");
    }
    return address;
}

}  // namespace

CallResult call(const std::string& service, const std::string& method, const std::string& request,
                int limit) {
    CallResult out;
    void* io = vx_io_create();
    if (!request.empty()) {
        EXPECT_EQ(vx_io_printf(io, "%s", request.c_str()), 0);
    }
    const auto begun = std::chrono::steady_clock::now();
    out.result = vx_call(service.c_str(), method.c_str(), io, limit, -1);
    out.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
    std::uint64_t length = 0;
    const char* text = vx_io_read(io, &length);
    out.replied = text != nullptr;
    if (text != nullptr) out.reply.assign(text, length);
    vx_io_free(io);
    return out;
}

RawService::RawService(const std::string& service, std::function<void(int)> body)
    : listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)), stop_(::eventfd(0, EFD_CLOEXEC)) {
    const sockaddr_un address = address_of(service);
    if (::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_.get(), 16) != 0) {
        throw std::runtime_error("RawService: cannot listen");
    }
    thread_ = std::thread([this, body = std::move(body)] {
        for (;;) {
            pollfd wait[2] = {{stop_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
            ::poll(wait, 2, -1);
            if (wait[0].revents != 0) return;
            const corvo::UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (client) body(client.get());
        }
    });
}

RawService::~RawService() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(stop_.get(), &one, sizeof one);
    thread_.join();
}

corvo::UniqueFd connect_raw(const std::string& service) {
    const sockaddr_un address = address_of(service);
    corvo::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fd.reset();
    return fd;
}

void send_raw(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0) return;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

std::string read_to_end(int fd, bool& closed, int seconds) {
    std::string out;
    closed = false;
    for (;;) {
        pollfd wait{fd, POLLIN, 0};
        if (::poll(&wait, 1, seconds * 1000) != 1) return out;
        char part[4096];
        const ssize_t got = ::recv(fd, part, sizeof part, 0);
        if (got <= 0) {
            closed = true;
            return out;
        }
        out.append(part, static_cast<std::size_t>(got));
    }
}

std::string read_request(int fd) {
    std::string bytes;
    char part[64 << 10];
    while (vx::wire::parse_request(bytes).progress == vx::wire::Progress::kMore) {
        const ssize_t got = ::recv(fd, part, sizeof part, 0);
        if (got <= 0) break;
        bytes.append(part, static_cast<std::size_t>(got));
    }
    return bytes;
}

void serve_echo(vx::Server& server) {
    server.handle("echo", "echo",
                  [](const vx::Call& call) { return vx::Reply::text(std::string(call.payload)); });
    server.handle("echo", "throw", [](const vx::Call&) -> vx::Reply { throw std::runtime_error("no"); });
    server.handle("echo", "refuse", [](const vx::Call&) { return vx::Reply::refused(); });
    server.handle("echo", "slow", [](const vx::Call&) {
        vx::Reply reply = vx::Reply::text("late");
        reply.delay = std::chrono::milliseconds(300);
        return reply;
    });
    server.handle("echo", "large", [](const vx::Call& call) {
        return vx::Reply::text(std::string(std::stoul(std::string(call.payload)), 'x'));
    });
}

}  // namespace platform_test
