#include "PlayOptions.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace velka {
namespace tools {

namespace {

bool isDigits(const char* text) {
    if (*text == '\0') return false;
    for (const char* c = text; *c != '\0'; ++c) {
        if (*c < '0' || *c > '9') return false;
    }
    return true;
}

}  // namespace

PlayOptions parsePlayOptions(int argc, char** argv) {
    PlayOptions o;
    for (int i = 1; i < argc && o.error == nullptr; ++i) {
        const char* arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
            o.help = true;
        } else if (strcmp(arg, "--version") == 0) {
            o.version = true;
        } else if (strcmp(arg, "--quiet") == 0) {
            o.quiet = true;
        } else if (strcmp(arg, "--no-video") == 0) {
            o.noVideo = true;
        } else if (strcmp(arg, "--library-http") == 0) {
            o.libraryHttp = true;
        } else if (strcmp(arg, "--start") == 0 && hasValue) {
            const char* value = argv[++i];
            errno = 0;
            const long long ms = isDigits(value) ? strtoll(value, nullptr, 10) : -1;
            if (ms < 0 || ms > INT32_MAX || errno != 0) {
                o.error = "bad start position (milliseconds, 0 to 2147483647)";
                o.errorArg = value;
            } else {
                o.startMs = static_cast<int32_t>(ms);
            }
        } else if (strcmp(arg, "--speed") == 0 && hasValue) {
            const char* value = argv[++i];
            errno = 0;
            const unsigned long long factor = isDigits(value) ? strtoull(value, nullptr, 10) : 0;
            if (!isDigits(value) || factor > UINT32_MAX || errno != 0) {
                o.error = "bad speed factor (a whole number, 0 as fast as possible)";
                o.errorArg = value;
            } else {
                o.speed = value;
            }
        } else if (strcmp(arg, "--log") == 0 && hasValue) {
            o.logPath = argv[++i];
        } else if (arg[0] == '-' && arg[1] != '\0') {
            o.error = "unknown or incomplete option";
            o.errorArg = arg;
        } else if (o.url == nullptr) {
            o.url = arg;
        } else {
            o.error = "one URL only; extra";
            o.errorArg = arg;
        }
    }
    if (o.error == nullptr && o.url == nullptr && !o.help && !o.version) o.error = "no URL given";
    return o;
}

}  // namespace tools
}  // namespace velka
