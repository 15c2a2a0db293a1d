// Notifier.h - delivers an engine instance's notifications, in order, on a
// thread of its own, with no engine lock held, so a notification may call
// back into the engine (a TimeSeek from inside PLAYED, for instance).
#ifndef MTKPB_SRC_NOTIFIER_H
#define MTKPB_SRC_NOTIFIER_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>

#include "IMtkPb_Ctrl.h"

namespace mtkpb {
namespace detail {

class Notifier {
public:
    Notifier();
    ~Notifier();  // stop()s
    Notifier(const Notifier&) = delete;
    Notifier& operator=(const Notifier&) = delete;

    // The callback for notifications delivered from now on; null: none.
    void setCallback(IMtkPb_Ctrl_Nfy_Fct callback, void* tag);
    // Queues a notification; returns its sequence number. Any thread; takes
    // only the notifier's own lock, so callers may hold theirs.
    uint64_t post(IMTK_PB_CTRL_EVENT_T event, intptr_t data);
    // Waits until the notification `sequence` has been delivered (or
    // dropped); false on time-out. Returns at once on the notifier thread.
    bool waitDelivered(uint64_t sequence, uint32_t timeoutMs);
    // Waits until everything queued so far has been delivered.
    bool drain(uint32_t timeoutMs);
    bool onNotifierThread() const { return std::this_thread::get_id() == threadId_; }
    // Drops what is still queued and ends the thread. Not on the notifier thread.
    void stop();

private:
    struct Item {
        IMTK_PB_CTRL_EVENT_T event;
        intptr_t data;
    };
    void run();

    std::mutex mutex_;  // guards everything below but thread_/threadId_
    std::condition_variable condition_;
    std::deque<Item> queue_;
    IMtkPb_Ctrl_Nfy_Fct callback_ = nullptr;
    void* tag_ = nullptr;
    uint64_t posted_ = 0;     // sequence number of the last queued notification
    uint64_t delivered_ = 0;  // ... of the last one delivered or dropped
    bool quit_ = false;
    std::thread thread_;
    std::thread::id threadId_;  // written before thread_ starts running
};

}  // namespace detail
}  // namespace mtkpb

#endif  // MTKPB_SRC_NOTIFIER_H
