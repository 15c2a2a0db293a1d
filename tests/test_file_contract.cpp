// What every source promises through File, stated once and run against each
// source: LocalFile over a temporary file, DtaFile over the download engine
// stand-in (a local file, nginx, slow and short engine reads), HttpFile over
// nginx, PpsFile over the peer-to-peer engine stand-in (at full rate, and
// rate-limited).
//
// A source joins with one entry of kSources: a name, a factory that makes a
// medium of given bytes and returns a new, unopened File over it, and the
// differences the source documents (how seeks clamp, the status of a read cut
// short by the end, short reads of parts not yet downloaded, whether close()
// completes the queued reads), which the promises below check as declared.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "bctidta_control.h"
#include "ems_control.h"
#include "support/NginxServer.h"
#include "velka/DtaFile.h"
#include "velka/HlsFile.h"
#include "velka/HttpFile.h"
#include "velka/LocalFile.h"
#include "velka/PpsFile.h"

namespace {

using testing_support::ChainedReader;
using testing_support::Completion;
using testing_support::CompletionLog;
using testing_support::Got;
using testing_support::slice;
using velka::File;
using velka::VelkaStatus;

constexpr int64_t kMiB = 1024 * 1024;

// Where seek() puts a position that lies outside [0, length].
enum class Clamp {
    kPosix,       // past the end is kept, before the start fails (-1)
    kToLength,    // clamped into [0, length]
    kBelowLength  // the download engine's table: mostly to length - 1 (DtaFile.h)
};

enum ClosedStops { kStopsCancel = 1, kStopsPositions = 2 };  // seek, tell, length, available

struct Source {
    const char* name;
    // A new, unopened File over a medium holding `bytes`.
    std::function<File*(const std::vector<char>& bytes)> make;
    Clamp clamp;
    // Status of a read that the end cuts short (the next one then gives
    // kStatusEndOfFile and 0 bytes).
    VelkaStatus shortAtEnd;
    // A read may deliver fewer bytes than asked before the end, kStatusOk: 0
    // for a part not yet downloaded (a blocking one returns 0), or what the
    // engine had. The reader reads on; the suite issues an empty read again.
    bool shortReads;
    // close() completes the queued reads before it returns; otherwise they
    // complete once afterwards, and the file must outlive them.
    bool closeCompletesReads;
    // Calls besides the reads that stop at an assertion on a closed file.
    int closedStops = kStopsCancel | kStopsPositions;
};

void PrintTo(const Source& s, std::ostream* os) { *os << s.name; }

// The position seek(offset, whence) gives from `pos`; -1 when it fails.
int64_t expectedSeek(Clamp clamp, int64_t pos, int64_t offset, int whence, int64_t length) {
    if (clamp == Clamp::kPosix) {
        const int64_t base = whence == File::kSeekSet ? 0 : whence == File::kSeekCurrent ? pos : length;
        return base + offset < 0 ? -1 : base + offset;
    }
    const int64_t last = clamp == Clamp::kToLength ? length : length - 1;
    if (whence == File::kSeekSet) return offset <= 0 ? 0 : offset >= length ? last : offset;
    if (whence == File::kSeekCurrent) {
        if (offset <= 0) return std::max<int64_t>(0, pos + offset);
        return pos + offset <= length ? pos + offset : last;
    }
    if (offset > 0) return last;
    return offset < -length ? 0 : length + offset;
}

// The status and count a read of `count` at `pos` gives when not cut short.
// A 0-byte read at the end is kStatusOk where positions follow POSIX (the
// system's read gave all 0 bytes asked for), kStatusEndOfFile elsewhere.
std::pair<VelkaStatus, uint32_t> expectedRead(const Source& source, int64_t length, int64_t pos,
                                              uint32_t count) {
    const int64_t left = std::max<int64_t>(0, length - pos);
    if (left >= count && (count > 0 || left > 0 || source.clamp == Clamp::kPosix)) {
        return {velka::kStatusOk, count};
    }
    if (left == 0) return {velka::kStatusEndOfFile, 0};
    return {source.shortAtEnd, static_cast<uint32_t>(left)};
}

// Media: files in one folder, served by one nginx, for the whole run.
testing_support::TempDir& folder() {
    static testing_support::TempDir dir;
    return dir;
}
std::string newFile(const std::vector<char>& bytes) {
    static int count = 0;
    return folder().write("medium" + std::to_string(++count), bytes);
}
testing_support::NginxServer& server() {
    static testing_support::NginxServer nginx;
    static bool started = [] {
        std::string why;
        const bool up = nginx.start(&why);
        EXPECT_TRUE(up) << why;
        return up;
    }();
    (void)started;
    return nginx;
}
std::string newUrl(const std::vector<char>& bytes) {
    static int count = 0;
    const std::string name = "medium" + std::to_string(++count);
    server().serve(name, bytes);
    return server().url(name);
}

// An HLS video on demand whose segments are byte ranges of the medium, three
// of them: the spans are exact, so the stream is the medium's bytes.
std::string newPlaylist(const std::vector<char>& bytes) {
    static int count = 0;
    const std::string name = "hls" + std::to_string(++count);
    server().serve(name + ".bin", bytes);
    const size_t third = bytes.size() / 3;
    std::string m3u8 = "#EXTM3U\n#EXT-X-VERSION:4\n#EXT-X-TARGETDURATION:4\n";
    for (size_t start = 0, i = 0; i < 3; ++i) {
        const size_t size = i < 2 ? third : bytes.size() - start;
        m3u8 += "#EXTINF:4.0,\n#EXT-X-BYTERANGE:" + std::to_string(size) + "@" + std::to_string(start) + "\n" +
                name + ".bin\n";
        start += size;
    }
    m3u8 += "#EXT-X-ENDLIST\n";
    server().serve(name + ".m3u8", std::vector<char>(m3u8.begin(), m3u8.end()));
    return server().url(name + ".m3u8");
}

const Source kSources[] = {
    {"LocalFile", [](const std::vector<char>& b) { return new velka::LocalFile("file://" + newFile(b)); },
     Clamp::kPosix, velka::kStatusEndOfFile, false, true, kStopsPositions},
    {"DtaFileLocal", [](const std::vector<char>& b) { return new velka::DtaFile("dta-test://" + newFile(b)); },
     Clamp::kBelowLength, velka::kStatusOk, true, true, kStopsCancel},
    {"DtaFileNginx", [](const std::vector<char>& b) { return new velka::DtaFile(newUrl(b)); },
     Clamp::kBelowLength, velka::kStatusOk, true, true, kStopsCancel},
    // The engine answers at most 1111 bytes a read.
    {"DtaFileShortReads",
     [](const std::vector<char>& b) {
         bctidta::control::setReadLimit(1111);
         return new velka::DtaFile("dta-test://" + newFile(b));
     },
     Clamp::kBelowLength, velka::kStatusOk, true, true, kStopsCancel},
    // Downloads 5000 bytes a millisecond; each read waits 1 ms and gets at most 7000.
    {"DtaFileSlow",
     [](const std::vector<char>& b) {
         bctidta::control::setDownloadPace(5000, 1);
         bctidta::control::setReadLimit(7000);
         bctidta::control::setReadDelay(1);
         return new velka::DtaFile("dta-test://" + newFile(b));
     },
     Clamp::kBelowLength, velka::kStatusOk, true, true, kStopsCancel},
    {"HttpFile", [](const std::vector<char>& b) { return new velka::HttpFile(newUrl(b)); },
     Clamp::kToLength, velka::kStatusEndOfFile, false, true},
    {"HlsFile", [](const std::vector<char>& b) { return new velka::HlsFile(newPlaylist(b)); },
     Clamp::kToLength, velka::kStatusEndOfFile, false, true},
    {"PpsFile", [](const std::vector<char>& b) { return new velka::PpsFile("pps-test://" + newFile(b)); },
     Clamp::kToLength, velka::kStatusOk, true, false},
    {"PpsFileRateLimited",
     [](const std::vector<char>& b) {
         ems::control::setDownloadRate(8 * kMiB);
         return new velka::PpsFile("pps-test://" + newFile(b));
     },
     Clamp::kToLength, velka::kStatusOk, true, false},
};

class FileContractTest : public ::testing::TestWithParam<Source> {
protected:
    void SetUp() override {
        bctidta::control::reset();
        ems::control::reset();
    }
    void TearDown() override {
        if (file_ != nullptr) file_->close();
        file_.reset();
        bctidta::control::reset();
        ems::control::reset();
    }

    // Opens a new file over `size` pattern bytes.
    File& open(size_t size, uint32_t seed = 1) {
        bytes_ = testing_support::patternBytes(size, seed);
        file_.reset(GetParam().make(bytes_));
        EXPECT_EQ(0, file_->open());
        return *file_;
    }
    int64_t length() const { return static_cast<int64_t>(bytes_.size()); }

    // One asynchronous read at the position, waited for; a read of a part not
    // yet downloaded is issued again where the source declares them.
    Got readAsync(uint32_t count) {
        Got got;
        for (int attempt = 0; attempt < testing_support::kWaitMs; ++attempt) {
            if (!testing_support::readOnce(*file_, count, &got)) {
                ADD_FAILURE() << "refused or never completed";
                return got;
            }
            if (!empty(got.status, got.count, count)) break;
            usleep(1000);
        }
        return got;
    }
    // A blocking read, issued again the same way.
    int read(char* buffer, uint32_t count) {
        int n = 0;
        for (int attempt = 0; attempt < testing_support::kWaitMs; ++attempt) {
            n = file_->read(buffer, count);
            if (!empty(velka::kStatusOk, n, count) || file_->tell() >= length()) break;
            usleep(1000);
        }
        return n;
    }
    bool empty(VelkaStatus status, int64_t n, uint32_t count) const {
        return GetParam().shortReads && status == velka::kStatusOk && n == 0 && count > 0;
    }
    // A read of `count` at the position agrees with the bytes, the count
    // and the status; the bytes delivered.
    uint32_t expectReadAt(int64_t pos, uint32_t count) {
        const Got got = readAsync(count);
        const auto want = expectedRead(GetParam(), length(), pos, count);
        if (GetParam().shortReads && got.count > 0 && got.count < want.second) {
            EXPECT_EQ(velka::kStatusOk, got.status) << "at " << pos;
        } else {
            EXPECT_EQ(want.first, got.status) << "at " << pos;
            EXPECT_EQ(want.second, got.count) << "at " << pos;
        }
        EXPECT_LE(got.count, want.second) << "at " << pos;
        EXPECT_TRUE(got.data == slice(bytes_, pos, got.count)) << "at " << pos;
        EXPECT_EQ(pos + got.count, file_->tell());
        return got.count;
    }

    std::vector<char> bytes_;
    std::unique_ptr<File> file_;
};

TEST_P(FileContractTest, OpensWithItsLengthAtPositionZero) {
    File& file = open(100000);
    EXPECT_EQ(100000, file.length());
    EXPECT_EQ(0, file.tell());
    EXPECT_EQ(100000, file.available());
    EXPECT_GE(file.cachePercent(), 0);
    EXPECT_LE(file.cachePercent(), 100);
}

// Blocks chained from inside each completion, the way the engine pulls: odd
// sizes, and sizes that cross the sources' internal blocks and the HTTP ring
// (16 MiB) many times over; each chain to the end ends in kStatusEndOfFile.
TEST_P(FileContractTest, ReadsChainedFromCompletionsDeliverEveryByteOnce) {
    File& file = open(17 * kMiB + 333, 2);
    struct Chain {
        uint32_t block;
        size_t reads;  // 0: to the end
    } const chains[] = {{1, 3000}, {7, 1000}, {4093, 300}, {65537, 0}, {kMiB + 3, 0}};
    for (const Chain& c : chains) {
        SCOPED_TRACE("block " + std::to_string(c.block));
        ASSERT_EQ(0, file.seek(0, File::kSeekSet));
        ChainedReader reader(file, c.block, c.reads == 0 ? 100000 : c.reads, GetParam().shortReads);
        ASSERT_TRUE(reader.run());
        const size_t n = reader.data.size();
        EXPECT_TRUE(reader.data == slice(bytes_, 0, static_cast<int64_t>(n)));
        EXPECT_EQ(static_cast<int64_t>(n), file.tell());
        if (c.reads != 0) {
            if (!GetParam().shortReads) {
                EXPECT_EQ(c.reads * c.block, n);
            }
            continue;
        }
        EXPECT_EQ(bytes_.size(), n);
        EXPECT_EQ(velka::kStatusEndOfFile, reader.statuses.back());
        EXPECT_EQ(1, std::count_if(reader.statuses.begin(), reader.statuses.end(),
                                   [](VelkaStatus s) { return s != velka::kStatusOk; }));
    }
}

// Blocking and asynchronous reads of 0, 1, odd and large counts share one
// position. A read standing at the end, also right after a seek there (beyond
// what the HTTP ring holds), gives the end and 0 bytes; one that the end cuts
// short gives what is left; the file goes on serving every other position.
TEST_P(FileContractTest, ReadsOfEverySizeShareThePositionAndTheEndLeavesTheFileUsable) {
    File& file = open(17 * kMiB + 5, 3);
    std::vector<char> buffer(kMiB + 3);
    int64_t pos = 0;
    for (const uint32_t count : {0u, 1u, 7u, 4093u, 4096u, uint32_t(kMiB) + 3}) {
        SCOPED_TRACE("count " + std::to_string(count));
        const int n = read(buffer.data(), count);
        if (GetParam().shortReads && count > 0) {
            EXPECT_GT(n, 0);
            EXPECT_LE(n, static_cast<int>(count));
        } else {
            ASSERT_EQ(static_cast<int>(count), n);
        }
        ASSERT_GE(n, 0);
        EXPECT_TRUE(std::vector<char>(buffer.begin(), buffer.begin() + n) == slice(bytes_, pos, n));
        pos += n;
        EXPECT_EQ(pos, file.tell());
        EXPECT_EQ(length() - pos, file.available());
        pos += expectReadAt(pos, count);
    }
    ASSERT_EQ(length(), file.seek(0, File::kSeekEnd));
    expectReadAt(length(), 4096);
    EXPECT_EQ(0, read(buffer.data(), 1));
    ASSERT_EQ(length() - 10, file.seek(-10, File::kSeekEnd));
    for (int64_t at = length() - 10; at < length();) {
        const uint32_t n = expectReadAt(at, 100);
        if (n == 0) break;
        at += n;
    }
    expectReadAt(length(), 100);
    EXPECT_EQ(0, read(buffer.data(), 100));
    EXPECT_EQ(length(), file.tell());
    EXPECT_EQ(0, file.available());
    ASSERT_EQ(1000, file.seek(1000, File::kSeekSet));
    expectReadAt(1000, 4096);
}

// Reads queued back to back complete in the order queued, each once, each
// continuing the one before.
TEST_P(FileContractTest, QueuedReadsCompleteInOrderEachOnce) {
    File& file = open(200000, 5);
    constexpr int kReads = 8;
    constexpr uint32_t kCount = 10000;
    CompletionLog log;
    std::vector<CompletionLog::Callback> callbacks;
    for (int i = 0; i < kReads; ++i) callbacks.emplace_back(log, i);
    std::vector<std::vector<char>> buffers(kReads, std::vector<char>(kCount));
    for (int i = 0; i < kReads; ++i) {
        ASSERT_NE(nullptr, file.readAsync(buffers[i].data(), kCount, callbacks[i]));
    }
    ASSERT_TRUE(log.waitFor(kReads));
    int64_t pos = 0;
    for (int i = 0; i < kReads; ++i) {
        const Completion c = log.all()[i];
        EXPECT_EQ(i, c.tag);
        EXPECT_EQ(velka::kStatusOk, c.status);
        if (GetParam().shortReads) {
            EXPECT_LE(c.length, kCount);
        } else {
            EXPECT_EQ(kCount, c.length);
        }
        EXPECT_TRUE(std::vector<char>(buffers[i].begin(), buffers[i].begin() + c.length) ==
                    slice(bytes_, pos, c.length));
        pos += c.length;
    }
    EXPECT_EQ(pos, file.tell());
    file.close();
    EXPECT_EQ(static_cast<size_t>(kReads), log.all().size()) << "a read completed twice";
}

// A cancelled read completes once, as cancelled with 0 bytes, or had already
// been taken and completes normally; either way no byte is lost: the next read
// starts right after the bytes its caller received. Queued: from inside the
// completion of a first read, a second and a third are issued and the second
// cancelled. In service: a large read cancelled at once.
TEST_P(FileContractTest, ACancelledReadCompletesOnceAndLosesNoBytes) {
    File& file = open(6 * kMiB, 6);
    {
        struct First : File::AsyncCallback {
            File* file;
            CompletionLog::Callback* next[2];
            std::vector<char> buffers[3] = {std::vector<char>(100), std::vector<char>(100),
                                            std::vector<char>(100)};
            CompletionLog::Callback* own;
            int answer = -2;
            void complete(VelkaStatus status, uint32_t n) override {
                void* second = file->readAsync(buffers[1].data(), 100, *next[0]);
                void* third = file->readAsync(buffers[2].data(), 100, *next[1]);
                // The second may have completed and its record gone to the third.
                if (second != nullptr && third != second) answer = file->cancel(second);
                own->complete(status, n);
            }
        } first;
        CompletionLog log;
        CompletionLog::Callback c1(log, 1), c2(log, 2), c3(log, 3);
        first.file = &file;
        first.next[0] = &c2;
        first.next[1] = &c3;
        first.own = &c1;
        ASSERT_NE(nullptr, file.readAsync(first.buffers[0].data(), 100, first));
        ASSERT_TRUE(log.waitFor(3));
        std::vector<Completion> all = log.all();
        // The first's own entry is made last, inside its completion.
        std::stable_sort(all.begin(), all.end(),
                         [](const Completion& x, const Completion& y) { return x.tag < y.tag; });
        int64_t pos = 0;
        for (int i = 0; i < 3; ++i) {
            SCOPED_TRACE("read " + std::to_string(i + 1));
            if (i == 1 && first.answer == 0) {
                EXPECT_EQ(velka::kStatusCancelled, all[i].status);
                EXPECT_EQ(0u, all[i].length);
                continue;
            }
            EXPECT_EQ(velka::kStatusOk, all[i].status);
            if (!GetParam().shortReads) {
                EXPECT_EQ(100u, all[i].length);
            }
            EXPECT_TRUE(std::vector<char>(first.buffers[i].begin(), first.buffers[i].begin() + all[i].length) ==
                        slice(bytes_, pos, all[i].length));
            pos += all[i].length;
        }
        EXPECT_EQ(pos, file.tell());
        EXPECT_EQ(3u, log.all().size());
    }
    const int64_t start = file.tell();
    CompletionLog log;
    CompletionLog::Callback callback(log, 0);
    std::vector<char> big(4 * kMiB);
    void* handle = file.readAsync(big.data(), 4 * kMiB, callback);
    ASSERT_NE(nullptr, handle);
    const int answer = file.cancel(handle);
    ASSERT_TRUE(log.waitFor(1));
    const Completion c = log.all()[0];
    if (answer == 0) {
        EXPECT_EQ(velka::kStatusCancelled, c.status);
        EXPECT_EQ(0u, c.length);
    } else {
        EXPECT_EQ(-1, answer);
        EXPECT_NE(velka::kStatusCancelled, c.status);
        EXPECT_TRUE(std::vector<char>(big.begin(), big.begin() + c.length) == slice(bytes_, start, c.length));
    }
    EXPECT_EQ(start + c.length, file.tell());
    expectReadAt(start + c.length, 1000);
    file.close();
    EXPECT_EQ(1u, log.all().size()) << "the cancelled read completed twice";
}

// Every origin, past the end and before the start, as the source documents;
// a read at the new position gives the bytes there.
TEST_P(FileContractTest, SeeksOfEveryOriginLandWhereTheSourceDocuments) {
    File& file = open(100000, 7);
    const int64_t L = length();
    struct Case {
        int whence;
        int64_t offset;
    } const cases[] = {
        {File::kSeekSet, 0},       {File::kSeekSet, 500},      {File::kSeekSet, L - 1},
        {File::kSeekSet, L},       {File::kSeekSet, L + 100},  {File::kSeekSet, -5},
        {File::kSeekCurrent, 0},   {File::kSeekCurrent, 100},  {File::kSeekCurrent, -100},
        {File::kSeekCurrent, -601}, {File::kSeekCurrent, L - 600}, {File::kSeekCurrent, L},
        {File::kSeekEnd, 0},       {File::kSeekEnd, -10},      {File::kSeekEnd, -L},
        {File::kSeekEnd, -L - 1},  {File::kSeekEnd, 5},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "whence " << c.whence << " offset " << c.offset);
        ASSERT_EQ(600, file.seek(600, File::kSeekSet));
        const int64_t want = expectedSeek(GetParam().clamp, 600, c.offset, c.whence, L);
        EXPECT_EQ(want, file.seek(c.offset, static_cast<File::Whence>(c.whence)));
        const int64_t at = want == -1 ? 600 : want;
        EXPECT_EQ(at, file.tell());
        if (at <= L) {
            EXPECT_EQ(L - at, file.available());
        }
        expectReadAt(at, 1000);
    }
}

// close() with reads queued completes each of them once, before it returns
// where the source says so; a second close() does nothing.
TEST_P(FileContractTest, CloseCompletesQueuedReadsOnceAndCloseTwiceIsHarmless) {
    File& file = open(4 * kMiB, 8);
    CompletionLog log;
    std::vector<CompletionLog::Callback> callbacks;
    for (int i = 0; i < 4; ++i) callbacks.emplace_back(log, i);
    std::vector<std::vector<char>> buffers(4, std::vector<char>(kMiB));
    for (int i = 0; i < 4; ++i) ASSERT_NE(nullptr, file.readAsync(buffers[i].data(), kMiB, callbacks[i]));
    EXPECT_EQ(0, file.close());
    if (GetParam().closeCompletesReads) {
        EXPECT_EQ(4u, log.all().size()) << "close() returned before every read completed";
    }
    EXPECT_EQ(0, file.close());
    ASSERT_TRUE(log.waitFor(4));
    file_.reset();
    EXPECT_EQ(4u, log.all().size());
}

// A closed file, as one never opened, takes no more reads, nor the other calls
// the source declares: they stop at the source's assertion.
TEST_P(FileContractTest, AClosedFileStopsAtItsAssertion) {
    testing_support::useThreadsafeDeathTests();
    File& file = open(1000, 9);
    file.close();
    char byte;
    CompletionLog log;
    CompletionLog::Callback callback(log, 0);
    const char* const kStopped = "!= -1|!= __null";
    EXPECT_DEATH(file.read(&byte, 1), kStopped);
    EXPECT_DEATH(file.readAsync(&byte, 1, callback), kStopped);
    if (GetParam().closedStops & kStopsCancel) {
        EXPECT_DEATH(file.cancel(&byte), kStopped);
    }
    if (GetParam().closedStops & kStopsPositions) {
        EXPECT_DEATH(file.seek(0, File::kSeekSet), kStopped);
        EXPECT_DEATH(file.tell(), kStopped);
        EXPECT_DEATH(file.length(), kStopped);
        EXPECT_DEATH(file.available(), kStopped);
    }
}

INSTANTIATE_TEST_SUITE_P(Sources, FileContractTest, ::testing::ValuesIn(kSources),
                         [](const ::testing::TestParamInfo<Source>& info) {
                             return std::string(info.param.name);
                         });

}  // namespace
