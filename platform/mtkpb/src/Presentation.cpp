// Presentation.cpp - decoders, sample conversion and the presentation clock.
#include "Presentation.h"

#include <algorithm>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

#include "AudioOut.h"
#include "Control.h"
#include "Screen.h"
#include "Sdl.h"
#include "VideoOut.h"

namespace mtkpb {
namespace detail {
namespace {

AVCodecContext* openDecoder(const AVStream* stream, int threads) {
    const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
    if (codec == nullptr) {
        announceOnce(std::string("no-decoder-") + avcodec_get_name(stream->codecpar->codec_id),
                     std::string("no decoder for ") + av_get_media_type_string(stream->codecpar->codec_type) +
                         " in " + avcodec_get_name(stream->codecpar->codec_id) + ": it is left out");
        return nullptr;
    }
    AVCodecContext* context = avcodec_alloc_context3(codec);
    if (context == nullptr) return nullptr;
    context->thread_count = threads;
    context->pkt_timebase = stream->time_base;
    if (avcodec_parameters_to_context(context, stream->codecpar) < 0 ||
        avcodec_open2(context, codec, nullptr) < 0) {
        avcodec_free_context(&context);
        return nullptr;
    }
    return context;
}

double toMs(int64_t ts, AVRational timeBase) {
    return ts == AV_NOPTS_VALUE ? -1.0 : static_cast<double>(ts) * 1000.0 * timeBase.num / timeBase.den;
}

// libavcodec's frame threads hand pictures over with atomics in code built
// without ThreadSanitizer, which then takes every picture buffer for a race:
// a ThreadSanitizer build decodes pictures on the calling thread.
#if defined(__SANITIZE_THREAD__)
constexpr int kPictureThreads = 1;
#else
constexpr int kPictureThreads = Presentation::kVideoThreads;
#endif

}  // namespace

Presentation::Presentation(AVFormatContext* format) : format_(format) {
    frame_ = av_frame_alloc();
    const bool pictures = Screen::mode() != Screen::Mode::kOff;
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        const AVStream* stream = format->streams[i];
        const AVMediaType type = stream->codecpar->codec_type;
        if (type == AVMEDIA_TYPE_VIDEO && videoStream_ < 0 && pictures &&
            !(stream->disposition & AV_DISPOSITION_ATTACHED_PIC)) {
            videoStream_ = static_cast<int>(i);
            videoCodec_ = openDecoder(stream, kPictureThreads);
        } else if (type == AVMEDIA_TYPE_AUDIO && audioStream_ < 0) {
            audioStream_ = static_cast<int>(i);
            audioCodec_ = openDecoder(stream, 1);
        }
    }
    if (audioCodec_ != nullptr && audioCodec_->sample_rate > 0) {
        audio_ = std::make_unique<AudioOut>(audioCodec_->sample_rate,
                                            std::min(2, std::max(1, audioCodec_->ch_layout.nb_channels)));
    }
    if (videoCodec_ != nullptr) {
        video_ = std::make_unique<VideoOut>([this] { return clockMs(); });
        Screen::instance().attach(video_.get());
    }
}

Presentation::~Presentation() {
    if (video_) Screen::instance().detach(video_.get());
    video_.reset();
    audio_.reset();
    avcodec_free_context(&videoCodec_);
    avcodec_free_context(&audioCodec_);
    swr_free(&resampler_);
    av_frame_free(&frame_);
}

void Presentation::decode(const AVPacket* packet, int64_t startMs) {
    startMs_ = startMs;
    if (video_ && packet->stream_index == videoStream_) {
        // A packet the decoder refuses (corrupt) is skipped; the next key
        // frame puts the pictures right again.
        if (avcodec_send_packet(videoCodec_, packet) < 0) countCorrupt();
        receiveVideo();
    } else if (audio_ && packet->stream_index == audioStream_) {
        if (avcodec_send_packet(audioCodec_, packet) < 0) countCorrupt();
        receiveAudio();
    }
}

void Presentation::drain() {
    if (drained_) return;
    if (video_) {
        avcodec_send_packet(videoCodec_, nullptr);
        receiveVideo();
    }
    if (audio_) {
        avcodec_send_packet(audioCodec_, nullptr);
        receiveAudio();
        audio_->start();
    }
    drained_ = true;
}

void Presentation::flush(int64_t targetMs) {
    if (videoCodec_ != nullptr) avcodec_flush_buffers(videoCodec_);
    if (audioCodec_ != nullptr) avcodec_flush_buffers(audioCodec_);
    swr_free(&resampler_);
    if (video_) video_->flush();
    if (audio_) audio_->flush();
    notBeforeMs_ = targetMs;
    drained_ = false;
    std::lock_guard<std::mutex> lock(clockMutex_);
    wallMediaMs_ = -1;
    soundOver_ = false;
}

void Presentation::receiveVideo() {
    const AVStream* stream = format_->streams[videoStream_];
    const AVRational rate = av_guess_frame_rate(format_, const_cast<AVStream*>(stream), nullptr);
    const int64_t durationMs = rate.num > 0 && rate.den > 0 ? av_rescale(1000, rate.den, rate.num) : 40;
    while (avcodec_receive_frame(videoCodec_, frame_) == 0) {
        const int64_t pts = frame_->best_effort_timestamp;
        const double ms = toMs(pts, stream->time_base) - static_cast<double>(startMs_);
        recordDecodedFrame(pts, stream->time_base.num, stream->time_base.den, static_cast<int64_t>(ms), frame_);
        if (ms < static_cast<double>(notBeforeMs_)) {
            av_frame_unref(frame_);
            continue;
        }
        AVFrame* picture = av_frame_alloc();
        av_frame_move_ref(picture, frame_);
        video_->push(picture, static_cast<int64_t>(ms), durationMs);
        if (!audio_) {
            std::lock_guard<std::mutex> lock(clockMutex_);
            if (wallMediaMs_ < 0) {
                // Without sound the clock starts with the first picture.
                wallMediaMs_ = ms;
                wallAt_ = Clock::now();
            }
        }
    }
}

void Presentation::receiveAudio() {
    while (avcodec_receive_frame(audioCodec_, frame_) == 0) {
        queueAudio(frame_);
        av_frame_unref(frame_);
    }
    // The sound starts once enough is queued, and the first picture too, so
    // that the first picture is not late from the start.
    const bool picturesReady = !video_ || video_->queued() > 0 || video_->shownUntilMs() >= 0;
    if (!audioStarted_ && ((audio_->queuedMs() >= AudioOut::kQueueAheadMs && picturesReady) ||
                           (video_ && video_->queued() >= kPicturesAhead))) {
        audioStarted_ = true;
        audio_->start();
    }
}

void Presentation::queueAudio(AVFrame* frame) {
    const AVStream* stream = format_->streams[audioStream_];
    double ms = toMs(frame->best_effort_timestamp, stream->time_base);
    if (ms >= 0) ms -= static_cast<double>(startMs_);
    if (ms < 0 && frame->best_effort_timestamp == AV_NOPTS_VALUE) ms = audio_->queuedUntilMs();
    // Samples before the seek's target are not heard.
    int skip = 0;
    if (ms >= 0 && ms < static_cast<double>(notBeforeMs_)) {
        skip = static_cast<int>((static_cast<double>(notBeforeMs_) - ms) * frame->sample_rate / 1000.0 + 0.5);
        if (skip >= frame->nb_samples) return;
        ms = static_cast<double>(notBeforeMs_);
    }
    if (resampler_ == nullptr) {
        AVChannelLayout out;
        av_channel_layout_default(&out, audio_->channels());
        if (swr_alloc_set_opts2(&resampler_, &out, AV_SAMPLE_FMT_S16, audio_->rate(), &frame->ch_layout,
                                static_cast<AVSampleFormat>(frame->format), frame->sample_rate, 0,
                                nullptr) < 0 ||
            swr_init(resampler_) < 0) {
            swr_free(&resampler_);
            countCorrupt();
            return;
        }
    }
    const int inSamples = frame->nb_samples - skip;
    const int most = swr_get_out_samples(resampler_, inSamples);
    if (most <= 0) return;
    samples_.resize(size_t(most) * audio_->channels());
    uint8_t* out = reinterpret_cast<uint8_t*>(samples_.data());
    const int bytesPerSample = av_get_bytes_per_sample(static_cast<AVSampleFormat>(frame->format));
    const uint8_t* in[AV_NUM_DATA_POINTERS] = {};
    const bool planar = av_sample_fmt_is_planar(static_cast<AVSampleFormat>(frame->format));
    for (int p = 0; p < (planar ? frame->ch_layout.nb_channels : 1) && p < AV_NUM_DATA_POINTERS; ++p) {
        in[p] = frame->extended_data[p] + size_t(skip) * bytesPerSample * (planar ? 1 : frame->ch_layout.nb_channels);
    }
    const int made = swr_convert(resampler_, &out, most, in, inSamples);
    if (made > 0) audio_->push(samples_.data(), made, ms);
}

bool Presentation::wantsMore() {
    const int64_t sound = audio_ ? audio_->queuedMs() : 0;
    const size_t pictures = video_ ? video_->queued() : 0;
    if (sound >= kMostSoundAheadMs || pictures >= kMostPicturesAhead) {
        if (audio_ && !audioStarted_) {
            // Full without a picture to wait for: the sound goes first.
            audioStarted_ = true;
            audio_->start();
        }
        if (audio_ && sound == 0) {
            // Pictures piled up with no sound to go by: the sound is over.
            std::lock_guard<std::mutex> lock(clockMutex_);
            if (!soundOver_) {
                soundOver_ = true;
                wallMediaMs_ = std::max(0.0, audio_->clockMs());
                wallAt_ = Clock::now();
            }
        }
        return false;
    }
    const bool soundAhead = !audio_ || sound >= AudioOut::kQueueAheadMs;
    const bool picturesAhead = !video_ || pictures >= kPicturesAhead;
    return !(soundAhead && picturesAhead);
}

bool Presentation::finished() {
    if (!drained_) return false;
    if (audio_) {
        if (!audio_->drained()) return false;
        // Sound heard to its end: pictures still to come, and the last
        // one's duration, go by a clock that carries on from it.
        std::lock_guard<std::mutex> lock(clockMutex_);
        if (!soundOver_) {
            soundOver_ = true;
            wallMediaMs_ = std::max(0.0, audio_->clockMs());
            wallAt_ = Clock::now();
        }
    }
    if (!video_) return true;
    return video_->queued() == 0 && clockMs() >= static_cast<double>(video_->shownUntilMs());
}

bool Presentation::closedByViewer() const { return video_ && video_->closedByViewer(); }

void Presentation::setPaused(bool paused) {
    if (audio_) audio_->setPaused(paused);
    std::lock_guard<std::mutex> lock(clockMutex_);
    if (paused == paused_) return;
    if (wallMediaMs_ >= 0) {
        const Clock::time_point now = Clock::now();
        if (paused) wallMediaMs_ += std::chrono::duration<double, std::milli>(now - wallAt_).count();
        wallAt_ = now;
    }
    paused_ = paused;
}

double Presentation::clockMs() {
    {
        std::lock_guard<std::mutex> lock(clockMutex_);
        if (!audio_ || soundOver_) {
            if (wallMediaMs_ < 0) return -1;
            if (paused_) return wallMediaMs_;
            return wallMediaMs_ + std::chrono::duration<double, std::milli>(Clock::now() - wallAt_).count();
        }
    }
    return audio_->clockMs();
}

int64_t Presentation::positionMs() {
    const double clock = clockMs();
    return clock < 0 ? -1 : static_cast<int64_t>(clock);
}

}  // namespace detail
}  // namespace mtkpb
