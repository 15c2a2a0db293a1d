// Presentation.h - decoding and presenting one engine instance's medium in
// real time: the pictures go to the Screen through a VideoOut, the sound to
// an AudioOut, whose clock the pictures follow (without sound, a clock of
// its own that starts with the first picture).
//
// Threads: the instance's worker owns this object and makes every call but
// setPaused() and positionMs(), which callers make under the engine's lock.
// libavcodec decodes pictures on at most kVideoThreads threads of its own.
#ifndef MTKPB_SRC_PRESENTATION_H
#define MTKPB_SRC_PRESENTATION_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVPacket;
struct SwrContext;

namespace mtkpb {
namespace detail {

class AudioOut;
class VideoOut;

class Presentation {
public:
    // Decoding threads for pictures (each frame thread adds a frame of delay).
    static constexpr int kVideoThreads = 2;
    // Decoded pictures kept ahead of the screen while sound is queued well.
    static constexpr size_t kPicturesAhead = 8;
    // ... and at most, when the sound lags behind in the file.
    static constexpr size_t kMostPicturesAhead = 64;
    // Sound queued at most, when pictures lag behind in the file, in ms.
    static constexpr int64_t kMostSoundAheadMs = 5000;

    // Opens decoders for the first video and audio streams of `format` that
    // libavcodec can decode; hasOutput() is false when there is none.
    explicit Presentation(AVFormatContext* format);
    ~Presentation();
    Presentation(const Presentation&) = delete;
    Presentation& operator=(const Presentation&) = delete;

    bool hasOutput() const { return video_ != nullptr || audio_ != nullptr; }

    // Worker: decodes one demuxed packet (other streams are ignored).
    void decode(const AVPacket* packet, int64_t startMs);
    // Worker: the end of the medium: decodes what the decoders still hold.
    void drain();
    // Worker: after a seek: drops what is queued and decoded; nothing before
    // targetMs is presented.
    void flush(int64_t targetMs);
    // Worker: false when enough is queued ahead of the outputs.
    bool wantsMore();
    // Worker: after drain(), true once the last sample was heard and the
    // last picture shown.
    bool finished();
    bool closedByViewer() const;

    // Under the engine's lock.
    void setPaused(bool paused);
    // The media time presented, ms; -1 before anything was.
    int64_t positionMs();

private:
    void receiveVideo();
    void receiveAudio();
    void queueAudio(AVFrame* frame);
    double clockMs();  // any thread

    using Clock = std::chrono::steady_clock;
    AVFormatContext* format_;
    int videoStream_ = -1;
    int audioStream_ = -1;
    AVCodecContext* videoCodec_ = nullptr;
    AVCodecContext* audioCodec_ = nullptr;
    SwrContext* resampler_ = nullptr;
    AVFrame* frame_ = nullptr;
    std::vector<int16_t> samples_;
    int64_t startMs_ = 0;     // media start time, subtracted from every timestamp
    int64_t notBeforeMs_ = 0; // nothing earlier is presented (a seek's target)
    bool drained_ = false;
    bool audioStarted_ = false;
    std::unique_ptr<AudioOut> audio_;
    std::unique_ptr<VideoOut> video_;
    bool attached_ = false;

    // The clock without sound: media time wallMediaMs_ at wallAt_, running
    // unless paused; not started (wallMediaMs_ < 0) before the first picture.
    std::mutex clockMutex_;  // guards the four below
    double wallMediaMs_ = -1;
    Clock::time_point wallAt_;
    bool paused_ = false;
    // The sound has ended (or starved while pictures piled up): the pictures
    // go on against the clock above, started where the sound's clock stood.
    bool soundOver_ = false;
};

}  // namespace detail
}  // namespace mtkpb

#endif  // MTKPB_SRC_PRESENTATION_H
