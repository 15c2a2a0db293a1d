// Where the library's diagnostic lines go.
//
// The library writes one line for nearly every operation, from the host's
// threads, from its own threads and while it is being loaded. By default they
// go to standard output, which the library flushes now and then. A host can
// send them elsewhere at any time, from any thread:
//
//   velka::logToFunction(myLogger, myContext);  // each line to a function
//   velka::logToFile(stderr);                   // to a stdio stream
//   velka::logOff();                            // nowhere
//
// After one of these has returned, every later line goes to the new place
// and none to the old one; no line is lost or delivered twice on the switch.
//
// The environment variable VELKA_LOG, read when the library is loaded, sets
// where the lines go from the very first one: "off" drops them, any other
// value names a file the lines are appended to. Unset or empty, they go to
// standard output.
//
// A host that wants even the lines printed while the library loads, before
// its main() runs, defines the function velka_log_setup() below; the library
// calls it once, before its first line, and VELKA_LOG, when set, then wins.
#ifndef VELKA_LOG_H
#define VELKA_LOG_H

#include <cstdio>

namespace velka {

// Receives one line, without its line end. Runs on whichever thread printed
// the line, one line at a time (calls never overlap), under the library's log
// lock: it must return promptly and must not call into the library. `line`
// is valid only during the call.
typedef void (*LogFunction)(const char* line, void* context);

// Every line from now on goes to `function` with `context`. A null function
// drops the lines.
void logToFunction(LogFunction function, void* context);

// Every line from now on is written to `file`, which stays the host's: the
// library flushes it where it flushes standard output and never closes it.
// After a switch away from it has returned, the library no longer touches it.
// logToFile(stdout) restores the default.
void logToFile(FILE* file);

// Every line from now on is dropped.
void logOff();

}  // namespace velka

extern "C" {
// Defined by a host that routes the lines from the start, or left undefined.
// Called once, while the library is being loaded, before the host's static
// constructors have run: it may call the functions above and use only what is
// ready by then (a function, constant data, stdio's standard streams).
void velka_log_setup(void);
}

#endif  // VELKA_LOG_H
