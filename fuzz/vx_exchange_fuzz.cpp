// Both ends of a connection against a peer that sends anything, in pieces of any size.
//
// First byte: bit 0 chooses the side that is tested, the rest the size of the pieces.

#include <sys/socket.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "connection.h"
#include "exchange.h"
#include "foundation/fd.h"
#include "vx_serve.h"

namespace {

using Clock = std::chrono::steady_clock;

void require(bool condition) {
    if (!condition) std::abort();
}

struct Pair {
    corvo::UniqueFd ours;
    corvo::UniqueFd theirs;
};

Pair make_pair() {
    int fds[2];
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds) == 0);
    return {corvo::UniqueFd(fds[0]), corvo::UniqueFd(fds[1])};
}

void caller(std::string_view bytes) {
    Pair pair = make_pair();
    if (::send(pair.theirs.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0 && !bytes.empty()) return;
    ::shutdown(pair.theirs.get(), SHUT_WR);
    std::string reply;
    const int result =
        vx::converse(pair.ours.get(), "fuzz", "fuzz", "{}", Clock::now() + std::chrono::seconds(5), reply);
    require(result <= 0);
    require(result != -ETIMEDOUT);  // the peer has closed: there is nothing to wait for
    if (result != 0) require(reply.empty());
    if (result == 0) {
        const auto head = vx::wire::parse_reply_head(bytes);
        require(head.status == vx::wire::Status::kOk);
        require(reply == bytes.substr(vx::wire::kHeader));
    }
}

void server(std::string_view bytes, std::size_t piece) {
    Pair pair = make_pair();
    const vx::ServerOptions options;
    vx::Connection connection(std::move(pair.ours), 0, Clock::now(), options);
    char scratch[512];
    while (connection.phase() == vx::Connection::Phase::kReading && !bytes.empty()) {
        const auto part = bytes.substr(0, piece);
        if (::send(pair.theirs.get(), part.data(), part.size(), MSG_NOSIGNAL) < 0) return;
        bytes.remove_prefix(part.size());
        connection.receive(scratch, sizeof scratch);
        if (connection.phase() == vx::Connection::Phase::kReading && connection.has_request()) {
            connection.answer(vx::Reply::text(std::string(connection.request().payload)), Clock::now());
        }
    }
    const auto end = connection.end();
    if (end == vx::Connection::End::kServed) {
        char head[vx::wire::kHeader];
        require(::recv(pair.theirs.get(), head, sizeof head, 0) == static_cast<ssize_t>(sizeof head));
        require(vx::wire::parse_reply_head({head, sizeof head}).progress == vx::wire::Progress::kDone);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    if ((data[0] & 1U) != 0) {
        caller(bytes);
    } else {
        server(bytes, 1 + (data[0] >> 1U));
    }
    return 0;
}
