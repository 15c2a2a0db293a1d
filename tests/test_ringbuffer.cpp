// RingBuffer: the FIFO, the backward seek over already-read bytes, the wrap of
// the free-running counters at 2^32, and a randomized comparison against a
// plain model of the byte stream.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "velka/RingBuffer.h"

// A failed allocation is provoked with a request larger than the process may
// have. Sanitizer runtimes keep their own allocator: tell them to refuse large
// requests with a null pointer instead of stopping the process.
#if defined(__SANITIZE_ADDRESS__)
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=256";
}
#endif
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=256";
}
#endif

namespace {

constexpr uint64_t kCounterWrap = uint64_t(1) << 32;

// Opens the counter placement to the tests.
class TestRing : public velka::RingBuffer {
public:
    using RingBuffer::RingBuffer;
    using RingBuffer::setCounters;
};

std::string bytes(const char* text) { return std::string(text); }

// Writes `data` and returns the count the ring accepted.
unsigned int put(velka::RingBuffer& ring, std::string data) {
    return ring.write(&data[0], static_cast<unsigned int>(data.size()));
}

// Reads up to `n` bytes and returns what came out.
std::string take(velka::RingBuffer& ring, unsigned int n) {
    std::string out(n, '\0');
    out.resize(ring.read(&out[0], n));
    return out;
}

// Basic FIFO --------------------------------------------------------------------

TEST(RingBufferTest, FreshRingOverCallerStorage) {
    char storage[8];
    velka::RingBuffer ring(storage, sizeof storage);
    EXPECT_EQ(8u, ring.size());
    EXPECT_EQ(0u, ring.length());
    EXPECT_EQ(8u, ring.space());
    EXPECT_FALSE(ring.isFull());
}

TEST(RingBufferTest, WriteStoresAtMostTheFreeSpace) {
    char storage[8];
    velka::RingBuffer ring(storage, sizeof storage);
    EXPECT_EQ(5u, put(ring, "abcde"));
    EXPECT_EQ(3u, put(ring, "fghijk"));  // 3 of 6 fit
    EXPECT_TRUE(ring.isFull());
    EXPECT_EQ(0u, ring.space());
    EXPECT_EQ(0u, put(ring, "x"));
    EXPECT_EQ(0u, put(ring, ""));
    EXPECT_EQ(bytes("abcdefgh"), take(ring, 100));
}

TEST(RingBufferTest, ReadAndSkipStopAtTheBytesHeld) {
    char storage[8];
    velka::RingBuffer ring(storage, sizeof storage);
    EXPECT_EQ(bytes(""), take(ring, 4));
    EXPECT_EQ(0u, ring.skip(4));
    put(ring, "abcdef");
    EXPECT_EQ(2u, ring.skip(2));
    EXPECT_EQ(bytes("cd"), take(ring, 2));
    EXPECT_EQ(2u, ring.skip(9));
    EXPECT_EQ(0u, ring.length());
    EXPECT_EQ(8u, ring.space());
}

// The positions are masked counters: after 6 bytes in and out, the next write
// starts at offset 6 and its tail goes to the start of the storage.
TEST(RingBufferTest, TransfersAcrossTheEndOfStorageKeepOrder) {
    char storage[8];
    velka::RingBuffer ring(storage, sizeof storage);
    put(ring, "012345");
    EXPECT_EQ(bytes("012345"), take(ring, 6));

    EXPECT_EQ(5u, put(ring, "ABCDE"));
    EXPECT_EQ(bytes("AB"), std::string(storage + 6, 2));
    EXPECT_EQ(bytes("CDE"), std::string(storage, 3));
    EXPECT_EQ(bytes("ABCDE"), take(ring, 5));

    // Exactly up to the end, then a transfer that starts at offset 0 again.
    put(ring, "xyz");  // offsets 3..5
    put(ring, "PQRST");  // offsets 6, 7, 0, 1, 2
    EXPECT_TRUE(ring.isFull());
    EXPECT_EQ(bytes("xyzPQ"), take(ring, 5));
    EXPECT_EQ(bytes("RST"), take(ring, 3));
}

// Backward seek -----------------------------------------------------------------

TEST(RingBufferTest, BackwardSeekOnAFreshRingReachesBackToTheStart) {
    char storage[8];
    velka::RingBuffer ring(storage, sizeof storage);
    put(ring, "abcdef");
    EXPECT_EQ(bytes("abcd"), take(ring, 4));

    EXPECT_EQ(0u, ring.backwardSeek(5));
    EXPECT_EQ(2u, ring.length()) << "a refused seek changed the ring";
    EXPECT_EQ(4u, ring.backwardSeek(4));
    EXPECT_EQ(6u, ring.length());
    EXPECT_EQ(bytes("abcdef"), take(ring, 6));
}

TEST(RingBufferTest, BackwardSeekOfZeroIsARefusal) {
    char storage[8];
    velka::RingBuffer ring(storage, sizeof storage);
    EXPECT_EQ(0u, ring.backwardSeek(0));
    put(ring, "abc");
    take(ring, 3);
    EXPECT_EQ(0u, ring.backwardSeek(0));
    EXPECT_EQ(0u, ring.length());
}

// Once the writer has gone round the storage, only the free space still holds
// bytes that were read and not yet overwritten.
TEST(RingBufferTest, AfterTheWriterWrapsBackwardSeekIsLimitedToTheFreeSpace) {
    char storage[8];
    velka::RingBuffer ring(storage, sizeof storage);
    put(ring, "01234567");
    EXPECT_EQ(bytes("01234567"), take(ring, 8));
    put(ring, "ABCD");  // overwrites 0..3
    EXPECT_EQ(4u, ring.space());

    EXPECT_EQ(0u, ring.backwardSeek(5));
    EXPECT_EQ(4u, ring.length());
    EXPECT_EQ(4u, ring.backwardSeek(4));
    EXPECT_EQ(bytes("4567ABCD"), take(ring, 8));

    // A full ring holds no read byte that could be given back.
    EXPECT_EQ(8u, put(ring, "abcdefgh"));
    EXPECT_TRUE(ring.isFull());
    EXPECT_EQ(0u, ring.backwardSeek(1));
    EXPECT_EQ(8u, ring.length());
}

TEST(RingBufferTest, ResetEmptiesWithoutTouchingContentsOrCapacity) {
    char storage[8];
    velka::RingBuffer ring(storage, sizeof storage);
    put(ring, "abcdefgh");
    take(ring, 3);
    ring.reset();
    EXPECT_EQ(0u, ring.length());
    EXPECT_EQ(8u, ring.space());
    EXPECT_EQ(8u, ring.size());
    EXPECT_EQ(bytes("abcdefgh"), std::string(storage, 8));
    EXPECT_EQ(0u, ring.backwardSeek(1)) << "bytes from before the reset were given back";

    // It starts over at offset 0.
    put(ring, "XY");
    EXPECT_EQ(bytes("XYcdefgh"), std::string(storage, 8));
    EXPECT_EQ(bytes("XY"), take(ring, 8));
    EXPECT_EQ(2u, ring.backwardSeek(2));
}

TEST(RingBufferTest, CapacityOfOneByte) {
    char storage[1];
    velka::RingBuffer ring(storage, 1);
    EXPECT_EQ(1u, put(ring, "ab"));
    EXPECT_EQ(0u, put(ring, "c"));
    EXPECT_EQ(bytes("a"), take(ring, 2));
    EXPECT_EQ(1u, put(ring, "d"));  // the writer has gone round: nothing to give back
    EXPECT_EQ(0u, ring.backwardSeek(1));
    EXPECT_EQ(bytes("d"), take(ring, 1));
    EXPECT_EQ(1u, ring.backwardSeek(1));
    EXPECT_EQ(bytes("d"), take(ring, 1));
}

// Counters at 2^32 ----------------------------------------------------------------

// Plays one script on a ring of 16 bytes whose read counter starts at
// `readStart` with 8 bytes held, and returns everything the ring answered. The
// storage holds "0123456789abcdef", so the bytes come from the masked counters.
std::vector<std::string> playNearCounter(uint32_t readStart) {
    char storage[16];
    TestRing ring(storage, sizeof storage);
    const std::string pattern = "0123456789abcdef";
    put(ring, pattern);
    take(ring, 16);
    ring.setCounters(readStart, readStart + 8);

    std::vector<std::string> answers;
    auto note = [&](const std::string& what, uint64_t value) {
        answers.push_back(what + "=" + std::to_string(value));
    };
    note("length", ring.length());
    note("space", ring.space());
    answers.push_back(take(ring, 3));
    note("seekTooFar", ring.backwardSeek(12));
    note("seek", ring.backwardSeek(11));
    answers.push_back(take(ring, 16));
    note("write", put(ring, "ABCDEFGHIJKLMNOPQRS"));
    note("full", ring.isFull());
    answers.push_back(take(ring, 5));
    note("seekBack", ring.backwardSeek(5));
    answers.push_back(take(ring, 16));
    note("length", ring.length());
    note("space", ring.space());
    return answers;
}

// The scene of playNearCounter, once far from any wrap and once with the read
// counter 4 below 2^32 and the write counter wrapped to 4. Both start at the
// same offset of the storage (12).
TEST(RingBufferTest, CountersWrappingPast2To32BehaveAsWithoutTheWrap) {
    const std::vector<std::string> plain = playNearCounter(0x1000000Cu);
    const std::vector<std::string> wrapped = playNearCounter(0xFFFFFFFCu);
    EXPECT_EQ(plain, wrapped);

    const std::vector<std::string> expected = {
        "length=8",         "space=8",
        "cde",              // offsets 12, 13, 14
        "seekTooFar=0",     // 3 read bytes + 8 free slots of older ones: 11
        "seek=11",          "456789abcdef0123",
        "write=16",         "full=1",
        "ABCDE",            "seekBack=5",
        "ABCDEFGHIJKLMNOP", "length=0",
        "space=16",
    };
    EXPECT_EQ(expected, plain);
}

// Storage and diagnostics ------------------------------------------------------------

TEST(RingBufferTest, AllocatedStorageIsAnnouncedAndFreed) {
    testing::internal::CaptureStdout();
    {
        velka::RingBuffer ring;
        EXPECT_EQ(0u, ring.size());
        EXPECT_EQ(0u, put(ring, "abc")) << "a ring without storage took bytes";
        EXPECT_TRUE(ring.allocate(4096));
        EXPECT_EQ(4096u, ring.size());
        EXPECT_EQ(4096u, ring.space());
        put(ring, "abc");
        EXPECT_EQ(bytes("abc"), take(ring, 3));
    }
    EXPECT_EQ("Ring buffer allocate 4096\nRing buffer free\n",
              testing::internal::GetCapturedStdout());
}

TEST(RingBufferTest, CallerStorageIsNeverFreedAndNothingIsPrinted) {
    std::vector<char> storage(64, '.');
    testing::internal::CaptureStdout();
    {
        velka::RingBuffer ring(storage.data(), 64);
        put(ring, "kept");
    }
    {
        velka::RingBuffer empty;  // no storage at all
    }
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ(bytes("kept"), std::string(storage.data(), 4));
}

// Lowers the address-space limit of this process around `body`, so that a
// large allocation fails (sanitizer runtimes cap allocations themselves, see
// the options at the top).
template <typename Body>
void withTightAddressSpace(Body body) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    body();
#else
    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_AS, &saved));
    long pages = 0;
    std::ifstream statm("/proc/self/statm");
    ASSERT_TRUE(statm >> pages);
    struct rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) +
                     (64u << 20);
    if (saved.rlim_cur != RLIM_INFINITY && saved.rlim_cur < tight.rlim_cur) {
        tight.rlim_cur = saved.rlim_cur;
    }
    ASSERT_EQ(0, setrlimit(RLIMIT_AS, &tight));
    body();
    EXPECT_EQ(0, setrlimit(RLIMIT_AS, &saved));
#endif
}

TEST(RingBufferTest, FailedAllocationReturnsFalseSilently) {
    bool allocated = true;
    unsigned int sizeAfter = 1;
    testing::internal::CaptureStdout();
    {
        velka::RingBuffer ring;
        withTightAddressSpace([&] { allocated = ring.allocate(1u << 30); });
        sizeAfter = ring.size();
    }  // not owning anything: the destructor prints nothing either
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_FALSE(allocated);
    EXPECT_EQ(0u, sizeAfter);
}

class RingBufferDeathTest : public testing::TestWithParam<unsigned int> {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_P(RingBufferDeathTest, SizeThatIsNotAPowerOfTwoStops) {
    const unsigned int size = GetParam();
    const auto assertion = testing::HasSubstr("Assertion `(size & (size-1)) == 0' failed.");
    EXPECT_DEATH(
        {
            velka::RingBuffer ring;
            ring.allocate(size);
        },
        assertion);
    std::vector<char> storage(size);
    EXPECT_DEATH(velka::RingBuffer ring(storage.data(), size), assertion);
}

INSTANTIATE_TEST_SUITE_P(Sizes, RingBufferDeathTest, testing::Values(3u, 6u, 12u, 1000u, 4097u));

TEST(RingBufferTest, SizeZeroPassesTheCheck) {
    velka::RingBuffer ring(nullptr, 0);
    EXPECT_EQ(0u, ring.size());
    EXPECT_EQ(0u, ring.space());
    EXPECT_EQ(0u, put(ring, "a"));
    EXPECT_EQ(bytes(""), take(ring, 1));
}

// Randomized comparison against a model ------------------------------------------------

// The byte stream as a plain record: every byte has its absolute index (a
// 64-bit counter that never wraps), `held` keeps the written bytes that are
// still in the storage, from index `heldStart` on.
struct Model {
    uint32_t size = 0;
    uint64_t written = 0;     // absolute write position
    uint64_t consumed = 0;    // absolute read position
    uint64_t epochStart = 0;  // first index written since the last reset
    uint64_t heldStart = 0;
    std::deque<char> held;

    uint32_t length() const { return static_cast<uint32_t>(written - consumed); }
    uint32_t space() const { return size - length(); }

    // Read bytes that are still in the storage: neither overwritten by the
    // writer (older than written - size) nor from before the reset.
    uint32_t readBytesPresent() const {
        uint64_t oldest = epochStart;
        if (written >= size && written - size > oldest) oldest = written - size;
        return static_cast<uint32_t>(consumed - oldest);
    }

    // What the ring may give back. When both 32-bit counters look like a first
    // round of the writer since a reset (both below the capacity, which after
    // a wrap past 2^32 they can be again) the ring can see back only to
    // counter 0.
    uint32_t backwardLimit() const {
        const uint32_t present = readBytesPresent();
        const uint32_t readCounter = static_cast<uint32_t>(consumed);
        const uint32_t writeCounter = static_cast<uint32_t>(written);
        if (writeCounter < size && readCounter < size) {
            return readCounter < present ? readCounter : present;
        }
        return present;
    }

    char at(uint64_t index) const { return held[static_cast<size_t>(index - heldStart)]; }

    void append(const char* data, uint32_t n) {
        held.insert(held.end(), data, data + n);
        written += n;
        // Bytes the writer has overwritten can never be read again.
        while (written - heldStart > size) {
            held.pop_front();
            heldStart++;
        }
    }
};

struct RunConfig {
    uint32_t size;
    uint64_t start;  // absolute counter value the run starts at; 0 is a fresh ring
    int operations;
    int resetPerMille;
};

// Runs `config.operations` random operations on a ring and the model, checking
// every count, every byte read and the state after each step. Returns false
// after the first mismatch (reported through gtest).
// What a run went through, so that a change of the draw that stops reaching
// the interesting states shows.
struct RunFigures {
    int seeksGiven = 0;
    int seeksRefused = 0;
    int seeksAfterBothCountersWrapped = 0;  // both counters below size after 2^32
    uint64_t bytesRead = 0;
    uint64_t highestCounter = 0;
};

bool runDifferential(const RunConfig& config, std::mt19937& rng, RunFigures* figures) {
    const uint32_t size = config.size;
    std::vector<char> storage(size);
    TestRing ring(storage.data(), size);
    Model model;
    model.size = size;

    auto random = [&](uint32_t below) -> uint32_t {
        return below == 0 ? 0 : static_cast<uint32_t>(rng() % below);
    };

    if (config.start != 0) {
        // Fill the storage with known bytes as a ring that has already moved
        // `start` bytes would hold them, then place the counters there.
        std::vector<char> pattern(size);
        for (char& c : pattern) c = static_cast<char>(rng());
        EXPECT_EQ(size, ring.write(pattern.data(), size));
        std::vector<char> sink(size);
        EXPECT_EQ(size, ring.read(sink.data(), size));
        const uint32_t counter = static_cast<uint32_t>(config.start);
        ring.setCounters(counter, counter);
        model.epochStart = config.start - size;
        model.heldStart = model.epochStart;
        model.written = model.consumed = config.start;
        for (uint64_t i = model.heldStart; i < config.start; ++i) {
            model.held.push_back(pattern[static_cast<size_t>(i & (size - 1))]);
        }
    }

    std::vector<char> data(3 * size + 2);
    std::vector<char> out(3 * size + 2);
    for (int step = 0; step < config.operations; ++step) {
        // Amounts near the interesting limits are drawn more often than others.
        const uint32_t limits[] = {0, 1, size - 1, size, size + 1, model.length(),
                                   model.length() + 1, model.space(), model.space() + 1,
                                   model.backwardLimit(), model.backwardLimit() + 1};
        uint32_t n = random(2) == 0 ? limits[random(sizeof limits / sizeof limits[0])]
                                    : random(2 * size + 2);
        if (n > 3 * size + 2) n = 3 * size + 2;

        const uint32_t pick = random(1000);
        std::string op;
        if (pick < static_cast<uint32_t>(config.resetPerMille)) {
            op = "reset";
            ring.reset();
            model.written = model.consumed = model.epochStart = model.heldStart = 0;
            model.held.clear();
        } else if (pick < 380) {
            op = "write " + std::to_string(n);
            for (uint32_t i = 0; i < n; ++i) data[i] = static_cast<char>(rng());
            const uint32_t expected = n < model.space() ? n : model.space();
            const unsigned int got = ring.write(data.data(), n);
            model.append(data.data(), expected);
            if (got != expected) {
                ADD_FAILURE() << "step " << step << ": " << op << " returned " << got
                              << ", expected " << expected;
                return false;
            }
        } else if (pick < 700) {
            op = "read " + std::to_string(n);
            const uint32_t expected = n < model.length() ? n : model.length();
            const unsigned int got = ring.read(out.data(), n);
            if (got != expected) {
                ADD_FAILURE() << "step " << step << ": " << op << " returned " << got
                              << ", expected " << expected;
                return false;
            }
            for (uint32_t i = 0; i < got; ++i) {
                if (out[i] != model.at(model.consumed + i)) {
                    ADD_FAILURE() << "step " << step << ": " << op << " byte " << i
                                  << " differs (stream index " << model.consumed + i << ")";
                    return false;
                }
            }
            model.consumed += expected;
            figures->bytesRead += expected;
        } else if (pick < 800) {
            op = "skip " + std::to_string(n);
            const uint32_t expected = n < model.length() ? n : model.length();
            const unsigned int got = ring.skip(n);
            model.consumed += expected;
            if (got != expected) {
                ADD_FAILURE() << "step " << step << ": " << op << " returned " << got
                              << ", expected " << expected;
                return false;
            }
        } else {
            op = "backwardSeek " + std::to_string(n);
            const uint32_t expected = (n != 0 && n <= model.backwardLimit()) ? n : 0;
            const unsigned int got = ring.backwardSeek(n);
            model.consumed -= expected;
            (expected != 0 ? figures->seeksGiven : figures->seeksRefused)++;
            if (model.written >= kCounterWrap && static_cast<uint32_t>(model.written) < size &&
                static_cast<uint32_t>(model.consumed + expected) < size) {
                figures->seeksAfterBothCountersWrapped++;
            }
            if (got != expected) {
                ADD_FAILURE() << "step " << step << ": " << op << " returned " << got
                              << ", expected " << expected << " (bytes read and present "
                              << model.readBytesPresent() << ")";
                return false;
            }
        }

        if (ring.length() != model.length() || ring.space() != model.space() ||
            ring.isFull() != (model.length() == size) || ring.size() != size) {
            ADD_FAILURE() << "step " << step << ": after " << op << " length " << ring.length()
                          << "/" << model.length() << ", space " << ring.space() << "/"
                          << model.space();
            return false;
        }
        if (model.written > figures->highestCounter) figures->highestCounter = model.written;
    }
    return true;
}

uint32_t chooseSeed() {
    const char* fromEnvironment = getenv("VELKA_RING_SEED");
    return fromEnvironment != nullptr ? static_cast<uint32_t>(strtoul(fromEnvironment, nullptr, 0))
                                      : 20240611u;
}

TEST(RingBufferModelTest, RandomOperationsMatchTheModel) {
    const uint32_t seed = chooseSeed();
    printf("ring model seed %" PRIu32 " (set VELKA_RING_SEED to replay another)\n", seed);
    std::mt19937 rng(seed);

    for (uint32_t size : {1u, 2u, 8u, 64u, 1024u}) {
        const RunConfig runs[] = {
            {size, 0, 6000, 5},
            // Counters a little and a lot below 2^32: they wrap early in the run.
            {size, kCounterWrap - 1, 6000, 0},
            {size, kCounterWrap - 5 * uint64_t(size) - 3, 6000, 1},
        };
        for (const RunConfig& run : runs) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", size " + std::to_string(size) +
                         ", start " + std::to_string(run.start));
            RunFigures figures;
            ASSERT_TRUE(runDifferential(run, rng, &figures));
            printf("size %4" PRIu32 " start %10" PRIu64 ": %5d seeks given, %5d refused, %4d with"
                   " both counters wrapped, %8" PRIu64 " bytes read\n",
                   size, run.start, figures.seeksGiven, figures.seeksRefused,
                   figures.seeksAfterBothCountersWrapped, figures.bytesRead);
            EXPECT_GT(figures.seeksGiven, 0);
            EXPECT_GT(figures.seeksRefused, 0);
            if (run.start != 0 && run.resetPerMille == 0) {
                EXPECT_GT(figures.highestCounter, kCounterWrap)
                    << "the run never took the counters past 2^32";
            }
        }
    }
}

}  // namespace
