#include "velka/RingBuffer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "velka/Assert.h"
#include "LogLine.h"

namespace velka {

RingBuffer::RingBuffer()
    : buffer_(nullptr), ownsBuffer_(false), readCount_(0), writeCount_(0), size_(0) {}

RingBuffer::RingBuffer(char* buffer, unsigned int size)
    : buffer_(buffer), ownsBuffer_(false), readCount_(0), writeCount_(0), size_(size) {
    VELKA_ASSERT((size & (size-1)) == 0);
}

RingBuffer::~RingBuffer() {
    if (ownsBuffer_) {
        logPuts("Ring buffer free");
        free(buffer_);
    }
}

bool RingBuffer::allocate(unsigned int size) {
    VELKA_ASSERT((size & (size-1)) == 0);
    buffer_ = static_cast<char*>(malloc(size));
    if (buffer_ == nullptr) return false;
    logPrint("Ring buffer allocate %d\n", static_cast<int>(size));
    size_ = size;
    ownsBuffer_ = true;
    return true;
}

unsigned int RingBuffer::write(char* data, unsigned int n) {
    const uint32_t room = space();
    const uint32_t count = n < room ? n : room;
    if (count == 0) return 0;
    const uint32_t pos = writes() & (size_ - 1);
    const uint32_t first = size_ - pos;  // room up to the end of the storage
    if (first >= count) {
        memcpy(buffer_ + pos, data, count);
    } else {
        memcpy(buffer_ + pos, data, first);
        memcpy(buffer_, data + first, count - first);
    }
    setWrites(writes() + count);
    return count;
}

unsigned int RingBuffer::read(char* dest, unsigned int n) {
    const uint32_t held = length();
    const uint32_t count = n < held ? n : held;
    if (count == 0) return 0;
    const uint32_t pos = reads() & (size_ - 1);
    const uint32_t first = size_ - pos;  // bytes up to the end of the storage
    if (first >= count) {
        memcpy(dest, buffer_ + pos, count);
    } else {
        memcpy(dest, buffer_ + pos, first);
        memcpy(dest + first, buffer_, count - first);
    }
    setReads(reads() + count);
    return count;
}

unsigned int RingBuffer::skip(unsigned int n) {
    const uint32_t held = length();
    const uint32_t count = n < held ? n : held;
    setReads(reads() + count);
    return count;
}

unsigned int RingBuffer::backwardSeek(unsigned int n) {
    // The limit is the number of already-read bytes still in the storage.
    // While the writer is on its first round since the reset, that is all of
    // them. Once it has gone round, everything older than the free space has
    // been overwritten. After a wrap past 2^32 a small writeCount_ no longer
    // proves a first round; a readCount_ still near 2^32 shows that, hence the
    // second test.
    uint32_t limit;
    if (writes() < size_ && reads() < size_) {
        limit = reads();
    } else {
        limit = space();
    }
    if (n == 0 || n > limit) return 0;
    setReads(reads() - n);
    return n;
}

void RingBuffer::reset() {
    setReads(0);
    setWrites(0);
}

void RingBuffer::setCounters(uint32_t readCount, uint32_t writeCount) {
    setReads(readCount);
    setWrites(writeCount);
}

}  // namespace velka
