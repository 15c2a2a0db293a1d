// Network interface queries against real interfaces. Each test runs its
// queries in a child process; the interface tests give that child a network
// namespace of its own and create the interfaces they ask about with `ip`, so
// nothing of the machine's own network is seen or touched. The child returns
// a transcript of what the library answered and printed, which the parent
// compares whole. getCurrentInterface runs the platform command through the
// shell; those tests put a stand-in `netinfc` script first on the child's PATH.

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
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "velka/Net.h"

namespace {

namespace net = velka::net;

// A child that has not finished within this long is killed and the test fails.
constexpr int kChildBoundMs = 120000;

// Runs `body` in a child process, in a network namespace of its own when
// `ownNetwork` is set, and returns what the body returned ("skip: ..." when
// the environment does not allow the test). A child that crashed or hung adds
// a line saying so.
std::string inChild(bool ownNetwork, const std::function<std::string()>& body) {
    int fds[2];
    if (pipe(fds) != 0) return "pipe failed";
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        // `ip` may live in a system directory missing from the test's PATH.
        const char* path = getenv("PATH");
        const std::string systemPath = ":/usr/sbin:/sbin:/usr/bin:/bin";
        setenv("PATH", (std::string(path != nullptr ? path : "") + systemPath).c_str(), 1);
        const std::string out =
            ownNetwork && unshare(CLONE_NEWNET) != 0
                ? std::string("skip: no network namespace of our own: ") + strerror(errno)
                : body();
        for (size_t done = 0; done < out.size();) {
            const ssize_t n = write(fds[1], out.data() + done, out.size() - done);
            if (n <= 0) _exit(1);
            done += static_cast<size_t>(n);
        }
        _exit(0);
    }
    close(fds[1]);
    std::string text;
    char chunk[4096];
    ssize_t n = 1;
    struct pollfd readable = {fds[0], POLLIN, 0};
    while (n > 0 && poll(&readable, 1, kChildBoundMs) > 0) {
        n = read(fds[0], chunk, sizeof chunk);
        if (n > 0) text.append(chunk, static_cast<size_t>(n));
    }
    const bool hung = n > 0;
    if (hung) kill(pid, SIGKILL);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    const bool clean = !hung && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return clean ? text : text + "\nthe child did not finish cleanly";
}

// One transcript line: what `query` returned and what it printed.
std::string asked(const std::string& what, const std::function<std::string()>& query) {
    std::string result;
    std::string printed = testing_support::capturedStdout([&] { result = query(); });
    for (size_t at = printed.find('\n'); at != std::string::npos; at = printed.find('\n', at + 2)) {
        printed.replace(at, 1, "\\n");
    }
    return what + " = " + result + ", printed \"" + printed + "\"\n";
}

std::string askMac(const std::string& name) {
    return asked("getMac(" + name + ")", [&] { return net::getMac(name); });
}
std::string askIp(const std::string& name) {
    return asked("getIp(" + name + ")", [&] { return net::getIp(name); });
}
std::string askReady(const std::string& what, const std::string& name) {
    return asked(what, [&] { return std::string(net::netIsReady(name) ? "true" : "false"); });
}

bool ip(const std::string& arguments) { return system(("ip " + arguments).c_str()) == 0; }

// Waits until the flags in `mask` of interface `name` equal `wanted`. The
// operational state that IFF_RUNNING shows follows a carrier change a moment
// later.
bool waitForFlags(const std::string& name, int mask, int wanted) {
    return testing_support::waitUntil([&] {
        const int fd = socket(AF_INET, SOCK_DGRAM, 0);
        struct ifreq request = {};
        strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
        const int ret = ioctl(fd, SIOCGIFFLAGS, &request);
        close(fd);
        return ret == 0 && (static_cast<uint16_t>(request.ifr_flags) & mask) == wanted;
    });
}

constexpr int kUpWithLink = IFF_UP | IFF_RUNNING;

// Makes the interfaces of the tests as veth pairs, whose peer end decides
// whether the named end has a link:
//   eth0             MAC 00:1a:2b:3c:4d:5e, IPv4 192.0.2.10, up with link
//   wlan0            MAC fe:dc:ba:98:76:54, no IPv4 address, up with link
//   velkaiface12345  (15 characters) MAC 02:00:00:00:00:15, IPv4 198.51.100.15, up with link
//   eth1, xeth0      down, their peers down
// "" when done, else why not.
std::string setUpInterfaces() {
    if (!ip("link add eth0 type veth peer name peer-eth0 2>/dev/null")) {
        return "skip: veth interfaces cannot be created here";
    }
    for (const char* command :
         {"link set eth0 address 00:1a:2b:3c:4d:5e", "addr add 192.0.2.10/24 dev eth0",
          "link add wlan0 type veth peer name peer-wlan0",
          "link set wlan0 address fe:dc:ba:98:76:54",
          "link add velkaiface12345 type veth peer name peer-long",
          "link set velkaiface12345 address 02:00:00:00:00:15",
          "addr add 198.51.100.15/24 dev velkaiface12345",
          "link add eth1 type veth peer name peer-eth1",
          "link add xeth0 type veth peer name peer-xeth0", "link set peer-eth0 up",
          "link set eth0 up", "link set peer-wlan0 up", "link set wlan0 up",
          "link set peer-long up", "link set velkaiface12345 up"}) {
        if (!ip(command)) return std::string("setting up failed: ip ") + command;
    }
    for (const char* name : {"eth0", "wlan0", "velkaiface12345"}) {
        if (!waitForFlags(name, kUpWithLink, kUpWithLink)) return name + std::string(" no link");
    }
    return "";
}

// Runs `queries` against the interfaces in a namespace of its own.
std::string onInterfaces(const std::function<std::string()>& queries) {
    return inChild(true, [&] {
        const std::string problem = setUpInterfaces();
        return problem.empty() ? queries() : problem;
    });
}

bool skipped(const std::string& transcript) { return transcript.compare(0, 6, "skip: ") == 0; }

// The kernel knows names of up to 15 characters; a longer name is looked up
// by its first 15, so a 20-character name finds velkaiface12345.
TEST(NetInterfaceTest, MacAndIpv4OfRealInterfacesAndLongNamesCutTo15Characters) {
    const std::string transcript = onInterfaces([] {
        return askMac("eth0") + askMac("wlan0") + askMac("nosuch0") + askMac("") + askIp("eth0") +
               askIp("wlan0") + askIp("nosuch0") + askMac("velkaiface12345extra") +
               askIp("velkaiface12345extra") + askReady("long name ready", "velkaiface12345extra") +
               askMac("velkaiface1234");
    });
    if (skipped(transcript)) GTEST_SKIP() << transcript;
    EXPECT_EQ(
        "getMac(eth0) = 001A2B3C4D5E, printed \"mac 001A2B3C4D5E\\n\"\n"
        // Bytes above 0x7f print as two digits, not as sign-extended words.
        "getMac(wlan0) = FEDCBA987654, printed \"mac FEDCBA987654\\n\"\n"
        "getMac(nosuch0) = , printed \"mac \\n\"\n"
        "getMac() = , printed \"mac \\n\"\n"
        "getIp(eth0) = 192.0.2.10, printed \"ip 192.0.2.10\\n\"\n"
        "getIp(wlan0) = , printed \"ip \\n\"\n"  // up, but without an IPv4 address
        "getIp(nosuch0) = , printed \"ip \\n\"\n"
        "getMac(velkaiface12345extra) = 020000000015, printed \"mac 020000000015\\n\"\n"
        "getIp(velkaiface12345extra) = 198.51.100.15, printed \"ip 198.51.100.15\\n\"\n"
        "long name ready = true, printed \"\"\n"
        "getMac(velkaiface1234) = , printed \"mac \\n\"\n",  // a prefix is another name
        transcript);
}

// Each step sets a state with `ip`, waits until the kernel shows it, then asks.
struct ReadyStep {
    const char* state;
    const char* command;  // none: ask without a change
    const char* name;     // whose flags to wait for
    int mask, wanted;
    bool ready;
};

const ReadyStep kReadySteps[] = {
    {"eth0 up with link", "link set eth0 up", "eth0", kUpWithLink, kUpWithLink, true},
    {"eth0 up, link down", "link set peer-eth0 down", "eth0", kUpWithLink, IFF_UP, false},
    {"eth0 down", "link set eth0 down", "eth0", IFF_UP, 0, false},
    {"eth1 up, link down", "link set eth1 up", "eth1", kUpWithLink, IFF_UP, false},
    {"eth1 up with link", "link set peer-eth1 up", "eth1", kUpWithLink, kUpWithLink, true},
    {"wlan0 up, link down", "link set peer-wlan0 down", "wlan0", kUpWithLink, IFF_UP, true},
    {"wlan0 down", "link set wlan0 down", "wlan0", IFF_UP, 0, false},
    // "eth" inside the name does not count; being up is enough.
    {"xeth0 up, link down", "link set xeth0 up", "xeth0", kUpWithLink, IFF_UP, true},
    {"missing eth7", nullptr, "eth7", 0, 0, false},
};

// Names beginning with "eth" need an operational link (IFF_RUNNING); all
// other names only need the interface to be up.
TEST(NetInterfaceTest, ReadinessFollowsLinkForEthAndUpStateForOthers) {
    std::string expected;
    for (const ReadyStep& step : kReadySteps) {
        expected +=
            std::string(step.state) + " = " + (step.ready ? "true" : "false") + ", printed \"\"\n";
    }
    const std::string transcript = onInterfaces([] {
        std::string asked;
        for (const ReadyStep& step : kReadySteps) {
            if (step.command != nullptr &&
                (!ip(step.command) || !waitForFlags(step.name, step.mask, step.wanted))) {
                return asked + "could not reach the state '" + step.state + "'";
            }
            asked += askReady(step.state, step.name);
        }
        return asked;
    });
    if (skipped(transcript)) GTEST_SKIP() << transcript;
    EXPECT_EQ(expected, transcript);
}

enum class Command { kScript, kMissing, kCannotStart };

struct AnswerCase {
    const char* label;
    std::string output;  // what the stand-in prints
    std::string name;    // what getCurrentInterface returns
    std::string printed;
    Command command = Command::kScript;
};

void PrintTo(const AnswerCase& c, std::ostream* os) { *os << c.label; }

class CurrentInterfaceTest : public testing::TestWithParam<AnswerCase> {};

TEST_P(CurrentInterfaceTest, NameComesFromTheCommandsAnswer) {
    const AnswerCase& c = GetParam();
    testing_support::TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    if (c.command == Command::kScript) {
        // No single quotes in the output.
        const std::string script =
            "#!/bin/sh\n[ \"$#\" = 2 ] && [ \"$1\" = get ] && [ \"$2\" = DEV_NAME ] || exit 1\n" +
            ("printf '%s' '" + c.output + "'\n");
        const std::string path = dir.write("netinfc", {script.begin(), script.end()});
        ASSERT_EQ(0, chmod(path.c_str(), 0755));
    }
    const std::string transcript = inChild(false, [&] {
        setenv("PATH", dir.path().c_str(), 1);
        return asked("name", [&] {
            if (c.command != Command::kCannotStart) return net::getCurrentInterface();
            // A small descriptor table, filled up: the command cannot be started.
            struct rlimit saved, few;
            getrlimit(RLIMIT_NOFILE, &saved);
            few = saved;
            few.rlim_cur = 64;
            setrlimit(RLIMIT_NOFILE, &few);
            std::vector<int> filler;
            for (int i = 0; i < 64; ++i) filler.push_back(open("/dev/null", O_RDONLY));
            const std::string name = net::getCurrentInterface();
            for (int fd : filler) close(fd);
            setrlimit(RLIMIT_NOFILE, &saved);
            return name;
        });
    });
    EXPECT_EQ("name = " + c.name + ", printed \"" + c.printed + "\\n\"\n", transcript);
}

std::string padded(const std::string& text, size_t size) {
    return text + std::string(size - text.size(), ' ');
}

INSTANTIATE_TEST_SUITE_P(
    Answers, CurrentInterfaceTest,
    testing::Values(
        AnswerCase{"Quoted", "DEV_NAME=\"wlan0\"\n", "wlan0", "device name is wlan0"},
        AnswerCase{"OnlyTheFirstPairCounts", "\"ra0\" \"eth1\"\n", "ra0", "device name is ra0"},
        AnswerCase{"ThreeBytes", "\"a\"", "a", "device name is a"},
        AnswerCase{"TwoBytes", "ab", "eth0", "get device error 2"},
        AnswerCase{"EmptyQuotes", "\"\"\n", "", "device name is "},
        AnswerCase{"127Bytes", padded("DEV_NAME=\"eth5\"", 127), "eth5", "device name is eth5"},
        AnswerCase{"128Bytes", padded("DEV_NAME=\"eth5\"", 128), "eth0", "get device error 128"},
        AnswerCase{"300Bytes", padded("DEV_NAME=\"eth5\"", 300), "eth0", "get device error 128"},
        // No pair of quotes: no name can be learnt, so the answer is empty.
        AnswerCase{"NoQuotes", "wlan0\n", "", "device name is "},
        AnswerCase{"QuoteAsLastByteOfAFullAnswer", padded("x", 126) + "\"", "", "device name is "},
        // The shell starts but finds no such command: nothing is answered.
        AnswerCase{"MissingCommand", "", "eth0", "get device error 0", Command::kMissing},
        AnswerCase{"CommandThatCannotStart", "", "", "cant get device ", Command::kCannotStart}),
    [](const testing::TestParamInfo<AnswerCase>& info) { return std::string(info.param.label); });

}  // namespace
