#ifndef VELKA_TESTS_SUPPORT_FAULTSERVER_H
#define VELKA_TESTS_SUPPORT_FAULTSERVER_H

// An HTTP/1.1 server that misbehaves on purpose, for the HTTP source's fault
// tests. It runs inside the test process on 127.0.0.1 with a free port: one
// thread accepts, each connection gets a thread of its own, and every answer
// says "Connection: close". It serves one generated file under any path (a
// Range of "bytes=N-" or "bytes=N-M" gets 206, anything else 200) unless
// script() gave the path a list of Replies: each request to it takes the next one, the last
// repeats. A Reply can serve only a prefix of the file, answer another status
// with or without a body, redirect, claim 200 for a range or 206 for a plain
// request, hang up without an answer, wait before its headers, drop the
// Content-Length (close-delimited) or send chunks, drip at a rate, and cut
// the body at a file offset: then it holds the socket open for a while and
// closes it with FIN or RST (a hold ends early when the client goes, or when
// the test calls endHolds()).
// Every request is logged when it ends (method, path, Range, status, body
// bytes sent); stop(), or the destructor, closes everything and joins.

#include <arpa/inet.h>
#include <cstdio>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "../TestSupport.h"

namespace testing_support {

class FaultServer {
public:
    struct Reply {
        enum Framing { kLength, kCloseDelimited, kChunked };
        enum Close { kFin, kReset };

        int64_t size = -1;          // the resource: this prefix of the file; -1 all of it
        int status = 0;             // 0: 206 for a range, else 200; 200 or 206 forced; other: no content
        std::string body;           // the body of a status other than 200 and 206
        std::string location;       // a redirect (302 unless status says otherwise)
        bool hangUp = false;        // close without answering
        int headerDelayMs = 0;      // wait this long before answering
        Framing framing = kLength;
        int bytesPerSecond = 0;     // drip; 0 as fast as the client takes
        int64_t cutAt = -1;         // file offset where the body stops; -1 never
        int holdMs = 0;             // after a cut: the socket stays open this long
        Close close = kFin;         // how the connection ends after a cut
        std::string contentType = "application/octet-stream";  // of a 200 or 206
    };

    struct Request {
        std::string method;
        std::string path;
        std::string range;  // the Range header, "-" without one
        int status;         // 0 when it hung up without an answer
        int64_t bodyBytes;
        uint64_t arrival;   // 0 for the first request the server read, 1 for the next...
    };

    explicit FaultServer(std::vector<char> file) : file_(std::move(file)) {}
    ~FaultServer() { stop(); }
    FaultServer(const FaultServer&) = delete;
    FaultServer& operator=(const FaultServer&) = delete;

    bool start(std::string* why) {
        listen_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        if (listen_ == -1 || bind(listen_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            listen(listen_, 64) != 0 ||
            getsockname(listen_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
            *why = "cannot listen on 127.0.0.1";
            return false;
        }
        port_ = ntohs(addr.sin_port);
        acceptor_ = std::thread([this] { acceptLoop(); });
        return true;
    }

    void stop() {
        if (!acceptor_.joinable()) return;
        stopping_ = true;
        acceptor_.join();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            for (int fd : open_) shutdown(fd, SHUT_RDWR);  // unblocks their send()
        }
        for (Connection& c : connections_) c.thread.join();
        connections_.clear();
        ::close(listen_);
    }

    int port() const { return port_; }
    const std::vector<char>& file() const { return file_; }
    std::string url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }
    void script(const std::string& path, std::vector<Reply> replies) {
        std::lock_guard<std::mutex> lock(mutex_);
        scripts_[path] = std::move(replies);
    }

    // The requests whose connections have ended, in the order they arrived
    // (a connection abandoned by the client may end after a later one).
    std::vector<Request> requests() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<Request> out = log_;
        std::sort(out.begin(), out.end(),
                  [](const Request& a, const Request& b) { return a.arrival < b.arrival; });
        return out;
    }
    std::vector<Request> requests(const std::string& path) {
        std::vector<Request> out;
        for (const Request& r : requests()) {
            if (r.path == path) out.push_back(r);
        }
        return out;
    }
    // Requests to `path` that have begun (read, not necessarily answered).
    int started(const std::string& path) {
        std::lock_guard<std::mutex> lock(mutex_);
        return started_[path];
    }
    // Answers to `path` whose body reached its cut.
    int cuts(const std::string& path) {
        std::lock_guard<std::mutex> lock(mutex_);
        return cuts_[path];
    }
    // Ends the holds under way now, as if their time had run out.
    void endHolds() { ++holdsEnded_; }
    // Waits until no connection is open (the client has closed every one).
    bool waitIdle() {
        return waitUntil([this] {
            std::lock_guard<std::mutex> lock(mutex_);
            return open_.empty();
        });
    }

private:
    struct Connection {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };

    void acceptLoop() {
        while (!stopping_) {
            pollfd p = {listen_, POLLIN, 0};
            if (poll(&p, 1, 20) <= 0) continue;
            const int fd = accept4(listen_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd == -1) continue;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                open_.insert(fd);
            }
            // Threads that have ended are joined here, so that long runs do
            // not pile them up.
            for (auto it = connections_.begin(); it != connections_.end();) {
                if (*it->done) {
                    it->thread.join();
                    it = connections_.erase(it);
                } else {
                    ++it;
                }
            }
            auto done = std::make_shared<std::atomic<bool>>(false);
            connections_.push_back({std::thread([this, fd, done] {
                                        serve(fd);
                                        *done = true;
                                    }),
                                    done});
        }
    }

    // Waits `ms`, or less when the server stops or the client goes (false
    // then), or, for a hold, when endHolds() is called.
    bool pause(int fd, int ms, bool hold = false) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        const int holdsEnded = holdsEnded_;
        while (!stopping_ && !(hold && holdsEnded_ != holdsEnded)) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                end - std::chrono::steady_clock::now()).count();
            if (left <= 0) return true;
            pollfd p = {fd, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(std::min<int64_t>(left, 20))) > 0) {
                char byte;
                if (recv(fd, &byte, 1, MSG_DONTWAIT) <= 0) return false;
            }
        }
        return hold && !stopping_;
    }

    // Waits until the client has read everything sent on `fd` (its socket's
    // receive queue, from /proc/net/tcp, is empty and nothing is left to
    // send), or `ms` have passed.
    void waitPeerDrained(int fd, int ms) {
        sockaddr_in self = {}, peer = {};
        socklen_t len = sizeof self;
        if (getsockname(fd, reinterpret_cast<sockaddr*>(&self), &len) != 0) return;
        len = sizeof peer;
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len) != 0) return;
        char local[32], remote[32];
        snprintf(local, sizeof local, "0100007F:%04X", ntohs(peer.sin_port));
        snprintf(remote, sizeof remote, "0100007F:%04X", ntohs(self.sin_port));
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (std::chrono::steady_clock::now() < end && !stopping_) {
            int unsent = 0;
            ioctl(fd, SIOCOUTQ, &unsent);
            if (unsent == 0 && peerQueue(local, remote) == 0) return;
            usleep(2000);
        }
    }

    // The receive queue of the loopback socket `local` connected to `remote`
    // (/proc/net/tcp's "HEX-ADDR:PORT" forms), -1 when it is not listed.
    static long peerQueue(const char* local, const char* remote) {
        FILE* tcp = fopen("/proc/net/tcp", "r");
        if (tcp == nullptr) return -1;
        char line[512];
        long queue = -1;
        while (fgets(line, sizeof line, tcp) != nullptr) {
            char l[64], r[64];
            unsigned long tx = 0, rx = 0;
            if (sscanf(line, " %*d: %63s %63s %*x %lx:%lx", l, r, &tx, &rx) == 4 &&
                strcasecmp(l, local) == 0 && strcasecmp(r, remote) == 0) {
                queue = static_cast<long>(rx);
                break;
            }
        }
        fclose(tcp);
        return queue;
    }

    bool sendAll(int fd, const char* data, size_t n) {
        while (n > 0) {
            const ssize_t sent = send(fd, data, n, MSG_NOSIGNAL);
            if (sent <= 0) return false;
            data += sent;
            n -= static_cast<size_t>(sent);
        }
        return true;
    }
    bool sendAll(int fd, const std::string& s) { return sendAll(fd, s.data(), s.size()); }

    void serve(int fd) {
        Request r = {"", "", "-", 0, 0, 0};
        std::string head;
        char buf[4096];
        while (head.find("\r\n\r\n") == std::string::npos && head.size() < 65536) {
            const ssize_t n = recv(fd, buf, sizeof buf, 0);
            if (n <= 0) break;
            head.append(buf, static_cast<size_t>(n));
        }
        const size_t sp1 = head.find(' ');
        const size_t sp2 = head.find(' ', sp1 + 1);
        if (sp1 != std::string::npos && sp2 != std::string::npos) {
            r.method = head.substr(0, sp1);
            r.path = head.substr(sp1 + 1, sp2 - sp1 - 1);
        }
        for (size_t at = head.find("\r\n"); at != std::string::npos; at = head.find("\r\n", at + 2)) {
            if (strncasecmp(head.c_str() + at + 2, "Range:", 6) == 0) {
                const size_t end = head.find("\r\n", at + 2);
                r.range = head.substr(at + 8, end - at - 8);
                r.range.erase(0, r.range.find_first_not_of(' '));
            }
        }
        Reply reply;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = scripts_.find(r.path);
            const int index = started_[r.path]++;
            r.arrival = arrivals_++;
            if (it != scripts_.end() && !it->second.empty()) {
                reply = it->second[std::min<size_t>(index, it->second.size() - 1)];
            }
        }
        const bool reset = answer(fd, reply, &r);
        if (reset) {
            linger hard = {1, 0};
            setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        }
        std::lock_guard<std::mutex> lock(mutex_);
        log_.push_back(r);
        open_.erase(fd);
        ::close(fd);
    }

    // Sends the answer; true when the connection is to end with RST.
    bool answer(int fd, const Reply& reply, Request* r) {
        if (r->method.empty() || reply.hangUp) return false;
        if (reply.headerDelayMs > 0 && !pause(fd, reply.headerDelayMs)) return false;
        const int64_t size = reply.size < 0 ? static_cast<int64_t>(file_.size()) : reply.size;
        int64_t offset = 0, last = size;  // [offset, last) asked for
        if (r->range.compare(0, 6, "bytes=") == 0) {
            offset = atoll(r->range.c_str() + 6);
            const size_t dash = r->range.find('-');
            if (dash != std::string::npos && dash + 1 < r->range.size()) {
                last = std::min<int64_t>(size, atoll(r->range.c_str() + dash + 1) + 1);
            }
        }
        const bool ranged = r->range != "-";
        std::string h;
        if (!reply.location.empty() || (reply.status != 0 && reply.status != 200 && reply.status != 206)) {
            r->status = reply.status != 0 ? reply.status : 302;
            h = "HTTP/1.1 " + std::to_string(r->status) + " Scripted\r\n";
            if (!reply.location.empty()) h += "Location: " + reply.location + "\r\n";
            h += "Content-Length: " + std::to_string(reply.body.size()) + "\r\nConnection: close\r\n\r\n";
            if (sendAll(fd, h + reply.body)) r->bodyBytes = static_cast<int64_t>(reply.body.size());
            return false;
        }
        r->status = reply.status != 0 ? reply.status : (ranged ? 206 : 200);
        if (r->status == 200) offset = 0, last = size;
        offset = std::min(offset, last);
        h = "HTTP/1.1 " + std::to_string(r->status) + (r->status == 200 ? " OK\r\n" : " Partial Content\r\n");
        if (r->status == 206) {
            h += "Content-Range: bytes " + std::to_string(offset) + "-" + std::to_string(last - 1) +
                 "/" + std::to_string(size) + "\r\n";
        }
        if (reply.framing == Reply::kLength) {
            h += "Content-Length: " + std::to_string(last - offset) + "\r\n";
        } else if (reply.framing == Reply::kChunked) {
            h += "Transfer-Encoding: chunked\r\n";
        }
        h += "Content-Type: " + reply.contentType + "\r\nConnection: close\r\n\r\n";

        const int64_t end = reply.cutAt >= 0 ? std::max(offset, std::min(last, reply.cutAt)) : last;
        // A drip sends a tenth of its rate ten times a second.
        const int64_t step = reply.bytesPerSecond > 0 ? std::max(1, reply.bytesPerSecond / 10) : 65536;
        for (int64_t at = offset; at < end && !stopping_;) {
            const int64_t n = std::min(step, end - at);
            // The headers go out with the first block, as one segment.
            std::string chunk = std::move(h);
            h.clear();
            if (reply.framing == Reply::kChunked) {
                char len[32];
                snprintf(len, sizeof len, "%llx\r\n", static_cast<unsigned long long>(n));
                chunk += len;
            }
            chunk.append(file_.data() + at, static_cast<size_t>(n));
            if (reply.framing == Reply::kChunked) chunk += "\r\n";
            if (!sendAll(fd, chunk)) return false;
            at += n;
            r->bodyBytes += n;
            if (reply.bytesPerSecond > 0 && !pause(fd, 100)) return false;
        }
        if (!h.empty() && !sendAll(fd, h)) return false;  // no body to go with them
        if (end < last) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                cuts_[r->path] += 1;
            }
            pause(fd, reply.holdMs, true);
            if (reply.close != Reply::kReset) return false;
            // A reset throws away what the receiver has not read yet: the
            // client first takes what was sent, unless it stopped reading.
            waitPeerDrained(fd, 2000);
            return true;
        }
        if (reply.framing == Reply::kChunked) sendAll(fd, "0\r\n\r\n");
        return false;
    }

    const std::vector<char> file_;
    int listen_ = -1;
    int port_ = -1;
    std::atomic<bool> stopping_{false};
    std::atomic<int> holdsEnded_{0};
    std::thread acceptor_;
    std::list<Connection> connections_;  // the acceptor's, then stop()'s

    std::mutex mutex_;  // guards what follows
    std::map<std::string, std::vector<Reply>> scripts_;
    std::map<std::string, int> started_;
    uint64_t arrivals_ = 0;  // requests read so far
    std::map<std::string, int> cuts_;
    std::set<int> open_;  // connections not yet closed
    std::vector<Request> log_;
};

}  // namespace testing_support

#endif  // VELKA_TESTS_SUPPORT_FAULTSERVER_H
