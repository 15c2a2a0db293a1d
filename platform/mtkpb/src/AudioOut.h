// AudioOut.h - the sound of one engine instance: a queue of samples (signed
// 16-bit, interleaved) played through an SDL audio device, or through a null
// sink that takes them at the device's pace when there is no sound device;
// and the clock that the pictures follow: the media time of the sample being
// heard.
//
// Threads: the instance's worker pushes and flushes; the device's callback
// (SDL's audio thread) or the null sink's thread takes; any thread reads the
// clock. The callback takes only mutex_, which nobody holds while decoding or
// converting, so it never waits for the decoder.
#ifndef MTKPB_SRC_AUDIOOUT_H
#define MTKPB_SRC_AUDIOOUT_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace mtkpb {
namespace detail {

class AudioOut {
public:
    // How much the worker keeps queued ahead of the device, in ms.
    static constexpr int64_t kQueueAheadMs = 300;
    // Null sink: how often it takes samples.
    static constexpr int kNullTickMs = 5;

    // Opens the output for `rate` Hz and `channels` (1 or 2) channels: the
    // SDL device unless MTKPB_AUDIO=null, or there is no sound device; then
    // the null sink. Playback starts with start().
    AudioOut(int rate, int channels);
    ~AudioOut();
    AudioOut(const AudioOut&) = delete;
    AudioOut& operator=(const AudioOut&) = delete;

    int rate() const { return rate_; }
    int channels() const { return channels_; }

    // Worker: appends `frames` sample frames; the first is at media time
    // ptsMs when the queue was empty after a flush (later pushes follow on).
    void push(const int16_t* samples, int frames, double ptsMs);
    int64_t queuedMs();
    // Worker: drops what is queued; the next push sets the time again.
    void flush();
    // The device starts taking samples (at the start, after a seek the
    // device goes on by itself).
    void start();
    void setPaused(bool paused);

    // Media time heard now, ms; -1 before the first sample was heard.
    double clockMs();
    // Media time up to which samples have been queued (-1: none yet).
    double queuedUntilMs();
    // Every queued sample has been heard.
    bool drained();

private:
    static void callback(void* self, uint8_t* stream, int bytes);  // SDL's audio thread
    void take(int16_t* out, int frames);  // callback and null sink; fills silence when short
    void runNull();                       // the null sink's thread

    using Clock = std::chrono::steady_clock;
    int rate_;
    int channels_;
    uint32_t device_ = 0;  // SDL device, 0 for the null sink
    bool sdlStarted_ = false;
    bool wantedDevice_ = false;  // SDL was asked for a device on this thread
    double latencyMs_ = 0;  // from a sample taken to it being heard

    std::mutex mutex_;  // guards everything below
    std::condition_variable condition_;
    std::vector<int16_t> queue_;  // interleaved samples, read from head_
    size_t head_ = 0;
    double nextPtsMs_ = -1;       // media time of queue_[head_]
    double tailPtsMs_ = -1;       // media time after the last queued sample
    // The last take: media times of its real samples, and when.
    double takenFromMs_ = -1, takenUntilMs_ = -1;
    Clock::time_point takenAt_;
    bool started_ = false;
    bool paused_ = false;
    double pausedClockMs_ = -1;
    bool quit_ = false;
    std::thread null_;
};

}  // namespace detail
}  // namespace mtkpb

#endif  // MTKPB_SRC_AUDIOOUT_H
