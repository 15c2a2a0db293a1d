#ifndef VELKA_TESTS_SUPPORT_LINKEMULATOR_H
#define VELKA_TESTS_SUPPORT_LINKEMULATOR_H

// A home link between a client and a server, both on 127.0.0.1: a TCP proxy
// that listens on a port of its own and forwards each connection to the
// server's port with
//   - a round trip: each direction waits half of it, and a new connection's
//     first bytes wait one more (the handshake a real connection makes first);
//   - a rate for the server-to-client direction, one link shared by all its
//     connections: bytes leave in the order they came from the servers, each
//     after the bytes before it on the link;
//   - a window per connection: at most that many bytes taken from the server
//     and not yet handed to the client, so a client that stops reading stops
//     its server, as TCP's window does;
// It counts the bytes that crossed to the clients and the connections.
// One thread of its own; stop() (or the destructor) ends it and closes every
// socket. No gtest here: the benchmarks use it too.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace testing_support {

class LinkEmulator {
public:
    struct Options {
        double megabitsPerSecond = 20;  // server to client, shared by all connections
        int roundTripMs = 40;
        // Per connection, bytes taken from the server and not yet delivered;
        // 0: the link's bandwidth-delay product (at least 64 KiB), what a TCP
        // window settles at on a link with a short queue.
        uint32_t windowBytes = 0;
    };

    LinkEmulator() = default;
    ~LinkEmulator() { stop(); }
    LinkEmulator(const LinkEmulator&) = delete;
    LinkEmulator& operator=(const LinkEmulator&) = delete;

    // Listens on a free port of 127.0.0.1 and forwards to `serverPort` there.
    // False with the reason in *why.
    bool start(int serverPort, const Options& options, std::string* why) {
        options_ = options;
        if (options_.windowBytes == 0) {
            const double bdp = options_.megabitsPerSecond * 1e6 / 8 * options_.roundTripMs / 1000.0;
            options_.windowBytes = static_cast<uint32_t>(std::max(64.0 * 1024, bdp));
        }
        serverPort_ = serverPort;
        listen_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_in addr = loopback(0);
        socklen_t len = sizeof addr;
        if (listen_ == -1 || bind(listen_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            ::listen(listen_, 64) != 0 ||
            getsockname(listen_, reinterpret_cast<sockaddr*>(&addr), &len) != 0 ||
            pipe2(stopPipe_, O_CLOEXEC | O_NONBLOCK) != 0) {
            *why = "link emulator: cannot listen on 127.0.0.1";
            closeAll();
            return false;
        }
        port_ = ntohs(addr.sin_port);
        thread_ = std::thread([this] { loop(); });
        return true;
    }

    void stop() {
        if (thread_.joinable()) {
            const char byte = 1;
            if (write(stopPipe_[1], &byte, 1) != 1) {
            }
            thread_.join();
        }
        closeAll();
    }

    int port() const { return port_; }
    std::string url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(port_) + "/" + path;
    }

    // Bytes handed to clients so far (what crossed the link toward them).
    uint64_t bytesToClients() const { return bytesDown_; }
    uint64_t connections() const { return connections_; }

private:
    using Clock = std::chrono::steady_clock;

    struct Chunk {
        std::vector<char> bytes;
        size_t sent = 0;
        Clock::time_point due;
    };
    struct Connection {
        int client = -1;
        int server = -1;
        Clock::time_point opened;
        std::deque<Chunk> up, down;  // client to server, server to client
        size_t downQueued = 0;       // bytes in `down`
        bool serverDone = false;     // the server closed its side
        bool closed = false;
    };

    static sockaddr_in loopback(int port) {
        sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<uint16_t>(port));
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return addr;
    }

    Clock::duration halfTrip() const { return std::chrono::microseconds(options_.roundTripMs * 500); }
    Clock::duration trip() const { return std::chrono::milliseconds(options_.roundTripMs); }

    void closeAll() {
        for (int* fd : {&listen_, &stopPipe_[0], &stopPipe_[1]}) {
            if (*fd != -1) close(*fd);
            *fd = -1;
        }
    }

    void accept() {
        for (int i = 0; i < 16; ++i) {
            const int client = accept4(listen_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (client == -1) return;
            const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_in addr = loopback(serverPort_);
            if (server == -1 || connect(server, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
                close(client);
                if (server != -1) close(server);
                continue;
            }
            fcntl(server, F_SETFL, fcntl(server, F_GETFL) | O_NONBLOCK);
            const int one = 1;
            setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            // The server's surplus waits in its own send buffer, not here.
            const int small = 64 * 1024;
            setsockopt(server, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
            setsockopt(client, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
            std::unique_ptr<Connection> c(new Connection);
            c->client = client;
            c->server = server;
            c->opened = Clock::now();
            conns_.push_back(std::move(c));
            connections_ += 1;
        }
    }

    // Reads what the client sent; it reaches the server half a round trip
    // later, and not before the handshake's round trip has passed.
    void readClient(Connection& c, Clock::time_point now) {
        char buffer[16 * 1024];
        const ssize_t n = recv(c.client, buffer, sizeof buffer, 0);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
            c.closed = true;  // the client went: what is still on its way is dropped
            return;
        }
        if (n < 0) return;
        Chunk chunk;
        chunk.bytes.assign(buffer, buffer + n);
        chunk.due = std::max(now, c.opened + trip()) + halfTrip();
        c.up.push_back(std::move(chunk));
    }

    // Reads what the server sent as far as the window allows and puts it on
    // the link after everything before it.
    void readServer(Connection& c, Clock::time_point now) {
        const size_t room = options_.windowBytes - std::min<size_t>(c.downQueued, options_.windowBytes);
        char buffer[16 * 1024];
        const size_t want = std::min(room, sizeof buffer);
        if (want == 0) return;
        const ssize_t n = recv(c.server, buffer, want, 0);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
            c.serverDone = true;
            return;
        }
        if (n < 0) return;
        // Segments of at most 1448 bytes, each its own time on the link.
        const double secondsPerByte = 8.0 / (options_.megabitsPerSecond * 1e6);
        for (ssize_t at = 0; at < n; at += 1448) {
            const ssize_t size = std::min<ssize_t>(1448, n - at);
            if (linkFree_ < now) linkFree_ = now;
            linkFree_ += std::chrono::duration_cast<Clock::duration>(
                std::chrono::duration<double>(secondsPerByte * static_cast<double>(size)));
            Chunk chunk;
            chunk.bytes.assign(buffer + at, buffer + at + size);
            chunk.due = linkFree_ + halfTrip();
            c.down.push_back(std::move(chunk));
            c.downQueued += static_cast<size_t>(size);
        }
    }

    // Hands over what is due; false when the receiving side went away.
    bool deliver(int fd, std::deque<Chunk>& queue, Clock::time_point now, size_t* queued, bool down) {
        while (!queue.empty() && queue.front().due <= now) {
            Chunk& chunk = queue.front();
            const ssize_t n = send(fd, chunk.bytes.data() + chunk.sent, chunk.bytes.size() - chunk.sent,
                                   MSG_NOSIGNAL);
            if (n < 0) return errno == EAGAIN || errno == EINTR;
            chunk.sent += static_cast<size_t>(n);
            if (down) bytesDown_ += static_cast<uint64_t>(n);
            if (queued != nullptr) *queued -= static_cast<size_t>(n);
            if (chunk.sent < chunk.bytes.size()) return true;
            queue.pop_front();
        }
        return true;
    }

    void loop() {
        for (;;) {
            const Clock::time_point now = Clock::now();
            Clock::time_point next = now + std::chrono::milliseconds(200);
            std::vector<pollfd> fds;
            fds.push_back({stopPipe_[0], POLLIN, 0});
            fds.push_back({listen_, POLLIN, 0});
            for (auto& c : conns_) {
                short clientEvents = POLLIN;
                short serverEvents = 0;
                if (!c->serverDone && c->downQueued < options_.windowBytes) serverEvents |= POLLIN;
                if (!c->up.empty()) {
                    if (c->up.front().due <= now) serverEvents |= POLLOUT;
                    else next = std::min(next, c->up.front().due);
                }
                if (!c->down.empty()) {
                    if (c->down.front().due <= now) clientEvents |= POLLOUT;
                    else next = std::min(next, c->down.front().due);
                }
                // A socket nothing is asked of stays out: its hang-up would
                // wake the loop again and again.
                fds.push_back({clientEvents != 0 ? c->client : -1, clientEvents, 0});
                fds.push_back({serverEvents != 0 ? c->server : -1, serverEvents, 0});
            }
            const auto waitMs = std::chrono::duration_cast<std::chrono::milliseconds>(next - now).count();
            // Rounded up, so a due chunk is never polled for in a busy loop.
            if (poll(fds.data(), fds.size(), static_cast<int>(std::max<int64_t>(0, waitMs + 1))) < 0 &&
                errno != EINTR) {
                return;
            }
            if (fds[0].revents != 0) {
                break;  // stop()
            }
            if (fds[1].revents != 0) accept();
            const Clock::time_point after = Clock::now();
            for (size_t i = 0; i < conns_.size() && 2 + 2 * i + 1 < fds.size(); ++i) {
                Connection& c = *conns_[i];
                const pollfd& cl = fds[2 + 2 * i];
                const pollfd& sv = fds[2 + 2 * i + 1];
                if (cl.revents & (POLLIN | POLLHUP | POLLERR)) readClient(c, after);
                if (!c.closed && (sv.revents & (POLLIN | POLLHUP | POLLERR))) readServer(c, after);
                if (!c.closed && !deliver(c.server, c.up, after, nullptr, false)) c.closed = true;
                if (!c.closed && !deliver(c.client, c.down, after, &c.downQueued, true)) c.closed = true;
                // The server's end reaches the client after its last byte.
                if (c.serverDone && c.down.empty()) c.closed = true;
            }
            for (size_t i = 0; i < conns_.size();) {
                if (!conns_[i]->closed) {
                    ++i;
                    continue;
                }
                close(conns_[i]->client);
                close(conns_[i]->server);
                conns_.erase(conns_.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
        for (auto& c : conns_) {
            close(c->client);
            close(c->server);
        }
        conns_.clear();
    }

    Options options_;
    int serverPort_ = -1;
    int port_ = -1;
    int listen_ = -1;
    int stopPipe_[2] = {-1, -1};
    std::thread thread_;
    // The loop thread's alone.
    std::vector<std::unique_ptr<Connection>> conns_;
    Clock::time_point linkFree_;  // when the link has sent everything put on it
    // Read by other threads.
    std::atomic<uint64_t> bytesDown_{0};
    std::atomic<uint64_t> connections_{0};
};

}  // namespace testing_support

#endif  // VELKA_TESTS_SUPPORT_LINKEMULATOR_H
