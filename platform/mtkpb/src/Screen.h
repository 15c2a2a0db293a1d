// Screen.h - the TV screen of the software engine: one window (or an
// off-screen surface on a machine without a display), 1280x720, shared by
// every engine instance of the process.
//
// One presenter thread owns every SDL video call: the window, the renderer,
// the texture and the window's events. It starts with the first VideoOut
// attached and lasts until the process ends; it opens the window when one is
// attached and takes it down, after showing black, when the last one goes. Each turn it asks every attached VideoOut for the picture that is
// due (so every instance's pictures keep moving) and shows the one of the
// most recently attached, placed in the output rectangle with its aspect
// ratio kept (letterboxed), black elsewhere.
//
// Lock order: mutex_, then a VideoOut's own lock; keyMutex_
// alone (the host's handler runs under it).
#ifndef MTKPB_SRC_SCREEN_H
#define MTKPB_SRC_SCREEN_H

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "IMtkPb_Ctrl.h"
#include "mtkpb_screen.h"

namespace mtkpb {
namespace detail {

class VideoOut;

class Screen {
public:
    static constexpr int kWidth = 1280;
    static constexpr int kHeight = 720;
    // How often the presenter looks for a due picture and for window events.
    static constexpr int kTickMs = 4;
    // How long the last detach waits for the screen to go blank.
    static constexpr int kEndWaitMs = 5000;

    // How pictures are presented, from MTKPB_VIDEO: "window", "offscreen",
    // "off" (pictures are not decoded); unset: a window when a display is
    // there (DISPLAY, WAYLAND_DISPLAY or SDL_VIDEODRIVER set), else off screen.
    enum class Mode { kWindow, kOffscreen, kOff };
    static Mode mode();

    static Screen& instance();

    // Worker threads of the instances, with no engine lock held.
    void attach(VideoOut* out);
    void detach(VideoOut* out);

    // The output rectangle, thousandths of the screen (any thread).
    void setOutput(const EngineRect& output);
    void setKeyHandler(MtkPb_Screen_KeyFct handler, void* tag);

private:
    Screen() = default;
    void run(Mode mode);  // presenter thread

    struct Device;
    void present(Mode mode, Device& device);  // presenter thread: one session

    std::mutex mutex_;  // guards everything below
    std::condition_variable condition_;
    std::vector<VideoOut*> outs_;  // the last one is shown
    EngineRect output_{0, 0, 1000, 1000};
    uint64_t outputVersion_ = 0;
    uint64_t endRequests_ = 0;  // detach of the last instance: blank and take the window down
    uint64_t endsDone_ = 0;
    bool started_ = false;  // the presenter thread runs (detached, to the end of the process)

    std::mutex keyMutex_;  // guards the handler; held while it runs
    MtkPb_Screen_KeyFct keyHandler_ = nullptr;
    void* keyTag_ = nullptr;
};

}  // namespace detail
}  // namespace mtkpb

#endif  // MTKPB_SRC_SCREEN_H
