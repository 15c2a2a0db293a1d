// Engine.cpp - probing, seeking, demuxing and pacing through the pull source.
#include "Engine.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cinttypes>
#include <cstring>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

#include "Control.h"
#include "Screen.h"

namespace mtkpb {
namespace detail {
namespace {

// The demuxer's byte stream, answered by the PullIo given as opaque.
int io_read(void* opaque, uint8_t* buffer, int size) {
    int n = static_cast<PullIo*>(opaque)->read(buffer, static_cast<uint32_t>(size));
    if (n > 0) return n;
    if (n == PullIo::kEnd) return AVERROR_EOF;
    if (n == PullIo::kAborted) return AVERROR_EXIT;
    return AVERROR(EIO);
}

int64_t io_seek(void* opaque, int64_t offset, int whence) {
    PullIo* io = static_cast<PullIo*>(opaque);
    if (whence & AVSEEK_SIZE) return io->size() >= 0 ? io->size() : AVERROR(ENOSYS);
    whence &= ~AVSEEK_FORCE;
    if (whence != SEEK_SET && whence != SEEK_CUR && whence != SEEK_END) return AVERROR(EINVAL);
    int64_t position = io->seek(offset, whence);
    if (position >= 0) return position;
    return position == PullIo::kAborted ? AVERROR_EXIT : AVERROR(EIO);
}

int io_interrupt(void* opaque) { return static_cast<PullIo*>(opaque)->aborting() ? 1 : 0; }

uint32_t clampMs(int64_t ms) {
    return static_cast<uint32_t>(std::min<int64_t>(std::max<int64_t>(ms, 0), UINT32_MAX));
}

}  // namespace

Engine::Engine(IMTK_PB_HANDLE_T handle) : handle_(handle) {
    packet_ = av_packet_alloc();
    worker_ = std::thread([this] { run(); });
}

Engine::~Engine() {
    close();
    av_packet_free(&packet_);
}

IMTK_PB_ERROR_CODE_T Engine::regCallback(void* tag, IMtkPb_Ctrl_Nfy_Fct callback) {
    notifier_.setCallback(callback, tag);
    return IMTK_PB_ERROR_CODE_OK;
}

IMTK_PB_ERROR_CODE_T Engine::setSource(const PullSourceParams& params) {
    if (params.mode != IMTK_PB_CTRL_PULL_MODE_ASYNC || params.pbOpen == nullptr ||
        params.pbClose == nullptr || params.pbReadAsync == nullptr || params.pbAbort == nullptr ||
        params.pbSeek == nullptr) {
        return IMTK_PB_ERROR_CODE_INV_ARG;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (io_ || settingSource_ || closing_) return IMTK_PB_ERROR_CODE_INV_STATE;
        settingSource_ = true;
    }
    auto io = std::make_shared<PullIo>(handle_, params);
    bool opened = io->open();  // pull callbacks: no lock held
    io->setStallHandler([this](bool stalled) { onStall(stalled); });
    std::lock_guard<std::mutex> lock(mutex_);
    settingSource_ = false;
    if (!opened) return IMTK_PB_ERROR_CODE_NOT_OK;
    io_ = io;
    return IMTK_PB_ERROR_CODE_OK;
}

IMTK_PB_ERROR_CODE_T Engine::probeLocked(std::unique_lock<std::mutex>& lock) {
    if (probed_) return IMTK_PB_ERROR_CODE_OK;
    const uint64_t ticket = ++probeRequests_;
    condition_.notify_all();
    bool answered = condition_.wait_for(lock, std::chrono::milliseconds(kAnswerTimeoutMs),
                                        [&] { return probeAnswers_ >= ticket || quit_; });
    if (!answered || quit_) return IMTK_PB_ERROR_CODE_NOT_OK;
    return probed_ ? IMTK_PB_ERROR_CODE_OK : probeResult_;
}

IMTK_PB_ERROR_CODE_T Engine::mediaInfo(IMTK_PB_CTRL_MEDIA_INFO_T* info) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!io_ || closing_) return IMTK_PB_ERROR_CODE_INV_STATE;
    IMTK_PB_ERROR_CODE_T result = probeLocked(lock);
    if (result != IMTK_PB_ERROR_CODE_OK) return result;
    if (info != nullptr) *info = info_;
    uint64_t sequence =
        notifier_.post(IMTK_PB_CTRL_EVENT_TOTAL_TIME_UPDATE, static_cast<intptr_t>(info_.durationMs));
    lock.unlock();
    // The caller learns the duration before the call returns (unless it asks
    // from inside a notification, where waiting would wait for itself).
    notifier_.waitDelivered(sequence, kDeliveryTimeoutMs);
    return IMTK_PB_ERROR_CODE_OK;
}

IMTK_PB_ERROR_CODE_T Engine::play() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!io_ || closing_) return IMTK_PB_ERROR_CODE_INV_STATE;
    const auto now = Clock::now();
    switch (state_) {
        case State::kPlaying:
            break;
        case State::kPaused:
            wallBase_ = now;
            state_ = State::kPlaying;
            if (presentation_) presentation_->setPaused(false);
            break;
        case State::kStopped: {
            IMTK_PB_ERROR_CODE_T result = probeLocked(lock);
            if (result != IMTK_PB_ERROR_CODE_OK) return result;
            if (state_ != State::kReady) return IMTK_PB_ERROR_CODE_INV_STATE;  // raced with Stop
            startClockLocked(Clock::now());
            break;
        }
        case State::kEnded:
            // Play after the end starts again from the beginning.
            restartPending_ = true;
            positionMs_ = 0;
            startClockLocked(now);
            break;
        case State::kReady:
            startClockLocked(now);
            break;
    }
    condition_.notify_all();
    notifier_.post(IMTK_PB_CTRL_EVENT_PLAYED, 0);
    return IMTK_PB_ERROR_CODE_OK;
}

void Engine::startClockLocked(Clock::time_point now) {
    state_ = State::kPlaying;
    clockSpeed_ = control::speed();
    present_ = clockSpeed_ == 1;
    mediaBaseMs_ = positionMs_;
    wallBase_ = now;
}

IMTK_PB_ERROR_CODE_T Engine::pause() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!io_ || closing_) return IMTK_PB_ERROR_CODE_INV_STATE;
    if (state_ == State::kPlaying) {
        mediaBaseMs_ = clockMsLocked(Clock::now());
        state_ = State::kPaused;
        if (presentation_) {
            // The position is where the presentation stopped, at once.
            presentation_->setPaused(true);
            const int64_t presented = presentation_->positionMs();
            if (presented >= 0) positionMs_ = clampMs(presented);
        }
        condition_.notify_all();
    }
    return IMTK_PB_ERROR_CODE_OK;
}

IMTK_PB_ERROR_CODE_T Engine::timeSeek(uint32_t seconds) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!io_ || closing_) return IMTK_PB_ERROR_CODE_INV_STATE;
    seekPending_ = true;
    seekTargetMs_ = clampMs(static_cast<int64_t>(seconds) * 1000);
    seekReplies_++;
    condition_.notify_all();
    return IMTK_PB_ERROR_CODE_OK;
}

IMTK_PB_ERROR_CODE_T Engine::currentPos(uint32_t* timeMs, uint64_t* bytePos) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closing_) return IMTK_PB_ERROR_CODE_INV_STATE;
    if (timeMs != nullptr) *timeMs = positionMs_;
    if (bytePos != nullptr) *bytePos = bytePos_;
    return IMTK_PB_ERROR_CODE_OK;
}

IMTK_PB_ERROR_CODE_T Engine::display(const EngineRect& full, const EngineRect& output) {
    recordDisplay(full, output);
    Screen::instance().setOutput(output);
    return IMTK_PB_ERROR_CODE_OK;
}

IMTK_PB_ERROR_CODE_T Engine::stop() {
    std::shared_ptr<PullIo> io;
    uint64_t ticket;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        io = io_;
        ticket = ++stopRequests_;
        condition_.notify_all();
    }
    if (io) io->abortAll();
    bool answered;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        answered = condition_.wait_for(lock, std::chrono::milliseconds(kAnswerTimeoutMs),
                                       [&] { return stopAnswers_ >= ticket || quit_; });
    }
    bool idle = true;
    if (io) {
        idle = io->waitIdle(PullIo::kAbortWaitMs);
        io->clearAbort();
    }
    if (!answered || !idle) {
        std::fprintf(stderr, "mtkpb: stop of instance %" PRIuPTR " incomplete\n", handle_);
        return IMTK_PB_ERROR_CODE_NOT_OK;
    }
    return IMTK_PB_ERROR_CODE_OK;
}

IMTK_PB_ERROR_CODE_T Engine::close() {
    if (notifier_.onNotifierThread()) return IMTK_PB_ERROR_CODE_INV_STATE;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (closing_) return IMTK_PB_ERROR_CODE_OK;
        closing_ = true;
    }
    IMTK_PB_ERROR_CODE_T result = stop();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        quit_ = true;
        condition_.notify_all();
    }
    if (worker_.joinable()) worker_.join();
    // What stop() reported (failed seeks) is still delivered; nothing after.
    notifier_.drain(kDeliveryTimeoutMs);
    notifier_.stop();
    std::shared_ptr<PullIo> io;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        io = io_;
        closed_ = true;
    }
    if (io) io->close();
    return result;
}

double Engine::clockMsLocked(Clock::time_point now) const {
    if (state_ != State::kPlaying) return mediaBaseMs_;
    if (clockSpeed_ == 0) return positionMs_;
    return mediaBaseMs_ +
           std::chrono::duration<double, std::milli>(now - wallBase_).count() * clockSpeed_;
}

void Engine::presentLocked() {
    positionMs_ = std::max(positionMs_, packetMs_);
    if (packetPos_ >= 0) bytePos_ = static_cast<uint64_t>(packetPos_);
    havePacket_ = false;
    if (lastReportedMs_ < 0 || positionMs_ >= lastReportedMs_ + kTimeUpdateMs) {
        lastReportedMs_ = positionMs_;
        notifier_.post(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE, static_cast<intptr_t>(positionMs_));
    }
}

// The position is what has been presented: the sound heard, or the picture
// shown, reported every kTimeUpdateMs as it advances.
void Engine::reportPresentedLocked() {
    const int64_t presented = presentation_->positionMs();
    if (presented < 0) return;
    positionMs_ = clampMs(presented);
    if (lastReportedMs_ < 0 || positionMs_ >= lastReportedMs_ + kTimeUpdateMs) {
        lastReportedMs_ = positionMs_;
        notifier_.post(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE, static_cast<intptr_t>(positionMs_));
    }
}

void Engine::onStall(bool stalled) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stalled && state_ == State::kPlaying && !underflow_) {
        underflow_ = true;
        notifier_.post(IMTK_PB_CTRL_EVENT_BUFFER_UNDERFLOW, 0);
    } else if (!stalled && underflow_) {
        underflow_ = false;
        notifier_.post(IMTK_PB_CTRL_EVENT_BUFFER_HIGH, 0);
    }
}

void Engine::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!quit_) {
        if (stopAnswers_ < stopRequests_) {
            const uint64_t answered = stopRequests_;
            const uint32_t replies = seekReplies_;
            seekPending_ = false;
            seekReplies_ = 0;
            restartPending_ = false;
            lock.unlock();
            closeDemux();
            lock.lock();
            for (uint32_t i = 0; i < replies; ++i) {
                notifier_.post(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE, -1);
            }
            state_ = State::kStopped;
            probed_ = false;
            positionMs_ = 0;
            bytePos_ = 0;
            lastReportedMs_ = -1;
            stopAnswers_ = answered;
            condition_.notify_all();
            continue;
        }
        if (probeAnswers_ < probeRequests_) {
            const uint64_t answered = probeRequests_;
            if (!probed_) {
                lock.unlock();
                IMTK_PB_CTRL_MEDIA_INFO_T info{};
                IMTK_PB_ERROR_CODE_T result = openDemux(&info);
                lock.lock();
                probeResult_ = result;
                if (result == IMTK_PB_ERROR_CODE_OK) {
                    probed_ = true;
                    info_ = info;
                    if (state_ == State::kStopped) state_ = State::kReady;
                    positionMs_ = 0;
                    bytePos_ = 0;
                    lastReportedMs_ = -1;
                }
            }
            probeAnswers_ = answered;
            condition_.notify_all();
            continue;
        }
        if (restartPending_) {
            // A fresh demuxer rather than a seek to 0, which may skip packets
            // stamped before the start (audio priming).
            restartPending_ = false;
            lock.unlock();
            IMTK_PB_CTRL_MEDIA_INFO_T info{};
            IMTK_PB_ERROR_CODE_T result = openDemux(&info);
            lock.lock();
            if (result == IMTK_PB_ERROR_CODE_OK) {
                info_ = info;
                positionMs_ = 0;
                bytePos_ = 0;
                lastReportedMs_ = -1;
                mediaBaseMs_ = 0;
                wallBase_ = Clock::now();
            } else {
                readError_ = true;
            }
            continue;
        }
        if (seekPending_) {
            const uint32_t target = seekTargetMs_;
            const uint32_t replies = seekReplies_;
            seekPending_ = false;
            seekReplies_ = 0;
            lock.unlock();
            IMTK_PB_CTRL_MEDIA_INFO_T info{};
            bool ready = format_ != nullptr || openDemux(&info) == IMTK_PB_ERROR_CODE_OK;
            int64_t landed = ready ? seekDemux(target) : -1;
            if (landed >= 0 && presentation_) {
                // Presented from the target on: the first picture shown is the
                // one at the target, not the key frame before it.
                landed = target;
                presentation_->flush(target);
            }
            lock.lock();
            if (ready && !probed_) {
                probed_ = true;
                info_ = info;
                if (state_ == State::kStopped) state_ = State::kReady;
            }
            if (landed >= 0) {
                positionMs_ = static_cast<uint32_t>(landed);
                if (packetPos_ >= 0) bytePos_ = static_cast<uint64_t>(packetPos_);
                mediaBaseMs_ = positionMs_;
                wallBase_ = Clock::now();
                if (state_ == State::kEnded) state_ = State::kReady;
                // The new position is reported before the seek is done: a
                // listener that keeps the last report (and holds it back
                // while paused) must not be left with one from before the
                // seek, which a paused engine would not replace until play.
                lastReportedMs_ = positionMs_;
                notifier_.post(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE, static_cast<intptr_t>(positionMs_));
            }
            for (uint32_t i = 0; i < replies; ++i) {
                notifier_.post(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE, static_cast<intptr_t>(landed));
            }
            continue;
        }
        if (readError_) {
            // The source failed: playback ends with an error; Play starts over.
            notifier_.post(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR, 0);
            lock.unlock();
            closeDemux();
            lock.lock();
            state_ = State::kStopped;
            probed_ = false;
            continue;
        }
        // Paused, the presentation still fills its queues, so that a seek
        // shows its first picture.
        const bool filling = state_ == State::kPaused && presentation_ && !atEnd_ &&
                             presentation_->wantsMore();
        if (state_ != State::kPlaying && !filling) {
            condition_.wait(lock);
            continue;
        }
        if (presentation_ && presentation_->closedByViewer()) {
            // The viewer closed the screen: playback ends there.
            notifier_.post(IMTK_PB_CTRL_EVENT_EOS, 0);
            state_ = State::kEnded;
            std::unique_ptr<Presentation> ending = std::move(presentation_);
            lock.unlock();
            ending.reset();
            lock.lock();
            continue;
        }
        if (atEnd_ && presentation_ && state_ == State::kPlaying) {
            if (!drained_) {
                drained_ = true;
                lock.unlock();
                presentation_->drain();
                lock.lock();
                continue;
            }
            reportPresentedLocked();
            if (!presentation_->finished()) {
                condition_.wait_for(lock, std::chrono::milliseconds(kPresentTickMs));
                continue;
            }
        }
        if (atEnd_) {
            atEnd_ = false;
            if (lastReportedMs_ != static_cast<int64_t>(positionMs_)) {
                lastReportedMs_ = positionMs_;
                notifier_.post(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE,
                               static_cast<intptr_t>(positionMs_));
            }
            notifier_.post(IMTK_PB_CTRL_EVENT_EOS, 0);
            state_ = State::kEnded;
            continue;
        }
        if (!havePacket_) {
            lock.unlock();
            int result = readPacket();
            lock.lock();
            if (result >= 0) {
                havePacket_ = true;
            } else if (result == AVERROR_EOF) {
                atEnd_ = true;
            } else if (!(stopAnswers_ < stopRequests_ || quit_)) {
                readError_ = true;
            }
            continue;
        }
        const uint32_t speed = control::speed();
        if (present_ && (speed != 1 || !format_)) {
            // Another speed than real time: back to pacing packets.
            present_ = false;
            mediaBaseMs_ = positionMs_;
            wallBase_ = Clock::now();
            clockSpeed_ = speed;
            std::unique_ptr<Presentation> ending = std::move(presentation_);
            lock.unlock();
            ending.reset();
            lock.lock();
            continue;
        }
        if (present_ && !presentation_) {
            lock.unlock();
            auto presentation = std::make_unique<Presentation>(format_);
            lock.lock();
            if (presentation->hasOutput()) {
                presentation_ = std::move(presentation);
                drained_ = false;
                if (state_ == State::kPaused) presentation_->setPaused(true);
            } else {
                present_ = false;  // nothing to decode: the packets are paced
                lock.unlock();
                presentation.reset();
                lock.lock();
            }
            continue;
        }
        if (presentation_) {
            reportPresentedLocked();
            if (!presentation_->wantsMore()) {
                condition_.wait_for(lock, std::chrono::milliseconds(kPresentTickMs));
                continue;
            }
            lock.unlock();
            presentation_->decode(packet_, startMs_);
            lock.lock();
            if (packetPos_ >= 0) bytePos_ = static_cast<uint64_t>(packetPos_);
            havePacket_ = false;
            continue;
        }
        // Pace the packet against the clock.
        const auto now = Clock::now();
        if (speed != clockSpeed_) {
            mediaBaseMs_ = clockMsLocked(now);
            wallBase_ = now;
            clockSpeed_ = speed;
        }
        if (clockSpeed_ != 0) {
            const double clock = clockMsLocked(now);
            if (clock < packetMs_) {
                const double waitMs = (packetMs_ - clock) / clockSpeed_;
                condition_.wait_for(lock, std::chrono::microseconds(
                                              static_cast<int64_t>(std::ceil(waitMs * 1000.0)) + 1));
                continue;
            }
            if (clock - packetMs_ > kMaxLateMs) {
                mediaBaseMs_ = packetMs_;
                wallBase_ = now;
            }
        }
        presentLocked();
    }
    lock.unlock();
    closeDemux();
}

IMTK_PB_ERROR_CODE_T Engine::openDemux(IMTK_PB_CTRL_MEDIA_INFO_T* info) {
    closeDemux();
    std::shared_ptr<PullIo> io;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        io = io_;
    }
    if (!io || io->seek(0, SEEK_SET) != 0) return IMTK_PB_ERROR_CODE_NOT_OK;

    uint8_t* buffer = static_cast<uint8_t*>(av_malloc(kIoBufferSize));
    if (buffer == nullptr) return IMTK_PB_ERROR_CODE_NOT_OK;
    avio_ = avio_alloc_context(buffer, kIoBufferSize, 0, io.get(), io_read, nullptr, io_seek);
    if (avio_ == nullptr) {
        av_free(buffer);
        return IMTK_PB_ERROR_CODE_NOT_OK;
    }

    // Recognised means a confident probe, not a guess after reading everything.
    const AVInputFormat* input = nullptr;
    int score = av_probe_input_buffer2(avio_, &input, "", nullptr, 0, 0);
    if (score <= AVPROBE_SCORE_RETRY) {
        bool failedRead = score < 0 && score != AVERROR_INVALIDDATA;
        closeDemux();
        return failedRead ? IMTK_PB_ERROR_CODE_NOT_OK : IMTK_PB_ERROR_CODE_UNSUPPORTED;
    }
    format_ = avformat_alloc_context();
    if (format_ == nullptr) {
        closeDemux();
        return IMTK_PB_ERROR_CODE_NOT_OK;
    }
    format_->pb = avio_;
    format_->interrupt_callback.callback = io_interrupt;
    format_->interrupt_callback.opaque = io.get();
    if (avformat_open_input(&format_, "", input, nullptr) < 0 ||  // frees format_ on failure
        avformat_find_stream_info(format_, nullptr) < 0) {
        closeDemux();
        return IMTK_PB_ERROR_CODE_UNSUPPORTED;
    }

    IMTK_PB_CTRL_MEDIA_INFO_T found{};
    for (unsigned i = 0; i < format_->nb_streams; ++i) {
        const AVCodecParameters* codec = format_->streams[i]->codecpar;
        if (codec->codec_type == AVMEDIA_TYPE_VIDEO) {
            if (found.videoStreams++ == 0) {
                found.width = static_cast<uint32_t>(std::max(codec->width, 0));
                found.height = static_cast<uint32_t>(std::max(codec->height, 0));
            }
        } else if (codec->codec_type == AVMEDIA_TYPE_AUDIO) {
            found.audioStreams++;
        } else {
            found.otherStreams++;
        }
    }
    if (found.videoStreams == 0 && found.audioStreams == 0) {
        closeDemux();
        return IMTK_PB_ERROR_CODE_UNSUPPORTED;
    }
    startMs_ = format_->start_time == AV_NOPTS_VALUE ? 0 : format_->start_time / 1000;
    durationMs_ = format_->duration == AV_NOPTS_VALUE ? 0 : clampMs(format_->duration / 1000);
    found.durationMs = durationMs_;
    found.bitRate = static_cast<uint32_t>(std::min<int64_t>(std::max<int64_t>(format_->bit_rate, 0), UINT32_MAX));
    found.size = io->size() > 0 ? static_cast<uint64_t>(io->size()) : 0;
    std::snprintf(found.format, sizeof found.format, "%s", format_->iformat->name);
    *info = found;
    return IMTK_PB_ERROR_CODE_OK;
}

void Engine::closeDemux() {
    {
        // The presentation goes first: it decodes from the demuxer's streams.
        std::unique_ptr<Presentation> ending;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            ending = std::move(presentation_);
        }
    }
    drained_ = false;
    av_packet_unref(packet_);
    havePacket_ = false;
    atEnd_ = false;
    readError_ = false;
    if (format_ != nullptr) avformat_close_input(&format_);  // custom I/O: leaves avio_
    if (avio_ != nullptr) {
        av_freep(&avio_->buffer);
        avio_context_free(&avio_);
    }
}

int Engine::readPacket() {
    if (format_ == nullptr) return AVERROR(EINVAL);
    av_packet_unref(packet_);
    int result = av_read_frame(format_, packet_);
    if (result < 0) return result;
    countPacket(packet_->data, static_cast<size_t>(packet_->size));
    const AVStream* stream = format_->streams[packet_->stream_index];
    int64_t ts = packet_->dts != AV_NOPTS_VALUE ? packet_->dts : packet_->pts;
    // A packet without a timestamp goes out at the time of the one before.
    if (ts != AV_NOPTS_VALUE) {
        packetMs_ = clampMs(av_rescale_q(ts, stream->time_base, AVRational{1, 1000}) - startMs_);
    }
    packetPos_ = packet_->pos;
    return 0;
}

int64_t Engine::seekDemux(uint32_t targetMs) {
    if (format_ == nullptr) return -1;
    // A stream whose size the source cannot tell (a live stream) offers no
    // place to seek to: the seek fails before the demuxer is touched, and
    // playback goes on from where it was.
    if (avio_size(format_->pb) < 0) return -1;
    if (durationMs_ != 0 && targetMs > durationMs_) return -1;
    av_packet_unref(packet_);
    havePacket_ = false;
    atEnd_ = false;
    drained_ = false;
    readError_ = false;
    // The key frame at or before the target.
    const int64_t ts = (startMs_ + static_cast<int64_t>(targetMs)) * 1000;
    if (avformat_seek_file(format_, -1, INT64_MIN, ts, ts, 0) < 0 &&
        av_seek_frame(format_, -1, ts, AVSEEK_FLAG_BACKWARD) < 0) {
        return -1;
    }
    int result = readPacket();
    if (result >= 0) {
        havePacket_ = true;
        return packetMs_;
    }
    if (result == AVERROR_EOF) {
        atEnd_ = true;
        return targetMs;
    }
    return -1;
}

}  // namespace detail
}  // namespace mtkpb
