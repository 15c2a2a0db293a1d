#ifndef BCTIDTA_SOURCE_H
#define BCTIDTA_SOURCE_H

// Where a task's bytes come from. Each transport (local storage now, HTTP
// later) is one Source; the engine knows nothing else about it.

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
};

// The transport for `url`, or null when no transport serves its scheme.
std::unique_ptr<Source> makeSource(const std::string& url);

}  // namespace bctidta

#endif  // BCTIDTA_SOURCE_H
