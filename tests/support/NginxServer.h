#ifndef VELKA_TESTS_SUPPORT_NGINXSERVER_H
#define VELKA_TESTS_SUPPORT_NGINXSERVER_H

// A real web server for the HTTP tests and benchmarks: Debian's nginx, started as an
// ordinary child process on 127.0.0.1 with a free port, its own configuration,
// document root and logs in a temporary folder, and stopped (and waited for)
// when the object goes. Its access log records each request's method, path,
// Range header, status and body bytes, which is how tests count requests.
//
// Locations besides the document root:
//   /slow/NAME     the file NAME sent at kSlowBytesPerSecond
//   /chunked/NAME  the file NAME without a Content-Length (chunked)
//   /empty         204, no body

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace testing_support {


class NginxServer {
public:
    static constexpr int kSlowBytesPerSecond = 256 * 1024;

    struct Request {
        std::string method;
        std::string path;
        std::string range;  // the Range header, "-" without one
        int status;
        int64_t bodyBytes;
        std::string userAgent;  // "-" without one
        std::string xVelka;     // the request's X-Velka header, "-" without one
    };

    NginxServer() {
        char pattern[] = "/tmp/velka-nginx-XXXXXX";
        if (mkdtemp(pattern) != nullptr) dir_ = pattern;
    }
    ~NginxServer() {
        stop();
        std::error_code ignored;
        if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
    }
    NginxServer(const NginxServer&) = delete;
    NginxServer& operator=(const NginxServer&) = delete;

    // Starts the server; false with the reason in *why.
    bool start(std::string* why) {
        const char* const binaries[] = {"/usr/sbin/nginx", "/usr/local/sbin/nginx"};
        for (const char* b : binaries) {
            if (access(b, X_OK) == 0) binary_ = b;
        }
        if (binary_.empty()) {
            *why = "nginx is not installed (scripts/setup.sh installs nginx-light)";
            return false;
        }
        if (dir_.empty()) {
            *why = "cannot create a temporary folder";
            return false;
        }
        for (const char* sub : {"/root", "/logs", "/tmp"}) {
            if (mkdir((dir_ + sub).c_str(), 0755) != 0) {
                *why = std::string("cannot create ") + sub;
                return false;
            }
        }
        // A port that was free a moment ago may be taken before nginx binds
        // it: a few tries.
        for (int attempt = 0; attempt < 5; ++attempt) {
            port_ = freePort();
            if (port_ > 0 && launch(why)) return true;
        }
        return false;
    }

    void stop() {
        if (pid_ <= 0) return;
        kill(pid_, SIGTERM);
        if (!reap(std::chrono::seconds(10))) {
            kill(pid_, SIGKILL);
            reap(std::chrono::seconds(10));
        }
        pid_ = -1;
    }

    int port() const { return port_; }
    std::string url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(port_) + "/" + path;
    }
    // Puts `bytes` in the document root as `name` (also served under /slow/
    // and /chunked/).
    void serve(const std::string& name, const std::vector<char>& bytes) const {
        std::ofstream out(file("root/" + name), std::ios::binary);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    // The document root's path for `name`.
    std::string rootFile(const std::string& name) const { return file("root/" + name); }

    // The requests logged so far, in the order they ended.
    std::vector<Request> requests() const {
        std::vector<Request> out;
        std::ifstream in(file("logs/access.log"));
        for (std::string line; std::getline(in, line);) {
            std::istringstream fields(line);
            Request r;
            fields >> r.method >> r.path >> r.range >> r.status >> r.bodyBytes;
            std::string rest;
            std::getline(fields, rest);
            const size_t a = rest.find('"'), b = rest.find('"', a + 1), c = rest.find('"', b + 1);
            if (c != std::string::npos) {
                r.userAgent = rest.substr(a + 1, b - a - 1);
                r.xVelka = rest.substr(c + 1, rest.find('"', c + 1) - c - 1);
            }
            if (r.range.size() >= 2 && r.range.front() == '"') {
                r.range = r.range.substr(1, r.range.size() - 2);
            }
            out.push_back(r);
        }
        return out;
    }
    // Waits until `count` requests have been logged (a request is logged when
    // it ends), 20 s at most.
    std::vector<Request> waitForRequests(size_t count) const {
        std::vector<Request> logged;
        waitFor([&] { return (logged = requests()).size() >= count; });
        return logged;
    }

private:
    std::string file(const std::string& name) const { return dir_ + "/" + name; }

    static bool waitFor(const std::function<bool()>& condition) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!condition()) {
            if (std::chrono::steady_clock::now() > end) return false;
            usleep(1000);
        }
        return true;
    }

    static int freePort() {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        if (fd == -1) return -1;
        sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        int port = -1;
        if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
            port = ntohs(addr.sin_port);
        }
        close(fd);
        return port;
    }

    static bool accepts(int port) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        if (fd == -1) return false;
        sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<uint16_t>(port));
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        close(fd);
        return ok;
    }

    bool launch(std::string* why) {
        const std::string& d = dir_;
        std::ofstream conf(file("nginx.conf"));
        conf << "daemon off;\nmaster_process off;\nworker_processes 1;\n"
             << "pid " << d << "/nginx.pid;\nerror_log " << d << "/logs/error.log;\n"
             << "events { worker_connections 256; }\n"
             << "http {\n"
             << "  default_type application/octet-stream;\n"
             << "  log_format velka '$request_method $uri \"$http_range\" $status "
                "$body_bytes_sent \"$http_user_agent\" \"$http_x_velka\"';\n"
             << "  access_log " << d << "/logs/access.log velka;\n";
        for (const char* temp : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
            conf << "  " << temp << "_temp_path " << d << "/tmp/" << temp << ";\n";
        }
        conf << "  server {\n"
             << "    listen 127.0.0.1:" << port_ << ";\n"
             << "    root " << d << "/root;\n"
             << "    location /slow/ { alias " << d << "/root/; limit_rate "
             << kSlowBytesPerSecond << "; }\n"
             // A filter that changes nothing still drops the length: chunked.
             << "    location /chunked/ { alias " << d << "/root/; sub_filter_types *; "
             << "sub_filter 'velka-never-in-the-data' ''; }\n"
             << "    location = /empty { return 204; }\n"
             << "  }\n}\n";
        conf.close();
        if (!conf) {
            *why = "cannot write nginx.conf";
            return false;
        }

        const std::string confPath = file("nginx.conf");
        const std::string errPath = file("logs/startup.log");
        std::vector<std::string> args = {binary_, "-p", d, "-c", confPath, "-e", errPath};
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        const pid_t parent = getpid();
        pid_ = fork();
        if (pid_ == 0) {
            // Only async-signal-safe calls here. The server goes with the test
            // process, also when that one crashes.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) _exit(127);
            const int out = ::open("/dev/null", O_WRONLY);
            const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            if (out == -1 || err == -1) _exit(127);
            dup2(out, 1);
            dup2(err, 2);
            execv(binary_.c_str(), argv.data());
            _exit(127);
        }
        if (pid_ == -1) {
            pid_ = -1;
            *why = "cannot start " + binary_;
            return false;
        }
        bool exited = false;
        const bool up = waitFor([&] {
            int status;
            exited = waitpid(pid_, &status, WNOHANG) == pid_;
            return exited || accepts(port_);
        });
        if (up && !exited) return true;
        if (!exited) stop();
        pid_ = -1;
        std::ifstream err(errPath);
        std::ostringstream text;
        text << err.rdbuf();
        *why = "nginx did not start on port " + std::to_string(port_) + ": " + text.str();
        return false;
    }

    bool reap(std::chrono::seconds limit) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < end) {
            int status;
            if (waitpid(pid_, &status, WNOHANG) == pid_) return true;
            usleep(2000);
        }
        return false;
    }

    std::string dir_;  // configuration, document root, logs
    std::string binary_;
    pid_t pid_ = -1;
    int port_ = -1;
};

}  // namespace testing_support

#endif  // VELKA_TESTS_SUPPORT_NGINXSERVER_H
