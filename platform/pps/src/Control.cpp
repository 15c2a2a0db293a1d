#include <atomic>
#include <mutex>
#include <string>

#include "ControlState.h"
#include "ems_control.h"

namespace ems {

namespace {

// Trivially destructible, so that they stay readable from exit handlers.
std::atomic<int> calls_[control::kCallCount];
std::atomic<int> lastTask_[control::kCallCount];
std::atomic<bool> forced_[control::kCallCount];
std::atomic<int> forcedResult_[control::kCallCount];

std::mutex notesMutex_;  // guards initDirectory_, lastRead_
std::string* initDirectory_ = new std::string;  // never freed, for the same reason
control::ReadCall lastRead_ = {-1, 0, 0, 0};

}  // namespace

namespace detail {

bool enter(control::Call call, int taskIndex, int* result) {
    calls_[call].fetch_add(1);
    lastTask_[call].store(taskIndex);
    if (!forced_[call].load()) return false;
    *result = forcedResult_[call].load();
    return true;
}

void noteInitDirectory(const char* workDir) {
    std::lock_guard<std::mutex> lock(notesMutex_);
    *initDirectory_ = workDir;
}

void noteRead(int taskIndex, uint32_t count, int64_t position, const int64_t* hint) {
    std::lock_guard<std::mutex> lock(notesMutex_);
    lastRead_ = {taskIndex, count, position, hint != nullptr ? *hint : -1};
}

}  // namespace detail

namespace control {

void reset() {
    for (std::atomic<bool>& forced : forced_) forced.store(false);
    detail::resetDownloadSettings();
}

void failCall(Call call, int result) {
    forcedResult_[call].store(result);
    forced_[call].store(true);
}

int calls(Call call) { return calls_[call].load(); }

int lastTaskIndex(Call call) { return lastTask_[call].load(); }

ReadCall lastRead() {
    std::lock_guard<std::mutex> lock(notesMutex_);
    return lastRead_;
}

std::string lastInitDirectory() {
    std::lock_guard<std::mutex> lock(notesMutex_);
    return *initDirectory_;
}

}  // namespace control
}  // namespace ems
