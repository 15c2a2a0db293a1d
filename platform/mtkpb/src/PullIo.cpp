// PullIo.cpp - reads, seeks and the size of the medium through the pull
// callbacks.
#include "PullIo.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "Control.h"

namespace mtkpb {
namespace detail {

// Reads outstanding for one source; guarded by the registry's mutex.
struct ReadOwner {
    uint64_t outstanding = 0;
};

// One pb_read_async request. Every field is guarded by the registry's mutex.
struct ReadRequest {
    uint64_t id = 0;
    std::shared_ptr<ReadOwner> owner;
    std::vector<uint8_t> buffer;  // the source writes here, never into the caller's buffer,
                                  // so a read given up on can still complete safely
    bool accepted = false;        // pb_read_async returned 0
    IMTK_PULL_REQ_HANDLE_T handle = nullptr;  // written by pb_read_async
    bool completed = false;
    IMTK_PULL_REQ_HANDLE_T completedHandle = nullptr;  // as given to the completion
    int32_t result = IMTK_PB_PULL_READ_FAILED;
    uint32_t length = 0;
    bool abortWanted = false;  // abortAll() came while pb_read_async was under way
    bool abortIssued = false;
    bool abortInProgress = false;  // pb_abort for this read has not returned yet
    std::thread::id abortThread;   // the thread making that pb_abort
};

namespace {

// Every read not yet completed, by request number. Built once, never
// destroyed: a late completion may arrive while the process exits.
struct Registry {
    std::mutex mutex;
    std::condition_variable condition;  // a read completed, or a pb_abort returned
    std::map<uint64_t, std::shared_ptr<ReadRequest>> requests;
    uint64_t nextId = 1;
};

Registry& registry() {
    static Registry* r = new Registry;
    return *r;
}

using Clock = std::chrono::steady_clock;

}  // namespace

extern "C" {
// The engine's completion function for pb_read_async; any thread.
static void read_done(int32_t result, void* tag, IMTK_PULL_REQ_HANDLE_T request,
                      uint32_t length) {
    Stats& st = stats();
    Registry& reg = registry();
    const uint64_t id = reinterpret_cast<uintptr_t>(tag);
    std::unique_lock<std::mutex> lock(reg.mutex);
    auto it = reg.requests.find(id);
    if (it == reg.requests.end()) {
        // Unknown, already completed, or refused by pb_read_async.
        st.protocolErrors++;
        lock.unlock();
        changed();
        return;
    }
    std::shared_ptr<ReadRequest> r = it->second;
    // Keep the caller's request handle valid until its pb_abort has returned.
    reg.condition.wait(lock, [&] {
        return !r->abortInProgress || r->abortThread == std::this_thread::get_id();
    });
    if (r->completed) {  // a second completion raced with the first one
        st.protocolErrors++;
        lock.unlock();
        changed();
        return;
    }
    if (r->accepted && request != r->handle) st.protocolErrors++;
    bool valid = result == IMTK_PB_PULL_READ_DONE ? length <= r->buffer.size()
                 : result == IMTK_PB_PULL_READ_CANCELLED || result == IMTK_PB_PULL_READ_FAILED
                     ? length == 0
                     : false;
    if (!valid) {
        st.protocolErrors++;
        result = IMTK_PB_PULL_READ_FAILED;
        length = 0;
    }
    r->completed = true;
    r->completedHandle = request;
    r->result = result;
    r->length = length;
    r->owner->outstanding--;
    reg.requests.erase(it);
    st.readsCompleted++;
    if (result == IMTK_PB_PULL_READ_CANCELLED) st.readsCancelled++;
    if (result == IMTK_PB_PULL_READ_FAILED) st.readsFailed++;
    st.bytesPulled += length;
    lock.unlock();
    reg.condition.notify_all();
    changed();
}
}  // extern "C"

PullIo::PullIo(IMTK_PB_HANDLE_T engine, const PullSourceParams& params)
    : engine_(engine), params_(params), owner_(std::make_shared<ReadOwner>()) {}

PullIo::~PullIo() = default;

bool PullIo::open() {
    IMTK_PULL_HANDLE_T handle = 0;
    if (params_.pbOpen(engine_, &handle, params_.appTag) != IMTK_PB_CB_ERROR_CODE_OK) return false;
    pullHandle_ = handle;
    opened_ = true;

    // The size: from a seek to the end, else from what is available at 0.
    int64_t end = seek(0, SEEK_END);
    if (end >= 0) {
        size_ = end;
        seek(0, SEEK_SET);
    } else if (params_.pbAvailable != nullptr) {
        uint64_t available = 0;
        if (params_.pbAvailable(pullHandle_, params_.appTag, &available) ==
                IMTK_PB_CB_ERROR_CODE_OK &&
            available <= static_cast<uint64_t>(INT64_MAX)) {
            size_ = static_cast<int64_t>(available);
        }
    }
    return true;
}

void PullIo::close() {
    if (!opened_) return;
    opened_ = false;
    params_.pbClose(pullHandle_, params_.appTag);
}

int64_t PullIo::seek(int64_t offset, int whence) {
    if (aborting_) return kAborted;
    uint8_t origin = whence == SEEK_SET   ? IMTK_PB_PULL_SEEK_SET
                     : whence == SEEK_CUR ? IMTK_PB_PULL_SEEK_CUR
                                          : IMTK_PB_PULL_SEEK_END;
    uint64_t position = 0;
    stats().seeks++;
    if (params_.pbSeek(pullHandle_, params_.appTag, offset, origin, &position) !=
            IMTK_PB_CB_ERROR_CODE_OK ||
        position > static_cast<uint64_t>(INT64_MAX)) {
        return kFailed;
    }
    return static_cast<int64_t>(position);
}

int PullIo::read(uint8_t* buffer, uint32_t count) {
    if (count == 0) return 0;
    Registry& reg = registry();
    auto r = std::make_shared<ReadRequest>();
    r->owner = owner_;
    r->buffer.resize(count);
    {
        std::lock_guard<std::mutex> lock(reg.mutex);
        if (aborting_) return kAborted;  // abortAll() sets it under this lock
        r->id = reg.nextId++;
        reg.requests[r->id] = r;
        owner_->outstanding++;
    }

    IMTK_PULL_REQ_HANDLE_T handle = nullptr;
    IMTK_PB_CB_ERROR_CODE_T rc =
        params_.pbReadAsync(pullHandle_, params_.appTag, r->buffer.data(), count, read_done,
                            reinterpret_cast<void*>(static_cast<uintptr_t>(r->id)), &handle);

    std::unique_lock<std::mutex> lock(reg.mutex);
    if (rc != IMTK_PB_CB_ERROR_CODE_OK) {
        stats().readsRefused++;
        if (r->completed) {
            stats().protocolErrors++;  // completed although refused
        } else {
            reg.requests.erase(r->id);
            owner_->outstanding--;
        }
        lock.unlock();
        reg.condition.notify_all();
        changed();
        return kFailed;
    }
    stats().readsIssued++;
    r->accepted = true;
    r->handle = handle;
    if (r->completed && r->completedHandle != handle) stats().protocolErrors++;
    changed();
    if (!r->completed && r->abortWanted) abortRequest(lock, r);

    const auto start = Clock::now();
    auto deadline = start + std::chrono::milliseconds(kReadTimeoutMs);
    const auto stallAt = start + std::chrono::milliseconds(kStallReportMs);
    bool stalled = false;
    while (!r->completed) {
        auto now = Clock::now();
        if (!stalled && now >= stallAt && stallHandler_) {
            stalled = true;
            lock.unlock();
            stallHandler_(true);
            lock.lock();
            continue;
        }
        if (now >= deadline) {
            if (r->abortIssued) break;  // give up; the record lives on until it completes
            abortRequest(lock, r);
            deadline = Clock::now() + std::chrono::milliseconds(kAbortWaitMs);
            continue;
        }
        auto until = (!stalled && stallHandler_ && stallAt < deadline) ? stallAt : deadline;
        reg.condition.wait_until(lock, until);
    }
    const bool completed = r->completed;
    const bool aborted = r->abortIssued;
    const int32_t result = r->result;
    const uint32_t length = r->length;
    lock.unlock();
    if (stalled) stallHandler_(false);

    if (!completed) return kFailed;
    if (result == IMTK_PB_PULL_READ_DONE) {
        if (length == 0) return kEnd;
        std::memcpy(buffer, r->buffer.data(), length);
        return static_cast<int>(length);
    }
    return (aborted && aborting_) ? kAborted : kFailed;
}

void PullIo::abortRequest(std::unique_lock<std::mutex>& lock, const std::shared_ptr<ReadRequest>& r) {
    Registry& reg = registry();
    r->abortIssued = true;
    r->abortInProgress = true;
    r->abortThread = std::this_thread::get_id();
    stats().readsAborted++;
    IMTK_PULL_REQ_HANDLE_T handle = r->handle;
    lock.unlock();
    // A read that cannot be cancelled any more simply completes on its own.
    params_.pbAbort(pullHandle_, params_.appTag, handle);
    lock.lock();
    r->abortInProgress = false;
    reg.condition.notify_all();
    changed();
}

void PullIo::abortAll() {
    Registry& reg = registry();
    std::unique_lock<std::mutex> lock(reg.mutex);
    aborting_ = true;
    std::vector<std::shared_ptr<ReadRequest>> mine;
    for (auto& entry : reg.requests) {
        if (entry.second->owner == owner_) mine.push_back(entry.second);
    }
    for (auto& r : mine) {
        if (r->completed || r->abortIssued) continue;
        if (r->accepted) {
            abortRequest(lock, r);
        } else {
            r->abortWanted = true;  // the reader aborts it once it has the handle
        }
    }
}

void PullIo::clearAbort() { aborting_ = false; }

bool PullIo::waitIdle(uint32_t timeoutMs) {
    Registry& reg = registry();
    std::unique_lock<std::mutex> lock(reg.mutex);
    return reg.condition.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                  [&] { return owner_->outstanding == 0; });
}

uint64_t outstandingReads() {
    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    return reg.requests.size();
}

}  // namespace detail

namespace control {
uint64_t readsOutstanding() { return detail::outstandingReads(); }
}  // namespace control

}  // namespace mtkpb
