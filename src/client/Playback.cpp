// Playback, the playback thread and the engine's notification callback.

#include "velka/Playback.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <mutex>

#include "IMtkPb_Ctrl.h"
#include "LibraryExit.h"
#include "PullSource.h"
#include "mtk_rpc.h"
#include "velka/Assert.h"
#include "velka/File.h"
#include "velka/FileFactory.h"
#include "velka/Mutex.h"
#include "velka/Semaphore.h"
#include "velka/Thread.h"
#include "LogLine.h"

extern "C" {
int g_main_argc = 0;
char** g_main_argv = nullptr;
}

namespace velka {

// The commands the playback thread executes, by number.
enum PlaybackCommand {
    kCmdOpen = 0,
    kCmdSetParam = 1,
    kCmdPlay = 2,
    kCmdStop = 3,
    kCmdClose = 4,
};

// Runs the engine commands that create, feed, start, stop and close the
// engine instance, one at a time, on the "playbackThread". A caller hands
// over one command with exchange() and waits for its result.
class PlaybackThread final : public Thread::Runnable {
public:
    PlaybackThread();

    // On the playback thread.
    void run() override;

    // On a caller's thread: executes `command` with `arg` on the playback
    // thread and returns the engine's result.
    int exchange(int command, uintptr_t arg);

    // Ends run(), also when it has not begun yet; then the owner deletes thread_.
    void shutdown();

    std::atomic<bool> running_;  // the loop runs while set
    Thread* thread_;             // runs run(); owned
    Semaphore commandReady_;     // posted by a caller when command_ and arg_ are written
    Semaphore commandDone_;      // posted by the thread when result_ is written
    int result_;                 // the engine's result of the last command
    Mutex lock_;                 // held by a caller for one whole exchange
    uintptr_t arg_;              // kCmdSetParam: the URL string's address; kCmdPlay: seconds
    int command_;                // a PlaybackCommand

private:
    void execute();

    // Serialises run()'s setting of running_ with shutdown(), so that a stop
    // requested before the thread first ran is not undone by it.
    Mutex startStopLock_;
    bool stopRequested_;  // guarded by startStopLock_
};

// State shared with the pull callbacks (PullSource.h).
std::atomic<File*> tempFile_(nullptr);
std::atomic<int32_t> currentTime_(-1);

PlaybackThread* playbackThread_ = nullptr;

namespace {

// The flags and numbers below are written and read by the callers' threads,
// the playback thread, the engine's notification thread and the players'
// dispatch threads without a lock. Each pending flag is set by one side and
// consumed by the other.
std::atomic<IMTK_PB_HANDLE_T> engineHandle_(0);  // the open engine instance, 0 = none
std::atomic<bool> opening_(false);        // open() is between creating and finishing the source
std::atomic<bool> openedPending_(false);  // open() succeeded; consumed by getEvent()
std::atomic<bool> errorPending_(false);   // the engine reported an error; consumed by getEvent()
std::atomic<int32_t> errorCode_(0);       // the tmp file's error() at the last error
std::atomic<bool> eosPending_(false);     // the engine reached the end; consumed by getEvent()
std::atomic<bool> seeking_(false);        // timeSeek() waits for the engine
std::atomic<bool> paused_(false);         // paused: time updates are held back
std::atomic<int32_t> totalTime_(0);       // the duration the engine reported last
std::atomic<int32_t> startPosition_(0);   // seconds to seek to once playback started; 0 = none
// Called after every notification (setEventHook); set by the player front end.
std::atomic<void (*)()> eventHook_(nullptr);

// The whole picture: the first rectangle of every display change.
const EngineRect kWholePicture = {0, 0, 1000, 1000};
// Only open() (which resets it) and display() use it, under a player lock.
EngineRect fullRect_ = kWholePicture;

// Arguments of IMtkPb_Ctrl_Open: pull buffering, application-driven pull.
const uint32_t kBufferingModel = IMTK_PB_CTRL_BUFFERING_MODEL_PULL;
const uint32_t kOperatingModel = IMTK_PB_CTRL_APP_MASTER_PULL;
const char* const kEngineProfile = "network";

// RPC client start-up: handles and memory of the platform's OS layer.
const uint16_t kRpcHandles = 4096;
const size_t kRpcMemorySize = 12582912;  // 12 MiB

// The playback thread: priority and requested stack size.
const int kPlaybackPriority = 70;
const int kPlaybackStackSize = 2048;

// Largest valid rectangle values, in thousandths of the screen.
const uint32_t kMaxEdge = 999;
const uint32_t kMaxExtent = 1000;

}  // namespace

// Static initialisation of the library, in this order: seekDone_ and the
// source workers' tear-downs before Playback::instance_, so that both outlive
// it at unload.

// Posted by the notification callback when a time seek has ended.
static Semaphore seekDone_(0);
// Held around every use of the tmp file outside the pull callbacks
// (getEvent() on a dispatch thread, the error notification on an engine
// thread) and around taking it away for destruction, so that it is never
// destroyed while in use. Never held while calling the engine or opening or
// closing the source.
// Not recursive, and with nothing to destroy: a player left alive at process
// exit still polls getEvent() after Playback is gone.
static std::mutex tempFileLock_;

namespace {

// Room for the tear-downs of the source workers (DTA, HTTP, peer-to-peer).
const int kMaxTearDowns = 8;

// Registered tear-downs. Trivially destructible, so that registration stays
// possible until the runner below has run.
std::mutex tearDownMutex_;  // guards the three below
void (*tearDowns_[kMaxTearDowns])() = {};
int tearDownCount_ = 0;
bool tornDown_ = false;

// Runs the registered tear-downs when it is destroyed, right after
// Playback::instance_.
class TearDownRunner {
public:
    TearDownRunner() {}
    ~TearDownRunner() {
        int count;
        {
            std::lock_guard<std::mutex> lock(tearDownMutex_);
            tornDown_ = true;
            count = tearDownCount_;
        }
        while (count > 0) tearDowns_[--count]();
    }
};

TearDownRunner tearDownRunner_;

}  // namespace

void tearDownAfterPlayback(void (*tearDown)()) {
    std::lock_guard<std::mutex> lock(tearDownMutex_);
    VELKA_ASSERT(tearDownCount_ < kMaxTearDowns);
    if (tornDown_) return;
    tearDowns_[tearDownCount_++] = tearDown;
}

Playback Playback::instance_;

namespace {

// Releases a timeSeek() that waits for the engine.
void releaseSeek() {
    if (seeking_.exchange(false)) seekDone_.post();
}

// Records an engine error for getEvent(), with the tmp file's error code.
void recordError() {
    {
        std::lock_guard<std::mutex> lock(tempFileLock_);
        File* file = tempFile_;
        if (file != nullptr) errorCode_ = file->error();
    }
    errorPending_ = true;
}

// The engine's notifications, on its notification thread.
int32_t pb_callback(IMTK_PB_CTRL_EVENT_T event, void* tag, intptr_t data) {
    (void)tag;
    switch (event) {
        case IMTK_PB_CTRL_EVENT_TOTAL_TIME_UPDATE:
            logPrint("IMTK_PB_CTRL_EVENT_TOTAL_TIME_UPDATE %d\n", static_cast<int>(data));
            totalTime_ = static_cast<int32_t>(data);
            break;
        case IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE:
            logPrint("IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE %d\n", static_cast<int>(data));
            currentTime_ = static_cast<int32_t>(data);
            break;
        case IMTK_PB_CTRL_EVENT_BUFFER_UNDERFLOW:
            logPrint("IMTK_PB_CTRL_EVENT_BUFFER_UNDERFLOW \n");
            break;
        case IMTK_PB_CTRL_EVENT_BUFFER_HIGH:
            logPrint("IMTK_PB_CTRL_EVENT_BUFFER_HIGH \n");
            break;
        case IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR:
            logPrint("IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR \n");
            recordError();
            releaseSeek();
            break;
        case IMTK_PB_CTRL_EVENT_EOS:
            logPrint("IMTK_PB_CTRL_EVENT_EOS \n");
            currentTime_ = -1;
            eosPending_ = true;
            break;
        case IMTK_PB_CTRL_EVENT_PLAYED: {
            logPrint("IMTK_PB_CTRL_EVENT_PLAYED \n");
            // The start position of play(), sought once playback runs.
            int32_t start = startPosition_.exchange(0);
            if (start != 0) IMtkPb_Ctrl_TimeSeek(engineHandle_, static_cast<uint32_t>(start));
            break;
        }
        case IMTK_PB_CTRL_EVENT_STEP_DONE:
            logPrint("IMTK_PB_CTRL_EVENT_STEP_DONE \n");
            break;
        case IMTK_PB_CTRL_EVENT_TIMESEEK_DONE:
            logPrint("IMTK_PB_CTRL_EVENT_TIMESEEK_DONE \n");
            if (data == -1) recordError();
            releaseSeek();
            break;
        case IMTK_PB_CTRL_EVENT_GET_BUF_READY:
            logPrint("IMTK_PB_CTRL_EVENT_GET_BUF_READY \n");
            break;
        default:
            logPrint("call back default %d \n", static_cast<int>(event));
            break;
    }
    logFlush();
    void (*hook)() = eventHook_;
    if (hook != nullptr) hook();
    return 0;
}

// Starts the platform's OS layer and RPC client. A failing step is reported
// and start-up goes on.
void rpcInit() {
    RTOS_CONFIG_T config = {};
    int32_t ret = x_rtos_init(&config);
    if (ret != 0) logPrint("rtos init failed %d \n", static_cast<int>(ret));

    void* memory = nullptr;
    size_t memorySize = kRpcMemorySize;
    ret = handle_init(kRpcHandles, &memory, &memorySize);
    if (ret != 0) logPrint("handle init failed %d \n", static_cast<int>(ret));

    ret = os_init(memory, memorySize);
    if (ret != 0) logPrint("os init failed %d \n", static_cast<int>(ret));

    ret = c_rpc_init_client();
    if (ret != 0) logPrint("rpc init failed %d \n", static_cast<int>(ret));

    ret = c_rpc_start_client();
    if (ret < 0) logPrint("rpc start failed %d \n", static_cast<int>(ret));

    logPrint("Rpc init OK\n");
}

}  // namespace

// ---------------------------------------------------------------------------
// PlaybackThread

PlaybackThread::PlaybackThread()
    : running_(false),
      thread_(nullptr),
      commandReady_(0),
      commandDone_(0),
      result_(0),
      arg_(0),
      command_(kCmdOpen),
      stopRequested_(false) {}

void PlaybackThread::run() {
    {
        Mutex::Autolock lock(startStopLock_);
        if (!stopRequested_) running_ = true;
    }
    while (running_) {
        commandReady_.wait();
        // Shutdown wakes the thread without a command and gets no answer.
        if (!running_) return;
        execute();
        commandDone_.post();
    }
}

void PlaybackThread::execute() {
    IMTK_PB_HANDLE_T handle = engineHandle_;
    switch (command_) {
        case kCmdOpen:
            result_ = IMtkPb_Ctrl_Open(&handle, kBufferingModel, kOperatingModel, kEngineProfile);
            engineHandle_ = handle;
            break;
        case kCmdSetParam: {
            PullSourceParams params;
            params.mode = IMTK_PB_CTRL_PULL_MODE_ASYNC;
            params.appTag = reinterpret_cast<void*>(arg_);
            params.pbOpen = pb_open;
            params.pbClose = pb_close;
            params.pbRead = pb_read;
            params.pbReadAsync = pb_read_async;
            params.pbAbort = pb_abort;
            params.pbSeek = pb_seek;
            params.pbAvailable = pb_available;
            logPrint("IMtkPb_Ctrl_SetEngineParam\n");
            result_ = IMtkPb_Ctrl_SetEngineParam(handle, &params);
            logPrint("IMtkPb_Ctrl_SetEngineParam end\n");
            break;
        }
        case kCmdPlay:
            startPosition_ = static_cast<int32_t>(static_cast<intptr_t>(arg_));
            result_ = IMtkPb_Ctrl_Play(handle, 0);
            break;
        case kCmdStop: {
            // Back to the whole screen before stopping; the answer is not needed.
            EngineRect rect = kWholePicture;
            IMtkPb_Ctrl_SetDisplayRectangle(handle, &rect, &rect);
            result_ = IMtkPb_Ctrl_Stop(handle);
            break;
        }
        case kCmdClose:
            logPrint("IMtkPb_Ctrl_Close\n");
            logFlush();
            result_ = IMtkPb_Ctrl_Close(handle);
            logPrint("IMtkPb_Ctrl_Close end %d\n", result_);
            break;
        default:
            // Unknown: answered without reaching the engine.
            break;
    }
}

int PlaybackThread::exchange(int command, uintptr_t arg) {
    Mutex::Autolock lock(lock_);
    command_ = command;
    arg_ = arg;
    commandReady_.post();
    commandDone_.wait();
    return result_;
}

void PlaybackThread::shutdown() {
    {
        Mutex::Autolock lock(startStopLock_);
        stopRequested_ = true;
        running_ = false;
    }
    commandReady_.post();
}

// ---------------------------------------------------------------------------
// Playback

Playback::Playback() {
    rpcInit();
    PlaybackThread* playbackThread = new PlaybackThread();
    playbackThread->thread_ = new Thread(*playbackThread, false, "playbackThread",
                                         kPlaybackPriority, kPlaybackStackSize);
    playbackThread->thread_->start();
    playbackThread_ = playbackThread;
}

Playback::~Playback() {
    if (engineHandle_ != 0) {
        stop();
        close();
    }
    if (playbackThread_ != nullptr) {
        playbackThread_->shutdown();
        delete playbackThread_->thread_;  // waits for run() to return
        delete playbackThread_;
    }
    playbackThread_ = nullptr;
}

VelkaStatus Playback::open(const std::string& url) {
    // One medium at a time: the open one keeps its source, its engine
    // instance and its pending notifications.
    if (tempFile_ != nullptr || engineHandle_ != 0) return kStatusError;
    errorCode_ = 0;
    fullRect_ = kWholePicture;
    openedPending_ = false;
    eosPending_ = false;
    errorPending_ = false;
    opening_ = false;
    totalTime_ = 0;

    logPrint("create tempfile %s\n", url.c_str());
    logFlush();
    File* file = FileFactory::createFile(url);
    if (file == nullptr) return kStatusError;
    tempFile_ = file;

    // opening_ is cleared on every way out, an exception included.
    struct OpeningScope {
        OpeningScope() { opening_ = true; }
        ~OpeningScope() { opening_ = false; }
    } openingScope;
    logPrint("open state change tempfile %d-------------------\n", 1);
    logFlush();

    // Failure before the engine instance exists: the source goes without close().
    auto failWithoutEngine = [file]() {
        logFlush();
        errorCode_ = file->error();
        {
            std::lock_guard<std::mutex> lock(tempFileLock_);
            tempFile_ = nullptr;
        }
        delete file;
        return kStatusError;
    };
    // Failure with the engine instance open: close() ends both.
    auto failWithEngine = [this, file]() {
        logFlush();
        errorCode_ = file->error();
        close();
        return kStatusError;
    };

    if (file->open() != 0) {
        logPrint("open tempfile fail\n");
        return failWithoutEngine();
    }
    logPrint("open state change 2222222 tempfile %d-------------------------------------+\n",
           opening_ ? 1 : 0);
    logFlush();

    int ret = playbackThread_->exchange(kCmdOpen, 0);
    if (ret != 0) {
        logPrint("Open playback failed %d\n", ret);
        return failWithoutEngine();
    }
    ret = IMtkPb_Ctrl_RegCallback(engineHandle_, this, pb_callback);
    if (ret != 0) {
        logPrint("reg callback failed %d\n", ret);
        return failWithEngine();
    }
    // The app tag: this URL string, which lives until open() returns.
    ret = playbackThread_->exchange(kCmdSetParam, reinterpret_cast<uintptr_t>(&url));
    if (ret != 0) {
        logPrint("set IMtkPb_Ctrl_SetEngineParam failed %d\n", ret);
        return failWithEngine();
    }
    IMTK_PB_CTRL_MEDIA_INFO_T info;
    ret = IMtkPb_Ctrl_GetMediaInfo(engineHandle_, &info);
    if (ret != 0) {
        logPrint("get media info failed %d\n", ret);
        return failWithEngine();
    }

    openedPending_ = true;
    logPrint("!!!!!!!!!!End to open file\n");
    logFlush();
    return kStatusOk;
}

VelkaStatus Playback::play(int start) {
    logPrint("start to play %d\n", start);
    // Whole seconds; below one second plays from the beginning.
    int ret = playbackThread_->exchange(kCmdPlay, static_cast<uintptr_t>(start / 1000));
    if (ret != 0) {
        logPrint("play Failed %d !\n", ret);
        logFlush();
        return kStatusError;
    }
    paused_ = false;
    logPrint("play end\n");
    logFlush();
    return kStatusOk;
}

VelkaStatus Playback::pause() {
    logPrint("playback pause\n");
    logFlush();
    IMtkPb_Ctrl_Pause(engineHandle_);
    paused_ = true;
    return kStatusOk;
}

VelkaStatus Playback::unPause() {
    logPrint("playback unPause\n");
    logFlush();
    if (seeking_) return kStatusError;
    bool wasPaused = paused_.exchange(false);
    int ret = playbackThread_->exchange(kCmdPlay, 0);
    if (ret != 0) {
        paused_ = wasPaused;
        logPrint("unpause play failed %d !\n", ret);
        return kStatusError;
    }
    return kStatusOk;
}

VelkaStatus Playback::stop() {
    logPrint("playback stop\n");
    logFlush();
    beginEngineStop();
    int ret = playbackThread_->exchange(kCmdStop, 0);
    endEngineStop();
    if (ret != 0) {
        logPrint("playback stop fail %d\n", ret);
        return kStatusError;
    }
    return kStatusOk;
}

void Playback::close() {
    logPrint("playback close\n");
    logFlush();
    beginEngineStop();
    playbackThread_->exchange(kCmdClose, 0);
    endEngineStop();
    // The engine instance is closed: no pull callback uses the tmp file any
    // more. Take it away under the lock, so that no getEvent() or
    // notification still uses it, then close and destroy it.
    File* file;
    {
        std::lock_guard<std::mutex> lock(tempFileLock_);
        file = tempFile_.exchange(nullptr);
    }
    if (file != nullptr) {
        file->close();
        delete file;
    }
    engineHandle_ = 0;
}

VelkaStatus Playback::timeSeek(int position) {
    logPrint("playback timeSeek %d\n", position);
    seeking_ = true;
    int ret = IMtkPb_Ctrl_TimeSeek(engineHandle_, static_cast<uint32_t>(position / 1000));
    logPrint("playback timeSeek result %d\n", ret);
    if (ret != 0) {
        // A notification that ended the seek meanwhile posted seekDone_:
        // take that unit back so that the next seek waits for its own end.
        if (!seeking_.exchange(false)) seekDone_.tryWait();
        return kStatusError;
    }
    seekDone_.wait();
    logPrint("playback timeSeek end\n");
    return kStatusOk;
}

VelkaStatus Playback::display(const MediaPlayer::OutputScreen& screen) {
    logPrint("playback display\n");
    // Compared as unsigned: a negative value is out of range too.
    EngineRect output = {static_cast<uint32_t>(screen.x), static_cast<uint32_t>(screen.y),
                         static_cast<uint32_t>(screen.width),
                         static_cast<uint32_t>(screen.height)};
    if (output.x > kMaxEdge || output.y > kMaxEdge || output.width < 1 ||
        output.width > kMaxExtent || output.height < 1 || output.height > kMaxExtent) {
        return kStatusOutOfRange;
    }
    return IMtkPb_Ctrl_SetDisplayRectangle(engineHandle_, &fullRect_, &output) == 0
               ? kStatusOk
               : kStatusError;
}

int Playback::duration() {
    int total = totalTime_;
    logPrint("playback duration %d\n", total);
    return total;
}

int Playback::currentPts() {
    uint32_t time = 0;
    uint64_t bytePosition = 0;
    if (IMtkPb_Ctrl_GetCurrentPos(engineHandle_, &time, &bytePosition) != 0) return -1;
    return static_cast<int>(time);
}

// On a player's dispatch thread, while any other operation may be running.
void Playback::getEvent(MediaPlayer::Event& event) {
    if (errorPending_.exchange(false)) {
        event.id = MediaPlayer::kEventError;
        event.param = errorCode_;
        return;
    }
    if (openedPending_.exchange(false)) {
        event.id = MediaPlayer::kEventNone;
        logPrint("play back opened !\n");
        return;
    }
    if (eosPending_.exchange(false)) {
        logPrint("play back eos !\n");
        event.id = MediaPlayer::kEventEndOfStream;
        event.param = 0;
        return;
    }
    {
        std::lock_guard<std::mutex> lock(tempFileLock_);
        File* file = tempFile_;
        logPrint("------ %d %p!!!!!!\n", opening_ ? 1 : 0, static_cast<void*>(file));
        if ((opening_ || seeking_) && file != nullptr) {
            event.id = MediaPlayer::kEventBuffering;
            event.param = file->cachePercent();
            return;
        }
    }
    if (paused_) {
        event.id = MediaPlayer::kEventNone;
        return;
    }
    // Each reported position is delivered once.
    int32_t time = currentTime_.exchange(-1);
    if (time == -1) {
        event.id = MediaPlayer::kEventNone;
        return;
    }
    event.id = MediaPlayer::kEventTimeUpdate;
    event.param = time;
}

void Playback::setEventHook(void (*hook)()) { eventHook_ = hook; }

void Playback::setVolume(unsigned int volume) { (void)volume; }

unsigned int Playback::getVolume() { return 0; }

void Playback::setMute(bool mute) { (void)mute; }

bool Playback::isMute() { return false; }

}  // namespace velka
