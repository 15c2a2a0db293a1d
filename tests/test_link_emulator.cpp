// The link emulator that the HTTP source's link tests and the link benchmark
// stand on: its rate and round trip must be what it is told. The one place
// where a test judges times, with bounds that a loaded machine still meets.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "support/LinkEmulator.h"
#include "support/NginxServer.h"

namespace {

using testing_support::LinkEmulator;
using testing_support::NginxServer;
using Clock = std::chrono::steady_clock;

// A plain HTTP/1.0 GET over its own connection: the body's size (headers
// included), or -1.
int64_t fetch(int port, const std::string& path) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd == -1 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return -1;
    const std::string request = "GET /" + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
    if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) {
        close(fd);
        return -1;
    }
    int64_t total = 0;
    char buffer[64 * 1024];
    for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, 0)) > 0;) total += n;
    close(fd);
    return total;
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

class LinkEmulatorTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        ASSERT_TRUE(server_.start(&why)) << why;
        server_.serve("one-mb", testing_support::patternBytes(1000000, 7));
        server_.serve("tiny", testing_support::patternBytes(100, 8));
    }
    void startLink(double mbps, int rttMs) {
        LinkEmulator::Options options;
        options.megabitsPerSecond = mbps;
        options.roundTripMs = rttMs;
        std::string why;
        ASSERT_TRUE(link_.start(server_.port(), options, &why)) << why;
    }
    NginxServer server_;
    LinkEmulator link_;
};

// 1 MB at 8 Mbit/s is one second on the link; two at once share it (two
// seconds for both). The headers add a few hundred bytes.
TEST_F(LinkEmulatorTest, TransfersTakeTheTimeTheSharedRateSays) {
    startLink(8, 10);
    Clock::time_point start = Clock::now();
    EXPECT_GT(fetch(link_.port(), "one-mb"), 1000000);
    const double one = secondsSince(start);
    EXPECT_GT(one, 0.95);
    EXPECT_LT(one, 3.0);

    start = Clock::now();
    int64_t sizes[2] = {0, 0};
    std::thread other([&] { sizes[1] = fetch(link_.port(), "one-mb"); });
    sizes[0] = fetch(link_.port(), "one-mb");
    other.join();
    const double two = secondsSince(start);
    EXPECT_GT(sizes[0], 1000000);
    EXPECT_GT(sizes[1], 1000000);
    EXPECT_GT(two, 1.95);
    EXPECT_LT(two, 5.0);
    EXPECT_GE(link_.bytesToClients(), 3000000u);
    EXPECT_EQ(link_.connections(), 3u);
}

// A small request on a new connection waits two round trips: the handshake's
// and its own.
TEST_F(LinkEmulatorTest, ARequestWaitsItsRoundTrips) {
    startLink(100, 300);
    const Clock::time_point start = Clock::now();
    EXPECT_GT(fetch(link_.port(), "tiny"), 100);
    const double took = secondsSince(start);
    EXPECT_GT(took, 0.58);
    EXPECT_LT(took, 2.0);
}

}  // namespace
