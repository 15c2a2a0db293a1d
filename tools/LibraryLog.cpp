#include "LibraryLog.h"

#include <pthread.h>

#include <cstring>

#include "velka/Log.h"

namespace velka {
namespace tools {

namespace {

// Plain data, statically initialised: lines arrive while the library loads,
// before any constructor of the program has run.
constexpr size_t kHeldBytes = 4096;
pthread_mutex_t heldLock_ = PTHREAD_MUTEX_INITIALIZER;  // guards the three below
char held_[kHeldBytes];
size_t heldUsed_ = 0;
FILE* forwardTo_ = nullptr;  // set by routeLibraryLines: lines go straight there

// Called by the library under its log lock, which is never taken under
// heldLock_.
void hold_line(const char* line, void* /*context*/) {
    pthread_mutex_lock(&heldLock_);
    if (forwardTo_ != nullptr) {
        fprintf(forwardTo_, "%s\n", line);
    } else {
        const size_t length = strlen(line);
        if (heldUsed_ + length + 1 <= kHeldBytes) {
            memcpy(held_ + heldUsed_, line, length);
            held_[heldUsed_ + length] = '\n';
            heldUsed_ += length + 1;
        }
    }
    pthread_mutex_unlock(&heldLock_);
}

}  // namespace

void holdLibraryLines() { logToFunction(hold_line, nullptr); }

void routeLibraryLines(FILE* log) {
    if (log == nullptr) {
        logOff();
        return;
    }
    // Lines that come between the two steps are forwarded by hold_line.
    pthread_mutex_lock(&heldLock_);
    fwrite(held_, 1, heldUsed_, log);
    heldUsed_ = 0;
    forwardTo_ = log;
    pthread_mutex_unlock(&heldLock_);
    logToFile(log);
}

}  // namespace tools
}  // namespace velka
