#include "PlayStartup.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace velka {
namespace tools {

const char kDefaultPlayLog[] = "velka-play.log";

namespace {

PlayStartup startup_;

bool isDigits(const char* text) {
    if (*text == '\0') return false;
    for (const char* c = text; *c != '\0'; ++c) {
        if (*c < '0' || *c > '9') return false;
    }
    return true;
}

void parseOptions(int argc, char** argv, PlayOptions* o) {
    for (int i = 1; i < argc && o->error == nullptr; ++i) {
        const char* arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
            o->help = true;
        } else if (strcmp(arg, "--quiet") == 0) {
            o->quiet = true;
        } else if (strcmp(arg, "--start") == 0 && hasValue) {
            const char* value = argv[++i];
            errno = 0;
            const long long ms = isDigits(value) ? strtoll(value, nullptr, 10) : -1;
            if (ms < 0 || ms > INT32_MAX || errno != 0) {
                o->error = "bad start position (milliseconds, 0 to 2147483647)";
                o->errorArg = value;
            } else {
                o->startMs = static_cast<int32_t>(ms);
            }
        } else if (strcmp(arg, "--speed") == 0 && hasValue) {
            const char* value = argv[++i];
            errno = 0;
            const unsigned long long factor = isDigits(value) ? strtoull(value, nullptr, 10) : 0;
            if (!isDigits(value) || factor > UINT32_MAX || errno != 0) {
                o->error = "bad speed factor (a whole number, 0 as fast as possible)";
                o->errorArg = value;
            } else {
                o->speed = value;
            }
        } else if (strcmp(arg, "--log") == 0 && hasValue) {
            o->logPath = argv[++i];
        } else if (arg[0] == '-' && arg[1] != '\0') {
            o->error = "unknown or incomplete option";
            o->errorArg = arg;
        } else if (o->url == nullptr) {
            o->url = arg;
        } else {
            o->error = "one URL only; extra";
            o->errorArg = arg;
        }
    }
    if (o->error == nullptr && o->url == nullptr && !o->help) o->error = "no URL given";
}

const char kSpeedVariable[] = "MTKPB_SPEED";

// The value of `name` in `envp`, or null.
const char* findVariable(char** envp, const char* name) {
    const size_t length = strlen(name);
    for (char** entry = envp; entry != nullptr && *entry != nullptr; ++entry) {
        if (strncmp(*entry, name, length) == 0 && (*entry)[length] == '=') return *entry + length + 1;
    }
    return nullptr;
}

// Starts this program again with the speed factor in its environment. The
// C library takes the environment it was started with when it initialises
// itself, after the preinit array, so setenv() here would not last. Returns
// only when the new start failed.
void restartWithSpeed(char** argv, char** envp, const char* speed) {
    size_t count = 0;
    for (char** entry = envp; entry != nullptr && *entry != nullptr; ++entry) ++count;
    char** env = static_cast<char**>(calloc(count + 2, sizeof(char*)));
    const size_t settingSize = sizeof kSpeedVariable + strlen(speed) + 1;
    char* setting = static_cast<char*>(malloc(settingSize));
    if (env == nullptr || setting == nullptr) {
        startup_.speedErrno = ENOMEM;
    } else {
        snprintf(setting, settingSize, "%s=%s", kSpeedVariable, speed);
        size_t used = 0;
        for (size_t i = 0; i < count; ++i) {
            if (findVariable(&envp[i], kSpeedVariable) == nullptr) env[used++] = envp[i];
        }
        env[used] = setting;
        execve("/proc/self/exe", argv, env);
        startup_.speedErrno = errno;
    }
    free(setting);
    free(env);
}

// Puts the speed factor in place, keeps the original standard output for
// velka-play's own lines and points descriptor 1, where the library prints,
// at the log. Nothing is logged for --help or bad usage.
void play_startup(int argc, char** argv, char** envp) {
    if (startup_.ran) return;
    startup_.ran = true;
    PlayOptions& o = startup_.options;
    parseOptions(argc, argv, &o);
    const bool usable = o.error == nullptr && !o.help;

    if (usable && o.speed != nullptr) {
        const char* current = findVariable(envp, kSpeedVariable);
        if (current == nullptr || strcmp(current, o.speed) != 0) restartWithSpeed(argv, envp, o.speed);
    }

    startup_.outputFd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (startup_.outputFd == -1) startup_.outputFd = STDERR_FILENO;
    const char* target = "/dev/null";
    if (usable) target = o.logPath != nullptr ? o.logPath : kDefaultPlayLog;
    int fd = open(target, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd == -1) {
        startup_.logErrno = errno;
        fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    }
    if (fd != -1) {
        dup2(fd, STDOUT_FILENO);
        close(fd);
    }
}

__attribute__((section(".preinit_array"), used)) void (*const playStartupEntry_)(int, char**,
                                                                                char**) =
    play_startup;

}  // namespace

const PlayStartup& playStartup(int argc, char** argv, char** envp) {
    play_startup(argc, argv, envp);
    return startup_;
}

}  // namespace tools
}  // namespace velka
