// Log.cpp - the destination of the library's diagnostic lines: standard
// output (the default), a host's stream, a host's function, or nowhere.
#include "velka/Log.h"

#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "LogLine.h"

// Left undefined by most hosts: then its address is null.
extern "C" void velka_log_setup(void) __attribute__((weak));

namespace velka {

namespace {

enum class Sink { kStdout, kFile, kFunction, kOff };

// Texts up to this long are formatted on the stack; longer ones (a long URL)
// on the heap.
constexpr size_t kLocalTextBytes = 512;

// Guards everything below. Statically initialised, never destroyed: lines
// come during loading and during exit, before and after any constructor or
// destructor of the library. Recursive, so that velka_log_setup() may call
// logToFunction() and friends from inside configureLocked(). It is held while
// a line is handed to its destination, so that a switch that has returned
// is never followed by a line to the old destination.
pthread_mutex_t lock_ = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
bool configured_ = false;  // velka_log_setup() and VELKA_LOG have been applied
Sink sink_ = Sink::kStdout;
FILE* file_ = nullptr;  // kFile: the host's stream, or the file VELKA_LOG names
LogFunction function_ = nullptr;
void* context_ = nullptr;

class LogLock {
public:
    LogLock() { pthread_mutex_lock(&lock_); }
    ~LogLock() { pthread_mutex_unlock(&lock_); }
    LogLock(const LogLock&) = delete;
    LogLock& operator=(const LogLock&) = delete;
};

void flushLocked() {
    if (sink_ == Sink::kStdout) fflush(stdout);
    if (sink_ == Sink::kFile) fflush(file_);
}

// The old destination gets what it has buffered before it is left.
void switchLocked(Sink sink, FILE* file, LogFunction function, void* context) {
    flushLocked();
    sink_ = sink;
    file_ = file;
    function_ = function;
    context_ = context;
}

void applyEnvironmentLocked() {
    const char* value = getenv("VELKA_LOG");
    if (value == nullptr || *value == '\0') return;
    if (strcmp(value, "off") == 0) {
        switchLocked(Sink::kOff, nullptr, nullptr, nullptr);
        return;
    }
    FILE* file = fopen(value, "ae");
    if (file == nullptr) {
        fprintf(stderr, "velka: cannot open the log %s named by VELKA_LOG: %s\n", value,
                strerror(errno));
        return;
    }
    switchLocked(Sink::kFile, file, nullptr, nullptr);  // open until the process ends
}

// Once, before the first line and before the first choice of the host.
void configureLocked() {
    if (configured_) return;
    configured_ = true;
    if (velka_log_setup != nullptr) velka_log_setup();
    applyEnvironmentLocked();
}

// Hands `size` bytes of `text` (writable, at least size + 1 bytes) to the
// destination. A function gets one call per line, without the line end; a
// last piece without one counts as a line.
void emitLocked(char* text, size_t size) {
    configureLocked();
    switch (sink_) {
        case Sink::kStdout:
            fwrite(text, 1, size, stdout);
            return;
        case Sink::kFile:
            fwrite(text, 1, size, file_);
            return;
        case Sink::kOff:
            return;
        case Sink::kFunction:
            break;
    }
    char* line = text;
    char* const end = text + size;
    while (line < end) {
        char* newline = static_cast<char*>(memchr(line, '\n', static_cast<size_t>(end - line)));
        char* lineEnd = newline != nullptr ? newline : end;
        char* next = newline != nullptr ? newline + 1 : end;
        if (lineEnd > line && lineEnd[-1] == '\r') --lineEnd;
        *lineEnd = '\0';
        function_(line, context_);
        line = next;
    }
}

void emit(char* text, size_t size) {
    LogLock lock;
    emitLocked(text, size);
}

// The environment is read when the library is loaded, even if it prints
// nothing then.
[[maybe_unused]] const bool configuredAtLoad_ = [] {
    LogLock lock;
    configureLocked();
    return true;
}();

}  // namespace

void logToFunction(LogFunction function, void* context) {
    LogLock lock;
    configureLocked();
    if (function == nullptr) {
        switchLocked(Sink::kOff, nullptr, nullptr, nullptr);
    } else {
        switchLocked(Sink::kFunction, nullptr, function, context);
    }
}

void logToFile(FILE* file) {
    LogLock lock;
    configureLocked();
    if (file == nullptr) {
        switchLocked(Sink::kOff, nullptr, nullptr, nullptr);
    } else if (file == stdout) {
        switchLocked(Sink::kStdout, nullptr, nullptr, nullptr);
    } else {
        switchLocked(Sink::kFile, file, nullptr, nullptr);
    }
}

void logOff() {
    LogLock lock;
    configureLocked();
    switchLocked(Sink::kOff, nullptr, nullptr, nullptr);
}

void logPrint(const char* format, ...) {
    char local[kLocalTextBytes];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(local, sizeof local, format, args);
    va_end(args);
    if (length < 0) return;
    const size_t size = static_cast<size_t>(length);
    if (size < sizeof local) {
        emit(local, size);
        return;
    }
    std::unique_ptr<char[]> text(new char[size + 1]);
    va_start(args, format);
    vsnprintf(text.get(), size + 1, format, args);
    va_end(args);
    emit(text.get(), size);
}

void logPuts(const char* text) { logPrint("%s\n", text); }

void logWrite(const char* data, size_t size) {
    char local[kLocalTextBytes];
    std::unique_ptr<char[]> heap;
    char* text = local;
    if (size >= sizeof local) {
        heap.reset(new char[size + 1]);
        text = heap.get();
    }
    memcpy(text, data, size);
    text[size] = '\0';
    emit(text, size);
}

void logFlush() {
    LogLock lock;
    configureLocked();
    flushLocked();
}

}  // namespace velka
