#ifndef VELKA_STATUS_H
#define VELKA_STATUS_H

#include <cstdint>

namespace velka {

// The one status enumeration of the library: results of player, thread and
// playback operations, and the completion status of every asynchronous read
// (completions use kStatusOk, kStatusError, kStatusCancelled and
// kStatusEndOfFile only).
enum VelkaStatus : int32_t {
    kStatusOk = 0,
    kStatusError = 1,
    kStatusInterrupted = 6,      // a sleep or wait was cut short by a signal
    kStatusInvalidArgument = 7,  // a player command got an empty URL
    kStatusInvalidState = 8,     // a command is not allowed in the player's state
    kStatusDeadlock = 9,         // a thread would wait for itself
    kStatusTimeout = 10,         // a timed wait ran out
    kStatusCancelled = 11,       // a read was cancelled; 0 bytes
    kStatusEndOfFile = 12,       // a read stopped at the end; the bytes delivered, possibly 0
    kStatusOutOfRange = 13,      // a display rectangle lies outside the screen
};

}  // namespace velka

#endif  // VELKA_STATUS_H
