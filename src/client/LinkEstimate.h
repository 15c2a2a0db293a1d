#ifndef VELKA_SRC_LINKESTIMATE_H
#define VELKA_SRC_LINKESTIMATE_H

// What one HTTP stream has seen of its link: the round trip (from a
// request's last byte out to its first byte in) and the rate at which body
// bytes arrive while the transfer is not held back. HttpTask asks it whether
// the running transfer reaches a position sooner than a new request would
// answer. Worker thread only.

#include <cstdint>
#include <ctime>

namespace velka {

class LinkEstimate {
public:
    // A request answered after `microseconds`.
    void roundTrip(int64_t microseconds) {
        if (microseconds <= 0) return;
        roundTripUs_ = roundTripUs_ == 0 ? microseconds : (roundTripUs_ * 3 + microseconds) / 4;
    }

    // `bytes` arrived now; the window since the last restart() gives a rate
    // sample once it spans kSampleUs.
    void arrived(uint32_t bytes) {
        const int64_t now = nowUs();
        if (windowStartUs_ == 0) {
            // The first block opens the window: it may have waited in the socket.
            windowStartUs_ = now;
            windowBytes_ = 0;
            return;
        }
        windowBytes_ += bytes;
        const int64_t span = now - windowStartUs_;
        if (span < kSampleUs) return;
        const double sample = static_cast<double>(windowBytes_) * 1e6 / static_cast<double>(span);
        bytesPerSecond_ = bytesPerSecond_ == 0 ? sample : (bytesPerSecond_ * 3 + sample) / 4;
        windowStartUs_ = now;
        windowBytes_ = 0;
    }

    // The transfer paused or was restarted: the time until the next byte
    // says nothing about the rate.
    void restart() { windowStartUs_ = 0; }

    // Both figures are in; a transfer's first sample comes kSampleUs after
    // its first byte.
    bool known() const { return roundTripUs_ != 0 && bytesPerSecond_ != 0; }

    // True when `bytes` more arrive within `ms` at the rate seen.
    bool arrivesWithin(int64_t bytes, int64_t ms) const {
        if (bytesPerSecond_ == 0) return false;
        return static_cast<double>(bytes) / bytesPerSecond_ * 1000 <= static_cast<double>(ms);
    }

    // True when bytes `gap` ahead of the transfer come sooner than a new
    // request's first byte would: `roundTrips` round trips at the rate seen.
    bool reachesSooner(int64_t gap, int roundTrips) const {
        if (roundTripUs_ == 0 || bytesPerSecond_ == 0) return false;
        const double seconds = static_cast<double>(gap) / bytesPerSecond_;
        return seconds * 1e6 <= static_cast<double>(roundTripUs_) * roundTrips;
    }

private:
    static constexpr int64_t kSampleUs = 50 * 1000;

    static int64_t nowUs() {
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
    }

    int64_t roundTripUs_ = 0;     // smoothed; 0 until a request was answered
    double bytesPerSecond_ = 0;   // smoothed; 0 until a sample
    int64_t windowStartUs_ = 0;   // 0: no window open
    uint64_t windowBytes_ = 0;
};

}  // namespace velka

#endif  // VELKA_SRC_LINKESTIMATE_H
