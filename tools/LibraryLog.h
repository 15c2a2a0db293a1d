// Where velka's programs send the library's diagnostic lines. The library
// prints its first lines while it is being loaded, before main() has read
// the options that say where they go: those are held back until then.
//
//   extern "C" void velka_log_setup(void) { velka::tools::holdLibraryLines(); }
//   ...
//   velka::tools::routeLibraryLines(log);  // in main(): a stream, or null to drop them
#ifndef VELKA_TOOLS_LIBRARYLOG_H
#define VELKA_TOOLS_LIBRARYLOG_H

#include <cstdio>

namespace velka {
namespace tools {

// From velka_log_setup(): the library's lines are kept (the first 4 KiB)
// until routeLibraryLines().
void holdLibraryLines();

// Writes the lines held back to `log`, then sends every later line there, in
// order and without a gap; `log` null drops them all. Once only.
void routeLibraryLines(FILE* log);

}  // namespace tools
}  // namespace velka

#endif  // VELKA_TOOLS_LIBRARYLOG_H
