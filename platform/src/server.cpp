#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cxxabi.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <map>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "connection.h"
#include "listener.h"
#include "vx_serve.h"
#include "wire.h"

namespace vx {

using Clock = std::chrono::steady_clock;

class Server::Impl {
public:
    explicit Impl(ServerOptions options) : options_(std::move(options)) {
        if (options_.directory.empty()) options_.directory = runtime_dir();
    }

    void handle(const std::string& service, const std::string& method, Handler handler) {
        if (!wire::valid_name(service)) throw std::invalid_argument("service name: " + service);
        if (method != "*" && !wire::valid_name(method)) throw std::invalid_argument("method name: " + method);
        handlers_[service][method] = std::move(handler);
    }

    void open() {
        make_directories(options_.directory);
        listeners_.clear();
        for (const auto& [service, methods] : handlers_) {
            listeners_.emplace_back(options_.directory, service, options_.socket_mode);
            listeners_.back().open();
        }
    }

    void run(int stop_fd, Clock::time_point until) {
        for (;;) {
            collect(stop_fd);
            const int ready = ::poll(polled_.data(), polled_.size(), timeout(until));
            if (ready < 0 && errno != EINTR) {
                throw std::system_error(errno, std::generic_category(), "poll");
            }
            if (polled_[0].revents != 0) return;
            const auto now = Clock::now();
            if (ready > 0) turn(now);
            expire(now);
            sweep();
            if (now >= until) return;
        }
    }

    void close() {
        connections_.clear();
        for (auto& listener : listeners_) listener.close();
        listeners_.clear();
    }

    bool crash(const std::string& service) {
        for (std::size_t i = 0; i < listeners_.size(); ++i) {
            if (listeners_[i].service() != service) continue;
            listeners_[i].crash();
            for (auto& connection : connections_) {
                if (connection.listener() == i) connection.finish(Connection::End::kServed);
            }
            return true;
        }
        return false;
    }

    bool revive(const std::string& service) {
        for (auto& listener : listeners_) {
            if (listener.service() != service) continue;
            if (listener.fd() < 0) listener.open();
            return true;
        }
        return false;
    }

    const ServerCounters& counters() const { return counters_; }

private:
    void collect(int stop_fd) {
        polled_.clear();
        polled_.push_back({stop_fd, POLLIN, 0});
        const bool accepting = Clock::now() >= accept_again_;
        for (const auto& listener : listeners_) {
            polled_.push_back({accepting ? listener.fd() : -1, POLLIN, 0});
        }
        for (const auto& connection : connections_) {
            polled_.push_back({connection.fd(), connection.wanted_events(), 0});
        }
    }

    int timeout(Clock::time_point until) const {
        const auto now = Clock::now();
        auto next = until;
        if (accept_again_ > now) next = std::min(next, accept_again_);
        for (const auto& connection : connections_) next = std::min(next, connection.deadline());
        if (next == Clock::time_point::max()) return -1;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
        return static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX));
    }

    // polled_ stands in the order stop, listeners, connections; accepting comes last because it appends.
    void turn(Clock::time_point now) {
        const std::size_t first = 1 + listeners_.size();
        for (std::size_t i = first; i < polled_.size(); ++i) {
            if (polled_[i].revents != 0) serve(connections_[i - first], polled_[i].revents, now);
        }
        for (std::size_t i = 0; i < listeners_.size(); ++i) {
            if (polled_[1 + i].revents != 0) accept(i, now);
        }
    }

    void serve(Connection& connection, short events, Clock::time_point now) {
        switch (connection.phase()) {
            case Connection::Phase::kReading:
                read(connection, now);
                break;
            case Connection::Phase::kWriting:
                connection.send();
                break;
            case Connection::Phase::kWaiting:
                if ((events & (POLLHUP | POLLERR)) != 0) connection.finish(Connection::End::kAbandoned);
                break;
            case Connection::Phase::kOver:
                break;
        }
    }

    void read(Connection& connection, Clock::time_point now) {
        connection.receive(scratch_.data(), scratch_.size());
        if (connection.phase() == Connection::Phase::kOver) return;
        if (connection.has_request()) dispatch(connection, now);
        if (starves(connection)) {
            ++counters_.starved;
            connection.finish(Connection::End::kNone);
        }
    }

    // Large messages share one budget; small ones always pass, so that nobody locks out the ordinary calls.
    bool starves(const Connection& connection) const {
        if (connection.phase() == Connection::Phase::kOver || connection.held() <= scratch_.size() * 2) {
            return false;
        }
        std::size_t held = 0;
        for (const auto& other : connections_) held += other.held();
        return held > options_.max_buffered;
    }

    void dispatch(Connection& connection, Clock::time_point now) {
        const wire::Request& request = connection.request();
        const Call call{request.service, request.method, request.payload};
        if (call.service != listeners_[connection.listener()].service()) {
            ++counters_.malformed;
            return connection.answer(wire::Status::kMisrouted, now);
        }
        const Handler* handler = find(call);
        if (handler == nullptr) return connection.answer(wire::Status::kNoMethod, now);
        ++counters_.handled;
        Reply reply = run_handler(*handler, call);
        // A handler may have crashed its own service, and this connection with it.
        if (connection.phase() != Connection::Phase::kOver) connection.answer(std::move(reply), Clock::now());
    }

    const Handler* find(const Call& call) const {
        const auto service = handlers_.find(call.service);
        if (service == handlers_.end()) return nullptr;
        auto method = service->second.find(call.method);
        if (method == service->second.end()) method = service->second.find(std::string_view("*"));
        return method == service->second.end() ? nullptr : &method->second;
    }

    static Reply run_handler(const Handler& handler, const Call& call) {
        try {
            return handler(call);
        } catch (const abi::__forced_unwind&) {
            throw;
        } catch (...) {
            return Reply::refused();
        }
    }

    void accept(std::size_t index, Clock::time_point now) {
        constexpr int kPerTurn = 16;
        for (int i = 0; i < kPerTurn && listeners_[index].fd() >= 0; ++i) {
            corvo::UniqueFd fd(
                ::accept4(listeners_[index].fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
            if (!fd) {
                if (errno == EINTR || errno == ECONNABORTED) continue;
                // Out of descriptors or memory: the queue stays readable, so a pause keeps this from
                // spinning.
                if (errno != EAGAIN) accept_again_ = now + std::chrono::milliseconds(100);
                return;
            }
            ++counters_.accepted;
            if (connections_.size() >= options_.max_clients) displace();
            connections_.emplace_back(std::move(fd), index, now, options_);
            // The request is nearly always there already: a caller sends as soon as it is connected.
            read(connections_.back(), now);
            if (connections_.back().phase() == Connection::Phase::kOver) {
                count(connections_.back());
                connections_.pop_back();
            }
        }
    }

    void displace() {
        const auto oldest = std::min_element(
            connections_.begin(), connections_.end(), [](const Connection& a, const Connection& b) {
                const auto rank = [](const Connection& c) {
                    return c.phase() == Connection::Phase::kWaiting;
                };
                return rank(a) != rank(b) ? rank(a) < rank(b) : a.since() < b.since();
            });
        if (oldest == connections_.end()) return;
        ++counters_.displaced;
        connections_.erase(oldest);
    }

    void expire(Clock::time_point now) {
        for (auto& connection : connections_) {
            if (connection.phase() != Connection::Phase::kOver && connection.deadline() <= now) {
                connection.expire(now);
            }
        }
    }

    void sweep() {
        std::erase_if(connections_, [this](const Connection& connection) {
            if (connection.phase() != Connection::Phase::kOver) return false;
            count(connection);
            return true;
        });
    }

    void count(const Connection& connection) {
        switch (connection.end()) {
            case Connection::End::kMalformed:
                ++counters_.malformed;
                break;
            case Connection::End::kTimedOut:
                ++counters_.timed_out;
                break;
            case Connection::End::kAbandoned:
                ++counters_.abandoned;
                break;
            case Connection::End::kNone:
            case Connection::End::kServed:
                break;
        }
    }

    ServerOptions options_;
    std::map<std::string, std::map<std::string, Handler, std::less<>>, std::less<>> handlers_;
    std::vector<Listener> listeners_;
    std::vector<Connection> connections_;
    std::vector<pollfd> polled_;
    std::array<char, 64U << 10U> scratch_;
    Clock::time_point accept_again_{};
    ServerCounters counters_;
};

Server::Server(ServerOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}
Server::~Server() {
    impl_->close();
}

void Server::handle(const std::string& service, const std::string& method, Handler handler) {
    impl_->handle(service, method, std::move(handler));
}
void Server::open() {
    impl_->open();
}
void Server::run(int stop_fd) {
    impl_->run(stop_fd, Clock::time_point::max());
}
void Server::run(int stop_fd, Clock::time_point until) {
    impl_->run(stop_fd, until);
}
bool Server::crash(const std::string& service) {
    return impl_->crash(service);
}
bool Server::revive(const std::string& service) {
    return impl_->revive(service);
}
ServerCounters Server::counters() const {
    return impl_->counters();
}

ServerThread::ServerThread(ServerOptions options, const std::function<void(Server&)>& prepare)
    : server_(std::make_unique<Server>(std::move(options))), stop_fd_(::eventfd(0, EFD_CLOEXEC)) {
    if (stop_fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    try {
        prepare(*server_);
        server_->open();
        thread_ = std::thread([this] { server_->run(stop_fd_); });
    } catch (...) {
        ::close(stop_fd_);
        throw;
    }
}

void ServerThread::stop() {
    if (!thread_.joinable()) return;
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(stop_fd_, &one, sizeof one);
    thread_.join();
    ::close(stop_fd_);
    counters_ = server_->counters();
    server_.reset();
}

}  // namespace vx
