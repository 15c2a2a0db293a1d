// Engine.h - one instance of the software playback engine.
//
// Threads:
//  - callers of the control operations (any thread, also a notification);
//  - the worker, which owns the demuxer: it probes, seeks and demuxes through
//    the pull source and paces the packets against the clock;
//  - the notifier (Notifier.h), which delivers notifications;
//  - at speed 1, the presentation's threads (Presentation.h): the decoders'
//    own, the sound device's callback and the Screen's presenter.
// The control operations only change state under mutex_ and hand work to the
// worker; the slow ones (GetMediaInfo, the first Play, Stop) then wait for
// its answer. The worker never waits for the notifier, and no lock is held
// while a notification or a pull callback runs, so a notification may call
// any operation but Close.
//
// Lock order: mutex_, then the notifier's lock (post() under mutex_ is fine),
// or the read registry's lock (PullIo). Neither of those calls out while held.
#ifndef MTKPB_SRC_ENGINE_H
#define MTKPB_SRC_ENGINE_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

#include "IMtkPb_Ctrl.h"
#include "Notifier.h"
#include "Presentation.h"
#include "PullIo.h"

struct AVFormatContext;
struct AVIOContext;
struct AVPacket;

namespace mtkpb {
namespace detail {

class Engine {
public:
    // Interval of IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE, in ms of media time.
    static constexpr uint32_t kTimeUpdateMs = 250;
    // A packet later than this behind the clock (a stall, a slow source) moves
    // the clock back to it instead of rushing the following packets out.
    static constexpr uint32_t kMaxLateMs = 200;
    // How long an operation waits for the worker's answer (a probe or a stop
    // may need several reads, each bounded by PullIo::kReadTimeoutMs).
    static constexpr uint32_t kAnswerTimeoutMs = 120000;
    // How long an operation waits for a notification it reports to be delivered.
    static constexpr uint32_t kDeliveryTimeoutMs = 5000;
    // While presenting, how often the worker looks at the position when it
    // has nothing to decode (the queues ahead are full, or the end is playing).
    static constexpr uint32_t kPresentTickMs = 10;
    // Buffer of the demuxer's byte stream; also the largest single read.
    static constexpr int kIoBufferSize = 32 * 1024;

    explicit Engine(IMTK_PB_HANDLE_T handle);
    ~Engine();  // close()s
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    IMTK_PB_ERROR_CODE_T regCallback(void* tag, IMtkPb_Ctrl_Nfy_Fct callback);
    IMTK_PB_ERROR_CODE_T setSource(const PullSourceParams& params);
    IMTK_PB_ERROR_CODE_T mediaInfo(IMTK_PB_CTRL_MEDIA_INFO_T* info);
    IMTK_PB_ERROR_CODE_T play();
    IMTK_PB_ERROR_CODE_T pause();
    IMTK_PB_ERROR_CODE_T timeSeek(uint32_t seconds);
    IMTK_PB_ERROR_CODE_T currentPos(uint32_t* timeMs, uint64_t* bytePos);
    IMTK_PB_ERROR_CODE_T display(const EngineRect& full, const EngineRect& output);
    IMTK_PB_ERROR_CODE_T stop();
    // Not from a notification of this instance (INV_STATE).
    IMTK_PB_ERROR_CODE_T close();
    void inject(IMTK_PB_CTRL_EVENT_T event, intptr_t data) { notifier_.post(event, data); }

private:
    using Clock = std::chrono::steady_clock;
    enum class State {
        kStopped,  // no demuxer (before the first probe, after Stop or an error)
        kReady,    // probed and positioned, not playing
        kPlaying,
        kPaused,
        kEnded,    // EOS reported
    };

    // Locked helpers (mutex_ held).
    IMTK_PB_ERROR_CODE_T probeLocked(std::unique_lock<std::mutex>& lock);
    double clockMsLocked(Clock::time_point now) const;
    void startClockLocked(Clock::time_point now);
    void presentLocked();
    void reportPresentedLocked();

    // Worker thread.
    void run();
    void onStall(bool stalled);
    IMTK_PB_ERROR_CODE_T openDemux(IMTK_PB_CTRL_MEDIA_INFO_T* info);
    void closeDemux();
    int readPacket();
    int64_t seekDemux(uint32_t targetMs);

    const IMTK_PB_HANDLE_T handle_;

    std::mutex mutex_;                   // guards everything below down to the worker's own
    std::condition_variable condition_;  // wakes the worker; answers waiting callers
    State state_ = State::kStopped;
    bool settingSource_ = false;
    bool closing_ = false;
    bool closed_ = false;
    bool quit_ = false;                  // the worker ends
    std::shared_ptr<PullIo> io_;         // set once by setSource
    bool probed_ = false;
    IMTK_PB_CTRL_MEDIA_INFO_T info_{};
    uint64_t probeRequests_ = 0;
    uint64_t probeAnswers_ = 0;
    IMTK_PB_ERROR_CODE_T probeResult_ = IMTK_PB_ERROR_CODE_OK;
    uint64_t stopRequests_ = 0;
    uint64_t stopAnswers_ = 0;
    bool restartPending_ = false;        // Play after the end: demux again from the start
    bool seekPending_ = false;
    uint32_t seekTargetMs_ = 0;
    uint32_t seekReplies_ = 0;           // TimeSeek calls waiting for TIMESEEK_DONE
    uint32_t positionMs_ = 0;
    uint64_t bytePos_ = 0;
    int64_t lastReportedMs_ = -1;        // last CUR_TIME_UPDATE; -1: report the next position
    bool underflow_ = false;             // BUFFER_UNDERFLOW reported, BUFFER_HIGH not yet
    // The clock: media time mediaBaseMs_ at wallBase_, running clockSpeed_
    // times real time while playing; with speed 0 it follows the packets.
    double mediaBaseMs_ = 0;
    Clock::time_point wallBase_;
    uint32_t clockSpeed_ = 1;
    // Decoding and presenting (speed 1 at the start of playback). The worker
    // creates and ends presentation_ under mutex_ and uses it without;
    // callers use it under mutex_ only.
    bool present_ = false;
    std::unique_ptr<Presentation> presentation_;

    // The worker's own, touched only on the worker thread.
    AVIOContext* avio_ = nullptr;
    AVFormatContext* format_ = nullptr;
    AVPacket* packet_ = nullptr;
    bool havePacket_ = false;  // packet_ read, not presented yet
    uint32_t packetMs_ = 0;
    int64_t packetPos_ = -1;
    bool atEnd_ = false;       // the demuxer reached the end
    bool readError_ = false;   // the demuxer failed
    bool drained_ = false;     // the presentation has been given the end
    int64_t startMs_ = 0;      // media start time, subtracted from every timestamp
    uint32_t durationMs_ = 0;

    Notifier notifier_;
    std::thread worker_;  // last: starts after everything above is built
};

}  // namespace detail
}  // namespace mtkpb

#endif  // MTKPB_SRC_ENGINE_H
