#ifndef VELKA_SRC_HLSSESSIONSHARED_H
#define VELKA_SRC_HLSSESSIONSHARED_H

// What the three parts of HlsSession (HlsSession.cpp: the caller's side, the
// transfers and the serve pass; HlsSessionPlaylists.cpp: opening, reloads
// and adaptation; HlsSessionSegments.cpp: segments and the reads served from
// them) share. Private to the library.

#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "HlsPlaylist.h"

namespace velka {
namespace hls {
constexpr int64_t kTsPacketBytes = 188;
// A span is sized from the highest variant's BANDWIDTH (a peak over windows
// of segments, not a bound per segment, and often stated wrongly) with this
// margin and slack; a segment that outgrows it anyway loses its tail.
constexpr double kSpanMargin = 1.5;
// Without a BANDWIDTH the rate is measured on the first segment alone, so
// the margin is wider.
constexpr double kMeasuredSpanMargin = 2.5;
constexpr int64_t kSpanSlackBytes = 64 * 1024;
// An encrypted fragmented-MP4 segment of known cipher length: room for the
// filler box after its plain text (1 to 16 bytes shorter).
constexpr int64_t kFreeBoxHeaderBytes = 8;
// Segments fetched ahead of the one being read.
constexpr int kAheadSegments = 2;
// Live: segments fetched and not yet read, at most; each is fetched as soon
// as the playlist lists it, so a reader a little behind never loses one to
// the sliding window.
constexpr size_t kLiveQueuedSegments = 8;
// Segment buffers kept in memory: the window ahead plus a few behind, so the
// engine's probe of the stream's end and its return to the start cost no
// second fetch.
constexpr size_t kKeptBuffers = 6;
// cachePercent() counts up to this much of the stream ahead of the reader.
constexpr int64_t kCacheThresholdBytes = 512 * 1024;
// Restarts of one transfer in a row before it fails for good.
constexpr int kMaxRetries = 2;
// Playlists, keys and initialisation sections larger than this are refused.
constexpr size_t kMaxControlBytes = 8 * 1024 * 1024;
constexpr long kConnectTimeoutSeconds = 20;
// A transfer that moves fewer than kStallBytesPerSecond for this long is
// aborted (and restarted, as any failed transfer).
constexpr long kStallSeconds = 15;
constexpr long kStallBytesPerSecond = 1;
constexpr long kMaxRedirects = 10;
const char kProtocols[] = "http,https";
// Live: playback starts this many target durations from the end of the
// playlist, as the HLS rules ask.
constexpr double kLiveStartTargetDurations = 3;
// Live: a reader waits at most this many target durations (and at least
// kMinLiveStallMs) for a playlist that stopped bringing new segments.
constexpr double kLiveStallTargetDurations = 5;
constexpr uint64_t kMinLiveStallMs = 6000;

inline uint64_t monotonicMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

inline std::string mapKey(const std::string& uri, int64_t rangeOffset) {
    return uri + "@" + std::to_string(rangeOffset);
}

inline std::string mapKey(const HlsMap& map) { return mapKey(map.uri, map.rangeOffset); }

// Adaptation. The estimate is the median of the last kThroughputSamples
// segment transfers, or the last one when it is lower; a variant is
// affordable when its BANDWIDTH is at most kUsableShare of it. The current
// variant is kept while it takes at most kDownShare; going up needs kUpVotes
// segments in a row that afford the next variant. The gap between the
// shares, and the votes, keep it from oscillating.
constexpr size_t kThroughputSamples = 5;
constexpr double kUsableShare = 0.7;
constexpr double kDownShare = 0.85;
constexpr int kUpVotes = 3;
enum VariantState { kVariantUnknown, kVariantUsable, kVariantUnusable };

inline uint32_t readBe32(const std::string& data, int64_t at) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(data.data()) + at;
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

// The MPEG-TS null packet (PID 0x1FFF), which demuxers skip.
inline const unsigned char* nullPacket() {
    static unsigned char packet[kTsPacketBytes];
    static const bool made = [] {
        memset(packet, 0xFF, sizeof packet);
        packet[0] = 0x47;
        packet[1] = 0x1F;
        packet[2] = 0xFF;
        packet[3] = 0x10;
        return true;
    }();
    (void)made;
    return packet;
}

// `count` bytes of null packets, starting `phase` bytes into one.
inline void copyNullPackets(char* out, int64_t phase, uint32_t count) {
    while (count > 0) {
        const int64_t inPacket = phase % kTsPacketBytes;
        const uint32_t n = static_cast<uint32_t>(std::min<int64_t>(count, kTsPacketBytes - inPacket));
        memcpy(out, nullPacket() + inPacket, n);
        out += n;
        phase += n;
        count -= n;
    }
}

}  // namespace hls
}  // namespace velka

#endif  // VELKA_SRC_HLSSESSIONSHARED_H
