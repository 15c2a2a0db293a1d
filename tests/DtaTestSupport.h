#ifndef VELKA_TESTS_DTATESTSUPPORT_H
#define VELKA_TESTS_DTATESTSUPPORT_H

// Completion recorders for asynchronous reads through the DTA source.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

#include "velka/File.h"

namespace dtatest {

const int kWaitMs = 20000;  // bound of every wait in these suites

struct Completion {
    int tag;  // which request, as the test numbered it
    velka::VelkaStatus status;
    uint32_t length;
};

// Every completion of any request, in the order they arrived.
class CompletionLog {
public:
    void add(const Completion& c) {
        std::lock_guard<std::mutex> lock(mutex_);
        completions_.push_back(c);
        changed_.notify_all();
    }
    bool waitForCount(size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                                 [&] { return completions_.size() >= count; });
    }
    std::vector<Completion> all() {
        std::lock_guard<std::mutex> lock(mutex_);
        return completions_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Completion> completions_;
};

// Records its one completion in a log.
class LoggingCallback : public velka::File::AsyncCallback {
public:
    LoggingCallback(CompletionLog& log, int tag) : log_(log), tag_(tag) {}
    void complete(velka::VelkaStatus status, uint32_t length) override {
        log_.add({tag_, status, length});
    }

private:
    CompletionLog& log_;
    int tag_;
};

// Records its completion, then stays inside complete() until released, so
// that the worker is known to have taken the request and to be busy with it.
class GateCallback : public velka::File::AsyncCallback {
public:
    void complete(velka::VelkaStatus status, uint32_t length) override {
        std::unique_lock<std::mutex> lock(mutex_);
        status_ = status;
        length_ = length;
        entered_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return released_; });
        left_ = true;
        changed_.notify_all();
    }
    // Lets a completion that is still inside complete() go, and waits for it
    // to leave before the object goes.
    ~GateCallback() override {
        std::unique_lock<std::mutex> lock(mutex_);
        released_ = true;
        changed_.notify_all();
        changed_.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                          [this] { return left_ || !entered_; });
    }
    bool waitEntered() {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::milliseconds(kWaitMs), [this] { return entered_; });
    }
    void release() {
        std::lock_guard<std::mutex> lock(mutex_);
        released_ = true;
        changed_.notify_all();
    }
    velka::VelkaStatus status() {
        std::lock_guard<std::mutex> lock(mutex_);
        return status_;
    }
    uint32_t length() {
        std::lock_guard<std::mutex> lock(mutex_);
        return length_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool entered_ = false;
    bool released_ = false;
    bool left_ = false;
    velka::VelkaStatus status_ = velka::kStatusError;
    uint32_t length_ = 0;
};

}  // namespace dtatest

#endif  // VELKA_TESTS_DTATESTSUPPORT_H
