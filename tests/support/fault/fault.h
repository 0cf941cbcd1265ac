// Faults at a chosen place of a call: the n-th allocation, socket, send, receive, wait, file operation,
// command, thread, look-up or service call of the code under test fails, everything else works.
//
//     for (int n = 1;; ++n) {
//         fault::Armed armed({fault::Kind::kReceive, n});
//         const int result = edit_rule(0, &rule);
//         if (!armed.disarm()) break;  // it needs fewer than n
//         EXPECT_TRUE(result < 0);
//     }
//
// Linking the target corvo_test_fault puts a layer between the executable (and every library that it has
// loaded) and the system: calls pass through it until a plan is armed. Only the arming thread and threads
// started while it is armed are disturbed; the test's own helpers (services, peers) are not. Allocations are
// those of operator new, of libnl and libmnl, and the library's own calloc.
//
// Threading: one plan at a time, armed and disarmed by one thread.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace corvo::test::fault {

enum class Kind {
    kNew,         // operator new
    kAllocation,  // malloc, calloc, realloc, strdup inside libnl and libmnl, calloc of the library
    kSocket,      // what gives a descriptor, binds, connects or sets an option
    kSend,
    kReceive,
    kWait,     // poll
    kLookup,   // if_nametoindex, getifaddrs, ioctl, gethostbyname_r
    kFile,     // open, read, write, stat, opendir of anything but the log
    kLog,      // the same of the log's own file
    kCommand,  // the start and the end of a child
    kThread,
    kService,  // vx_io_create and vx_call
};
inline constexpr int kKinds = 12;

const char* name_of(Kind kind);

// In how many ways a thing of this kind fails (EMFILE, EPERM, ...; for services: refused, hung, ...).
int variants(Kind kind);
// Whether it can stay: an interrupted call is repeated, and not interrupted for ever.
bool can_last(Kind kind, int variant);

struct Plan {
    Kind kind;
    int nth;               // counted from 1
    int variant = 0;       // below variants(kind)
    bool lasting = false;  // every later one of the kind fails, too

    std::string text() const;  // "receive #3 (EAGAIN)"
};

// What the services have to do with the call that comes next.
enum class ServiceFault {
    kNone,
    kRefused,
    kHang,
    kHalf,
    kClose,
    kEmpty,
    kGarbage,
    kWrongTypes,
    kHuge,
    kLate,
    kError
};

// For the test's service handler: the fault of the call that is being made, taken by the first who asks.
ServiceFault take_service_fault();

class Armed {
public:
    explicit Armed(const Plan& plan);
    ~Armed() { disarm(); }
    Armed(const Armed&) = delete;
    Armed& operator=(const Armed&) = delete;

    // Whether the fault struck; the place is in where(). Nothing is disturbed any more.
    bool disarm();
    // The function that failed: "sendto".
    std::string where() const;
};

// Whether a plan is armed.
bool under_fault();

// No fault strikes the calling thread while it lives: for what a test does itself between two calls.
class Spared {
public:
    Spared();
    ~Spared();
    Spared(const Spared&) = delete;
    Spared& operator=(const Spared&) = delete;
};

// Makes an argument undisturbed: setup_tun(0, spared(std::string, "all"), ...).
template <class T, class... Args>
T spared(Args&&... args) {
    const Spared here;
    return T(std::forward<Args>(args)...);
}

// The same on the heap, for an argument that is a reference.
template <class T, class... Args>
std::shared_ptr<T> spared_object(Args&&... args) {
    const Spared here;
    return std::make_shared<T>(std::forward<Args>(args)...);
}

// The argument vectors of all commands that the library has started, as it handed them over, while one lives.
class SpawnRecord {
public:
    SpawnRecord();
    ~SpawnRecord();
    SpawnRecord(const SpawnRecord&) = delete;
    SpawnRecord& operator=(const SpawnRecord&) = delete;

    std::vector<std::vector<std::string>> take();
};

// Service calls of disturbed threads get this many seconds in place of their own limit; 0: their own.
void set_service_limit(int seconds);

}  // namespace corvo::test::fault
