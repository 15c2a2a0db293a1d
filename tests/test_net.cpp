// Network interface queries against real interfaces. Each test runs its body
// in a child process; the interface tests give that child a network namespace
// of its own and create the interfaces they ask about with `ip`, so nothing of
// the machine's own network is seen or touched. The child sends what it
// learnt to the parent, where the expectations are checked.
//
// getCurrentInterface runs the platform command through the shell; the tests
// put a stand-in `netinfc` script first on the child's PATH.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "velka/Net.h"

namespace {

namespace net = velka::net;

// A child that has not reported within this long is killed and the test fails.
constexpr int kChildBoundMs = 120000;
// Interface state changes (carrier, operational state) are waited for this long.
constexpr int kLinkBoundMs = 20000;

// Child side -------------------------------------------------------------------

// What the child tells the parent: records of a key and a value, each sent as
// "<key length> <value length>\n" followed by the two texts.
class Report {
public:
    explicit Report(int fd) : fd_(fd) {}

    void put(const std::string& key, const std::string& value) {
        std::string record = std::to_string(key.size()) + " " + std::to_string(value.size()) +
                             "\n" + key + value;
        const char* p = record.data();
        size_t left = record.size();
        while (left > 0) {
            const ssize_t n = ::write(fd_, p, left);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) _exit(90);
            p += n;
            left -= static_cast<size_t>(n);
        }
    }
    void putBool(const std::string& key, bool value) { put(key, value ? "true" : "false"); }
    // The environment does not allow the test; the parent skips it.
    void skip(const std::string& why) { put("!skip", why); }
    // Setting up went wrong; the parent fails the test.
    void fail(const std::string& why) { put("!fail", why); }

private:
    int fd_;
};

// Runs `call` with standard output going into a pipe and returns what it printed.
std::string captureStdout(const std::function<void()>& call) {
    fflush(stdout);
    int fds[2];
    if (pipe(fds) != 0) _exit(91);
    const int saved = dup(STDOUT_FILENO);
    dup2(fds[1], STDOUT_FILENO);
    close(fds[1]);
    call();
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    std::string printed;
    char chunk[256];
    ssize_t n;
    while ((n = read(fds[0], chunk, sizeof chunk)) > 0) printed.append(chunk, static_cast<size_t>(n));
    close(fds[0]);
    return printed;
}

// Runs `ip <arguments>`; true on success. Its complaints go to the test's error
// output, where they help when setting up fails.
bool ip(const std::string& arguments) {
    const std::string command = "ip " + arguments;
    return system(command.c_str()) == 0;
}

// The interface flags as the kernel reports them, or -1.
int interfaceFlags(const std::string& name) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct ifreq request;
    memset(&request, 0, sizeof request);
    strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
    const int ret = ioctl(fd, SIOCGIFFLAGS, &request);
    close(fd);
    return ret == 0 ? static_cast<uint16_t>(request.ifr_flags) : -1;
}

// Waits until the flags in `mask` of interface `name` equal `wanted`. The
// operational state that IFF_RUNNING shows follows a carrier change a moment
// later.
bool waitForFlags(const std::string& name, int mask, int wanted) {
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        const int flags = interfaceFlags(name);
        if (flags >= 0 && (flags & mask) == wanted) return true;
        if (std::chrono::steady_clock::now() - start > std::chrono::milliseconds(kLinkBoundMs)) {
            return false;
        }
        usleep(1000);
    }
}

// Interfaces are veth pairs: one end carries the name under test, the other
// (`peer`) decides whether that end has a link. Where veth is missing, a dummy
// interface (whose link simply follows its up state) serves the tests that do
// not need a link that is down while the interface is up.
enum class Kind { kVeth, kDummy, kNone };

Kind addInterface(const std::string& name, const std::string& peer) {
    if (ip("link add " + name + " type veth peer name " + peer + " 2>/dev/null")) return Kind::kVeth;
    if (ip("link add " + name + " type dummy 2>/dev/null")) return Kind::kDummy;
    return Kind::kNone;
}

// Brings `name` up with a link: both ends of a veth pair up.
bool bringUpWithLink(const std::string& name, const std::string& peer, Kind kind) {
    if (!ip("link set " + name + " up")) return false;
    if (kind == Kind::kVeth && !ip("link set " + peer + " up")) return false;
    return waitForFlags(name, IFF_UP | IFF_RUNNING, IFF_UP | IFF_RUNNING);
}

// The interfaces of the tests:
//   eth0             MAC 00:1a:2b:3c:4d:5e, IPv4 192.0.2.10, up with link
//   wlan0            MAC fe:dc:ba:98:76:54, no IPv4 address, up with link
//   velkaiface12345  (15 characters) MAC 02:00:00:00:00:15, IPv4 198.51.100.15, up with link
// Returns the kind of interface it could make, reporting a skip or a failure
// when it could not.
Kind setUpInterfaces(Report& report) {
    struct Planned {
        const char* name;
        const char* peer;
        const char* mac;
        const char* address;
    };
    const Planned interfaces[] = {
        {"eth0", "peer-eth0", "00:1a:2b:3c:4d:5e", "192.0.2.10/24"},
        {"wlan0", "peer-wlan0", "fe:dc:ba:98:76:54", nullptr},
        {"velkaiface12345", "peer-long", "02:00:00:00:00:15", "198.51.100.15/24"},
    };
    Kind kind = Kind::kVeth;
    for (const Planned& iface : interfaces) {
        const Kind made = addInterface(iface.name, iface.peer);
        if (made == Kind::kNone) {
            report.skip("neither veth nor dummy interfaces can be created here");
            return Kind::kNone;
        }
        if (made == Kind::kDummy) kind = Kind::kDummy;
        const std::string name = iface.name;
        if (!ip("link set " + name + " address " + iface.mac) ||
            (iface.address != nullptr && !ip("addr add " + std::string(iface.address) + " dev " + name)) ||
            !bringUpWithLink(name, iface.peer, made)) {
            report.fail("setting up " + name + " failed");
            return Kind::kNone;
        }
    }
    return kind;
}

// Parent side ------------------------------------------------------------------

struct ChildOutcome {
    std::map<std::string, std::string> values;
    std::string skipReason;
    std::vector<std::string> problems;  // setup failures, a crashed or stuck child
};

// Splits the records of Report.
void parseRecords(const std::string& stream, ChildOutcome* outcome) {
    size_t at = 0;
    while (at < stream.size()) {
        const size_t newline = stream.find('\n', at);
        size_t keyLength = 0, valueLength = 0;
        if (newline == std::string::npos ||
            sscanf(stream.c_str() + at, "%zu %zu", &keyLength, &valueLength) != 2 ||
            newline + 1 + keyLength + valueLength > stream.size()) {
            outcome->problems.push_back("garbled report from the child");
            return;
        }
        const std::string key = stream.substr(newline + 1, keyLength);
        const std::string value = stream.substr(newline + 1 + keyLength, valueLength);
        at = newline + 1 + keyLength + valueLength;
        if (key == "!skip") {
            outcome->skipReason = value;
        } else if (key == "!fail") {
            outcome->problems.push_back(value);
        } else {
            outcome->values[key] = value;
        }
    }
}

// Runs `body` in a child process, with a network namespace of its own when
// `ownNetwork` is set, and collects its report.
ChildOutcome runInChild(bool ownNetwork, const std::function<void(Report&)>& body) {
    ChildOutcome outcome;
    int fds[2];
    if (pipe(fds) != 0) {
        outcome.problems.push_back(std::string("pipe: ") + strerror(errno));
        return outcome;
    }
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) {
        outcome.problems.push_back(std::string("fork: ") + strerror(errno));
        close(fds[0]);
        close(fds[1]);
        return outcome;
    }
    if (pid == 0) {
        close(fds[0]);
        Report report(fds[1]);
        if (ownNetwork && unshare(CLONE_NEWNET) != 0) {
            report.skip(std::string("no network namespace of our own (unshare: ") +
                        strerror(errno) + ")");
            _exit(0);
        }
        // `ip` may live in a system directory missing from the test's PATH.
        const char* path = getenv("PATH");
        const std::string fullPath =
            std::string(path != nullptr ? path : "") + ":/usr/sbin:/sbin:/usr/bin:/bin";
        setenv("PATH", fullPath.c_str(), 1);
        body(report);
        fflush(nullptr);
        _exit(0);
    }

    close(fds[1]);
    std::string stream;
    const auto start = std::chrono::steady_clock::now();
    bool stuck = false;
    for (;;) {
        struct pollfd readable = {fds[0], POLLIN, 0};
        const int ready = poll(&readable, 1, 1000);
        if (ready > 0) {
            char chunk[4096];
            const ssize_t n = read(fds[0], chunk, sizeof chunk);
            if (n > 0) {
                stream.append(chunk, static_cast<size_t>(n));
                continue;
            }
            if (n == 0) break;
            if (errno != EINTR) break;
        }
        if (std::chrono::steady_clock::now() - start > std::chrono::milliseconds(kChildBoundMs)) {
            stuck = true;
            kill(pid, SIGKILL);
            break;
        }
    }
    close(fds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    parseRecords(stream, &outcome);
    if (stuck) {
        outcome.problems.push_back("the child did not finish in time");
    } else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        outcome.problems.push_back("the child ended abnormally (status " + std::to_string(status) +
                                   ")");
    }
    return outcome;
}

// Fails the test for every problem of the child. Returns false when the
// child's values are not to be checked.
bool childWorked(const ChildOutcome& outcome) {
    for (const std::string& problem : outcome.problems) ADD_FAILURE() << problem;
    return outcome.problems.empty();
}

struct Expectation {
    const char* key;
    std::string value;
};

void expectValues(const ChildOutcome& outcome, const std::vector<Expectation>& expected) {
    for (const Expectation& e : expected) {
        const auto found = outcome.values.find(e.key);
        if (found == outcome.values.end()) {
            ADD_FAILURE() << "the child did not report " << e.key;
        } else {
            EXPECT_EQ(e.value, found->second) << e.key;
        }
    }
}

// Child bodies that query and report what the library returned and printed.
void reportMac(Report& report, const std::string& name) {
    std::string mac;
    report.put("printed getMac(" + name + ")", captureStdout([&] { mac = net::getMac(name); }));
    report.put("getMac(" + name + ")", mac);
}

void reportIp(Report& report, const std::string& name) {
    std::string address;
    report.put("printed getIp(" + name + ")", captureStdout([&] { address = net::getIp(name); }));
    report.put("getIp(" + name + ")", address);
}

void reportReady(Report& report, const std::string& key, const std::string& name) {
    bool ready = false;
    report.put("printed " + key, captureStdout([&] { ready = net::netIsReady(name); }));
    report.putBool(key, ready);
}

#define SKIP_OR_FAIL_ON_CHILD(outcome)                                  \
    do {                                                                \
        if (!(outcome).skipReason.empty()) GTEST_SKIP() << (outcome).skipReason; \
        if (!childWorked(outcome)) return;                              \
    } while (0)

// getMac, getIp, netIsReady ------------------------------------------------------

TEST(NetInterfaceTest, MacAddressAsTwelveUpperCaseDigits) {
    const ChildOutcome outcome = runInChild(true, [](Report& report) {
        if (setUpInterfaces(report) == Kind::kNone) return;
        reportMac(report, "eth0");
        reportMac(report, "wlan0");
        reportMac(report, "nosuch0");
        reportMac(report, "");
    });
    SKIP_OR_FAIL_ON_CHILD(outcome);
    expectValues(outcome, {
                              {"getMac(eth0)", "001A2B3C4D5E"},
                              {"printed getMac(eth0)", "mac 001A2B3C4D5E\n"},
                              // Bytes above 0x7f print as two digits, not as sign-extended words.
                              {"getMac(wlan0)", "FEDCBA987654"},
                              {"printed getMac(wlan0)", "mac FEDCBA987654\n"},
                              {"getMac(nosuch0)", ""},
                              {"printed getMac(nosuch0)", "mac \n"},
                              {"getMac()", ""},
                              {"printed getMac()", "mac \n"},
                          });
}

TEST(NetInterfaceTest, Ipv4AddressInDottedDecimal) {
    const ChildOutcome outcome = runInChild(true, [](Report& report) {
        if (setUpInterfaces(report) == Kind::kNone) return;
        reportIp(report, "eth0");
        reportIp(report, "wlan0");
        reportIp(report, "nosuch0");
    });
    SKIP_OR_FAIL_ON_CHILD(outcome);
    expectValues(outcome, {
                              {"getIp(eth0)", "192.0.2.10"},
                              {"printed getIp(eth0)", "ip 192.0.2.10\n"},
                              {"getIp(wlan0)", ""},  // up, but without an IPv4 address
                              {"printed getIp(wlan0)", "ip \n"},
                              {"getIp(nosuch0)", ""},
                              {"printed getIp(nosuch0)", "ip \n"},
                          });
}

// The kernel knows names of up to 15 characters; a longer name is looked up by
// its first 15, so a 20-character name finds velkaiface12345.
TEST(NetInterfaceTest, LongNamesAreLookedUpByTheirFirst15Characters) {
    const ChildOutcome outcome = runInChild(true, [](Report& report) {
        if (setUpInterfaces(report) == Kind::kNone) return;
        const std::string longName = "velkaiface12345extra";
        reportMac(report, longName);
        reportIp(report, longName);
        reportReady(report, "netIsReady(long)", longName);
        reportMac(report, "velkaiface1234");  // a prefix is another name
    });
    SKIP_OR_FAIL_ON_CHILD(outcome);
    expectValues(outcome, {
                              {"getMac(velkaiface12345extra)", "020000000015"},
                              {"getIp(velkaiface12345extra)", "198.51.100.15"},
                              {"netIsReady(long)", "true"},
                              {"getMac(velkaiface1234)", ""},
                          });
}

// Names beginning with "eth" need an operational link (IFF_RUNNING); all other
// names only need the interface to be up. A veth end is up without a link
// while its peer is down.
TEST(NetInterfaceTest, ReadinessFollowsLinkForEthAndUpStateForOthers) {
    const ChildOutcome outcome = runInChild(true, [](Report& report) {
        const Kind kind = setUpInterfaces(report);
        if (kind == Kind::kNone) return;
        if (kind != Kind::kVeth) {
            report.skip("veth interfaces cannot be created here; a link that is down while "
                        "its interface is up cannot be made");
            return;
        }
        for (const char* name : {"eth1", "xeth0"}) {
            const std::string peer = std::string("peer-") + name;
            if (addInterface(name, peer) != Kind::kVeth) {
                report.fail(std::string("cannot add ") + name);
                return;
            }
        }
        // Each step sets a state, waits until the kernel shows it, then asks.
        struct Step {
            const char* key;
            const char* command;  // for `ip`
            const char* name;     // whose flags to wait for
            int mask;
            int wanted;
        };
        const Step steps[] = {
            {"eth0 up with link", "link set eth0 up", "eth0", IFF_UP | IFF_RUNNING,
             IFF_UP | IFF_RUNNING},
            {"eth0 up, link down", "link set peer-eth0 down", "eth0", IFF_UP | IFF_RUNNING, IFF_UP},
            {"eth0 down", "link set eth0 down", "eth0", IFF_UP, 0},
            {"eth0 up again with link", "link set peer-eth0 up; ip link set eth0 up", "eth0",
             IFF_UP | IFF_RUNNING, IFF_UP | IFF_RUNNING},
            {"wlan0 up, link down", "link set peer-wlan0 down", "wlan0", IFF_UP | IFF_RUNNING,
             IFF_UP},
            {"wlan0 down", "link set wlan0 down", "wlan0", IFF_UP, 0},
            {"eth1 up, link down", "link set eth1 up", "eth1", IFF_UP | IFF_RUNNING, IFF_UP},
            {"eth1 up with link", "link set peer-eth1 up", "eth1", IFF_UP | IFF_RUNNING,
             IFF_UP | IFF_RUNNING},
            {"xeth0 up, link down", "link set xeth0 up", "xeth0", IFF_UP | IFF_RUNNING, IFF_UP},
            {"xeth0 down", "link set xeth0 down", "xeth0", IFF_UP, 0},
        };
        for (const Step& step : steps) {
            if (!ip(step.command) || !waitForFlags(step.name, step.mask, step.wanted)) {
                report.fail(std::string("could not reach the state '") + step.key + "'");
                return;
            }
            reportReady(report, step.key, step.name);
        }
        reportReady(report, "missing eth7", "eth7");
        reportReady(report, "missing wlan7", "wlan7");
    });
    SKIP_OR_FAIL_ON_CHILD(outcome);
    expectValues(outcome, {
                              {"eth0 up with link", "true"},
                              {"eth0 up, link down", "false"},
                              {"eth0 down", "false"},
                              {"eth0 up again with link", "true"},
                              {"wlan0 up, link down", "true"},
                              {"wlan0 down", "false"},
                              {"eth1 up, link down", "false"},
                              {"eth1 up with link", "true"},
                              // "eth" inside the name does not count; being up is enough.
                              {"xeth0 up, link down", "true"},
                              {"xeth0 down", "false"},
                              {"missing eth7", "false"},
                              {"missing wlan7", "false"},
                              {"printed eth0 up with link", ""},
                              {"printed eth0 up, link down", ""},
                              {"printed missing eth7", ""},
                          });
}

// getCurrentInterface ----------------------------------------------------------------

// A directory of its own for the stand-in command, removed at the end.
class NetinfcDir {
public:
    NetinfcDir() {
        std::string pattern = testing::TempDir() + "velka-netinfc-XXXXXX";
        if (mkdtemp(&pattern[0]) != nullptr) path_ = pattern;
    }
    ~NetinfcDir() {
        unlink(script().c_str());
        rmdir(path_.c_str());
    }
    bool ok() const { return !path_.empty(); }
    const std::string& path() const { return path_; }
    std::string script() const { return path_ + "/netinfc"; }

    // Writes a stand-in that prints `output` (no single quotes in it) when
    // asked "get DEV_NAME", and nothing otherwise.
    bool writeScript(const std::string& output) const {
        std::ofstream file(script());
        file << "#!/bin/sh\n"
             << "[ \"$#\" = 2 ] && [ \"$1\" = get ] && [ \"$2\" = DEV_NAME ] || exit 1\n"
             << "printf '%s' '" << output << "'\n";
        file.close();
        return file.good() && chmod(script().c_str(), 0755) == 0;
    }

private:
    std::string path_;
};

// Asks getCurrentInterface in a child whose PATH holds only `dir`.
ChildOutcome askCurrentInterface(const std::string& dir) {
    return runInChild(false, [&](Report& report) {
        setenv("PATH", dir.c_str(), 1);
        std::string name;
        report.put("printed", captureStdout([&] { name = net::getCurrentInterface(); }));
        report.put("name", name);
    });
}

struct AnswerCase {
    const char* label;
    std::string output;     // what the stand-in prints
    std::string name;       // what getCurrentInterface returns
    std::string printed;    // the line it prints
};

void PrintTo(const AnswerCase& c, std::ostream* os) { *os << c.label; }

class CurrentInterfaceTest : public testing::TestWithParam<AnswerCase> {};

TEST_P(CurrentInterfaceTest, NameComesFromTheCommandsAnswer) {
    const AnswerCase& c = GetParam();
    NetinfcDir dir;
    ASSERT_TRUE(dir.ok());
    ASSERT_TRUE(dir.writeScript(c.output));
    const ChildOutcome outcome = askCurrentInterface(dir.path());
    if (!childWorked(outcome)) return;
    expectValues(outcome, {{"name", c.name}, {"printed", c.printed}});
}

std::string padded(const std::string& text, size_t size) {
    return text + std::string(size - text.size(), ' ');
}

INSTANTIATE_TEST_SUITE_P(
    Answers, CurrentInterfaceTest,
    testing::Values(
        AnswerCase{"Quoted", "DEV_NAME=\"wlan0\"\n", "wlan0", "device name is wlan0\n"},
        AnswerCase{"OnlyTheFirstPairCounts", "\"ra0\" \"eth1\"\n", "ra0", "device name is ra0\n"},
        AnswerCase{"ThreeBytes", "\"a\"", "a", "device name is a\n"},
        AnswerCase{"TwoBytes", "ab", "eth0", "get device error 2\n"},
        AnswerCase{"EmptyQuotes", "\"\"\n", "", "device name is \n"},
        AnswerCase{"127Bytes", padded("DEV_NAME=\"eth5\"", 127), "eth5", "device name is eth5\n"},
        AnswerCase{"128Bytes", padded("DEV_NAME=\"eth5\"", 128), "eth0", "get device error 128\n"},
        AnswerCase{"300Bytes", padded("DEV_NAME=\"eth5\"", 300), "eth0", "get device error 128\n"},
        // No pair of quotes: no name can be learnt, so the answer is empty.
        AnswerCase{"NoQuotes", "wlan0\n", "", "device name is \n"},
        AnswerCase{"OneQuote", "DEV_NAME=\"wlan0\n", "", "device name is \n"},
        AnswerCase{"QuoteAsLastByteOfAFullAnswer", padded("x", 126) + "\"", "",
                   "device name is \n"}),
    [](const testing::TestParamInfo<AnswerCase>& info) { return std::string(info.param.label); });

// The shell starts but finds no such command: the answer is empty.
TEST(CurrentInterfaceFailureTest, MissingCommandGivesEth0) {
    NetinfcDir dir;  // holds no netinfc
    ASSERT_TRUE(dir.ok());
    const ChildOutcome outcome = askCurrentInterface(dir.path());
    if (!childWorked(outcome)) return;
    expectValues(outcome, {{"name", "eth0"}, {"printed", "get device error 0\n"}});
}

// The command cannot be started at all: here the child has no file descriptor
// left for the pipe.
TEST(CurrentInterfaceFailureTest, CommandThatCannotStartGivesEmpty) {
    const ChildOutcome outcome = runInChild(false, [](Report& report) {
        fflush(stdout);
        int capture[2];
        if (pipe(capture) != 0) _exit(92);
        const int saved = dup(STDOUT_FILENO);
        dup2(capture[1], STDOUT_FILENO);
        close(capture[1]);

        // A small descriptor table, filled up.
        constexpr int kDescriptors = 64;
        struct rlimit savedLimit;
        getrlimit(RLIMIT_NOFILE, &savedLimit);
        struct rlimit few = savedLimit;
        few.rlim_cur = kDescriptors;
        if (setrlimit(RLIMIT_NOFILE, &few) != 0) _exit(93);
        std::vector<int> filler;
        for (int i = 0; i < kDescriptors; ++i) {
            const int fd = open("/dev/null", O_RDONLY);
            if (fd < 0) break;
            filler.push_back(fd);
        }
        const std::string name = net::getCurrentInterface();
        fflush(stdout);
        for (int fd : filler) close(fd);
        setrlimit(RLIMIT_NOFILE, &savedLimit);

        dup2(saved, STDOUT_FILENO);
        close(saved);
        std::string printed;
        char chunk[256];
        ssize_t n;
        while ((n = read(capture[0], chunk, sizeof chunk)) > 0) {
            printed.append(chunk, static_cast<size_t>(n));
        }
        report.put("printed", printed);
        report.put("name", name);
    });
    if (!childWorked(outcome)) return;
    expectValues(outcome, {{"name", ""}, {"printed", "cant get device \n"}});
}

}  // namespace
