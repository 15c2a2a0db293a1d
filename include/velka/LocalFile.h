#ifndef VELKA_LOCALFILE_H
#define VELKA_LOCALFILE_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "velka/File.h"

namespace velka {

// The File for "file://" URLs: a regular file of local storage, read through
// one descriptor with blocking reads for read() and POSIX asynchronous I/O for
// readAsync().
//
// Sizes and positions are 32-bit inside: files of 2 GiB or more do not open,
// offsets reach the system as their low 32 bits.
//
// Asynchronous reads run one at a time, in the order accepted: the system
// holds at most one request of this file, and the others wait in the file's
// own queue until the one before has completed. Each completes on a
// notification thread of the system, which advances the descriptor's position
// by the bytes read before calling complete(), so every read continues the
// one before (also a readAsync() issued from inside complete()). Completions
// never overlap and come in the order the reads were accepted.
//
// close() and the destructor cancel what they can and wait until every
// accepted read has completed; after they return no completion comes and
// nothing touches the released descriptor. Called from inside complete(),
// close() cannot wait for that completion, but the queue behind it then
// completes cancelled without touching the descriptor.
class LocalFile : public File {
public:
    // No I/O; the file stays closed until open().
    explicit LocalFile(const std::string& url);
    ~LocalFile() override;

    // Opens the path after "file://" (relative paths from the current
    // directory) read-only; only regular files below 2 GiB are accepted.
    int open() override;
    int close() override;
    int read(char* buffer, uint32_t count) override;
    void* readAsync(char* buffer, uint32_t count, AsyncCallback& callback) override;
    int cancel(void* request) override;
    int64_t seek(int64_t offset, Whence whence) override;
    int64_t tell() override;
    int64_t length() override;
    int64_t available() override;
    // No buffer of its own: always 100.
    int cachePercent() override;
    // Always 0.
    int error() override;

    // One accepted asynchronous read (LocalFile.cpp); its address is the
    // request handle.
    struct Request;

private:
    // The system's notification thread for `request`, the one submitted.
    void finish(Request* request);
    // Hands `request` to the system at the current position; false when it
    // refuses it. mutex_ held.
    bool submitLocked(Request* request);
    // Calls complete() with mutex_ released, then frees the request.
    void deliverLocked(std::unique_lock<std::mutex>& lock, Request* request, VelkaStatus status,
                       uint32_t length);

    int fd_;           // the open descriptor, -1 when closed
    int64_t length_;   // the size taken at open(), -1 before
    int error_;        // 0; nothing changes it

    std::mutex mutex_;  // guards the members below, and fd_ while reads are outstanding
    std::condition_variable idle_;  // notified when the last outstanding read has completed
    Request* submitted_;            // the one request the system holds; null when none
    std::deque<Request*> waiting_;  // accepted, not yet submitted, oldest first
    // A completion is being delivered, or the queue behind it drained, on
    // deliverer_. waiting_ is never left non-empty with neither this nor
    // submitted_ set, so someone always moves it on.
    bool delivering_;
    std::thread::id deliverer_;
    bool closing_;  // close() is under way: new reads are refused
};

}  // namespace velka

#endif  // VELKA_LOCALFILE_H
