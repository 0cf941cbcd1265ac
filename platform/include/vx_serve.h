// Serving methods over the reference service-call library: what the device's services would do.
//
//     vx::Server server;
//     server.handle("corvo", "get_state", [](const vx::Call&) { return vx::Reply::text(R"({"error":0})"); });
//     server.open();        // the sockets are there, callers can connect
//     server.run(stop_fd);  // until stop_fd is readable
//
// One thread serves everything: sockets never block, a connection that sends or reads slowly costs its own
// time limit and nobody else's. A handler does block the others while it runs; keep it short, or answer with
// a delay.
#pragma once

#include <sys/types.h>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

namespace vx {

// The directory of the services' sockets: environment variable VX_RUNTIME_DIR, else "/run/vx".
std::string runtime_dir();

// One request. The views are valid during the handler's run.
struct Call {
    std::string_view service;
    std::string_view method;
    std::string_view payload;  // any bytes, at most 16 MiB; callers send JSON text or nothing
};

struct Reply {
    // How the exchange ends. All but the first two exist for stand-ins that play a broken service.
    enum class Ending : std::uint8_t {
        kAnswer,   // the payload arrives
        kRefused,  // the caller's vx_call fails
        kRaw,      // the payload is sent as it is, in place of a frame
        kHalf,     // half of the reply's bytes, then the connection closes
        kClose,    // the connection closes without a byte
        kHang,     // nothing, until the caller gives up
    };

    std::string payload;
    Ending ending = Ending::kAnswer;
    std::chrono::milliseconds delay{0};  // passes before anything is sent; other callers are served meanwhile

    static Reply text(std::string payload) {
        Reply reply;
        reply.payload = std::move(payload);
        return reply;
    }
    static Reply refused() {
        Reply reply;
        reply.ending = Ending::kRefused;
        return reply;
    }
};

// An exception that leaves a handler becomes Reply::refused(). A payload above 16 MiB makes the call fail.
using Handler = std::function<Reply(const Call&)>;

struct ServerOptions {
    std::string directory;                          // empty: runtime_dir(); created when missing
    mode_t socket_mode = 0660;                      // who may call
    std::size_t max_clients = 256;                  // one more displaces the one that is slow for longest
    std::size_t max_buffered = 64U << 20U;          // bytes held for all clients together; see Server
    std::chrono::milliseconds request_limit{5000};  // from the connection to the end of the request
    std::chrono::milliseconds reply_limit{10000};   // from the reply's first byte to its last
};

// What happened since open(). For tests, benchmarks and status documents.
struct ServerCounters {
    std::uint64_t accepted = 0;
    std::uint64_t handled = 0;    // a handler ran
    std::uint64_t malformed = 0;  // closed: not the wire format, or the wrong service's socket
    std::uint64_t timed_out = 0;  // closed: request_limit or reply_limit
    std::uint64_t displaced = 0;  // closed in favour of a new client
    std::uint64_t abandoned = 0;  // the client closed before its exchange was over
    std::uint64_t starved = 0;    // closed: max_buffered (exchanges below 64 KiB are never counted)
};

// Threading: one thread at a time; run() is the only member that takes time. Other threads reach a running
// server through the stop descriptor alone.
class Server {
public:
    explicit Server(ServerOptions options = {});
    ~Server();  // closes all sockets and removes their files
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Registers a method; "*" stands for every method of the service that has no handler of its own. Throws
    // std::invalid_argument for a name that cannot be a service or method.
    void handle(const std::string& service, const std::string& method, Handler handler);

    // Opens a socket for each registered service. Throws std::system_error: another process serves one of
    // them (EADDRINUSE), or the directory cannot be used. A socket file left behind by a dead process is
    // replaced.
    void open();

    // Serves until `stop_fd` is readable (which is not read) or, when given, `until` has passed.
    void run(int stop_fd);
    void run(int stop_fd, std::chrono::steady_clock::time_point until);

    // Lets one service go away as a crash would, with its connections, its socket file left behind; and
    // brings it back. Both may be called from handlers. False: no such service.
    bool crash(const std::string& service);
    bool revive(const std::string& service);

    ServerCounters counters() const;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

// A Server that runs on a thread of its own from construction to destruction.
class ServerThread {
public:
    // `prepare` registers the handlers; the services can be called when the constructor returns.
    ServerThread(ServerOptions options, const std::function<void(Server&)>& prepare);
    explicit ServerThread(const std::function<void(Server&)>& prepare)
        : ServerThread(ServerOptions{}, prepare) {}
    ~ServerThread() { stop(); }
    ServerThread(const ServerThread&) = delete;
    ServerThread& operator=(const ServerThread&) = delete;

    void stop();                                           // returns when the sockets are closed
    ServerCounters counters() const { return counters_; }  // after stop()

private:
    std::unique_ptr<Server> server_;
    int stop_fd_ = -1;
    ServerCounters counters_;
    std::thread thread_;
};

}  // namespace vx
