// Raw netlink exchanges: send, acknowledgement, one answer, a dump.
//
// Who may include this: every area that speaks netlink. One socket is one conversation with the kernel and
// belongs to one thread; it is close-on-exec and every receive ends after kReceiveTimeoutSeconds at the
// latest. Answers are accepted from the kernel only and only with the sequence number of the request.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "foundation/fd.h"
#include "netlink/message.h"

namespace corvo::nl {

// How an exchange ended.
struct Answer {
    enum class Outcome {
        kDone,           // the kernel did it
        kRefused,        // the kernel said no: `error`
        kSendFailed,     // nothing reached the kernel
        kReceiveFailed,  // no answer in time, or one that was cut off
    };
    Outcome outcome = Outcome::kDone;
    int error = 0;     // positive errno
    std::string text;  // what the kernel had to say about the error, often nothing

    bool done() const { return outcome == Outcome::kDone; }
    bool refused() const { return outcome == Outcome::kRefused; }
};

class RawSocket {
public:
    // How far opening got.
    enum class Opened { kYes, kNoMemory, kNoDescriptor, kNoTimeout };

    // A new socket of `protocol`. Dumps with the strict flag are filtered by the kernel where it can.
    static Opened open(std::unique_ptr<RawSocket>& socket, int protocol = NETLINK_ROUTE);

    // The same, as the result code of a function that is told apart by "allocation" (-3008) and "connect"
    // (-3009, which is where libnl makes its descriptor).
    static int open_as_result(std::unique_ptr<RawSocket>& socket, int protocol = NETLINK_ROUTE);

    int fd() const { return fd_.get(); }

    // Sends the one message of `request` (its sequence number is set here, NLM_F_ACK is the caller's) and
    // waits for its acknowledgement.
    Answer transact(MessageWriter& request);

    // The same for a request that is answered by one message: `visit` sees it. An error instead is kRefused.
    Answer query(MessageWriter& request, const std::function<void(const MessageView&)>& visit);

    // A dump: `visit` sees every message until the end. `interrupted` says that the kernel's objects changed
    // meanwhile, so that some may be missing or seen twice.
    Answer dump(MessageWriter& request, const std::function<void(const MessageView&)>& visit,
                bool& interrupted);

    // For many messages in one datagram: the caller numbers them from next_sequence(count) on, sends, and
    // receives until it has seen the last one's acknowledgement.
    std::uint32_t next_sequence(std::uint32_t count);
    bool send(Bytes bytes);
    // One datagram of the kernel, or an empty one: `error` then is the errno (EAGAIN is the time-out, ENOBUFS
    // says that answers were lost).
    Bytes receive(int& error);
    // Throws away what is still to be read, without waiting.
    void drain();
    // More room for answers and less of it for each, for the many of a batch.
    void prepare_for_many(int bytes);
    // Refusals then come with the kernel's words; without them a batch of refusals costs less.
    void ask_for_words();

    // The index of the device, or 0: one request on this socket's descriptor.
    unsigned link_index(const char* name) const;

    RawSocket(const RawSocket&) = delete;
    RawSocket& operator=(const RawSocket&) = delete;

private:
    RawSocket() = default;

    enum class Wanted { kAck, kOne, kDump };
    Answer exchange(MessageWriter& request, Wanted wanted,
                    const std::function<void(const MessageView&)>* visit, bool* interrupted);

    UniqueFd fd_;
    std::uint32_t sequence_ = 0;
    bool explained_ = false;  // refusals come with the kernel's words
    // What the kernel fills at most with one part of a dump. Not cleared: most exchanges touch little of it.
    std::uint8_t buffer_[32768];
};

// The error of an NLMSG_ERROR message: 0 for an acknowledgement, else a positive errno; `text` gets the
// kernel's explanation when it sent one.
int read_error(const MessageView& message, std::string* text = nullptr);

// Whether refusals go to the log as trace lines with the kernel's words: callers' lines have room for the
// code only. Off unless the environment of the process has CORVO_TRACE_NETLINK.
extern std::atomic<bool> trace_refusals;
void trace_refusal(const MessageView& refusal, int error, std::string_view text);

// How often a dump is repeated when it was interrupted. Its last attempt counts as it is.
inline constexpr int kDumpAttempts = 16;

// A dump that starts again when it was interrupted. `restart` is called before every attempt and forgets what
// the previous one gave.
Answer consistent_dump(RawSocket& socket, MessageWriter& request, const std::function<void()>& restart,
                       const std::function<void(const MessageView&)>& visit);

}  // namespace corvo::nl
