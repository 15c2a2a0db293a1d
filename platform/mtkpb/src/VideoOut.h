// VideoOut.h - the decoded pictures of one engine instance waiting for their
// time, between the instance's worker (which decodes) and the Screen's
// presenter thread (which shows them).
//
// The queue has a lock of its own, held only to move frame references in and
// out; nobody decodes, converts or renders with it held.
#ifndef MTKPB_SRC_VIDEOOUT_H
#define MTKPB_SRC_VIDEOOUT_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>

struct AVFrame;

namespace mtkpb {
namespace detail {

class VideoOut {
public:
    // The media time the pictures are shown against, in ms; < 0 while the
    // clock has not started (only the first picture after a start or a seek
    // is shown then). Called on the presenter thread with the screen's lock
    // held: it takes only the clock's own lock.
    using ClockFn = std::function<double()>;

    explicit VideoOut(ClockFn clock) : clock_(std::move(clock)) {}
    ~VideoOut();
    VideoOut(const VideoOut&) = delete;
    VideoOut& operator=(const VideoOut&) = delete;

    // Worker: queues a picture to be shown at ptsMs; takes the reference.
    void push(AVFrame* frame, int64_t ptsMs, int64_t durationMs);
    size_t queued();
    // Worker: drops every queued picture; the next one pushed is shown at
    // once, whatever the clock says (the first picture after a seek).
    void flush();

    // Presenter thread: the picture to show now, as a new reference the
    // caller frees, or null when the one on screen stays. Pictures whose
    // successor is due too are dropped unseen (late). *ptsMs: its time.
    AVFrame* due(int64_t* ptsMs);

    // Media time up to which pictures have been shown: the end of the last
    // one shown; -1 before the first.
    int64_t shownUntilMs();
    double clockMs() const { return clock_(); }
    uint64_t dropped() const { return dropped_; }

    // Presenter thread: the viewer closed the window.
    void closeByViewer() { closedByViewer_ = true; }
    bool closedByViewer() const { return closedByViewer_; }

private:
    struct Item {
        AVFrame* frame;
        int64_t ptsMs;
        int64_t durationMs;
    };
    const ClockFn clock_;
    std::mutex mutex_;  // guards queue_, showNext_, shownUntilMs_
    std::deque<Item> queue_;
    bool showNext_ = true;  // show the head at once (start, seek)
    int64_t shownUntilMs_ = -1;
    std::atomic<uint64_t> dropped_{0};
    std::atomic<bool> closedByViewer_{false};
};

}  // namespace detail
}  // namespace mtkpb

#endif  // MTKPB_SRC_VIDEOOUT_H
