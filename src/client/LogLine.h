// The one way out for the library's diagnostic lines (include/velka/Log.h
// says where they go). Each call formats its text into a buffer of its own,
// then hands it whole to the destination under the log lock, so lines from
// different threads never interleave and a switch of destination falls
// between two texts.
#ifndef VELKA_CLIENT_LOGLINE_H
#define VELKA_CLIENT_LOGLINE_H

#include <cstddef>

namespace velka {

// As printf: the text as formatted, usually ending in a newline.
void logPrint(const char* format, ...) __attribute__((format(printf, 1, 2)));
// As puts: the text and a newline.
void logPuts(const char* text);
// `size` bytes as they are (libcurl's verbose output).
void logWrite(const char* data, size_t size);
// Where the library flushed standard output: flushes a stream destination.
void logFlush();

}  // namespace velka

#endif  // VELKA_CLIENT_LOGLINE_H
