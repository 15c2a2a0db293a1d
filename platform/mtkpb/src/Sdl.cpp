// Sdl.cpp - counted SDL subsystem starts for the engine.
#include "Sdl.h"

#include <SDL2/SDL.h>

#include <cstdio>
#include <mutex>
#include <set>

namespace mtkpb {
namespace detail {
namespace {

std::mutex& sdlMutex() {
    static std::mutex* m = new std::mutex;  // never destroyed: used until exit
    return *m;
}

}  // namespace

bool sdlStart(uint32_t flags, const std::string& driver, std::string* error) {
    std::lock_guard<std::mutex> lock(sdlMutex());
    SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
    const char* hint = flags & SDL_INIT_VIDEO ? SDL_HINT_VIDEODRIVER : SDL_HINT_AUDIODRIVER;
    const bool choose = !driver.empty() && SDL_WasInit(flags) == 0;
    if (choose) SDL_SetHintWithPriority(hint, driver.c_str(), SDL_HINT_OVERRIDE);
    // Off screen, the software renderer draws straight into the driver's
    // surface: no OpenGL texture behind it (which would load the graphics
    // libraries to copy every picture once more).
    if (driver == "offscreen") SDL_SetHint(SDL_HINT_FRAMEBUFFER_ACCELERATION, "0");
    const bool ok = SDL_InitSubSystem(flags) == 0;
    if (!ok && error != nullptr) *error = SDL_GetError();
    // The host's own later start chooses for itself again.
    if (choose) SDL_ResetHint(hint);
    return ok;
}

void sdlEnd(uint32_t flags) {
    std::lock_guard<std::mutex> lock(sdlMutex());
    SDL_QuitSubSystem(flags);
}

void announceOnce(const std::string& key, const std::string& line) {
    static std::mutex* mutex = new std::mutex;
    static std::set<std::string>* said = new std::set<std::string>;
    std::lock_guard<std::mutex> lock(*mutex);
    if (!said->insert(key).second) return;
    std::fprintf(stderr, "mtkpb: %s\n", line.c_str());
    std::fflush(stderr);
}

}  // namespace detail
}  // namespace mtkpb
