#ifndef CBCTIDTA_H
#define CBCTIDTA_H

// The box's download engine, as the media library sees it.
//
// One engine per process, reached through CBctiDta::GetInstance(). Each URL
// becomes a task: openUrl() gives its handle, startTask() starts streaming the
// resource into the task's own buffer on a thread of the engine's, readData()
// takes bytes from that buffer at the task's read position, seekTask() moves
// the read position, queryTask() fills one of the records below, closeTask()
// ends the task. Events (start, completion, failure) reach the callback given
// to setEventCallback() on the engine's own threads.
//
// The operations are called through the object's virtual table; their slots
// are fixed (numbered below) and must never be reordered or extended in front.
//
// URLs served by the build of the engine in this tree:
//   "http://" and "https://": fetched as they are read, a seek outside the
//   buffer restarting the fetch with a byte range; the length is -1 while the
//   server gives none (a live stream), and the end of the transfer is the end
//   of the resource.
//   "dta-test://" followed by a path of local storage, for example
//   "dta-test:///data/movie.ts" for /data/movie.ts, or "dta-test://clip.ts"
//   for clip.ts relative to the current directory.
// Other schemes give a handle whose startTask() fails (state
// kDtaStateOpenFailed). The failure event's message says why: for HTTP the
// server's status ("HTTP 404") or the network error.

#include <cstdint>

class CBctiDta;

// Results of the engine's operations. Only 0 means success.
enum DtaResult : int32_t {
    kDtaOk = 0,
    kDtaErrHandle = -1,  // no task has this handle
    kDtaErrState = -2,   // the task is not in a state for this operation
    kDtaErrSource = -3,  // the resource could not be opened or read
    kDtaErrKind = -4,    // queryTask() does not know this kind of record
    kDtaErrArgument = -5,
};

// What queryTask() is asked for; each kind has its record below.
enum DtaInfoKind : int32_t {
    kDtaInfoTransfer = 2,  // DtaTransferInfo
    kDtaInfoState = 3,     // DtaStateInfo
};

// Download state of a task, as kDtaInfoState reports it.
enum DtaState : int32_t {
    kDtaStateIdle = 0,        // opened, not started
    kDtaStateRunning = 1,     // streaming into its buffer
    kDtaStateFinished = 2,    // the whole resource has been fetched
    kDtaStateOpenFailed = 3,  // the resource could not be opened
    kDtaStateBroken = 4,      // fetching failed after the resource was opened
};

// Event numbers given to the event callback.
enum DtaEvent : int32_t {
    kDtaEventStarted = 1,   // param1 = handle, param2 = 0, message = the URL
    kDtaEventFinished = 2,  // param1 = handle, param2 = low 32 bits of the length, message = the URL
    kDtaEventFailed = 3,    // param1 = handle, param2 = the new state (3 or 4), message = the reason
};

// Called on an engine thread with the engine that sends the event. The result
// is ignored.
typedef int (*DtaEventCallback)(CBctiDta* engine, int32_t event, int32_t param1, int32_t param2,
                                const char* message);

// The records are laid out byte for byte as the engine fills them (little
// endian, 4-byte packing); the offsets are part of the interface.
#pragma pack(push, 4)

// kDtaInfoTransfer: 60 bytes.
struct DtaTransferInfo {
    int64_t readPosition;   // bytes 0-7: where the next readData() starts
    int64_t totalLength;    // bytes 8-15: length of the resource, -1 while unknown
    int64_t bufferedBytes;  // bytes 16-23: bytes buffered from the read position on
    uint8_t reserved0[16];  // bytes 24-39
    int32_t bufferPercent;  // bytes 40-43: how full the buffer is for what is still to be read, 0-100
    uint8_t reserved1[16];  // bytes 44-59
};

// kDtaInfoState: 12 bytes.
struct DtaStateInfo {
    int32_t state;         // bytes 0-3: a DtaState
    uint8_t reserved[8];   // bytes 4-11
};

#pragma pack(pop)

static_assert(sizeof(DtaTransferInfo) == 60, "transfer record is 60 bytes");
static_assert(__builtin_offsetof(DtaTransferInfo, totalLength) == 8, "total length at byte 8");
static_assert(__builtin_offsetof(DtaTransferInfo, bufferPercent) == 40, "percentage at byte 40");
static_assert(sizeof(DtaStateInfo) == 12, "state record is 12 bytes");
static_assert(__builtin_offsetof(DtaStateInfo, state) == 0, "state at byte 0");

class CBctiDta {
public:
    static CBctiDta* GetInstance();

    // Slot 0. Prepares the engine to work in `workDir`; 0 on success.
    virtual int initEngine(const char* workDir) = 0;
    // Slot 1. Ends every task and the engine's threads.
    virtual int uninitEngine() = 0;
    // Slot 2. A new task for `url`; its handle (above 0), or -1.
    virtual int openUrl(const char* url) = 0;
    // Slot 3. Opens the resource and starts streaming it; 0 on success.
    virtual int startTask(int handle) = 0;
    // Slot 4. Ends the task; its handle is no longer valid afterwards.
    virtual int closeTask(int handle) = 0;
    // Slot 5. Moves the read position. `origin` 0 counts from the start of the
    // resource (the only origin served); `flags` must be 0.
    virtual int seekTask(int handle, int origin, int64_t position, int flags) = 0;
    // Slot 6. Blocks until *count bytes from the read position are buffered,
    // the resource ends or fetching fails; copies what there is (at most
    // *count), advances the read position and sets *count to the bytes copied.
    // 0 on success (also at the end, with *count 0); on failure *count is 0
    // and the read position stays.
    virtual int readData(int handle, char* buffer, uint64_t* count) = 0;
    // Slot 7. Fills the record of `kind` (a DtaInfoKind); 0 on success. A
    // failed query leaves the record untouched.
    virtual int queryTask(int handle, int kind, void* info) = 0;
    // Slot 8. The one receiver of events; null stops them.
    virtual int setEventCallback(DtaEventCallback callback) = 0;

protected:
    CBctiDta() {}
    // The engine lives as long as the process; nobody deletes it.
    ~CBctiDta() {}
};

#endif  // CBCTIDTA_H
