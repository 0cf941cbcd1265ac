// The system calls behind the probes, answered by the test: no root, no network, every failure on demand.
//
// The executable's own definitions of socket, setsockopt, bind, sendto, recvfrom, poll, getpid,
// gethostbyname_r and pthread_create take the place of the C library's. They do what those do unless a
// FakeKernel is there and the call is about an IPv4 socket or is told to fail.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace corvo::test {

// What a peer sends back: after a while, from somewhere.
struct FakeReply {
    std::string bytes;
    std::chrono::milliseconds after{0};
    const char* from = "203.0.113.9";
    int port = 7788;
};

class FakeKernel {
public:
    // A peer: what it answers to one packet.
    using Peer = std::function<std::vector<FakeReply>(const std::string& packet)>;

    FakeKernel();
    ~FakeKernel();
    FakeKernel(const FakeKernel&) = delete;
    FakeKernel& operator=(const FakeKernel&) = delete;

    // Peers by dotted address; packets to everybody else are lost.
    std::map<std::string, Peer> peers;

    // Calls that fail from now on (`times` of them, -1: all), with their errno: "socket", "bind", "sendto",
    // "recvfrom", "poll", "pthread_create", and the options by their names: "SO_MARK", "SO_BINDTODEVICE",
    // "SO_RCVTIMEO".
    void fail(const std::string& call, int error, int times = -1);
    void heal(const std::string& call);

    // What getpid() gives, 0: the real one.
    std::atomic<int> process{0};

    // Names that resolve; "block" in place of an address keeps the resolver busy until the kernel is gone.
    std::map<std::string, std::string> names;

    // The calls about IPv4 sockets in their order: "socket 2 3 1", "SO_MARK 960", "SO_BINDTODEVICE ppp0",
    // "SO_RCVTIMEO 2.0", "bind 0.0.0.0:0", "sendto 192.0.2.1:7788".
    std::vector<std::string> calls();
    std::size_t count(const std::string& beginning);
    std::vector<std::string> sent();  // the packets
    int left_open();                  // IPv4 sockets that were never closed

    // A packet that nobody asked for, at the IPv4 socket that was opened last.
    void arrive(const FakeReply& packet);

    // Used by the replaced calls.
    static FakeKernel* current();
    int error_of(const std::string& call);  // 0: it does not fail this time
    int open_socket(int type, int protocol);
    bool owns(int fd);
    void note(const std::string& call);
    void deliver(int fd, const std::string& to, const std::string& packet);
    sockaddr_in next_source(int fd);
    bool block_resolver();

private:
    struct Socket {
        int peer = -1;
        std::vector<FakeReply> queued;
    };
    struct Failure {
        int error = 0;
        int times = -1;
    };
    int peer_of(int fd);
    void push(int fd, const FakeReply& reply);

    std::mutex lock_;
    std::condition_variable gone_;
    bool going_ = false;
    int resolving_ = 0;
    std::map<std::string, Failure> failures_;
    std::map<int, Socket> sockets_;
    int newest_ = -1;
    std::vector<int> old_peers_;
    std::vector<std::string> calls_;
    std::vector<std::string> sent_;
    std::vector<std::thread> late_;
};

// Peers.
FakeKernel::Peer echo_peer(std::chrono::milliseconds after = {});  // answers echo requests
FakeKernel::Peer saying(const std::string& bytes);                 // one datagram for each packet

}  // namespace corvo::test
