#ifndef VELKA_PPSFILE_H
#define VELKA_PPSFILE_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "velka/File.h"
#include "velka/Mutex.h"

namespace velka {

class PpsTaskThread;
template <typename FileT>
class EngineTaskThread;

// A source over the box's peer-to-peer streaming engine: the URL becomes an
// engine task, reads take bytes from the task at explicit positions, and the
// engine's events report buffering progress and errors. Host applications
// construct it directly.
//
// The engine never waits for data: a read of a part not yet downloaded gives
// 0 bytes (an asynchronous one completes with kStatusOk and 0), and the caller
// reads again later. cachePercent() tells how far the engine's start-up
// buffering has come.
//
// Blocking reads call the engine on the caller's thread; asynchronous reads
// are queued to the one process-wide PpsTaskThread, which serves the
// requests of all PpsFiles strictly one at a time, in order.
//
// Locks: this file's mutex_ before the worker's queue lock (cancel); the
// worker never holds both. Completions run on the worker with no lock held.
//
// A PpsFile must outlive its queued and in-service requests: neither close()
// nor the destructor waits for them or cancels them.
class PpsFile : public File {
public:
    explicit PpsFile(const std::string& url);
    ~PpsFile() override;

    // Adds and starts an engine task for the URL; a task that does not start
    // is removed again and open() fails.
    int open() override;
    int close() override;
    // Never waits: 0 bytes while the part at the position is not downloaded.
    int read(char* buffer, uint32_t length) override;
    void* readAsync(char* buffer, uint32_t length, AsyncCallback& callback) override;
    int cancel(void* request) override;
    // Within [0, length()], the end itself included; the engine is not told,
    // since every read carries its position.
    int64_t seek(int64_t offset, Whence whence) override;
    int64_t tell() override;
    int64_t length() override;
    int64_t available() override;
    // The last buffering percentage the engine reported (for any file), 0
    // after a close().
    int cachePercent() override;
    // The last error code the engine's events set (for any file): 2 when the
    // server or an update failed, 4 when data did not come in time; 0 before.
    int error() override;

private:
    friend class PpsTaskThread;
    friend class EngineTaskThread<PpsFile>;
template <typename FileT>
class EngineTaskThread;

    int64_t position_;              // guarded by mutex_
    std::atomic<int64_t> length_;   // set by open(); -1 until the engine reports one
    std::atomic<int> taskIndex_;    // engine task; -1 = none
    std::atomic<int> error_;        // the last value error() returned
    // Guards position_ and every engine read of this file; shared with the
    // worker while it reads for this file.
    const std::shared_ptr<Mutex> mutex_;
};

}  // namespace velka

#endif  // VELKA_PPSFILE_H
