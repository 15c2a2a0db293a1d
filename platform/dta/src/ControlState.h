#ifndef BCTIDTA_CONTROLSTATE_H
#define BCTIDTA_CONTROLSTATE_H

// The engine's side of the test control: the current settings, the call
// counts and the gate that holds reads.

#include <cstdint>

namespace bctidta {
namespace detail {

struct Settings {
    int initEngineResult;
    int startTaskResult;
    bool openUrlForced;
    int openUrlResult;
    int readResult;
    uint32_t readLimit;
    uint32_t readDelayMs;
    uint32_t chunkBytes;
    uint32_t chunkDelayMs;
    uint32_t bufferCapacity;
    bool stateForced;
    int32_t reportedState;
    bool lengthHidden;
};

// A copy of the settings as they are now.
Settings settings();

enum Call {
    kCallInitEngine,
    kCallUninitEngine,
    kCallOpenUrl,
    kCallStartTask,
    kCallCloseTask,
    kCallSeekTask,
    kCallReadData,
    kCallQueryTask,
    kCallSetEventCallback,
    kCallEventSent,
    kCallCount
};
void count(Call call);

void noteInitDirectory(const char* workDir);
void noteSeek(int handle, int origin, int64_t position, int flags);

// Counts a readData() call and stops it while reads are held.
void enterRead();

}  // namespace detail
}  // namespace bctidta

#endif  // BCTIDTA_CONTROLSTATE_H
