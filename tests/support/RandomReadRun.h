#ifndef VELKA_TESTS_SUPPORT_RANDOMREADRUN_H
#define VELKA_TESTS_SUPPORT_RANDOMREADRUN_H

// A seeded random run against one source, checked byte-exact against a model
// of it: asynchronous reads of 0 to 1 MiB (some chained from inside
// complete()), cancels of outstanding requests in any order and of completed
// ones, seeks with every origin (also past the end), blocking reads, and
// closes with reads outstanding followed by a new file.
//
// Checked: every accepted request completes exactly once, with a documented
// status that agrees with what cancel() answered; completions come in the
// order the reads were served, each with the bytes at the position the model
// says; no completion comes after close() has returned; tell() follows the
// model (and, where the source promises it, stays within [0, length]).


#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "../TestSupport.h"
#include "velka/File.h"

namespace testing_support {

// Fewer operations under the sanitizers and under emulation (a cross build's
// tests run in qemu-user), which slow every read down.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(VELKA_TEST_EMULATED)
constexpr int kRandomRunOperations = 3000;
#else
constexpr int kRandomRunOperations = 20000;
#endif

// What a source is expected to do.
struct SourceModel {
    // The position seek(offset, whence) gives from `position`; -1 when the
    // seek fails and the position stays.
    std::function<int64_t(int64_t position, int64_t offset, int whence)> seek;
    // Status and byte count of a read of `count` bytes at `position`; a
    // blocking read returns the same count.
    std::function<std::pair<velka::VelkaStatus, uint32_t>(int64_t position, uint32_t count)> read;
    // tell() stays within [0, length].
    bool positionWithinLength;
};

class RandomReadRun {
public:
    struct Counts {
        uint64_t operations = 0;
        uint64_t completions = 0;
        uint64_t cancels = 0;  // cancel() calls answered 0
        uint64_t closes = 0;
    };

    // `openFile` makes and opens a new source over `data`, null on failure.
    RandomReadRun(const TempDataFile& data, SourceModel model,
                  std::function<velka::File*()> openFile, uint32_t seed)
        : data_(data), model_(std::move(model)), openFile_(std::move(openFile)), seed_(seed),
          rng_(seed), chainRng_(seed + 1) {}

    ~RandomReadRun() {
        if (file_ != nullptr) {
            file_->close();
            delete file_;
        }
    }

    // Runs `operations` operations with the source's output (a line or more
    // per operation) captured and dropped, then prints the counts. False at
    // the first failure, told by error().
    bool run(int operations) {
        bool ok = false;
        capturedStdout([&] { ok = runQuietly(operations); });
        printf("random run (seed %u): %llu operations, %llu completions, %llu cancels, %llu closes\n",
               seed_, static_cast<unsigned long long>(counts.operations),
               static_cast<unsigned long long>(counts.completions),
               static_cast<unsigned long long>(counts.cancels),
               static_cast<unsigned long long>(counts.closes));
        return ok;
    }

    const std::string& error() const { return error_; }

    Counts counts;

private:
    static constexpr size_t kMaxOutstanding = 4;
    static constexpr uint32_t kMaxRead = 1024 * 1024;

    struct Request : velka::File::AsyncCallback {
        Request(RandomReadRun& run, int id, uint32_t count, int chain)
            : run(run), id(id), buffer(count), count(count), chain(chain) {}
        void complete(velka::VelkaStatus s, uint32_t n) override { run.completed(*this, s, n); }

        RandomReadRun& run;
        const int id;
        std::vector<char> buffer;
        const uint32_t count;
        const int chain;          // reads still to issue from inside complete()
        void* handle = nullptr;   // set once readAsync has returned it
        bool cancelAnswered0 = false;  // some cancel() of it answered 0
        bool closeMayCancel = false;   // outstanding when close() began
        int completions = 0;
        velka::VelkaStatus status = velka::kStatusOk;
        uint32_t length = 0;
    };

    bool fail(const std::string& what) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (error_.empty()) error_ = "operation " + std::to_string(counts.operations) + ": " + what;
        return false;
    }

    uint32_t readSize(std::mt19937& rng) {
        const int bits = std::uniform_int_distribution<int>(0, 20)(rng);
        return std::uniform_int_distribution<uint32_t>(0, uint32_t{1} << bits)(rng);
    }

    // Caller holds mutex_.
    Request* newRequestLocked(uint32_t count, int chain) {
        all_.emplace_back(new Request(*this, static_cast<int>(all_.size()), count, chain));
        ++pending_;
        return all_.back().get();
    }

    // Issues `request`, already counted in pending_. mutex_ not held.
    bool issue(Request* request) {
        void* handle = file_->readAsync(request->buffer.data(), request->count, *request);
        std::lock_guard<std::mutex> lock(mutex_);
        if (handle == nullptr) {
            --pending_;
            changed_.notify_all();
            if (!closing_ && error_.empty()) error_ = "a read was refused";
            return false;
        }
        // A request may complete before its handle is stored: only cancels
        // of stored handles are made.
        request->handle = handle;
        // Issued from a completion while close() began: close() may have
        // taken it from the queue and cancelled it.
        if (closing_) request->closeMayCancel = true;
        if (request->completions == 0) outstanding_.push_back(request);
        return true;
    }

    void completed(Request& request, velka::VelkaStatus status, uint32_t length) {
        Request* next = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (++request.completions > 1 && error_.empty()) {
                error_ = "request " + std::to_string(request.id) + " completed twice";
            }
            if (closed_ && error_.empty()) error_ = "a completion came after close() returned";
            request.status = status;
            request.length = length;
            order_.push_back(&request);
            outstanding_.erase(std::remove(outstanding_.begin(), outstanding_.end(), &request),
                               outstanding_.end());
            ++counts.completions;
            if (request.chain > 0 && !closing_) {
                next = newRequestLocked(readSize(chainRng_), request.chain - 1);
            }
        }
        // Chained the way the engine pulls: from inside complete().
        if (next != nullptr) issue(next);
        std::lock_guard<std::mutex> lock(mutex_);
        --pending_;
        changed_.notify_all();
    }

    bool drain() {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!changed_.wait_for(lock, kWait, [this] { return pending_ == 0; })) {
            lock.unlock();
            return fail("a read never completed");
        }
        lock.unlock();
        return verify(true);
    }

    // Walks the completions since the last check in the order they came; then
    // compares tell() unless the file is closed.
    bool verify(bool fileOpen) {
        std::vector<Request*> order;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!error_.empty()) return false;
            order.swap(order_);
        }
        for (Request* r : order) {
            const std::string which = "request " + std::to_string(r->id) + " at " +
                                      std::to_string(position_) + " of " +
                                      std::to_string(r->count) + ": ";
            if (r->status == velka::kStatusCancelled) {
                if (r->length != 0) return fail(which + "cancelled with bytes");
                if (!r->cancelAnswered0 && !r->closeMayCancel) {
                    return fail(which + "cancelled though no cancel() answered 0");
                }
            } else if (r->status == velka::kStatusError && r->closeMayCancel) {
                // A read in service that closing the source made fail.
                if (r->length != 0) return fail(which + "failed with bytes");
            } else {
                if (r->cancelAnswered0) return fail(which + "cancel() answered 0, yet it was served");
                const auto expected = model_.read(position_, r->count);
                if (r->status != expected.first || r->length != expected.second) {
                    return fail(which + "status " + std::to_string(r->status) + " length " +
                                std::to_string(r->length) + ", expected " +
                                std::to_string(expected.first) + " " +
                                std::to_string(expected.second));
                }
                const std::vector<char> want = data_.slice(position_, r->length);
                if (!std::equal(want.begin(), want.end(), r->buffer.begin())) {
                    return fail(which + "wrong bytes");
                }
                position_ += r->length;
            }
            std::vector<char>().swap(r->buffer);
        }
        return !fileOpen || checkPosition();
    }

    bool checkPosition() {
        const int64_t told = file_->tell();
        if (told != position_) {
            return fail("tell() " + std::to_string(told) + ", expected " + std::to_string(position_));
        }
        if (model_.positionWithinLength && (told < 0 || told > data_.size())) {
            return fail("tell() " + std::to_string(told) + " outside [0, length]");
        }
        return true;
    }

    bool reopen() {
        file_ = openFile_();
        position_ = 0;
        return file_ != nullptr || fail("the source did not open");
    }

    bool runQuietly(int operations) {
        if (!reopen()) return false;
        std::vector<char> blocking(kMaxRead);
        std::uniform_int_distribution<int> percent(0, 99);
        const int64_t length = data_.size();
        for (int i = 0; i < operations; ++i) {
            ++counts.operations;
            const int op = percent(rng_);
            size_t outstanding;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                if (!error_.empty()) return false;
                outstanding = outstanding_.size();
            }
            if (op < 35) {
                if (outstanding >= kMaxOutstanding) {
                    if (!drain()) return false;
                    continue;
                }
                const int chain = percent(rng_) < 20 ? percent(rng_) % 3 + 1 : 0;
                Request* request;
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    request = newRequestLocked(readSize(rng_), chain);
                }
                if (!issue(request)) return fail("a read was refused");
            } else if (op < 55) {
                // Cancel an outstanding request, any of them.
                Request* victim = nullptr;
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    if (!outstanding_.empty()) {
                        victim = outstanding_[rng_() % outstanding_.size()];
                    }
                }
                if (victim == nullptr) continue;
                // It may complete meanwhile; cancel() must then answer -1.
                const int answer = file_->cancel(victim->handle);
                if (answer != 0 && answer != -1) return fail("cancel() answered " + std::to_string(answer));
                std::lock_guard<std::mutex> lock(mutex_);
                if (answer == 0) {
                    victim->cancelAnswered0 = true;
                    ++counts.cancels;
                }
            } else if (op < 60) {
                // Cancel of a completed request, with nothing outstanding
                // that could have taken its address.
                if (!drain()) return false;
                Request* done;
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    done = all_.empty() ? nullptr : all_[rng_() % all_.size()].get();
                }
                if (done != nullptr && done->handle != nullptr && file_->cancel(done->handle) != -1) {
                    return fail("cancel() of a completed request did not answer -1");
                }
            } else if (op < 74) {
                if (!drain()) return false;
                const int whence = percent(rng_) % 3;
                int64_t offset;
                switch (percent(rng_) % 6) {
                    case 0: offset = length; break;
                    case 1: offset = length - 1; break;
                    case 2: offset = -length; break;
                    case 3: offset = 0; break;
                    default:
                        offset = std::uniform_int_distribution<int64_t>(-length - 100,
                                                                        2 * length + 100)(rng_);
                }
                const int64_t expected = model_.seek(position_, offset, whence);
                const int64_t got = file_->seek(offset, static_cast<velka::File::Whence>(whence));
                if (got != expected) {
                    return fail("seek(" + std::to_string(offset) + ", " + std::to_string(whence) +
                                ") from " + std::to_string(position_) + " gave " +
                                std::to_string(got) + ", expected " + std::to_string(expected));
                }
                if (expected != -1) position_ = expected;
                if (!checkPosition()) return false;
            } else if (op < 82) {
                if (!drain()) return false;
                const uint32_t count = readSize(rng_);
                const uint32_t expected = model_.read(position_, count).second;
                const int got = file_->read(blocking.data(), count);
                if (got != static_cast<int>(expected)) {
                    return fail("blocking read of " + std::to_string(count) + " at " +
                                std::to_string(position_) + " gave " + std::to_string(got));
                }
                const std::vector<char> want = data_.slice(position_, expected);
                if (!std::equal(want.begin(), want.end(), blocking.begin())) {
                    return fail("blocking read: wrong bytes");
                }
                position_ += expected;
                if (!checkPosition()) return false;
            } else if (op < 84) {
                // Close with reads outstanding: all complete before close() returns.
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    for (Request* r : outstanding_) r->closeMayCancel = true;
                    closing_ = true;
                }
                file_->close();
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    closing_ = false;
                    if (pending_ != 0) {
                        error_ = "close() returned with " + std::to_string(pending_) +
                                 " reads not completed";
                        return false;
                    }
                    closed_ = true;
                }
                ++counts.closes;
                if (!verify(false)) return false;
                delete file_;
                file_ = nullptr;
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    closed_ = false;
                }
                if (!reopen()) return false;
            } else {
                if (!drain()) return false;
            }
        }
        return drain();
    }

    const TempDataFile& data_;
    const SourceModel model_;
    const std::function<velka::File*()> openFile_;
    const uint32_t seed_;
    std::mt19937 rng_;  // the main thread's
    velka::File* file_ = nullptr;
    int64_t position_ = 0;  // the model's position: where the next read starts

    std::mutex mutex_;  // guards everything below and the Requests' fields after issue
    std::condition_variable changed_;
    std::mt19937 chainRng_;  // sizes of chained reads
    std::vector<std::unique_ptr<Request>> all_;
    std::vector<Request*> outstanding_;  // handle stored, not yet completed
    std::vector<Request*> order_;        // completed, not yet checked, in order of completion
    int pending_ = 0;                    // accepted or being issued, not yet completed
    bool closing_ = false;               // close() runs: chained reads may be refused
    bool closed_ = false;                // close() has returned on the current file
    std::string error_;
};

}  // namespace testing_support

#endif  // VELKA_TESTS_SUPPORT_RANDOMREADRUN_H
