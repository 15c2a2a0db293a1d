#ifndef VELKA_SRC_CLIENT_LIBRARYEXIT_H
#define VELKA_SRC_CLIENT_LIBRARYEXIT_H

// The order of the library's shut-down at process exit.
//
// Playback::instance_ is built when the library is loaded and its destructor
// stops and closes a medium that is still open. The source workers are built
// later, on first use, so destructors of their own would run before it: the
// medium would then be closed through a worker that is gone. Instead each
// worker is built on the heap, never freed, and registers its tear-down here,
// which runs right after Playback's destructor. A worker torn down stays a
// valid object that refuses new requests, for callers later still.

namespace velka {

// Registers `tearDown` to run at process exit once Playback::instance_ has
// been destroyed; tear-downs run in the reverse order of registration. Called
// after that moment, it registers nothing: the process ends the thread.
void tearDownAfterPlayback(void (*tearDown)());

}  // namespace velka

#endif  // VELKA_SRC_CLIENT_LIBRARYEXIT_H
