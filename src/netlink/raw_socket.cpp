#include "netlink/raw_socket.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#include "foundation/log_line.h"
#include "foundation/result.h"
#include "netlink/nl.h"

namespace corvo::nl {

namespace {

constexpr int kLosses = 16;

void set_option(int fd, int option) {
    const int on = 1;
    ::setsockopt(fd, SOL_NETLINK, option, &on, sizeof on);  // older kernels do without
}

}  // namespace

std::atomic<bool> trace_refusals{::secure_getenv("CORVO_TRACE_NETLINK") != nullptr};

void trace_refusal(const MessageView& refusal, int error, std::string_view text) {
    nlmsgerr about{};
    if (!trace_refusals || !refusal.read_header(about)) return;
    const char* meaning = ::strerrordesc_np(error);
    log::trace("Netlink request ", about.msg.nlmsg_type, " refused: ", meaning ? meaning : "unknown error",
               text.empty() ? "" : ": ", text);
}

RawSocket::Opened RawSocket::open(std::unique_ptr<RawSocket>& socket, int protocol) {
    socket.reset(new (std::nothrow) RawSocket);
    if (!socket) return Opened::kNoMemory;
    auto fail = [&](Opened how) {
        socket.reset();
        return how;
    };
    socket->fd_.reset(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol));
    const int fd = socket->fd_.get();
    if (fd < 0) return fail(Opened::kNoDescriptor);
    // The kernel binds it with the first message.
    const timeval limit{kReceiveTimeoutSeconds, 0};
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) < 0) return fail(Opened::kNoTimeout);
    return Opened::kYes;
}

int RawSocket::open_as_result(std::unique_ptr<RawSocket>& socket, int protocol) {
    switch (open(socket, protocol)) {
        case Opened::kYes:
            return kOk;
        case Opened::kNoMemory:
            return kSocketFailed;
        default:
            return kConnectFailed;
    }
}

std::uint32_t RawSocket::next_sequence(std::uint32_t count) {
    if (sequence_ > 0xffffffffU - count - 1) sequence_ = 0;  // 0 is for unasked messages
    const std::uint32_t first = sequence_ + 1;
    sequence_ += count;
    return first;
}

bool RawSocket::send(Bytes bytes) {
    ssize_t sent;
    do {
        sent = ::send(fd(), bytes.data(), bytes.size(), 0);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(bytes.size());
}

Bytes RawSocket::receive(int& error) {
    for (;;) {
        sockaddr_nl from{};
        iovec part{buffer_, sizeof buffer_};
        msghdr head{};
        head.msg_name = &from;
        head.msg_namelen = sizeof from;
        head.msg_iov = &part;
        head.msg_iovlen = 1;
        const ssize_t got = ::recvmsg(fd(), &head, 0);
        if (got < 0) {
            if (errno == EINTR) continue;
            error = errno;
            return {};
        }
        if (from.nl_pid != 0) continue;  // not the kernel
        error = (head.msg_flags & MSG_TRUNC) != 0 ? EMSGSIZE : 0;
        if (error != 0 || got == 0) {
            if (error == 0) error = EBADMSG;
            return {};
        }
        return {buffer_, static_cast<std::size_t>(got)};
    }
}

void RawSocket::drain() {
    // A loss is reported once; a socket that reports it again and again is given up.
    int losses = 0;
    while (losses < kLosses) {
        if (::recv(fd(), buffer_, sizeof buffer_, MSG_DONTWAIT) >= 0) continue;
        if (errno != ENOBUFS && errno != EINTR) break;
        ++losses;
    }
}

void RawSocket::prepare_for_many(int bytes) {
    set_option(fd(), NETLINK_CAP_ACK);
    if (::setsockopt(fd(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) < 0) {
        ::setsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    }
}

void RawSocket::ask_for_words() {
    if (explained_) return;
    set_option(fd(), NETLINK_CAP_ACK);
    set_option(fd(), NETLINK_EXT_ACK);
    explained_ = true;
}

unsigned RawSocket::link_index(const char* name) const {
    if (!name || !*name || std::strlen(name) >= IFNAMSIZ) return 0;
    ifreq request{};
    std::strcpy(request.ifr_name, name);
    return ::ioctl(fd(), SIOCGIFINDEX, &request) < 0 ? 0U : static_cast<unsigned>(request.ifr_ifindex);
}

int read_error(const MessageView& message, std::string* text) {
    nlmsgerr error{};
    if (!message.read_header(error)) return EBADMSG;
    if (error.error == 0) return 0;
    if (text && (message.head.nlmsg_flags & NLM_F_ACK_TLVS) != 0) {
        std::size_t skip = sizeof error;
        if ((message.head.nlmsg_flags & NLM_F_CAPPED) == 0) skip += error.msg.nlmsg_len - sizeof error.msg;
        for (const Attr& attr : message.attrs(skip)) {
            if (attr.type == NLMSGERR_ATTR_MSG) text->assign(attr.text());
        }
    }
    return error.error < 0 ? -error.error : EBADMSG;
}

Answer RawSocket::transact(MessageWriter& request) {
    return exchange(request, Wanted::kAck, nullptr, nullptr);
}

Answer RawSocket::query(MessageWriter& request, const std::function<void(const MessageView&)>& visit) {
    return exchange(request, Wanted::kOne, &visit, nullptr);
}

Answer RawSocket::dump(MessageWriter& request, const std::function<void(const MessageView&)>& visit,
                       bool& interrupted) {
    interrupted = false;
    return exchange(request, Wanted::kDump, &visit, &interrupted);
}

Answer RawSocket::exchange(MessageWriter& request, Wanted wanted,
                           const std::function<void(const MessageView&)>* visit, bool* interrupted) {
    using Outcome = Answer::Outcome;
    ask_for_words();
    if (wanted == Wanted::kDump) set_option(fd(), NETLINK_GET_STRICT_CHK);
    const std::uint32_t sequence = next_sequence(1);
    std::memcpy(request.data() + offsetof(nlmsghdr, nlmsg_seq), &sequence, sizeof sequence);
    if (!send(request.bytes())) return {Outcome::kSendFailed, errno, {}};
    for (;;) {
        int error = 0;
        Bytes datagram = receive(error);
        if (error != 0) return {Outcome::kReceiveFailed, error, {}};
        MessageView message;
        while (next_message(datagram, message)) {
            if (message.head.nlmsg_seq != sequence) continue;  // an answer that came after its time-out
            if (interrupted && (message.head.nlmsg_flags & NLM_F_DUMP_INTR) != 0) *interrupted = true;
            if (message.head.nlmsg_type == NLMSG_ERROR) {
                Answer answer;
                answer.error = read_error(message, &answer.text);
                if (answer.error != 0) {
                    answer.outcome = Outcome::kRefused;
                    trace_refusal(message, answer.error, answer.text);
                }
                return answer;
            }
            if (message.head.nlmsg_type == NLMSG_DONE) {
                int status = 0;  // the end of a dump carries its own error
                if (message.read_header(status) && status < 0) return {Outcome::kRefused, -status, {}};
                return {};
            }
            if (visit) (*visit)(message);
            if (wanted == Wanted::kOne) return {};
        }
    }
}

Answer consistent_dump(RawSocket& socket, MessageWriter& request, const std::function<void()>& restart,
                       const std::function<void(const MessageView&)>& visit) {
    Answer answer;
    bool interrupted = true;
    for (int attempt = 0; interrupted && attempt < kDumpAttempts; ++attempt) {
        restart();
        answer = socket.dump(request, visit, interrupted);
        if (!answer.done()) break;
    }
    return answer;
}

}  // namespace corvo::nl
