#ifndef EMS_CONTROL_H
#define EMS_CONTROL_H

// Test control of the peer-to-peer engine stand-in: forced results, injected
// events, the download rate, a pause, and a count of every call. For tests
// only; the media library never includes this header.
//
// Every setting applies from the next engine call on and stays until reset().
// The call counts run from process start and are never reset; tests compare
// counts taken before and after the behaviour they check.

#include <cstdint>
#include <string>

#include "ems.h"

namespace ems {
namespace control {

enum Call {
    kInit,
    kUninit,
    kListener,
    kAddTask,
    kStartTask,
    kStopTask,
    kDelTask,
    kGetTaskStatus,
    kReadData,
    kCallCount
};

// Back to a well-behaved engine: no forced results, the download rate of the
// environment (below), downloads not paused. Counts and tasks stay.
void reset();

// `call` does nothing from now on and returns `result` (it is still counted).
void failCall(Call call, int result);

// Bytes per second of each task's download; 0 = unlimited. The environment variable EMS_DOWNLOAD_RATE sets it when the
// engine is loaded (and for reset()), so that programs can be run against a
// slow engine.
void setDownloadRate(uint64_t bytesPerSecond);

// While paused, no piece arrives.
void pauseDownloads(bool paused);

// Hands `event` to the listener for `taskIndex` (any value) on the engine's
// event thread, after the events already queued, and waits up to `timeoutMs`
// until the listener has returned. False on time-out or without a listener.
bool injectEvent(int taskIndex, int32_t type, int32_t param, uint32_t timeoutMs);

// Waits up to `timeoutMs` until every started task has its whole stream in
// the store (or stopped or broke) and every queued event was delivered.
bool waitForDownloadsIdle(uint32_t timeoutMs);

// How often `call` was made.
int calls(Call call);
// The task index of the last call of `call` (for the calls that take one).
int lastTaskIndex(Call call);

struct ReadCall {
    int taskIndex;
    uint32_t count;
    int64_t position;
    int64_t hint;  // the value the caller's pointer pointed at
};
ReadCall lastRead();

// The working directory given to the last successful ems_init().
std::string lastInitDirectory();

// Tasks added and not yet deleted.
int taskCount();

}  // namespace control
}  // namespace ems

#endif  // EMS_CONTROL_H
