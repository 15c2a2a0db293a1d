#ifndef VELKA_TOOLS_BENCHFIGURES_H
#define VELKA_TOOLS_BENCHFIGURES_H

// What the network benchmarks share: their figures on standard output,
// medians of interleaved runs, libavformat reading through a velka File, and
// the player's seek trace.

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "velka/File.h"

namespace velka {
namespace tools {

using BenchClock = std::chrono::steady_clock;

// The seek trace: kSeekTargets stratified times in shuffled order (the same
// order in every run), kReadAfterSeekSeconds of packets read after each.
constexpr int kSeekTargets = 20;
constexpr double kReadAfterSeekSeconds = 2.0;

// One line of figures on standard output, flushed at once (the library's
// own lines go elsewhere).
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));

double seconds(BenchClock::duration d);

struct Stats {
    double median, min, max;
};
Stats stats(std::vector<double> values);  // of at least one value

// "median [min..max]", `width` wide with `decimals` decimals; one value alone.
std::string figure(const std::vector<double>& values, int width, int decimals);

// libavformat's I/O callbacks over a File (the opaque pointer), reading with
// blocking reads as the playback engine's demuxer does.
int readFile(void* file, uint8_t* buffer, int size);
int64_t seekFile(void* file, int64_t offset, int whence);

// The trace's targets in AV_TIME_BASE units for a clip of `duration`.
std::vector<int64_t> traceTargets(int64_t duration);

}  // namespace tools
}  // namespace velka

#endif  // VELKA_TOOLS_BENCHFIGURES_H
