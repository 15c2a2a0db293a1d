#ifndef VELKA_RINGBUFFER_H
#define VELKA_RINGBUFFER_H

#include <atomic>
#include <cstdint>

namespace velka {

// A byte FIFO of fixed, power-of-two capacity with one writer and one reader.
// Besides the FIFO it can hand already-read bytes back to the reader
// (backwardSeek) as long as the writer has not overwritten them; the HTTP
// source answers short backward seeks from memory this way.
//
// The counters run free: they are never reduced modulo the capacity and wrap
// modulo 2^32. The byte written when writeCount_ was n lives at
// buffer_[n & (size_ - 1)]; since size_ divides 2^32 a counter wrap needs no
// correction. Bytes held: writeCount_ - readCount_; free: readCount_ + size_ -
// writeCount_ (both modulo 2^32).
//
// No locking: all changes come from one thread (the HTTP worker). Another
// thread may call length(); a momentarily stale answer is harmless there. The
// counters are relaxed atomics for that one reader: plain loads and stores on
// every target, no ordering.
class RingBuffer {
public:
    // No storage yet; allocate() attaches some.
    RingBuffer();
    // Works in the caller's storage of `size` bytes (a power of two), which the
    // ring never frees.
    RingBuffer(char* buffer, unsigned int size);
    ~RingBuffer();

    RingBuffer(const RingBuffer&) = delete;
    RingBuffer& operator=(const RingBuffer&) = delete;

    // Obtains `size` bytes (a power of two) of owned storage. False, with
    // nothing printed, when the memory is not there. Meant for a freshly
    // constructed ring: it neither resets the counters nor releases storage
    // attached earlier.
    bool allocate(unsigned int size);

    // Each returns the number of bytes moved: at most space() for write, at
    // most length() for read and skip.
    unsigned int write(char* data, unsigned int n);
    unsigned int read(char* dest, unsigned int n);
    unsigned int skip(unsigned int n);
    // Gives the last `n` read bytes back to the reader: `n` on success, 0 when
    // they are no longer all in the storage (nothing changes then). 0 asks for
    // nothing and returns 0, which callers read as a refusal.
    unsigned int backwardSeek(unsigned int n);

    unsigned int length() const { return writes() - reads(); }
    unsigned int space() const { return reads() + size_ - writes(); }
    unsigned int size() const { return size_; }
    bool isFull() const { return length() == size_; }

    // Empties the ring; storage, its contents, capacity and ownership stay.
    void reset();

protected:
    // Places both counters as if that many bytes had passed through the ring,
    // without touching the storage. Lets a test reach the wrap of the counters
    // at 2^32 without moving 4 GiB. The caller keeps 0 <= writeCount -
    // readCount <= size() (modulo 2^32).
    void setCounters(uint32_t readCount, uint32_t writeCount);

private:
    uint32_t reads() const { return readCount_.load(std::memory_order_relaxed); }
    uint32_t writes() const { return writeCount_.load(std::memory_order_relaxed); }
    void setReads(uint32_t n) { readCount_.store(n, std::memory_order_relaxed); }
    void setWrites(uint32_t n) { writeCount_.store(n, std::memory_order_relaxed); }

    char* buffer_;      // size_ bytes; null until storage is attached
    bool ownsBuffer_;   // buffer_ came from allocate() and is freed here
    std::atomic<uint32_t> readCount_;   // bytes consumed since reset, minus those given back
    std::atomic<uint32_t> writeCount_;  // bytes written since reset
    uint32_t size_;        // capacity, a power of two; 0 without storage
};

}  // namespace velka

#endif  // VELKA_RINGBUFFER_H
