#ifndef VELKA_DTAFILE_H
#define VELKA_DTAFILE_H

#include <atomic>
#include <cstdint>
#include <string>

#include "velka/File.h"
#include "velka/Mutex.h"

namespace velka {

class DtaTaskThread;

// The source for every URL that is not "file://": the box's download engine
// fetches the resource, this class turns its task operations into File
// operations. Blocking reads call the engine on the caller's thread;
// asynchronous reads are queued to the one process-wide DtaTaskThread, which
// serves the requests of all DtaFiles strictly one at a time, in order.
//
// Locks: this file's mutex_ before the worker's queue lock (cancel); the
// worker never holds both. Completions run on the worker with no lock held.
//
// close() completes the file's queued requests cancelled and waits for the
// one in service, so no completion comes after it returns. A DtaFile must
// outlive its requests: the destructor does neither, so close() it first.
//
// Positions stay within [0, length()] (see seek()); with an unknown length
// (-1) they are never negative and available() is -1.
class DtaFile : public File {
public:
    explicit DtaFile(const std::string& url);

    int open() override;
    int close() override;
    int read(char* buffer, uint32_t length) override;
    void* readAsync(char* buffer, uint32_t length, AsyncCallback& callback) override;
    int cancel(void* request) override;
    int64_t seek(int64_t offset, Whence whence) override;
    int64_t tell() override;
    int64_t length() override;
    int64_t available() override;
    int cachePercent() override;
    int error() override;
    ~DtaFile() override;

private:
    friend class DtaTaskThread;

    // position_ is at or past a known length. mutex_ held.
    bool atEnd() const;

    // Written under mutex_ by reads and seek(); read without a lock by tell()
    // and available().
    std::atomic<int64_t> position_;
    std::atomic<int64_t> length_;  // set by open(); -1 until the engine reports one
    std::atomic<int> handle_;      // engine task; -1 = none
    Mutex mutex_;                  // guards position_ changes and every engine read of this file
    bool closing_;                 // close() has begun: reads are refused; under the worker's lock
};

}  // namespace velka

#endif  // VELKA_DTAFILE_H
