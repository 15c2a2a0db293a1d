// mtkpb_control.h - test control of the software playback engine.
//
// The software engine stands in for the box's hardware engine. Tests use this
// interface to steer it from the outside (forced results, injected
// notifications, speed) and to observe it (call and read counters, a checksum
// of the demuxed data, the display rectangles). Everything here is
// process-wide and thread-safe; reset() returns it to its start state.
#ifndef MTKPB_CONTROL_H
#define MTKPB_CONTROL_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "IMtkPb_Ctrl.h"

namespace mtkpb {
namespace control {

// The operations whose result can be forced, one per engine or start-up call.
enum class Op : uint32_t {
    kOpen,
    kRegCallback,
    kSetEngineParam,
    kGetMediaInfo,
    kPlay,
    kPause,
    kTimeSeek,
    kGetCurrentPos,
    kSetDisplayRectangle,
    kStop,
    kClose,
    kRtosInit,
    kHandleInit,
    kOsInit,
    kRpcInitClient,
    kRpcStartClient,
    kCount
};

// From now on `op` returns `result` at once, without doing anything (it is
// still counted in calls()). Stays in force until clearResult or reset.
void setResult(Op op, int32_t result);
void clearResult(Op op);

// Playback speed: 1 = real time, N = N times faster, 0 = as fast as the data
// comes. The start value is taken from the environment variable MTKPB_SPEED
// (1 when it is unset or not a number) when the speed is first needed: the
// first playback, or the first call of speed(). reset() takes it again.
void setSpeed(uint32_t factor);
uint32_t speed();

// Queues a notification for the instance `handle` (0 = the most recently
// opened instance still open); it reaches the registered callback on the
// instance's notification thread, with no engine lock held, after the
// notifications already queued. False when there is no such instance.
bool inject(IMTK_PB_CTRL_EVENT_T event, intptr_t data, IMTK_PB_HANDLE_T handle = 0);

struct Counters {
    uint64_t calls[static_cast<uint32_t>(Op::kCount)];  // per Op, forced ones included
    uint64_t readsIssued;      // pb_read_async calls that were accepted
    uint64_t readsRefused;     // pb_read_async calls that returned -1
    uint64_t readsCompleted;   // completions of accepted reads (any result)
    uint64_t readsCancelled;   // ... of them with result 1
    uint64_t readsFailed;      // ... of them with result -1
    uint64_t readsAborted;     // pb_abort calls made by the engine
    uint64_t bytesPulled;      // bytes delivered by completed reads
    uint64_t seeks;            // pb_seek calls
    uint64_t protocolErrors;   // completions that break the contract: unknown
                               // or repeated, wrong request handle, too long
    uint64_t packets;          // packets demuxed
    uint64_t packetChecksum;   // see packetChecksum()
    uint64_t notifications[16];  // delivered per event number (index 0: 0 and numbers >= 16)
};

// A snapshot of all counters since the last reset().
Counters counters();
uint64_t calls(Op op);
// Accepted reads whose completion has not arrived yet, over all instances.
uint64_t readsOutstanding();
// Notifications of number `event` delivered to a callback (counted after the
// callback has returned).
uint64_t notifications(IMTK_PB_CTRL_EVENT_T event);

// FNV-1a 64-bit over the data bytes of every packet the demuxer returned, in
// demux order, over all instances since the last reset(): start with the
// offset basis 0xcbf29ce484222325; for each byte b: h ^= b; h *= 0x100000001b3.
// Packets are those av_read_frame returns on an AVFormatContext opened and
// probed with avformat_find_stream_info, so a test reading the same file
// directly with libavformat computes the same value.
uint64_t packetChecksum();
uint64_t fnv1a64(uint64_t hash, const uint8_t* data, size_t size);
constexpr uint64_t kFnvOffsetBasis = 0xcbf29ce484222325ull;

// The rectangles of the last IMtkPb_Ctrl_SetDisplayRectangle that got through
// to the engine (any instance); false when there was none since reset().
bool displayRectangles(EngineRect* full, EngineRect* output);

// ---- What was decoded and presented --------------------------------------
// At speed 1 the engine decodes and presents (a window or an off-screen
// screen of 1280x720, a sound device or a null sink); at any other speed it
// only paces the demuxed packets.

// Every decoded picture, in decoding order, when hashing is on (it costs a
// copy of each picture): the MD5 of its planes packed without padding, as
// `ffmpeg -f framemd5` hashes them, with its timestamp in its stream's time
// base and in ms of media time. Off after reset().
struct DecodedFrame {
    int64_t pts;
    int32_t timeBaseNum;
    int32_t timeBaseDen;
    int64_t timeMs;
    std::string md5;  // 32 lowercase hex digits
};
void setFrameHashing(bool on);
std::vector<DecodedFrame> decodedFrames();

// The whole screen as last presented, when capturing is on (it reads the
// screen back after every picture): RGB24 rows, top first; timeMs is the
// media time of the picture on it, -1 for a blank screen. False when nothing
// was captured since reset().
struct Picture {
    uint32_t width = 0;
    uint32_t height = 0;
    int64_t timeMs = -1;
    uint64_t count = 0;  // screens captured since reset()
    std::vector<uint8_t> rgb;
};
void setScreenCapture(bool on);
bool lastPicture(Picture* picture);

// Every picture put on the screen since reset(): its media time and the
// presentation clock (the sound heard, or the clock without sound) then.
struct Presented {
    int64_t timeMs;
    double clockMs;
};
std::vector<Presented> presented();
// Packets the decoders refused (corrupt data), and pictures dropped unseen
// because the next one was due too (late), since reset().
uint64_t corruptPackets();
uint64_t picturesDropped();

// Waits until `condition` holds, re-checking whenever the engine's state
// changes (a notification delivered, a read issued or completed, a packet
// demuxed) and at least every 50 ms; at most `timeoutMs`. `condition` is
// called with no engine lock held. True when it held.
bool waitUntil(const std::function<bool()>& condition, uint32_t timeoutMs);
// Waits until `count` notifications of number `event` have been delivered.
bool waitForNotifications(IMTK_PB_CTRL_EVENT_T event, uint64_t count, uint32_t timeoutMs);

// Clears every forced result, every counter, the checksum and the rectangles,
// and takes the speed from MTKPB_SPEED again. Open instances stay open.
void reset();

}  // namespace control
}  // namespace mtkpb

#endif  // MTKPB_CONTROL_H
