// HttpFile behind an emulated home link (support/LinkEmulator.h), where a
// request costs round trips and the download is not ahead of the reader at
// once, as it is on loopback: a demuxer's jump to the end and back costs one
// request for the end and keeps the start, a forward seek that the running
// transfer soon reaches waits for it, a far one restarts, unless the whole
// file comes soon: then every seek waits and no byte crosses twice. Checked by the
// requests nginx answered and the bytes read, never by times.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "support/LinkEmulator.h"
#include "support/NginxServer.h"
#include "velka/HttpFile.h"

namespace {

using testing_support::LinkEmulator;
using testing_support::NginxServer;
using testing_support::patternBytes;
using testing_support::slice;
using testing_support::StdoutTap;
using velka::File;
using velka::HttpFile;

constexpr int64_t kKiB = 1024;
constexpr int64_t kMiB = 1024 * kKiB;
constexpr int64_t kFileBytes = 8 * kMiB;

struct Step {
    int64_t offset;  // where to read; negative: from the end
    uint32_t bytes;
};

struct LinkCase {
    const char* name;
    std::vector<Step> steps;
    std::vector<std::string> ranges;  // the requests' Range headers, sorted; "-" for none
    const char* line;                 // a line the choice prints
    double megabitsPerSecond = 8;     // the whole file takes over 8 s
    int roundTripMs = 100;
    bool once = false;                // the whole file crossed, each byte once
};

std::string rangeFrom(int64_t offset) { return "bytes=" + std::to_string(offset) + "-"; }

const LinkCase kCases[] = {
    // An MP4 whose index is stored last: the start, the index at the end,
    // back to the start's next bytes. The end comes over a second request,
    // with the first one paused meanwhile; the start is still in the ring.
    {"EndAndBack",
     {{0, 64 * 1024}, {-32 * kKiB, 32 * 1024}, {64 * kKiB, 64 * 1024}},
     {"-", rangeFrom(kFileBytes - 32 * kKiB)},
     "main transfer paused for the tail"},
    // A skip of 200 KiB ahead of the download (more than the 128 KiB that
    // are always waited for) comes sooner than a new request would answer;
    // one of 5 MiB does not.
    {"NearSkipWaitsFarSkipRestarts",
     {{0, 64 * 1024}, {64 * kKiB + 200 * kKiB, 64 * 1024}, {5 * kMiB, 64 * 1024}},
     {"-", rangeFrom(5 * kMiB)},
     "wait gap "},
    // A gap of up to 128 KiB is always waited for, also where a new request
    // would answer sooner (a round trip of 1 ms against 0.4 s for the gap).
    {"ShortGapWaitsWhereARestartWouldBeSooner",
     {{0, 64 * 1024}, {164 * kKiB, 64 * 1024}},
     {"-"},
     "wait gap ",
     2,
     1},
    // A file the download brings whole in under 2 s: every seek forward short
    // of the last eighth (the tail fetch's) waits for it, however far, and
    // the seek back finds the start still there.
    {"WholeStreamWaitsForEveryForwardSeek",
     {{0, 64 * 1024}, {5 * kMiB, 64 * 1024}, {64 * kKiB, 64 * 1024}, {6 * kMiB + 512 * kKiB, 64 * 1024}},
     {"-"},
     "wait gap ",
     40,
     40,
     true},
};

class HttpLinkTest : public ::testing::TestWithParam<LinkCase> {};

TEST_P(HttpLinkTest, CostsOnlyTheRequestsTheLinkMakesWorthwhile) {
    const LinkCase& c = GetParam();
    NginxServer server;
    std::string why;
    ASSERT_TRUE(server.start(&why)) << why;
    const std::vector<char> bytes = patternBytes(kFileBytes, 11);
    server.serve("clip", bytes);
    LinkEmulator link;
    LinkEmulator::Options options;
    options.megabitsPerSecond = c.megabitsPerSecond;
    options.roundTripMs = c.roundTripMs;
    ASSERT_TRUE(link.start(server.port(), options, &why)) << why;

    StdoutTap tap;
    {
        HttpFile file(link.url("clip"));
        ASSERT_EQ(0, file.open());
        for (const Step& step : c.steps) {
            const int64_t at = step.offset < 0 ? kFileBytes + step.offset : step.offset;
            ASSERT_EQ(at, file.seek(at, File::kSeekSet));
            std::vector<char> got(step.bytes);
            ASSERT_EQ(static_cast<int>(step.bytes), file.read(got.data(), step.bytes)) << at;
            EXPECT_TRUE(got == slice(bytes, at, step.bytes)) << at;
        }
        EXPECT_GT(tap.count(c.line), 0u) << c.line;
        file.close();
    }
    auto requests = server.waitForRequests(c.ranges.size());
    std::vector<std::string> ranges;
    for (const auto& r : requests) ranges.push_back(r.range);
    std::sort(ranges.begin(), ranges.end());
    EXPECT_EQ(c.ranges, ranges);
    if (c.once) {
        EXPECT_LT(link.bytesToClients(), static_cast<uint64_t>(kFileBytes + 64 * kKiB));
    } else {
        // The first request was cut short: far less than the file crossed.
        EXPECT_LT(link.bytesToClients(), static_cast<uint64_t>(kFileBytes));
    }
}

INSTANTIATE_TEST_SUITE_P(Link, HttpLinkTest, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<LinkCase>& info) { return info.param.name; });

}  // namespace
