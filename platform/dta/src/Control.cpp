#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "ControlState.h"
#include "bctidta_control.h"

namespace bctidta {

namespace {

const detail::Settings kDefaultSettings = {
    0,      // initEngineResult
    0,      // startTaskResult
    false,  // openUrlForced
    0,      // openUrlResult
    0,      // readResult
    0,      // readLimit
    0,      // readDelayMs
    0,      // chunkBytes
    0,      // chunkDelayMs
    0,      // bufferCapacity
    false,  // stateForced
    0,      // reportedState
    false,  // lengthHidden
};

// Trivially destructible, so the counts stay readable from exit handlers.
std::atomic<int> calls_[detail::kCallCount];

std::mutex settingsMutex_;  // guards settings_, initDirectory_, lastSeek_
detail::Settings settings_ = kDefaultSettings;
std::string initDirectory_;
control::SeekCall lastSeek_ = {0, 0, 0, 0};

std::mutex gateMutex_;  // guards holding_, held_
std::condition_variable gateChanged_;
bool holding_ = false;
int held_ = 0;

std::atomic<void (*)()> unloadReport_(nullptr);

// Runs with this library's finalisers, which come after those of the
// libraries that use the engine and after every exit handler.
__attribute__((destructor)) void reportAtUnload() {
    void (*report)() = unloadReport_.load();
    if (report != nullptr) report();
}

template <typename Setter>
void change(Setter setter) {
    std::lock_guard<std::mutex> lock(settingsMutex_);
    setter(settings_);
}

}  // namespace

namespace detail {

Settings settings() {
    std::lock_guard<std::mutex> lock(settingsMutex_);
    return settings_;
}

void count(Call call) { calls_[call].fetch_add(1); }

void noteInitDirectory(const char* workDir) {
    std::lock_guard<std::mutex> lock(settingsMutex_);
    initDirectory_ = workDir != nullptr ? workDir : "";
}

void noteSeek(int handle, int origin, int64_t position, int flags) {
    std::lock_guard<std::mutex> lock(settingsMutex_);
    lastSeek_ = {handle, origin, position, flags};
}

void enterRead() {
    count(kCallReadData);
    std::unique_lock<std::mutex> lock(gateMutex_);
    if (!holding_) return;
    ++held_;
    gateChanged_.notify_all();
    gateChanged_.wait(lock, [] { return !holding_; });
    --held_;
}

}  // namespace detail

namespace control {

void reset() {
    change([](detail::Settings& s) { s = kDefaultSettings; });
    releaseReads();
}

void setInitEngineResult(int result) {
    change([result](detail::Settings& s) { s.initEngineResult = result; });
}

void setStartTaskResult(int result) {
    change([result](detail::Settings& s) { s.startTaskResult = result; });
}

void setOpenUrlResult(int handle) {
    change([handle](detail::Settings& s) {
        s.openUrlForced = true;
        s.openUrlResult = handle;
    });
}

void setReadResult(int result) {
    change([result](detail::Settings& s) { s.readResult = result; });
}

void setReadLimit(uint32_t bytes) {
    change([bytes](detail::Settings& s) { s.readLimit = bytes; });
}

void setReadDelay(uint32_t ms) {
    change([ms](detail::Settings& s) { s.readDelayMs = ms; });
}

void setDownloadPace(uint32_t chunkBytes, uint32_t delayMs) {
    change([chunkBytes, delayMs](detail::Settings& s) {
        s.chunkBytes = chunkBytes;
        s.chunkDelayMs = delayMs;
    });
}

void setBufferCapacity(uint32_t bytes) {
    change([bytes](detail::Settings& s) { s.bufferCapacity = bytes; });
}

void setReportedState(int32_t state) {
    change([state](detail::Settings& s) {
        s.stateForced = true;
        s.reportedState = state;
    });
}

void setLengthUnknown(bool unknown) {
    change([unknown](detail::Settings& s) { s.lengthHidden = unknown; });
}

void holdReads() {
    std::lock_guard<std::mutex> lock(gateMutex_);
    holding_ = true;
}

void releaseReads() {
    std::lock_guard<std::mutex> lock(gateMutex_);
    holding_ = false;
    gateChanged_.notify_all();
}

bool waitForHeldReads(int count, uint32_t timeoutMs) {
    std::unique_lock<std::mutex> lock(gateMutex_);
    return gateChanged_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                 [count] { return held_ >= count; });
}

Calls calls() {
    Calls c;
    c.initEngine = calls_[detail::kCallInitEngine].load();
    c.uninitEngine = calls_[detail::kCallUninitEngine].load();
    c.openUrl = calls_[detail::kCallOpenUrl].load();
    c.startTask = calls_[detail::kCallStartTask].load();
    c.closeTask = calls_[detail::kCallCloseTask].load();
    c.seekTask = calls_[detail::kCallSeekTask].load();
    c.readData = calls_[detail::kCallReadData].load();
    c.queryTask = calls_[detail::kCallQueryTask].load();
    c.setEventCallback = calls_[detail::kCallSetEventCallback].load();
    c.eventsSent = calls_[detail::kCallEventSent].load();
    return c;
}

std::string lastInitDirectory() {
    std::lock_guard<std::mutex> lock(settingsMutex_);
    return initDirectory_;
}

void setUnloadReport(void (*report)()) { unloadReport_.store(report); }

SeekCall lastSeek() {
    std::lock_guard<std::mutex> lock(settingsMutex_);
    return lastSeek_;
}

}  // namespace control
}  // namespace bctidta
