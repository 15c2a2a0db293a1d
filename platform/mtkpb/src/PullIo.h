// PullIo.h - the engine's byte stream over the caller's pull callbacks.
//
// Reads are pb_read_async requests into a buffer of the request's own, waited
// for with a bound; seeks and the size come from pb_seek (pb_available as a
// fallback for the size). One thread reads and seeks at a time (the engine's
// worker); abortAll() and waitIdle() come from the threads that stop or
// close the engine.
//
// Completions may arrive on any thread, also before pb_read_async has
// returned. The engine's context for a read is a request number, not an
// address, so a completion that breaks the contract (unknown, repeated) is
// counted and ignored instead of touching freed memory. pb_abort is never
// made for a read whose completion has been delivered: a completion that
// arrives while pb_abort for its read is under way waits for pb_abort to
// return, so the caller's request handle stays valid across its cancel.
#ifndef MTKPB_SRC_PULLIO_H
#define MTKPB_SRC_PULLIO_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "IMtkPb_Ctrl.h"

namespace mtkpb {
namespace detail {

struct ReadRequest;
struct ReadOwner;

class PullIo {
public:
    // A read that has waited this long is reported as a stall.
    static constexpr uint32_t kStallReportMs = 1000;
    // A read that has not completed after this long is aborted and fails.
    static constexpr uint32_t kReadTimeoutMs = 30000;
    // After pb_abort, how long a read may still take to complete before the
    // engine gives up on it (its buffer stays allocated until it completes).
    static constexpr uint32_t kAbortWaitMs = 10000;

    // Results of read() and seek() besides byte counts and positions.
    static constexpr int kEnd = 0;
    static constexpr int kFailed = -1;
    static constexpr int kAborted = -2;

    PullIo(IMTK_PB_HANDLE_T engine, const PullSourceParams& params);
    ~PullIo();
    PullIo(const PullIo&) = delete;
    PullIo& operator=(const PullIo&) = delete;

    // pb_open, then the size: pb_seek(0, end) and back to 0, or pb_available.
    // False when pb_open fails.
    bool open();
    // pb_close. Call only once no read is outstanding.
    void close();

    // Reads up to `count` bytes at the current position: bytes read, kEnd at
    // the end, kFailed, or kAborted after abortAll().
    int read(uint8_t* buffer, uint32_t count);
    // Moves the position (whence: SEEK_SET, SEEK_CUR, SEEK_END); the new
    // position or a negative value.
    int64_t seek(int64_t offset, int whence);
    // Size in bytes, -1 when the source could not tell.
    int64_t size() const { return size_; }

    // Called on the reading thread: true when a read has waited kStallReportMs,
    // false when that read has completed.
    void setStallHandler(std::function<void(bool)> handler) { stallHandler_ = std::move(handler); }

    // Makes every read fail with kAborted from now on, and aborts with pb_abort
    // the reads that are outstanding. Any thread.
    void abortAll();
    void clearAbort();
    bool aborting() const { return aborting_; }
    // Waits until no read of this source is outstanding; false on time-out.
    bool waitIdle(uint32_t timeoutMs);

private:
    // Called with the registry lock held; releases it around pb_abort.
    void abortRequest(std::unique_lock<std::mutex>& lock, const std::shared_ptr<ReadRequest>& request);

    const IMTK_PB_HANDLE_T engine_;
    const PullSourceParams params_;
    IMTK_PULL_HANDLE_T pullHandle_ = 0;
    bool opened_ = false;
    int64_t size_ = -1;
    std::atomic<bool> aborting_{false};
    std::shared_ptr<ReadOwner> owner_;  // outstanding reads of this source
    std::function<void(bool)> stallHandler_;
};

// Reads outstanding over all sources (accepted or being issued, not completed).
uint64_t outstandingReads();

}  // namespace detail
}  // namespace mtkpb

#endif  // MTKPB_SRC_PULLIO_H
