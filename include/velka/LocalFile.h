#ifndef VELKA_LOCALFILE_H
#define VELKA_LOCALFILE_H

#include <cstdint>
#include <string>

#include "velka/File.h"

namespace velka {

// The File for "file://" URLs: a regular file of local storage, read through
// one descriptor with blocking reads for read() and POSIX asynchronous I/O for
// readAsync().
//
// Sizes and positions are 32-bit inside: files of 2 GiB or more do not open,
// offsets reach the system as their low 32 bits.
//
// No lock. Each asynchronous read completes on a notification thread of the
// system, which advances the descriptor's position by the bytes read before
// calling complete(), so a readAsync() issued from inside complete() reads the
// following bytes. Asynchronous reads are meant to run one at a time: two
// started before either completes both read from the same position.
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

private:
    int fd_;           // the open descriptor, -1 when closed
    int64_t length_;   // the size taken at open(), -1 before
    int error_;        // 0; nothing changes it
};

}  // namespace velka

#endif  // VELKA_LOCALFILE_H
