// What velka-play does before the library loads: read the options, put
// the software engine's speed factor in the environment and send the
// library's lines to the log.
//
// The library starts when it is loaded, before main(): it prints its first
// lines, and the software engine reads its speed factor from the environment
// then. So all this runs from the executable's preinit array, which comes
// before any shared library's initialisers. Its state is plain data with no
// constructor, so nothing overwrites it after that.
#ifndef VELKA_TOOLS_PLAYSTARTUP_H
#define VELKA_TOOLS_PLAYSTARTUP_H

#include <cstdint>

namespace velka {
namespace tools {

// Where the library's lines go without --log, in the current folder.
extern const char kDefaultPlayLog[];

struct PlayOptions {
    const char* url;
    int32_t startMs;
    const char* speed;    // decimal digits, or null
    const char* logPath;  // null: kDefaultPlayLog
    bool quiet;
    bool help;
    const char* error;  // bad usage: what is wrong, null when all is well
    const char* errorArg;
};

struct PlayStartup {
    bool ran;
    PlayOptions options;
    int outputFd;    // the original standard output, for velka-play's own lines
    int logErrno;    // why the log could not be opened; 0 when it was
    int speedErrno;  // why the speed could not be put in place; 0 when it was
};

// The set-up, done once: from the preinit array, or from the first call on
// a C library without one (then the lines printed at load have reached the
// screen already). Starts the program again, before the library loads,
// when --speed differs from the environment.
const PlayStartup& playStartup(int argc, char** argv, char** envp);

}  // namespace tools
}  // namespace velka

#endif  // VELKA_TOOLS_PLAYSTARTUP_H
