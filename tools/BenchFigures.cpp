#include "BenchFigures.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <random>

namespace velka {
namespace tools {

namespace {
constexpr uint32_t kTraceSeed = 20261123;
}  // namespace

void say(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vfprintf(stdout, format, args);
    va_end(args);
    fputc('\n', stdout);
    fflush(stdout);
}

double seconds(BenchClock::duration d) { return std::chrono::duration<double>(d).count(); }

Stats stats(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return {values[values.size() / 2], values.front(), values.back()};
}

std::string figure(const std::vector<double>& values, int width, int decimals) {
    char text[160];
    if (values.empty()) return "-";
    const Stats s = stats(values);
    if (values.size() == 1) {
        snprintf(text, sizeof text, "%*.*f", width, decimals, s.median);
    } else {
        snprintf(text, sizeof text, "%*.*f [%.*f..%.*f]", width, decimals, s.median, decimals, s.min,
                 decimals, s.max);
    }
    return text;
}

int readFile(void* file, uint8_t* buffer, int size) {
    const int n = static_cast<File*>(file)->read(reinterpret_cast<char*>(buffer),
                                                 static_cast<uint32_t>(size));
    return n > 0 ? n : AVERROR_EOF;
}

int64_t seekFile(void* opaque, int64_t offset, int whence) {
    File* file = static_cast<File*>(opaque);
    if (whence & AVSEEK_SIZE) return file->length();
    switch (whence & ~AVSEEK_FORCE) {
        case SEEK_SET:
            return file->seek(offset, File::kSeekSet);
        case SEEK_CUR:
            return file->seek(offset, File::kSeekCurrent);
        case SEEK_END:
            return file->seek(offset, File::kSeekEnd);
        default:
            return -1;
    }
}

std::vector<int64_t> traceTargets(int64_t duration) {
    const int64_t span = duration - static_cast<int64_t>(kReadAfterSeekSeconds * AV_TIME_BASE);
    std::mt19937 rng(kTraceSeed);
    std::vector<int64_t> targets;
    for (int i = 0; i < kSeekTargets; ++i) {
        const double u = std::uniform_real_distribution<double>(0, 1)(rng);
        targets.push_back(static_cast<int64_t>((i + u) / kSeekTargets * static_cast<double>(span)));
    }
    std::shuffle(targets.begin(), targets.end(), rng);
    return targets;
}

}  // namespace tools
}  // namespace velka
