// velka-play's command line.
#ifndef VELKA_TOOLS_PLAYOPTIONS_H
#define VELKA_TOOLS_PLAYOPTIONS_H

#include <cstdint>

namespace velka {
namespace tools {

struct PlayOptions {
    const char* url = nullptr;
    int32_t startMs = 0;
    const char* speed = nullptr;    // decimal digits, or null
    const char* logPath = nullptr;  // null: the library's lines are dropped
    bool quiet = false;
    bool noVideo = false;  // the engine shows no picture: velka-play stays in the terminal
    bool libraryHttp = false;  // http(s) through the library's own network stack
    bool help = false;
    bool version = false;
    const char* error = nullptr;  // bad usage: what is wrong, null when all is well
    const char* errorArg = nullptr;
};

PlayOptions parsePlayOptions(int argc, char** argv);

}  // namespace tools
}  // namespace velka

#endif  // VELKA_TOOLS_PLAYOPTIONS_H
