// VideoOut.cpp - the queue of decoded pictures of one instance.
#include "VideoOut.h"

#include "Control.h"

extern "C" {
#include <libavutil/frame.h>
}

namespace mtkpb {
namespace detail {

VideoOut::~VideoOut() { flush(); }

void VideoOut::push(AVFrame* frame, int64_t ptsMs, int64_t durationMs) {
    std::lock_guard<std::mutex> lock(mutex_);
    queue_.push_back(Item{frame, ptsMs, durationMs});
}

size_t VideoOut::queued() {
    std::lock_guard<std::mutex> lock(mutex_);
    return queue_.size();
}

void VideoOut::flush() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (Item& item : queue_) av_frame_free(&item.frame);
    queue_.clear();
    showNext_ = true;
}

AVFrame* VideoOut::due(int64_t* ptsMs) {
    const double clock = clock_();
    std::lock_guard<std::mutex> lock(mutex_);
    if (queue_.empty()) return nullptr;
    if (!showNext_) {
        if (clock < 0 || queue_.front().ptsMs > clock) return nullptr;
        // The latest picture that is due; the ones before it are late.
        while (queue_.size() > 1 && queue_[1].ptsMs <= clock) {
            av_frame_free(&queue_.front().frame);
            queue_.pop_front();
            dropped_++;
            countDropped();
        }
    }
    showNext_ = false;
    Item item = queue_.front();
    queue_.pop_front();
    *ptsMs = item.ptsMs;
    shownUntilMs_ = item.ptsMs + item.durationMs;
    return item.frame;
}

int64_t VideoOut::shownUntilMs() {
    std::lock_guard<std::mutex> lock(mutex_);
    return shownUntilMs_;
}

}  // namespace detail
}  // namespace mtkpb
