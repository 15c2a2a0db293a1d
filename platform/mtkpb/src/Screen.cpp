// Screen.cpp - the presenter thread and its window.
#include "Screen.h"

#include <SDL2/SDL.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
}

#include "Control.h"
#include "Sdl.h"
#include "VideoOut.h"

namespace mtkpb {
namespace detail {
namespace {

bool haveEnv(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0';
}

// The rectangle, in screen pixels, that a picture of `frame` takes inside the
// output rectangle: as large as fits with its aspect ratio kept, centred.
SDL_Rect placePicture(const EngineRect& output, const AVFrame* frame) {
    const int64_t rx = int64_t(output.x) * Screen::kWidth / 1000;
    const int64_t ry = int64_t(output.y) * Screen::kHeight / 1000;
    const int64_t rw = std::min<int64_t>(int64_t(output.width) * Screen::kWidth / 1000, Screen::kWidth - rx);
    const int64_t rh = std::min<int64_t>(int64_t(output.height) * Screen::kHeight / 1000, Screen::kHeight - ry);
    int64_t sarNum = frame->sample_aspect_ratio.num, sarDen = frame->sample_aspect_ratio.den;
    if (sarNum <= 0 || sarDen <= 0) sarNum = sarDen = 1;
    // Picture aspect = (width * sarNum) / (height * sarDen).
    const int64_t pw = int64_t(frame->width) * sarNum, ph = int64_t(frame->height) * sarDen;
    int64_t w = rw, h = rh;
    if (rw * ph > rh * pw) {
        w = (rh * pw + ph / 2) / ph;  // pillar boxes left and right
    } else {
        h = (rw * ph + pw / 2) / pw;  // letter boxes above and below
    }
    return SDL_Rect{int(rx + (rw - w) / 2), int(ry + (rh - h) / 2), int(w), int(h)};
}

int32_t keyOf(const SDL_KeyboardEvent& key) {
    switch (key.keysym.sym) {
        case SDLK_SPACE: return MTKPB_KEY_PAUSE;
        case SDLK_LEFT: return MTKPB_KEY_LEFT;
        case SDLK_RIGHT: return MTKPB_KEY_RIGHT;
        case SDLK_UP: return MTKPB_KEY_UP;
        case SDLK_DOWN: return MTKPB_KEY_DOWN;
        case SDLK_q:
        case SDLK_ESCAPE: return MTKPB_KEY_QUIT;
        case SDLK_QUESTION: return MTKPB_KEY_HELP;
        case SDLK_SLASH: return (key.keysym.mod & KMOD_SHIFT) ? MTKPB_KEY_HELP : 0;
        default: return 0;
    }
}

}  // namespace

// What the presenter holds of SDL; all of it used on the presenter thread only.
struct Screen::Device {
    SDL_Window* window = nullptr;
    SDL_Renderer* renderer = nullptr;
    SDL_Texture* texture = nullptr;
    int textureWidth = 0, textureHeight = 0, textureFormat = -1;
    bool started = false;
    bool failed = false;
    Screen::Mode effective = Screen::Mode::kOffscreen;  // a window asked for may be off screen

    // SDL video stays started from the first screen to the end of the
    // process: restarting it on this thread would load and unload the
    // graphics libraries each time (they keep what they allocated).
    bool start(Screen::Mode mode) {
        if (started) return true;
        if (failed) return false;
        std::string error;
        effective = mode;
        // A window: X11 unless Wayland (or SDL_VIDEODRIVER) says otherwise;
        // SDL would otherwise try them all and end up off screen unasked.
        std::string driver = "offscreen";
        if (mode == Screen::Mode::kWindow) {
            driver = haveEnv("SDL_VIDEODRIVER") || haveEnv("WAYLAND_DISPLAY") ? "" : "x11";
        }
        started = sdlStart(SDL_INIT_VIDEO, driver, &error);
        const char* current = started ? SDL_GetCurrentVideoDriver() : nullptr;
        if (mode == Screen::Mode::kWindow && current != nullptr &&
            (std::strcmp(current, "offscreen") == 0 || std::strcmp(current, "dummy") == 0)) {
            announceOnce("no-window", std::string("no display could be opened (SDL chose its ") + current +
                                          " driver): pictures are presented off screen");
            effective = Screen::Mode::kOffscreen;
        }
        if (!started && mode == Screen::Mode::kWindow) {
            // A display that cannot be opened (an unreachable X server, say).
            announceOnce("no-window", "cannot open a window (" + error + "): pictures are presented off screen");
            effective = Screen::Mode::kOffscreen;
            started = sdlStart(SDL_INIT_VIDEO, "offscreen", &error);
        }
        if (!started) {
            failed = true;
            announceOnce("video-failed", "cannot start SDL video (" + error + "): pictures are decoded, not shown");
        }
        return started;
    }

    bool openWindow(Screen::Mode asked) {
        if (renderer != nullptr) return true;
        if (!start(asked)) return false;
        const Screen::Mode mode = effective;
        const Uint32 flags = mode == Screen::Mode::kWindow ? SDL_WINDOW_SHOWN | SDL_WINDOW_RESIZABLE : SDL_WINDOW_HIDDEN;
        window = SDL_CreateWindow("velka", SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED, Screen::kWidth,
                                  Screen::kHeight, flags);
        if (window != nullptr && mode == Screen::Mode::kWindow) {
            renderer = SDL_CreateRenderer(window, -1, SDL_RENDERER_ACCELERATED);
        }
        if (window != nullptr && renderer == nullptr) {
            renderer = SDL_CreateRenderer(window, -1, SDL_RENDERER_SOFTWARE);
        }
        if (renderer == nullptr) {
            announceOnce("window-failed", std::string("cannot open the screen (") + SDL_GetError() +
                                              "): pictures are decoded, not shown");
            closeWindow();
            return false;
        }
        // A resized window scales the whole 1280x720 screen.
        SDL_RenderSetLogicalSize(renderer, Screen::kWidth, Screen::kHeight);
        return true;
    }

    void closeWindow() {
        if (texture != nullptr) SDL_DestroyTexture(texture);
        if (renderer != nullptr) SDL_DestroyRenderer(renderer);
        if (window != nullptr) SDL_DestroyWindow(window);
        texture = nullptr;
        renderer = nullptr;
        window = nullptr;
        textureFormat = -1;
    }

    // Uploads the picture; false when its pixel format cannot be shown.
    bool upload(const AVFrame* frame) {
        const AVPixelFormat format = static_cast<AVPixelFormat>(frame->format);
        const bool planar = format == AV_PIX_FMT_YUV420P || format == AV_PIX_FMT_YUVJ420P;
        if (!planar && format != AV_PIX_FMT_NV12) {
            announceOnce(std::string("format-") + av_get_pix_fmt_name(format),
                         std::string("pictures in ") + av_get_pix_fmt_name(format) + " are not shown");
            return false;
        }
        const int sdlFormat = planar ? SDL_PIXELFORMAT_IYUV : SDL_PIXELFORMAT_NV12;
        if (texture == nullptr || textureWidth != frame->width || textureHeight != frame->height ||
            textureFormat != sdlFormat) {
            if (texture != nullptr) SDL_DestroyTexture(texture);
            texture = SDL_CreateTexture(renderer, sdlFormat, SDL_TEXTUREACCESS_STREAMING, frame->width,
                                        frame->height);
            textureWidth = frame->width;
            textureHeight = frame->height;
            textureFormat = sdlFormat;
            if (texture == nullptr) return false;
        }
        // The colour matrix the picture was made with: BT.709 when it says
        // so, BT.601 otherwise; full range for JPEG-range pictures.
        SDL_SetYUVConversionMode(format == AV_PIX_FMT_YUVJ420P || frame->color_range == AVCOL_RANGE_JPEG
                                     ? SDL_YUV_CONVERSION_JPEG
                                 : frame->colorspace == AVCOL_SPC_BT709 ? SDL_YUV_CONVERSION_BT709
                                                                        : SDL_YUV_CONVERSION_BT601);
        if (planar) {
            return SDL_UpdateYUVTexture(texture, nullptr, frame->data[0], frame->linesize[0], frame->data[1],
                                        frame->linesize[1], frame->data[2], frame->linesize[2]) == 0;
        }
        return SDL_UpdateNVTexture(texture, nullptr, frame->data[0], frame->linesize[0], frame->data[1],
                                   frame->linesize[1]) == 0;
    }
};

namespace {

void writeScreenshot(SDL_Renderer* renderer, const char* path) {
    std::vector<uint8_t> rgb(size_t(Screen::kWidth) * Screen::kHeight * 3);
    FILE* file = std::fopen(path, "wb");
    if (file == nullptr) return;
    if (SDL_RenderReadPixels(renderer, nullptr, SDL_PIXELFORMAT_RGB24, rgb.data(), Screen::kWidth * 3) == 0) {
        std::fprintf(file, "P6\n%d %d\n255\n", Screen::kWidth, Screen::kHeight);
        std::fwrite(rgb.data(), 1, rgb.size(), file);
    }
    std::fclose(file);
}

}  // namespace

Screen::Mode Screen::mode() {
    const char* asked = std::getenv("MTKPB_VIDEO");
    const std::string value = asked != nullptr ? asked : "";
    if (value == "window") return Mode::kWindow;
    if (value == "offscreen") return Mode::kOffscreen;
    if (value == "off") return Mode::kOff;
    if (haveEnv("SDL_VIDEODRIVER") || haveEnv("DISPLAY") || haveEnv("WAYLAND_DISPLAY")) return Mode::kWindow;
    return Mode::kOffscreen;
}

Screen& Screen::instance() {
    static Screen* screen = new Screen;  // never destroyed: instances may outlive main
    return *screen;
}

void Screen::attach(VideoOut* out) {
    std::lock_guard<std::mutex> lock(mutex_);
    outs_.push_back(out);
    condition_.notify_all();
    if (started_) return;
    started_ = true;
    const Mode how = mode();
    if (how == Mode::kOffscreen && !haveEnv("MTKPB_VIDEO")) {
        announceOnce("offscreen", "no display (DISPLAY, WAYLAND_DISPLAY and SDL_VIDEODRIVER unset): "
                                  "pictures are presented off screen (MTKPB_VIDEO=window|offscreen|off chooses)");
    }
    // Lives until the process ends, idle while no instance presents.
    std::thread([this, how] { run(how); }).detach();
}

void Screen::detach(VideoOut* out) {
    std::unique_lock<std::mutex> lock(mutex_);
    outs_.erase(std::remove(outs_.begin(), outs_.end(), out), outs_.end());
    if (!outs_.empty()) return;
    // The last one: the screen is blank and the window down when this returns.
    const uint64_t ticket = ++endRequests_;
    condition_.notify_all();
    condition_.wait_for(lock, std::chrono::milliseconds(kEndWaitMs), [&] { return endsDone_ >= ticket; });
}

void Screen::setOutput(const EngineRect& output) {
    std::lock_guard<std::mutex> lock(mutex_);
    output_ = output;
    outputVersion_++;
    condition_.notify_all();
}

void Screen::setKeyHandler(MtkPb_Screen_KeyFct handler, void* tag) {
    std::lock_guard<std::mutex> lock(keyMutex_);
    keyHandler_ = handler;
    keyTag_ = tag;
}

void Screen::run(Mode how) {
    Device device;
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            condition_.wait(lock, [&] { return !outs_.empty() || endRequests_ > endsDone_; });
            if (outs_.empty()) {
                endsDone_ = endRequests_;
                condition_.notify_all();
                continue;
            }
        }
        present(how, device);
    }
}

// One session: from the first instance attached to the last one gone.
void Screen::present(Mode how, Device& device) {
    const bool shown = device.openWindow(how);
    const char* screenshot = std::getenv("MTKPB_SCREENSHOT");
    const bool composeAlways =
        device.effective == Mode::kWindow || (screenshot != nullptr && *screenshot != '\0');
    bool uploaded = false;  // onScreen is in the texture
    AVFrame* onScreen = nullptr;  // the picture shown, kept for redraws
    int64_t onScreenPts = -1;
    bool pictureOk = false;
    uint64_t drawnOutput = UINT64_MAX;
    bool viewerClosed = false;
    std::vector<uint8_t> pixels;
    for (;;) {
        // Window events: keys for the host, the viewer closing the window.
        std::vector<int32_t> keys;
        SDL_Event event;
        while (shown && SDL_PollEvent(&event) == 1) {
            if (event.type == SDL_KEYDOWN && event.key.repeat == 0) {
                if (int32_t key = keyOf(event.key)) keys.push_back(key);
            } else if (event.type == SDL_QUIT ||
                       (event.type == SDL_WINDOWEVENT && event.window.event == SDL_WINDOWEVENT_CLOSE)) {
                keys.push_back(MTKPB_KEY_CLOSE);
                viewerClosed = true;
                SDL_HideWindow(device.window);
            }
        }
        AVFrame* next = nullptr;
        int64_t nextPts = -1;
        double clock = -1;
        EngineRect output;
        uint64_t outputVersion;
        bool quit;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            for (VideoOut* out : outs_) {
                if (viewerClosed) out->closeByViewer();
                int64_t pts = -1;
                AVFrame* frame = out->due(&pts);
                if (frame == nullptr) continue;
                if (out == outs_.back()) {
                    av_frame_free(&next);
                    next = frame;
                    nextPts = pts;
                    clock = out->clockMs();
                } else {
                    av_frame_free(&frame);
                }
            }
            viewerClosed = false;
            quit = outs_.empty();
            output = output_;
            outputVersion = outputVersion_;
        }
        if (!keys.empty()) {
            // Under keyMutex_, so that a handler replaced has returned for good.
            std::lock_guard<std::mutex> lock(keyMutex_);
            for (int32_t key : keys) {
                if (keyHandler_ != nullptr) keyHandler_(key, keyTag_);
            }
        }
        if (quit) {
            // MTKPB_SCREENSHOT names a file that gets the last screen (PPM).
            if (shown && screenshot != nullptr && *screenshot != '\0') {
                SDL_SetRenderDrawColor(device.renderer, 0, 0, 0, 255);
                SDL_RenderClear(device.renderer);
                if (onScreen != nullptr && pictureOk) {
                    const SDL_Rect place = placePicture(output, onScreen);
                    SDL_RenderCopy(device.renderer, device.texture, nullptr, &place);
                }
                writeScreenshot(device.renderer, screenshot);
            }
            break;
        }
        if (next != nullptr) {
            av_frame_free(&onScreen);
            onScreen = next;
            onScreenPts = nextPts;
            uploaded = false;
        }
        if (next != nullptr || outputVersion != drawnOutput) {
            drawnOutput = outputVersion;
            // Off screen nobody sees the screen: it is composed only when it
            // is read (the control interface's capture, a screenshot).
            if (shown && (composeAlways || capturing())) {
                if (onScreen != nullptr && !uploaded) {
                    pictureOk = device.upload(onScreen);
                    uploaded = true;
                }
                SDL_SetRenderDrawColor(device.renderer, 0, 0, 0, 255);
                SDL_RenderClear(device.renderer);
                if (onScreen != nullptr && pictureOk) {
                    const SDL_Rect place = placePicture(output, onScreen);
                    SDL_RenderCopy(device.renderer, device.texture, nullptr, &place);
                }
                if (capturing()) {
                    pixels.resize(size_t(kWidth) * kHeight * 3);
                    if (SDL_RenderReadPixels(device.renderer, nullptr, SDL_PIXELFORMAT_RGB24, pixels.data(),
                                             kWidth * 3) == 0) {
                        recordPicture(kWidth, kHeight, onScreenPts, pixels);
                    }
                }
                SDL_RenderPresent(device.renderer);
            }
            if (next != nullptr) recordPresented(nextPts, clock);
        }
        std::unique_lock<std::mutex> lock(mutex_);
        condition_.wait_for(lock, std::chrono::milliseconds(kTickMs), [&] {
            return outs_.empty() || outputVersion_ != drawnOutput;
        });
    }
    // The screen goes black as the last instance leaves it.
    av_frame_free(&onScreen);
    if (shown) {
        SDL_SetRenderDrawColor(device.renderer, 0, 0, 0, 255);
        SDL_RenderClear(device.renderer);
        if (capturing()) {
            pixels.assign(size_t(kWidth) * kHeight * 3, 0);
            recordPicture(kWidth, kHeight, -1, pixels);
        }
        SDL_RenderPresent(device.renderer);
    }
    device.closeWindow();
    std::lock_guard<std::mutex> lock(mutex_);
    if (outs_.empty()) endsDone_ = endRequests_;
    condition_.notify_all();
}

}  // namespace detail
}  // namespace mtkpb

extern "C" void MtkPb_Screen_SetKeyHandler(MtkPb_Screen_KeyFct handler, void* tag) {
    mtkpb::detail::Screen::instance().setKeyHandler(handler, tag);
}
