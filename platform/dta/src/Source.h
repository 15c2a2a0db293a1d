#ifndef BCTIDTA_SOURCE_H
#define BCTIDTA_SOURCE_H

// Where a task's bytes come from. Each transport (local storage, HTTP) is one
// Source; the engine knows nothing else about it.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace bctidta {

class Source {
public:
    virtual ~Source() {}

    // Makes the resource ready so that the next fetch() returns the byte at
    // `offset`. Sets *totalLength to the resource's length, -1 when unknown.
    // 0 on success, a negative errno value on failure. Called again when a
    // seek leaves the buffered window.
    virtual int open(int64_t offset, int64_t* totalLength) = 0;

    // Up to `count` bytes from the current offset: the bytes fetched, 0 at the
    // end of the resource, a negative errno value on failure.
    virtual int64_t fetch(char* buffer, uint32_t count) = 0;

    // Why the last open() or fetch() failed, in words; empty when the errno
    // value says it all.
    virtual std::string reason() const { return std::string(); }
};

// The transport for `url`, or null when no transport serves its scheme. A
// transport that waits on a network gives up its open() or fetch() with
// -EINTR soon after `interrupted` becomes true.
std::unique_ptr<Source> makeSource(const std::string& url, const std::atomic<bool>& interrupted);

// HTTP and HTTPS, with libcurl.
std::unique_ptr<Source> makeHttpSource(const std::string& url, const std::atomic<bool>& interrupted);

}  // namespace bctidta

#endif  // BCTIDTA_SOURCE_H
