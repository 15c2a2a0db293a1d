// Control.h - the engine's side of the test control interface: forced
// results, counters, the packet checksum and the change signal that
// control::waitUntil() waits on.
#ifndef MTKPB_SRC_CONTROL_H
#define MTKPB_SRC_CONTROL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

struct AVFrame;

#include "IMtkPb_Ctrl.h"
#include "mtkpb_control.h"

namespace mtkpb {
namespace detail {

// Counts a call of `op`; true (and *result set) when its result is forced,
// in which case the call does nothing else.
bool forced(control::Op op, int32_t* result);

// Counters, all since the last control::reset().
struct Stats {
    std::atomic<uint64_t> readsIssued{0};
    std::atomic<uint64_t> readsRefused{0};
    std::atomic<uint64_t> readsCompleted{0};
    std::atomic<uint64_t> readsCancelled{0};
    std::atomic<uint64_t> readsFailed{0};
    std::atomic<uint64_t> readsAborted{0};
    std::atomic<uint64_t> bytesPulled{0};
    std::atomic<uint64_t> seeks{0};
    std::atomic<uint64_t> protocolErrors{0};
    std::atomic<uint64_t> notifications[16] = {};
};
Stats& stats();

// Adds one demuxed packet to the packet count and the checksum.
void countPacket(const uint8_t* data, size_t size);
void countNotification(IMTK_PB_CTRL_EVENT_T event);
void recordDisplay(const EngineRect& full, const EngineRect& output);

// Decoded and presented output (mtkpb_control.h).
void recordDecodedFrame(int64_t pts, int32_t timeBaseNum, int32_t timeBaseDen, int64_t timeMs,
                        const AVFrame* frame);
bool capturing();
void recordPicture(uint32_t width, uint32_t height, int64_t timeMs, const std::vector<uint8_t>& rgb);
void recordPresented(int64_t timeMs, double clockMs);
void countCorrupt();
void countDropped();

// Wakes control::waitUntil(): something observable has changed.
void changed();

}  // namespace detail
}  // namespace mtkpb

#endif  // MTKPB_SRC_CONTROL_H
