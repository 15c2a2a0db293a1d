// Control.cpp - forced results, counters, checksum, speed and the change
// signal behind mtkpb_control.h.
#include "Control.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/md5.h>
}

namespace mtkpb {
namespace detail {
namespace {

constexpr uint32_t kOpCount = static_cast<uint32_t>(control::Op::kCount);
// How often waitUntil() re-checks its condition even without a change signal.
constexpr auto kRecheckInterval = std::chrono::milliseconds(50);

struct ControlState {
    std::atomic<bool> isForced[kOpCount] = {};
    std::atomic<int32_t> forcedResult[kOpCount] = {};
    std::atomic<uint64_t> calls[kOpCount] = {};
    std::mutex speedMutex;  // serialises the first read of MTKPB_SPEED with setSpeed and reset
    std::atomic<bool> speedTaken{false};  // speed holds a value (the environment's or a set one)
    std::atomic<uint32_t> speed{1};
    Stats stats;

    std::mutex checksumMutex;  // guards packets and checksum (updated in demux order)
    uint64_t packets = 0;
    uint64_t checksum = control::kFnvOffsetBasis;

    std::mutex displayMutex;  // guards the rectangles
    bool haveDisplay = false;
    EngineRect full{};
    EngineRect output{};

    std::atomic<bool> hashing{false};
    std::atomic<bool> capture{false};
    std::atomic<uint64_t> corrupt{0};
    std::atomic<uint64_t> dropped{0};
    std::mutex outputMutex;  // guards the three below
    std::vector<control::DecodedFrame> decoded;
    control::Picture picture;
    std::vector<control::Presented> presented;

    std::mutex changeMutex;  // pairs with changeCondition
    std::condition_variable changeCondition;
    std::atomic<uint64_t> generation{0};
};

uint32_t speedFromEnvironment() {
    const char* text = std::getenv("MTKPB_SPEED");
    if (text == nullptr || *text == '\0') return 1;
    char* end = nullptr;
    unsigned long value = std::strtoul(text, &end, 10);
    if (*end != '\0' || value > UINT32_MAX) return 1;
    return static_cast<uint32_t>(value);
}

// Built once and never destroyed: engine threads may still count things while
// the process exits.
ControlState& state() {
    static ControlState* s = new ControlState;
    return *s;
}

}  // namespace

bool forced(control::Op op, int32_t* result) {
    uint32_t i = static_cast<uint32_t>(op);
    ControlState& s = state();
    s.calls[i]++;
    changed();
    if (!s.isForced[i]) return false;
    *result = s.forcedResult[i];
    return true;
}

Stats& stats() { return state().stats; }

void countPacket(const uint8_t* data, size_t size) {
    ControlState& s = state();
    {
        std::lock_guard<std::mutex> lock(s.checksumMutex);
        s.packets++;
        s.checksum = control::fnv1a64(s.checksum, data, size);
    }
    changed();
}

void countNotification(IMTK_PB_CTRL_EVENT_T event) {
    state().stats.notifications[event < 16 ? event : 0]++;
    changed();
}

void recordDisplay(const EngineRect& full, const EngineRect& output) {
    ControlState& s = state();
    std::lock_guard<std::mutex> lock(s.displayMutex);
    s.haveDisplay = true;
    s.full = full;
    s.output = output;
}

void recordDecodedFrame(int64_t pts, int32_t timeBaseNum, int32_t timeBaseDen, int64_t timeMs,
                        const AVFrame* frame) {
    ControlState& s = state();
    if (!s.hashing) return;
    const AVPixelFormat format = static_cast<AVPixelFormat>(frame->format);
    const int size = av_image_get_buffer_size(format, frame->width, frame->height, 1);
    if (size < 0) return;
    std::vector<uint8_t> packed(static_cast<size_t>(size));
    av_image_copy_to_buffer(packed.data(), size, frame->data, frame->linesize, format, frame->width,
                            frame->height, 1);
    uint8_t digest[16];
    av_md5_sum(digest, packed.data(), size);
    char hex[33];
    for (int i = 0; i < 16; ++i) std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    {
        std::lock_guard<std::mutex> lock(s.outputMutex);
        s.decoded.push_back(control::DecodedFrame{pts, timeBaseNum, timeBaseDen, timeMs, hex});
    }
    changed();
}

bool capturing() { return state().capture; }

void recordPicture(uint32_t width, uint32_t height, int64_t timeMs, const std::vector<uint8_t>& rgb) {
    ControlState& s = state();
    {
        std::lock_guard<std::mutex> lock(s.outputMutex);
        s.picture.width = width;
        s.picture.height = height;
        s.picture.timeMs = timeMs;
        s.picture.rgb = rgb;
        s.picture.count++;
    }
    changed();
}

void recordPresented(int64_t timeMs, double clockMs) {
    ControlState& s = state();
    {
        std::lock_guard<std::mutex> lock(s.outputMutex);
        // Bounded: a long playback keeps its first hour at 25 pictures a second.
        if (s.presented.size() < 90000) s.presented.push_back(control::Presented{timeMs, clockMs});
    }
    changed();
}

void countCorrupt() {
    state().corrupt++;
    changed();
}

void countDropped() { state().dropped++; }

void changed() {
    ControlState& s = state();
    {
        std::lock_guard<std::mutex> lock(s.changeMutex);
        s.generation++;
    }
    s.changeCondition.notify_all();
}

}  // namespace detail

namespace control {

using detail::state;

void setResult(Op op, int32_t result) {
    uint32_t i = static_cast<uint32_t>(op);
    if (i >= detail::kOpCount) return;
    state().forcedResult[i] = result;
    state().isForced[i] = true;
}

void clearResult(Op op) {
    uint32_t i = static_cast<uint32_t>(op);
    if (i >= detail::kOpCount) return;
    state().isForced[i] = false;
}

void setSpeed(uint32_t factor) {
    detail::ControlState& s = state();
    {
        std::lock_guard<std::mutex> lock(s.speedMutex);
        s.speed = factor;
        s.speedTaken = true;
    }
    detail::changed();
}

// The environment is read when the speed is first needed, not when the engine
// is loaded: a program may set MTKPB_SPEED in main(), before it plays.
uint32_t speed() {
    detail::ControlState& s = state();
    if (!s.speedTaken) {
        std::lock_guard<std::mutex> lock(s.speedMutex);
        if (!s.speedTaken) {
            s.speed = detail::speedFromEnvironment();
            s.speedTaken = true;
        }
    }
    return s.speed;
}

Counters counters() {
    detail::ControlState& s = state();
    Counters c{};
    for (uint32_t i = 0; i < detail::kOpCount; ++i) c.calls[i] = s.calls[i];
    const detail::Stats& st = s.stats;
    c.readsIssued = st.readsIssued;
    c.readsRefused = st.readsRefused;
    c.readsCompleted = st.readsCompleted;
    c.readsCancelled = st.readsCancelled;
    c.readsFailed = st.readsFailed;
    c.readsAborted = st.readsAborted;
    c.bytesPulled = st.bytesPulled;
    c.seeks = st.seeks;
    c.protocolErrors = st.protocolErrors;
    for (uint32_t i = 0; i < 16; ++i) c.notifications[i] = st.notifications[i];
    std::lock_guard<std::mutex> lock(s.checksumMutex);
    c.packets = s.packets;
    c.packetChecksum = s.checksum;
    return c;
}

uint64_t calls(Op op) {
    uint32_t i = static_cast<uint32_t>(op);
    return i < detail::kOpCount ? state().calls[i].load() : 0;
}

uint64_t notifications(IMTK_PB_CTRL_EVENT_T event) {
    return state().stats.notifications[event < 16 ? event : 0];
}

uint64_t packetChecksum() {
    std::lock_guard<std::mutex> lock(state().checksumMutex);
    return state().checksum;
}

uint64_t fnv1a64(uint64_t hash, const uint8_t* data, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        hash ^= data[i];
        hash *= 0x100000001b3ull;
    }
    return hash;
}

bool displayRectangles(EngineRect* full, EngineRect* output) {
    detail::ControlState& s = state();
    std::lock_guard<std::mutex> lock(s.displayMutex);
    if (!s.haveDisplay) return false;
    if (full != nullptr) *full = s.full;
    if (output != nullptr) *output = s.output;
    return true;
}

void setFrameHashing(bool on) { state().hashing = on; }

std::vector<DecodedFrame> decodedFrames() {
    std::lock_guard<std::mutex> lock(state().outputMutex);
    return state().decoded;
}

void setScreenCapture(bool on) { state().capture = on; }

bool lastPicture(Picture* picture) {
    std::lock_guard<std::mutex> lock(state().outputMutex);
    if (state().picture.count == 0) return false;
    *picture = state().picture;
    return true;
}

std::vector<Presented> presented() {
    std::lock_guard<std::mutex> lock(state().outputMutex);
    return state().presented;
}

uint64_t corruptPackets() { return state().corrupt; }

uint64_t picturesDropped() { return state().dropped; }

bool waitUntil(const std::function<bool()>& condition, uint32_t timeoutMs) {
    detail::ControlState& s = state();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        uint64_t seen = s.generation;
        if (condition()) return true;
        auto now = std::chrono::steady_clock::now();
        if (now >= deadline) return false;
        std::unique_lock<std::mutex> lock(s.changeMutex);
        s.changeCondition.wait_until(lock, std::min(deadline, now + detail::kRecheckInterval),
                                     [&] { return s.generation != seen; });
    }
}

bool waitForNotifications(IMTK_PB_CTRL_EVENT_T event, uint64_t count, uint32_t timeoutMs) {
    return waitUntil([&] { return notifications(event) >= count; }, timeoutMs);
}

void reset() {
    detail::ControlState& s = state();
    for (uint32_t i = 0; i < detail::kOpCount; ++i) {
        s.isForced[i] = false;
        s.calls[i] = 0;
    }
    {
        std::lock_guard<std::mutex> lock(s.speedMutex);
        s.speed = detail::speedFromEnvironment();
        s.speedTaken = true;
    }
    detail::Stats& st = s.stats;
    st.readsIssued = 0;
    st.readsRefused = 0;
    st.readsCompleted = 0;
    st.readsCancelled = 0;
    st.readsFailed = 0;
    st.readsAborted = 0;
    st.bytesPulled = 0;
    st.seeks = 0;
    st.protocolErrors = 0;
    for (auto& n : st.notifications) n = 0;
    {
        std::lock_guard<std::mutex> lock(s.checksumMutex);
        s.packets = 0;
        s.checksum = kFnvOffsetBasis;
    }
    {
        std::lock_guard<std::mutex> lock(s.displayMutex);
        s.haveDisplay = false;
    }
    s.hashing = false;
    s.capture = false;
    s.corrupt = 0;
    s.dropped = 0;
    {
        std::lock_guard<std::mutex> lock(s.outputMutex);
        s.decoded.clear();
        s.picture = control::Picture();
        s.presented.clear();
    }
    detail::changed();
}

}  // namespace control
}  // namespace mtkpb
