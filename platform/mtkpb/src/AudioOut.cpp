// AudioOut.cpp - the sample queue, the SDL device or null sink, the clock.
#include "AudioOut.h"

#include <SDL2/SDL.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Sdl.h"

namespace mtkpb {
namespace detail {
namespace {

bool haveEnv(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0';
}

bool exists(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0;
}

// Whether to try a sound device: asked for, or one looks present (a sound
// server's socket or an ALSA card); trying one on a machine without makes
// the sound libraries print errors of their own.
bool wantDevice() {
    const char* asked = std::getenv("MTKPB_AUDIO");
    const std::string value = asked != nullptr ? asked : "";
    if (value == "null") return false;
    if (value == "device" || haveEnv("SDL_AUDIODRIVER")) return true;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (haveEnv("PULSE_SERVER") || (runtime != nullptr && exists(std::string(runtime) + "/pulse/native")) ||
        exists("/dev/snd/controlC0")) {
        return true;
    }
    announceOnce("null-audio", "no sound device (no sound server, no /dev/snd card): sound goes to a null sink "
                               "(MTKPB_AUDIO=device|null chooses)");
    return false;
}

// A device buffer of about 20 ms, a power of two in sample frames.
uint16_t bufferFrames(int rate) {
    uint16_t frames = 256;
    while (frames < 4096 && frames * 50 < rate) frames *= 2;
    return frames;
}

}  // namespace

AudioOut::AudioOut(int rate, int channels) : rate_(rate), channels_(channels) {
    if (wantDevice()) {
        wantedDevice_ = true;
        std::string error;
        sdlStarted_ = sdlStart(SDL_INIT_AUDIO, "", &error);
        if (sdlStarted_) {
            SDL_AudioSpec want{}, have{};
            want.freq = rate;
            want.format = AUDIO_S16SYS;
            want.channels = static_cast<Uint8>(channels);
            want.samples = bufferFrames(rate);
            want.callback = callback;
            want.userdata = this;
            // No changes allowed: SDL converts for the device if it must, so
            // what the engine gives is exactly what the device is given.
            device_ = SDL_OpenAudioDevice(nullptr, 0, &want, &have, 0);
            if (device_ != 0) {
                latencyMs_ = 1000.0 * have.samples / rate;
            } else {
                error = SDL_GetError();
            }
        }
        if (device_ == 0) {
            announceOnce("audio-failed", "cannot open a sound device (" + error + "): sound goes to a null sink");
            if (sdlStarted_) sdlEnd(SDL_INIT_AUDIO);
            sdlStarted_ = false;
        }
    }
    if (device_ == 0) null_ = std::thread([this] { runNull(); });
}

AudioOut::~AudioOut() {
    if (device_ != 0) {
        SDL_CloseAudioDevice(device_);  // waits for a callback under way
        sdlEnd(SDL_INIT_AUDIO);
    }
    // SDL keeps per-thread state (its error text) for the thread that opened
    // and closed the device, an engine worker SDL did not make and does not
    // clean up after.
    if (wantedDevice_) SDL_TLSCleanup();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        quit_ = true;
    }
    condition_.notify_all();
    if (null_.joinable()) null_.join();
}

void AudioOut::push(const int16_t* samples, int frames, double ptsMs) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (head_ == queue_.size()) {
        queue_.clear();
        head_ = 0;
    } else if (head_ > queue_.size() / 2) {
        queue_.erase(queue_.begin(), queue_.begin() + static_cast<std::ptrdiff_t>(head_));
        head_ = 0;
    }
    if (nextPtsMs_ < 0) nextPtsMs_ = tailPtsMs_ = ptsMs;
    queue_.insert(queue_.end(), samples, samples + size_t(frames) * channels_);
    tailPtsMs_ += 1000.0 * frames / rate_;
}

int64_t AudioOut::queuedMs() {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int64_t>(1000.0 * ((queue_.size() - head_) / channels_) / rate_);
}

double AudioOut::queuedUntilMs() {
    std::lock_guard<std::mutex> lock(mutex_);
    return tailPtsMs_;
}

void AudioOut::flush() {
    std::lock_guard<std::mutex> lock(mutex_);
    queue_.clear();
    head_ = 0;
    nextPtsMs_ = tailPtsMs_ = -1;
    // Until the first new sample is heard the clock shows nothing.
    takenFromMs_ = takenUntilMs_ = -1;
    pausedClockMs_ = -1;
}

void AudioOut::start() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (started_) return;
        started_ = true;
    }
    condition_.notify_all();
    if (device_ != 0) SDL_PauseAudioDevice(device_, 0);
}

void AudioOut::setPaused(bool paused) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (paused == paused_) return;
    if (paused) {
        // The clock, computed while still running.
        paused_ = false;
        const Clock::time_point now = Clock::now();
        double clock = -1;
        if (takenFromMs_ >= 0) {
            clock = std::min(takenUntilMs_,
                             takenFromMs_ - latencyMs_ +
                                 std::chrono::duration<double, std::milli>(now - takenAt_).count());
        }
        pausedClockMs_ = clock;
        paused_ = true;
    } else {
        paused_ = false;
        // Held where it stopped until the next samples are taken.
        if (pausedClockMs_ >= 0) {
            takenFromMs_ = takenUntilMs_ = pausedClockMs_;
            takenAt_ = Clock::now() - std::chrono::microseconds(static_cast<int64_t>(latencyMs_ * 1000));
        }
    }
}

double AudioOut::clockMs() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (paused_) return pausedClockMs_;
    if (takenFromMs_ < 0) return -1;
    const double elapsed = std::chrono::duration<double, std::milli>(Clock::now() - takenAt_).count();
    return std::max(-1.0, std::min(takenUntilMs_, takenFromMs_ - latencyMs_ + elapsed));
}

bool AudioOut::drained() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (head_ < queue_.size()) return false;
    if (takenUntilMs_ < 0) return true;
    const double elapsed = std::chrono::duration<double, std::milli>(Clock::now() - takenAt_).count();
    return takenFromMs_ - latencyMs_ + elapsed >= takenUntilMs_;
}

void AudioOut::take(int16_t* out, int frames) {
    std::lock_guard<std::mutex> lock(mutex_);
    int real = 0;
    if (started_ && !paused_) {
        real = std::min<int>(frames, static_cast<int>((queue_.size() - head_) / channels_));
        const size_t count = size_t(real) * channels_;
        if (out != nullptr && real > 0) std::memcpy(out, queue_.data() + head_, count * sizeof(int16_t));
        head_ += count;
    }
    if (out != nullptr) std::memset(out + size_t(real) * channels_, 0, size_t(frames - real) * channels_ * sizeof(int16_t));
    if (real > 0) {
        takenFromMs_ = nextPtsMs_;
        nextPtsMs_ += 1000.0 * real / rate_;
        takenUntilMs_ = nextPtsMs_;
        takenAt_ = Clock::now();
    }
}

void AudioOut::callback(void* self, uint8_t* stream, int bytes) {
    AudioOut* audio = static_cast<AudioOut*>(self);
    audio->take(reinterpret_cast<int16_t*>(stream), bytes / static_cast<int>(sizeof(int16_t)) / audio->channels_);
}

void AudioOut::runNull() {
    Clock::time_point last = Clock::now();
    double owed = 0;  // sample frames due but not yet taken
    std::unique_lock<std::mutex> lock(mutex_);
    while (!quit_) {
        condition_.wait_for(lock, std::chrono::milliseconds(kNullTickMs));
        const Clock::time_point now = Clock::now();
        owed += std::chrono::duration<double>(now - last).count() * rate_;
        last = now;
        if (!started_ || paused_ || head_ == queue_.size()) {
            owed = 0;  // nothing heard: the device's pace starts again with the next sample
            continue;
        }
        const int frames = static_cast<int>(owed);
        owed -= frames;
        lock.unlock();
        take(nullptr, frames);
        lock.lock();
    }
}

}  // namespace detail
}  // namespace mtkpb
