// Sdl.h - how the engine starts and ends SDL subsystems inside a host that
// may use SDL itself: every subsystem is counted (SDL_InitSubSystem /
// SDL_QuitSubSystem, never SDL_Quit), SDL installs no signal handlers, and
// the engine's own starts and ends are serialised.
#ifndef MTKPB_SRC_SDL_H
#define MTKPB_SRC_SDL_H

#include <cstdint>
#include <string>

namespace mtkpb {
namespace detail {

// SDL_InitSubSystem(flags) with SDL_HINT_NO_SIGNAL_HANDLERS set first. SDL's
// hints are not thread-safe: the engine sets them here only, serialised. With
// `driver` non-empty and the subsystem not yet started by anyone, that driver
// is used. False (and *error set) when it failed.
bool sdlStart(uint32_t flags, const std::string& driver, std::string* error);
void sdlEnd(uint32_t flags);

// Writes `line` once per process to standard error (how the engine presents).
void announceOnce(const std::string& key, const std::string& line);

}  // namespace detail
}  // namespace mtkpb

#endif  // MTKPB_SRC_SDL_H
