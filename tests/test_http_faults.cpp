// HttpFile under network faults, against the scripted FaultServer: drops and
// short bodies resumed with a range or ending in a clear error, wrong
// statuses, unknown lengths, redirects, failing opens, a stall restarted while
// a full ring and a slow drip are not, tasks released in the middle of a
// fault, fifteen files on the worker while three suffer faults, and the
// descriptors, threads and memory left after many cycles.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "support/FaultServer.h"
#include "support/NginxServer.h"
#include "velka/HttpFile.h"

namespace {

using testing_support::ChainedReader;
using testing_support::Completion;
using testing_support::CompletionLog;
using testing_support::FaultServer;
using testing_support::NginxServer;
using testing_support::patternBytes;
using testing_support::slice;
using testing_support::StdoutTap;
using testing_support::waitUntil;
using velka::File;
using velka::HttpFile;
using velka::VelkaStatus;
using Reply = FaultServer::Reply;
using Clock = std::chrono::steady_clock;

constexpr int64_t kKiB = 1024;
constexpr int64_t kMiB = 1024 * kKiB;
// The server's file is larger than the 16 MiB ring; most rows serve a prefix.
constexpr int64_t kFileBytes = 20 * kMiB + 7;
constexpr int64_t kStream = 2 * kMiB;        // the resource most rows serve
constexpr int64_t kCut = kMiB + 123;         // where their faults strike
const std::string kCutRange = "bytes=" + std::to_string(kCut) + "-";

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

Reply prefix(int64_t size = kStream) {
    Reply r;
    r.size = size;
    return r;
}
Reply cut(Reply::Close how, int64_t at = kCut, int holdMs = 0) {
    Reply r = prefix();
    r.cutAt = at;
    r.close = how;
    r.holdMs = holdMs;
    return r;
}
Reply status(int code, const std::string& body = "") {
    Reply r;
    r.status = code;
    r.body = body;
    return r;
}
Reply redirect(const std::string& location) {
    Reply r;
    r.location = location;
    return r;
}
Reply framed(Reply::Framing framing) {
    Reply r = prefix();
    r.framing = framing;
    return r;
}

class HttpFaultTest : public ::testing::Test {
protected:
    HttpFaultTest() : server_(patternBytes(kFileBytes, 40)) {}

    void SetUp() override {
        std::string why;
        ASSERT_TRUE(server_.start(&why)) << why;
    }

    // A file opened on `path` of the server.
    std::unique_ptr<HttpFile> open(const std::string& path) {
        std::unique_ptr<HttpFile> file(new HttpFile(server_.url(path)));
        EXPECT_EQ(0, file->open()) << path;
        return file;
    }
    // Scripts `hops` redirects /hopN -> /hopN-1 ... -> `target`; returns the first path.
    std::string redirectChain(int hops, const std::string& target) {
        for (int i = 1; i <= hops; ++i) {
            server_.script("/hop" + std::to_string(i),
                           {redirect(i == 1 ? target : "/hop" + std::to_string(i - 1))});
        }
        return "/hop" + std::to_string(hops);
    }
    std::vector<std::string> ranges(const std::string& path) {
        std::vector<std::string> out;
        for (const auto& r : server_.requests(path)) out.push_back(r.range);
        return out;
    }
    const std::vector<char>& bytes() const { return server_.file(); }

    FaultServer server_;
    StdoutTap tap_;
};

// --- Faults in the middle of a stream ------------------------------------------------------

struct StreamCase {
    const char* name;
    std::vector<Reply> replies;  // for /s
    int redirects;               // hops in front of /s
    bool fails;                  // the reader gets a clear error at kCut
    std::vector<std::string> ranges;  // of the requests to /s
    const char* line;            // printed once per fault (libcurl's or ours)
    size_t lines;
};

void PrintTo(const StreamCase& c, std::ostream* os) { *os << c.name; }

class HttpStreamFaultTest : public HttpFaultTest, public ::testing::WithParamInterface<StreamCase> {};

// Five reads of a quarter of the resource are queued at once, so the fault
// strikes with requests waiting. A resumed stream delivers every byte once
// (four kStatusOk, then kStatusEndOfFile with 0); a failed one completes the
// reads past the fault with kStatusError and 0 bytes and refuses new ones.
TEST_P(HttpStreamFaultTest, ResumesWhereItStoodOrEndsInAClearError) {
    const StreamCase& c = GetParam();
    server_.script("/s", c.replies);
    const std::string path = c.redirects > 0 ? redirectChain(c.redirects, "/s") : "/s";
    std::unique_ptr<HttpFile> file = open(path);
    ASSERT_FALSE(HasFailure());
    const bool unknownLength = c.replies[0].framing != Reply::kLength;
    EXPECT_EQ(unknownLength ? -1 : kStream, file->length());
    if (unknownLength) {  // nothing to seek in
        EXPECT_EQ(-1, file->seek(10, File::kSeekEnd));
        EXPECT_EQ(-1, file->seek(10, File::kSeekCurrent));
        EXPECT_EQ(0, file->seek(10, File::kSeekSet));
    }

    constexpr int kReads = 5;
    constexpr int64_t kQuarter = kStream / 4;
    CompletionLog log;
    std::vector<CompletionLog::Callback> callbacks;
    std::vector<std::vector<char>> buffers(kReads, std::vector<char>(kQuarter, 0));
    for (int i = 0; i < kReads; ++i) callbacks.emplace_back(log, i);
    for (int i = 0; i < kReads; ++i) {
        ASSERT_NE(nullptr, file->readAsync(buffers[i].data(), kQuarter, callbacks[i])) << i;
    }
    // A first answer that fails for good holds its socket until the reads are queued.
    if (c.replies[0].holdMs > 0) {
        ASSERT_TRUE(waitUntil([&] { return server_.cuts("/s") == 1; }));
        server_.endHolds();
    }
    ASSERT_TRUE(log.waitFor(kReads));
    const std::vector<Completion> all = log.all();
    for (int i = 0; i < kReads; ++i) {
        SCOPED_TRACE("read " + std::to_string(i));
        EXPECT_EQ(i, all[i].tag);
        const bool beforeCut = (i + 1) * kQuarter <= kCut;
        if (i == kReads - 1 && !c.fails) {
            EXPECT_EQ(velka::kStatusEndOfFile, all[i].status);
            EXPECT_EQ(0u, all[i].length);
        } else if (beforeCut || !c.fails) {
            EXPECT_EQ(velka::kStatusOk, all[i].status);
            EXPECT_EQ(static_cast<uint32_t>(kQuarter), all[i].length);
            EXPECT_TRUE(buffers[i] == slice(bytes(), i * kQuarter, kQuarter));
        } else {
            EXPECT_EQ(velka::kStatusError, all[i].status);
            EXPECT_EQ(0u, all[i].length);
        }
    }
    if (c.fails) {
        char byte;
        EXPECT_EQ(nullptr, file->readAsync(&byte, 1, callbacks[0]));
        EXPECT_EQ(-1, file->read(&byte, 1));
    }
    file.reset();
    EXPECT_TRUE(server_.waitIdle());
    EXPECT_EQ(c.ranges, ranges("/s"));
    EXPECT_EQ(c.lines, tap_.count(c.line)) << c.line;
    EXPECT_EQ(0u, tap_.count("cur time"));
}

const Reply kWhole = prefix();
const int kUntilEnded = 60000;  // a hold that endHolds() ends
const StreamCase kStreamCases[] = {
    {"DroppedOnce", {cut(Reply::kReset), kWhole}, 0, false, {"-", kCutRange},
     "Connection reset by peer", 1},
    {"DroppedTwiceInARow", {cut(Reply::kReset), cut(Reply::kReset), kWhole}, 0, false,
     {"-", kCutRange, kCutRange}, "Connection reset by peer", 2},
    {"DroppedThreeTimesInARow", {cut(Reply::kReset, kCut, kUntilEnded), cut(Reply::kReset)}, 0, true, {"-", kCutRange, kCutRange},
     "Connection reset by peer", 3},
    {"ShortBodyOnce", {cut(Reply::kFin), kWhole}, 0, false, {"-", kCutRange},
     "transfer closed with", 1},
    // Its first bytes and its end come in one pass of the worker.
    {"ShortFirstResponse", {cut(Reply::kFin, 1000), kWhole}, 0, false, {"-", "bytes=1000-"},
     "transfer closed with", 1},
    {"ShortBodyNeverCompleted", {cut(Reply::kFin, kCut, kUntilEnded), cut(Reply::kFin)}, 0, true, {"-", kCutRange, kCutRange},
     "transfer closed with", 3},
    // The retry asks for a range and gets the whole resource: refused (23).
    {"RangeAnsweredWith200", {cut(Reply::kReset, kCut, kUntilEnded), status(200)}, 0, true, {"-", kCutRange},
     "Failure writing output to destination", 1},
    // A restart follows the redirects again.
    {"TenRedirectsThenADrop", {cut(Reply::kReset), kWhole}, 10, false, {"-", kCutRange},
     "Connection reset by peer", 1},
    {"CloseDelimited", {framed(Reply::kCloseDelimited)}, 0, false, {"-"},
     "notify task info ready -1", 1},
    {"Chunked", {framed(Reply::kChunked)}, 0, false, {"-"}, "notify task info ready -1", 1},
};

INSTANTIATE_TEST_SUITE_P(Faults, HttpStreamFaultTest, ::testing::ValuesIn(kStreamCases),
                         [](const ::testing::TestParamInfo<StreamCase>& info) {
                             return std::string(info.param.name);
                         });

// --- Opens that fail ------------------------------------------------------------------------

struct OpenCase {
    const char* name;
    std::vector<Reply> replies;  // for /o
    int redirects;               // hops in front of /o
    std::string url = "";        // instead of the server's /o
};

// Each fails the open quickly (well inside the 20 s connect time-out), with
// its line printed once and the task info published once.
TEST_F(HttpFaultTest, OpensFailQuicklyOnErrorsWrongStatusesAndBadRedirects) {
    const std::string ftp = "ftp://127.0.0.1:" + std::to_string(server_.port()) + "/o";
    const OpenCase cases[] = {
        {"404 without a body", {status(404)}, 0},
        {"404 with a body", {status(404, "not here")}, 0},
        {"500 without a body", {status(500)}, 0},
        {"500 with a body", {status(500, "broken")}, 0},
        {"connection closed without an answer", {[] { Reply r; r.hangUp = true; return r; }()}, 0},
        {"206 to a plain request", {status(206)}, 0},
        {"eleven redirects", {prefix()}, 11},
        {"a redirect loop", {redirect("/loop")}, 0},
        {"a redirect to file://", {redirect("file:///etc/hostname")}, 0},
        {"a redirect to ftp://", {redirect(ftp)}, 0},
        {"204, no body at all", {status(204)}, 0},
        {"a closed port", {}, 0},
        {"an ftp:// URL", {prefix()}, 0, ftp},
        {"a file:// URL", {prefix()}, 0, "file:///etc/hostname"},
    };
    server_.script("/loop", {redirect("/o")});
    for (const OpenCase& c : cases) {
        SCOPED_TRACE(c.name);
        server_.script("/o", c.replies);
        const std::string path = c.redirects > 0 ? redirectChain(c.redirects, "/o") : "/o";
        std::string url = c.url.empty() ? server_.url(path) : c.url;
        if (c.replies.empty()) {
            // Nothing listens where a server has just stopped listening.
            FaultServer gone(bytes());
            std::string why;
            ASSERT_TRUE(gone.start(&why)) << why;
            url = gone.url("/o");
            gone.stop();
        }
        const size_t mark = tap_.text().size();
        HttpFile file(url);
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(-1, file.open());
        EXPECT_LT(secondsSince(start), 5.0);
        EXPECT_EQ(1u, tap_.count("HttpFile::open fail 1", mark));
        EXPECT_EQ(1u, tap_.count("notify task info fail", mark));
        EXPECT_EQ(0, file.close());
        EXPECT_EQ(0, file.cachePercent());
    }
}

// --- Stalls, idle readers and slow drips --------------------------------------------------

// Three files on the worker for the same ~16 s. The first stalls (its server
// holds the socket open with nothing to send) while its reader waits: after
// 15 s the transfer restarts with a range. The second fills its ring and is
// not read for that time: paused time never counts. The third drips 2 KiB a
// second: reads complete as the bytes come and nothing restarts.
TEST_F(HttpFaultTest, AStallRestartsButAFullRingOrASlowDripDoNot) {
    constexpr int64_t kStallAt = kMiB + 5;
    Reply stalled = prefix();
    stalled.cutAt = kStallAt;
    stalled.holdMs = 40000;
    server_.script("/stall", {stalled, prefix()});
    Reply drip = prefix();
    drip.bytesPerSecond = 2048;
    server_.script("/drip", {drip});

    std::unique_ptr<HttpFile> idle = open("/idle");
    std::unique_ptr<HttpFile> stalling = open("/stall");
    std::unique_ptr<HttpFile> dripping = open("/drip");
    ASSERT_FALSE(HasFailure());
    const Clock::time_point start = Clock::now();

    ChainedReader stallReader(*stalling, 64 * 1024, kStream / (64 * 1024));
    bool stallRead = false;
    double stallSeconds = 0;
    std::thread stallThread([&] {
        stallRead = stallReader.run();
        stallSeconds = secondsSince(start);
    });
    // 8 reads of 4 KiB: 16 s at 2 KiB a second.
    struct Stamped : ChainedReader {
        using ChainedReader::ChainedReader;
        void complete(VelkaStatus s, uint32_t n) override {
            times.push_back(Clock::now());
            ChainedReader::complete(s, n);
        }
        std::vector<Clock::time_point> times;
    } dripReader(*dripping, 4096, 8);
    const bool dripRead = dripReader.run();
    const double dripSeconds = secondsSince(start);
    stallThread.join();

    EXPECT_TRUE(stallRead);
    EXPECT_TRUE(stallReader.data == slice(bytes(), 0, kStream));
    EXPECT_GE(stallSeconds, 14.0);
    EXPECT_EQ(1u, tap_.count("cur time "));
    EXPECT_EQ((std::vector<std::string>{"-", "bytes=" + std::to_string(kStallAt) + "-"}),
              ranges("/stall"));

    EXPECT_TRUE(dripRead);
    EXPECT_TRUE(dripReader.data == slice(bytes(), 0, 8 * 4096));
    EXPECT_GT(dripSeconds, 15.0);
    ASSERT_EQ(8u, dripReader.times.size());
    EXPECT_LT(std::chrono::duration<double>(dripReader.times[0] - start).count(), 5.0)
        << "the first read waited for more than its bytes";

    // The idle ring has been full since long before; now it is read through.
    EXPECT_GE(secondsSince(start), 15.0);
    ChainedReader idleReader(*idle, 1024 * 1024);
    ASSERT_TRUE(idleReader.run());
    EXPECT_TRUE(idleReader.data == bytes());
    EXPECT_GT(tap_.count("task unpaused"), 0u);
    EXPECT_EQ(1u, tap_.count("cur time ")) << "a paused or dripping transfer was restarted";
    idle.reset();
    dripping.reset();
    stalling.reset();
    EXPECT_TRUE(server_.waitIdle());  // a request is logged when its connection ends
    EXPECT_EQ(1u, server_.requests("/idle").size());
    EXPECT_EQ(1u, server_.requests("/drip").size());
}

// --- Released in the middle of a fault -----------------------------------------------------

struct ReleaseCase {
    const char* name;
    std::vector<Reply> replies;  // for /r
    int requests;                // to /r when the fault is under way
    int cuts;                    // of those that reached their cut
};

void PrintTo(const ReleaseCase& c, std::ostream* os) { *os << c.name; }

class HttpReleaseTest : public HttpFaultTest, public ::testing::WithParamInterface<ReleaseCase> {};

// While /r stalls (the socket held open), or while its retry waits for an
// answer, the file is closed: the worker drops the task in that pass, its
// queued reads complete as cancelled, and another file streams on.
TEST_P(HttpReleaseTest, ATaskReleasedDuringAFaultGoesAtOnceAndTheOthersGoOn) {
    const ReleaseCase& c = GetParam();
    server_.script("/r", c.replies);
    // Before the files: an early return closes them first.
    CompletionLog log;
    CompletionLog::Callback first(log, 0), waiting(log, 1), behind(log, 2);
    std::vector<char> a(kMiB), b(kMiB), d(1000);
    std::unique_ptr<HttpFile> faulty = open("/r");
    std::unique_ptr<HttpFile> healthy = open("/h");
    ASSERT_FALSE(HasFailure());
    ASSERT_NE(nullptr, faulty->readAsync(a.data(), kMiB, first));
    ASSERT_NE(nullptr, faulty->readAsync(b.data(), kMiB, waiting));  // crosses kCut
    ASSERT_NE(nullptr, faulty->readAsync(d.data(), 1000, behind));
    ASSERT_TRUE(waitUntil([&] {
        return server_.started("/r") == c.requests && server_.cuts("/r") == c.cuts;
    }));
    ASSERT_TRUE(log.waitFor(1));

    ChainedReader reader(*healthy, 64 * 1024, kStream / (64 * 1024));
    bool read = false;
    std::thread streaming([&] { read = reader.run(); });
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(0, faulty->close());
    EXPECT_LT(secondsSince(start), 2.0);
    const std::vector<Completion> all = log.all();
    ASSERT_EQ(3u, all.size());
    const VelkaStatus expected[] = {velka::kStatusOk, velka::kStatusCancelled,
                                    velka::kStatusCancelled};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(i, all[i].tag);
        EXPECT_EQ(expected[i], all[i].status) << i;
    }
    EXPECT_TRUE(a == slice(bytes(), 0, kMiB));
    // "task removed", or "task removed 2" when the progress callback of the
    // released task aborted its transfer first.
    EXPECT_EQ(1u, tap_.count("task removed "));
    streaming.join();
    EXPECT_TRUE(read);
    EXPECT_TRUE(reader.data == slice(bytes(), 0, kStream));
    EXPECT_TRUE(server_.waitIdle() || healthy) << "the stalled connection was left open";
    EXPECT_EQ(0u, tap_.count("cur time"));
}

const ReleaseCase kReleaseCases[] = {
    {"WhileItStalls", {cut(Reply::kFin, kCut, 60000)}, 1, 1},
    {"WhileItRetries", {cut(Reply::kReset), [] {
                            Reply r = prefix();
                            r.headerDelayMs = 60000;
                            return r;
                        }()},
     2, 1},
};

INSTANTIATE_TEST_SUITE_P(Faults, HttpReleaseTest, ::testing::ValuesIn(kReleaseCases),
                         [](const ::testing::TestParamInfo<ReleaseCase>& info) {
                             return std::string(info.param.name);
                         });

// --- Load -------------------------------------------------------------------------------------

// Fifteen files stream at once on the one worker. Twelve are healthy (three
// of them larger than the ring, so their transfers pause and resume among the
// others); of the other three one is dropped once (and resumed), one never
// gets the rest of its body, and one is answered 200 to its retry. Every
// healthy one (and the resumed one) arrives byte-exact. (A file that stalls
// while others stream, and is closed, is HttpReleaseTest's.)
TEST_F(HttpFaultTest, FifteenFilesStreamWhileThreeSufferFaults) {
    server_.script("/dropped", {cut(Reply::kReset), kWhole});
    server_.script("/short", {cut(Reply::kFin)});
    server_.script("/refused", {cut(Reply::kReset), status(200)});
    std::vector<std::string> paths = {"/dropped", "/short", "/refused"};
    for (int i = 0; i < 12; ++i) {
        paths.push_back((i < 3 ? "/big" : "/healthy") + std::to_string(i));
        if (i >= 3) server_.script(paths.back(), {kWhole});  // the big ones get the whole file
    }
    std::vector<std::unique_ptr<HttpFile>> files;
    for (const std::string& path : paths) files.push_back(open(path));
    ASSERT_FALSE(HasFailure());

    std::vector<std::unique_ptr<ChainedReader>> readers;
    std::vector<std::thread> threads;
    std::vector<int> ran(paths.size(), 0);
    for (size_t i = 0; i < paths.size(); ++i) {
        readers.emplace_back(new ChainedReader(*files[i], 100 * 1000));
    }
    for (size_t i = 0; i < paths.size(); ++i) {
        threads.emplace_back([&, i] { ran[i] = readers[i]->run(); });
    }
    for (std::thread& t : threads) t.join();
    for (size_t i = 0; i < paths.size(); ++i) {
        SCOPED_TRACE(paths[i]);
        const bool fails = paths[i] == "/short" || paths[i] == "/refused";
        const std::vector<VelkaStatus>& statuses = readers[i]->statuses;
        const std::vector<char>& data = readers[i]->data;
        if (fails) {
            // Refused at once when the task had failed before the first read.
            EXPECT_TRUE(statuses.empty() || statuses.back() == velka::kStatusError);
            EXPECT_LT(data.size(), static_cast<size_t>(kCut));
            EXPECT_TRUE(data == slice(bytes(), 0, static_cast<int64_t>(data.size())));
        } else {
            EXPECT_TRUE(ran[i]);
            ASSERT_FALSE(statuses.empty());
            EXPECT_EQ(velka::kStatusEndOfFile, statuses.back());
            EXPECT_TRUE(data == (paths[i].compare(0, 4, "/big") == 0 ? bytes()
                                                                     : slice(bytes(), 0, kStream)));
        }
    }
}

// --- Resources --------------------------------------------------------------------------------

int openDescriptors() { return testing_support::procEntries("/proc/self/fd"); }
int threads() { return testing_support::procEntries("/proc/self/task"); }
int64_t residentBytes() {
    long pages = 0, resident = 0;
    if (FILE* f = fopen("/proc/self/statm", "r")) {
        if (fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
        fclose(f);
    }
    return static_cast<int64_t>(resident) * sysconf(_SC_PAGESIZE);
}

// Opens, reads three blocks and closes `url`; the open and the reads may fail.
// Opens, reads three blocks (or, `whole`, to the end) and closes.
void cycle(const std::string& url, bool whole = false) {
    HttpFile file(url);
    if (file.open() != 0) return;
    std::vector<char> block(16 * 1024);
    for (int i = 0; (i < 3 || whole) && file.read(block.data(), static_cast<uint32_t>(block.size())) > 0; ++i) {
    }
    file.close();
}

// A thousand cycles against nginx and two hundred against failing rows of the
// fault server leave as many descriptors and threads as before, and resident
// memory where it was (AddressSanitizer keeps freed memory in quarantine, so
// there LeakSanitizer at exit does that part).
TEST_F(HttpFaultTest, ManyOpenReadCloseCyclesLeaveNothingBehind) {
    NginxServer nginx;
    std::string why;
    ASSERT_TRUE(nginx.start(&why)) << why;
    nginx.serve("small", patternBytes(256 * 1024, 41));
    server_.script("/404", {status(404, "not here")});
    server_.script("/500", {status(500)});
    server_.script("/hangup", {[] { Reply r; r.hangUp = true; return r; }()});
    server_.script("/206", {status(206)});
    server_.script("/loop", {redirect("/loop")});
    server_.script("/short", {cut(Reply::kFin, 20 * 1024)});
    std::vector<std::string> failing;
    for (const char* path : {"/404", "/500", "/hangup", "/206", "/loop", "/short"}) {
        failing.push_back(server_.url(path));
    }
    failing.push_back("http://127.0.0.1:1/closed");

    // The first cycles build the worker and fill libcurl's caches, among
    // them the multi handle's cache of up to 32 finished connections.
    for (int i = 0; i < 40; ++i) cycle(nginx.url("small"));
    for (const std::string& url : failing) cycle(url);
    ASSERT_TRUE(server_.waitIdle());
    // A transfer read to its end leaves its connection to the next request,
    // one closed early does not: both counts are taken with one kept.
    cycle(nginx.url("small"), true);
    const int descriptors = openDescriptors();
    const int threadCount = threads();
    const int64_t resident = residentBytes();

    const Clock::time_point start = Clock::now();
    for (int i = 0; i < 1000; ++i) cycle(nginx.url("small"));
    for (int i = 0; i < 200; ++i) cycle(failing[static_cast<size_t>(i) % failing.size()]);
    printf("cycles took %.1f s\n", secondsSince(start));
    cycle(nginx.url("small"), true);
    EXPECT_EQ(1042u, nginx.waitForRequests(1042).size());

    EXPECT_TRUE(server_.waitIdle());
    EXPECT_TRUE(waitUntil([&] { return openDescriptors() == descriptors; }))
        << descriptors << " descriptors before, " << openDescriptors() << " after";
    EXPECT_TRUE(waitUntil([&] { return threads() == threadCount; }))
        << threadCount << " threads before, " << threads() << " after";
#if defined(__SANITIZE_ADDRESS__)
    (void)resident;
#else
    if (testing_support::kEmulated) {
        // qemu-user's own memory (the code it translates, its buffers) counts
        // in the process's resident size and grows as the cycles run.
        fprintf(stderr, "under emulation: resident memory not checked (qemu-user's own memory counts in it)\n");
    } else {
        EXPECT_LT(residentBytes() - resident, 8 * kMiB)
            << resident << " bytes resident before, " << residentBytes() << " after";
    }
#endif
}

}  // namespace
