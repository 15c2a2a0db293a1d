#ifndef VELKA_DTAFILE_H
#define VELKA_DTAFILE_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "velka/File.h"
#include "velka/Mutex.h"

namespace velka {

class DtaTaskThread;
template <typename FileT>
class EngineTaskThread;

// The source for every URL that is not "file://": the box's download engine
// fetches the resource, this class turns its task operations into File
// operations. Blocking reads call the engine on the caller's thread;
// asynchronous reads are queued to the one process-wide DtaTaskThread, which
// serves the requests of all DtaFiles strictly one at a time, in order.
//
// Locks: this file's mutex_ before the worker's queue lock (the worker's
// read in service). cancel() and close() take only the queue lock, so
// neither waits for an engine read. Completions run on the worker with no
// lock held.
//
// close() completes the file's queued requests cancelled and gives the read
// in service a moment to end with the closed task; a read that the engine
// still holds then is let go: it completes once, cancelled, whenever the
// engine returns it, and never touches the file again. So a DtaFile may be
// destroyed once close() has returned; the destructor does not close it.
//
// Positions stay within [0, length()] (see seek()); with an unknown length
// (-1) they are never negative and available() is -1.
class DtaFile : public File {
public:
    explicit DtaFile(const std::string& url);
    ~DtaFile() override;

    // Opens and starts the engine's task; length() is what the engine then
    // reports (-1 when it cannot tell yet).
    int open() override;
    int close() override;
    // Waits for the engine: a read stalls while the download does.
    int read(char* buffer, uint32_t length) override;
    void* readAsync(char* buffer, uint32_t length, AsyncCallback& callback) override;
    int cancel(void* request) override;
    // Clamped as above, and the engine is told where the next read starts.
    int64_t seek(int64_t offset, Whence whence) override;
    int64_t tell() override;
    int64_t length() override;
    int64_t available() override;
    // The engine's buffering percentage for this task; 0 once closed.
    int cachePercent() override;
    // 5 and 6 for the engine's failed states 3 and 4 of this task, else 0.
    int error() override;

private:
    friend class DtaTaskThread;
    friend class EngineTaskThread<DtaFile>;
template <typename FileT>
class EngineTaskThread;

    // position_ is at or past a known length. mutex_ held.
    bool atEnd() const;

    // Written under mutex_ by reads and seek(); read without a lock by tell()
    // and available().
    std::atomic<int64_t> position_;
    std::atomic<int64_t> length_;  // set by open(); -1 until the engine reports one
    std::atomic<int> handle_;      // engine task; -1 = none
    // Guards position_ changes and every engine read of this file. Shared
    // with the worker while it reads for this file, which may outlive it.
    const std::shared_ptr<Mutex> mutex_;
};

}  // namespace velka

#endif  // VELKA_DTAFILE_H
