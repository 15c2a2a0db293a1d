// Notifier.cpp - the notification thread of an engine instance.
#include "Notifier.h"

#include <chrono>

#include "Control.h"

namespace mtkpb {
namespace detail {

Notifier::Notifier() {
    // threadId_ must be known before the first post() can ask for it.
    std::unique_lock<std::mutex> lock(mutex_);
    thread_ = std::thread([this] { run(); });
    threadId_ = thread_.get_id();
}

Notifier::~Notifier() { stop(); }

void Notifier::setCallback(IMtkPb_Ctrl_Nfy_Fct callback, void* tag) {
    std::lock_guard<std::mutex> lock(mutex_);
    callback_ = callback;
    tag_ = tag;
}

uint64_t Notifier::post(IMTK_PB_CTRL_EVENT_T event, intptr_t data) {
    uint64_t sequence;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (quit_) return posted_;
        queue_.push_back(Item{event, data});
        sequence = ++posted_;
    }
    condition_.notify_all();
    return sequence;
}

bool Notifier::waitDelivered(uint64_t sequence, uint32_t timeoutMs) {
    if (onNotifierThread()) return true;
    std::unique_lock<std::mutex> lock(mutex_);
    return condition_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                               [&] { return delivered_ >= sequence || quit_; });
}

bool Notifier::drain(uint32_t timeoutMs) {
    uint64_t last;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        last = posted_;
    }
    return waitDelivered(last, timeoutMs);
}

void Notifier::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        quit_ = true;
        delivered_ = posted_;
        queue_.clear();
    }
    condition_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void Notifier::run() {
    {
        // Wait until the constructor has stored threadId_.
        std::lock_guard<std::mutex> lock(mutex_);
    }
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        condition_.wait(lock, [&] { return quit_ || !queue_.empty(); });
        if (quit_) return;
        Item item = queue_.front();
        queue_.pop_front();
        IMtkPb_Ctrl_Nfy_Fct callback = callback_;
        void* tag = tag_;
        lock.unlock();
        if (callback != nullptr) {
            callback(item.event, tag, item.data);
            countNotification(item.event);
        }
        lock.lock();
        if (delivered_ < posted_) delivered_++;  // stop() may have dropped the rest
        condition_.notify_all();
    }
}

}  // namespace detail
}  // namespace mtkpb
