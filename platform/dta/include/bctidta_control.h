#ifndef BCTIDTA_CONTROL_H
#define BCTIDTA_CONTROL_H

// Test control of the download engine stand-in: scripted faults, pacing and a
// count of every call the engine received. For tests only; the media library
// never includes this header.
//
// Every setting applies from the next engine call on and stays until reset().
// The call counts run from process start and are never reset; tests compare
// counts taken before and after the behaviour they check.

#include <cstdint>
#include <string>

namespace bctidta {
namespace control {

// Back to a well-behaved engine: every setting below cleared, held reads
// released. Call counts and tasks are left as they are.
void reset();

// initEngine() returns `result` (0 = success). The engine serves tasks either
// way; only the result differs.
void setInitEngineResult(int result);

// Non-zero: startTask() does not open the resource; the task ends in
// kDtaStateOpenFailed, a failure event is sent, and startTask returns `result`.
void setStartTaskResult(int result);

// openUrl() returns `handle` and creates no task.
void setOpenUrlResult(int handle);

// Non-zero: readData() reads nothing, keeps the read position and returns
// `result`.
void setReadResult(int result);

// Non-zero: readData() hands out at most `bytes` per call (short counts).
void setReadLimit(uint32_t bytes);

// readData() waits `ms` milliseconds before it answers.
void setReadDelay(uint32_t ms);

// Download threads fetch at most `chunkBytes` at a time (0 = the default) and
// pause `delayMs` milliseconds after each fetch, so readers wait for data.
void setDownloadPace(uint32_t chunkBytes, uint32_t delayMs);

// Tasks started from now on buffer at most `bytes` ahead (0 = the default,
// 1 MiB). A small buffer makes seeks leave the buffered window.
void setBufferCapacity(uint32_t bytes);

// kDtaInfoState queries report `state` (any value, also above 4) instead of
// the task's own.
void setReportedState(int32_t state);

// kDtaInfoTransfer queries report a total length of -1, as for a stream
// whose transport gives no length.
void setLengthUnknown(bool unknown);

// readData() calls wait on entry (already counted, nothing read yet) until
// releaseReads() or reset().
void holdReads();
void releaseReads();
// Waits up to `timeoutMs` until at least `count` readData() calls are held.
bool waitForHeldReads(int count, uint32_t timeoutMs);

// Waits up to `timeoutMs` until every download thread is parked (its task
// finished, failed, was closed or has a full buffer) and has delivered its
// events.
bool waitForDownloadsIdle(uint32_t timeoutMs);

struct Calls {
    int initEngine;
    int uninitEngine;
    int openUrl;
    int startTask;
    int closeTask;
    int seekTask;
    int readData;
    int queryTask;
    int setEventCallback;
    int eventsSent;
};
Calls calls();

// The working directory given to the last initEngine().
std::string lastInitDirectory();
// Arguments of the last seekTask().
struct SeekCall {
    int handle;
    int origin;
    int64_t position;
    int flags;
};
SeekCall lastSeek();

// Tasks opened and not yet closed.
int openTaskCount();

// Calls `report` when this engine's library is unloaded at process exit, that
// is after the libraries that use the engine have shut down. Null: nothing.
void setUnloadReport(void (*report)());

}  // namespace control
}  // namespace bctidta

#endif  // BCTIDTA_CONTROL_H
