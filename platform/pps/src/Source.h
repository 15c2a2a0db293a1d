#ifndef EMS_SOURCE_H
#define EMS_SOURCE_H

// Where a task's stream comes from. Each transport (local storage, HTTP) is
// one Source; the engine knows nothing else about it.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace ems {

class Source {
public:
    virtual ~Source() {}

    // Makes the stream ready and sets *length to its length. 0 on success, a
    // negative errno value on failure. Called once, on the thread that starts
    // the task.
    virtual int open(int64_t* length) = 0;

    // Exactly `count` bytes at `offset` (inside the stream): `count`, or a
    // negative errno value. Gives up early, with -ECANCELED, once `cancel` is
    // set. Called on the task's download thread only.
    virtual int64_t readAt(char* buffer, uint32_t count, int64_t offset,
                           const std::atomic<bool>& cancel) = 0;
};

// The transport for `url`, or null when no transport serves it.
std::unique_ptr<Source> makeSource(const std::string& url);

}  // namespace ems

#endif  // EMS_SOURCE_H
