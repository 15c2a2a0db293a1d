// RingBuffer: a randomized comparison against a plain model of the byte
// stream (including the wrap of the counters at 2^32 and the backward seek's
// limits, drawn often), and the storage and its lines.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "velka/RingBuffer.h"

// A failed allocation is provoked with a request larger than the process may
// have. Sanitizer runtimes keep their own allocator: they are told to refuse
// large requests with a null pointer instead of stopping the process.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VELKA_SANITIZER_ALLOCATOR 1
#if defined(__SANITIZE_ADDRESS__)
extern "C" const char* __asan_default_options() {
#else
extern "C" const char* __tsan_default_options() {
#endif
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

unsigned int put(velka::RingBuffer& ring, std::string data) {
    return ring.write(&data[0], static_cast<unsigned int>(data.size()));
}

// The byte stream as a plain record. Counters are absolute 64-bit positions
// that never wrap; `stream` holds every byte written since `origin`.
struct Model {
    uint32_t size;
    uint64_t origin, written, consumed;
    std::string stream;

    uint32_t length() const { return static_cast<uint32_t>(written - consumed); }
    uint32_t space() const { return size - length(); }
    // Read bytes that neither the writer has overwritten nor came before the
    // reset. When both 32-bit counters look like a first round of the writer
    // (both below the capacity, which after a wrap past 2^32 they can be
    // again) the ring sees back only to counter 0.
    uint32_t backwardLimit() const {
        const uint64_t oldest = std::max(origin, written < size ? 0 : written - size);
        const uint32_t present = static_cast<uint32_t>(consumed - oldest);
        const uint32_t readCounter = static_cast<uint32_t>(consumed);
        const bool firstRound = static_cast<uint32_t>(written) < size && readCounter < size;
        return firstRound ? std::min(readCounter, present) : present;
    }
};

// Runs `operations` random writes, reads, skips, backward seeks and resets on
// a ring and the model, checking every count, every byte read and the state
// after each step. A run with `start` != 0 begins as a ring that has already
// moved `start` bytes, its storage full of known ones. Returns the first
// mismatch, or "" when none.
std::string runDifferential(uint32_t size, uint64_t start, int operations, uint32_t resetPerMille,
                            std::mt19937& rng, int* seeksGiven, int* seeksRefused,
                            uint64_t* highest) {
    std::vector<char> storage(size);
    TestRing ring(storage.data(), size);
    Model m{size, 0, 0, 0, ""};
    auto random = [&](uint32_t below) {
        return below == 0 ? 0 : static_cast<uint32_t>(rng() % below);
    };
    if (start != 0) {
        for (uint32_t i = 0; i < size; ++i) m.stream += static_cast<char>(rng());
        // Counter n lives at n & (size - 1): lay the bytes out for counters start - size to start.
        for (uint32_t i = 0; i < size; ++i) storage[(start - size + i) & (size - 1)] = m.stream[i];
        ring.setCounters(static_cast<uint32_t>(start), static_cast<uint32_t>(start));
        m.origin = start - size;
        m.written = m.consumed = start;
    }
    std::vector<char> data(3 * size + 2), out(3 * size + 2);
    for (int step = 0; step < operations; ++step) {
        // Amounts near the limits are drawn more often than others.
        const uint32_t limits[] = {0, 1, size - 1, size, size + 1, m.length(), m.length() + 1,
                                   m.space(), m.space() + 1, m.backwardLimit(),
                                   m.backwardLimit() + 1};
        const uint32_t n =
            std::min(3 * size + 2, random(2) == 0 ? limits[random(11)] : random(2 * size + 2));
        const uint32_t pick = random(1000);
        std::string op;
        uint32_t expected = 0, got = 0;
        if (pick < resetPerMille) {
            op = "reset";
            ring.reset();
            m = Model{size, 0, 0, 0, ""};
        } else if (pick < 380) {
            op = "write";
            for (uint32_t i = 0; i < n; ++i) data[i] = static_cast<char>(rng());
            expected = std::min(n, m.space());
            got = ring.write(data.data(), n);
            m.stream.append(data.data(), expected);
            m.written += expected;
        } else if (pick < 700) {
            op = "read";
            expected = std::min(n, m.length());
            got = ring.read(out.data(), n);
            if (got == expected &&
                m.stream.compare(m.consumed - m.origin, got, out.data(), got) != 0) {
                return "step " + std::to_string(step) + ": read " + std::to_string(n) +
                       " gave other bytes";
            }
            m.consumed += expected;
        } else if (pick < 800) {
            op = "skip";
            expected = std::min(n, m.length());
            got = ring.skip(n);
            m.consumed += expected;
        } else {
            op = "backwardSeek";
            expected = n != 0 && n <= m.backwardLimit() ? n : 0;
            got = ring.backwardSeek(n);
            m.consumed -= expected;
            ++*(expected != 0 ? seeksGiven : seeksRefused);
        }
        if (got != expected || ring.length() != m.length() || ring.space() != m.space() ||
            ring.isFull() != (m.length() == size)) {
            return "step " + std::to_string(step) + ": " + op + " " + std::to_string(n) +
                   " returned " + std::to_string(got) + ", expected " + std::to_string(expected) +
                   "; length " + std::to_string(ring.length()) + "/" + std::to_string(m.length());
        }
        *highest = std::max(*highest, m.written);
    }
    return "";
}

TEST(RingBufferModelTest, RandomOperationsMatchTheModel) {
    const char* fromEnvironment = getenv("VELKA_RING_SEED");
    const uint32_t seed =
        fromEnvironment ? static_cast<uint32_t>(strtoul(fromEnvironment, nullptr, 0)) : 20240611u;
    printf("ring model seed %u (set VELKA_RING_SEED to replay another)\n", seed);
    std::mt19937 rng(seed);
    for (uint32_t size : {1u, 2u, 8u, 64u, 1024u}) {
        // Fresh, and with counters a little and a lot below 2^32 (they wrap early in the run).
        const struct {
            uint64_t start;
            uint32_t resetPerMille;
        } runs[] = {{0, 5}, {kCounterWrap - 1, 0}, {kCounterWrap - 5 * uint64_t(size) - 3, 1}};
        for (const auto& run : runs) {
            SCOPED_TRACE("size " + std::to_string(size) + ", start " + std::to_string(run.start));
            int given = 0, refused = 0;
            uint64_t highest = 0;
            ASSERT_EQ("", runDifferential(size, run.start, 6000, run.resetPerMille, rng, &given,
                                          &refused, &highest));
            // The draw must keep reaching the interesting states.
            EXPECT_GT(given, 0);
            EXPECT_GT(refused, 0);
            EXPECT_TRUE(run.start == 0 || run.resetPerMille != 0 || highest > kCounterWrap)
                << "the run never took the counters past 2^32";
        }
    }
}

// Lowers the address-space limit of this process around `body`, so that a
// large allocation fails (sanitizer allocators cap requests themselves).
void withTightAddressSpace(const std::function<void()>& body) {
#if defined(VELKA_SANITIZER_ALLOCATOR)
    body();
#else
    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_AS, &saved));
    long pages = 0;
    ASSERT_TRUE(std::ifstream("/proc/self/statm") >> pages);
    struct rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(pages) * sysconf(_SC_PAGESIZE) + (64u << 20);
    if (saved.rlim_cur != RLIM_INFINITY) tight.rlim_cur = std::min(tight.rlim_cur, saved.rlim_cur);
    ASSERT_EQ(0, setrlimit(RLIMIT_AS, &tight));
    body();
    EXPECT_EQ(0, setrlimit(RLIMIT_AS, &saved));
#endif
}

TEST(RingBufferTest, OnlyOwnedStorageIsAnnouncedAndFreed) {
    std::vector<char> storage(64, '.');
    bool failed = true;
    const std::string out = testing_support::capturedStdout([&] {
        velka::RingBuffer owned;
        EXPECT_EQ(0u, put(owned, "abc")) << "a ring without storage took bytes";
        ASSERT_TRUE(owned.allocate(4096));
        EXPECT_EQ(4096u, owned.space());
        velka::RingBuffer borrowed(storage.data(), 64);
        put(borrowed, "kept");
        if (testing_support::kEmulated) {
            // qemu-user keeps an address-space limit to itself (it would bind
            // the emulator, not the emulated program): nothing can be refused.
            fprintf(stderr, "under emulation: a refused allocation is not checked "
                            "(qemu-user does not apply RLIMIT_AS to the emulated program)\n");
            return;
        }
        velka::RingBuffer refused;
        withTightAddressSpace([&] { failed = !refused.allocate(1u << 30); });
        EXPECT_EQ(0u, refused.size());
    });
    EXPECT_TRUE(failed);
    EXPECT_EQ("Ring buffer allocate 4096\nRing buffer free\n", out);
    EXPECT_EQ("kept", std::string(storage.data(), 4));
}

TEST(RingBufferDeathTest, SizeThatIsNotAPowerOfTwoStops) {
    testing_support::useThreadsafeDeathTests();
    for (unsigned int size : {3u, 12u, 4097u}) {
        const auto assertion = testing::HasSubstr("Assertion `(size & (size-1)) == 0' failed.");
        EXPECT_DEATH(velka::RingBuffer().allocate(size), assertion);
        std::vector<char> storage(size);
        EXPECT_DEATH(velka::RingBuffer(storage.data(), size), assertion);
    }
}

}  // namespace
