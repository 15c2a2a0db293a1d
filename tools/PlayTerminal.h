// The terminal side of velka-play: keys read one at a time without echo, and
// the promise that the terminal is given back as it was on every way out.
#ifndef VELKA_TOOLS_PLAYTERMINAL_H
#define VELKA_TOOLS_PLAYTERMINAL_H

#include <cstdint>

namespace velka {
namespace tools {

// What a key asks velka-play to do.
enum class Key { kNone, kPause, kBack, kForward, kBackLong, kForwardLong, kHelp, kQuit };

// Turns the bytes a terminal sends into keys. An arrow arrives as an escape
// sequence (ESC [ D, or ESC O D in application cursor mode) that may be split
// across reads, so the decoder keeps its place between calls.
class KeyDecoder {
public:
    // The key that `byte` completes, or kNone.
    Key feed(uint8_t byte);

private:
    enum class Stage { kPlain, kEscape, kSequence };
    Stage stage_ = Stage::kPlain;
};

// Raw key mode on the terminal of `fd`: no line buffering and no echo.
// Signals stay on, so Ctrl-C still raises SIGINT. The original mode comes
// back through leaveRawMode(), at process exit, on the quit signals, on the
// fatal signals (before they take their course) and while the process is
// stopped with Ctrl-Z. False when `fd` is no terminal.
bool enterRawMode(int fd);
void leaveRawMode();

// SIGINT, SIGTERM and SIGHUP ask for a clean quit: the first gives the
// terminal back, records the signal and writes one byte to `wakeFd` (a
// non-blocking pipe the main loop polls); a second one ends the process at
// once with 128 + its number. The fatal signals give the terminal back, then
// take their default course. SIGPIPE is ignored.
void installSignalHandlers(int wakeFd);
// The quit signal received, 0 when none.
int quitSignal();

// Columns of the terminal of `fd`; 80 when it cannot tell.
uint32_t terminalColumns(int fd);

}  // namespace tools
}  // namespace velka

#endif  // VELKA_TOOLS_PLAYTERMINAL_H
