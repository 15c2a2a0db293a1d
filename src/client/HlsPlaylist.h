#ifndef VELKA_SRC_HLSPLAYLIST_H
#define VELKA_SRC_HLSPLAYLIST_H

// The text of an HLS playlist (master or media) read into plain records, with
// every URI made absolute against the playlist's own URL. Private to the
// library; HlsSession works from these records.

#include <cstdint>
#include <string>
#include <vector>

namespace velka {

// One EXT-X-KEY. Segments refer to it by index; METHOD=NONE is index -1.
struct HlsKey {
    enum Method { kAes128, kUnsupported };
    Method method = kUnsupported;
    std::string methodName;  // as the tag names it, for the error line
    std::string uri;         // absolute
    bool hasIv = false;
    uint8_t iv[16] = {};
};

// One EXT-X-MAP: the initialisation section of fragmented-MP4 segments.
struct HlsMap {
    std::string uri;            // absolute
    int64_t rangeOffset = -1;   // -1: the whole resource
    int64_t rangeLength = -1;
};

struct HlsSegment {
    std::string uri;            // absolute
    double durationSeconds = 0;
    int64_t rangeOffset = -1;   // EXT-X-BYTERANGE; -1: the whole resource
    int64_t rangeLength = -1;
    int64_t sequence = 0;       // media sequence number
    bool discontinuity = false;
    int keyIndex = -1;          // into HlsPlaylist::keys; -1 clear text
    int mapIndex = -1;          // into HlsPlaylist::maps; -1 none (MPEG-TS)
};

// One EXT-X-STREAM-INF of a master playlist.
struct HlsVariant {
    std::string uri;            // absolute
    int64_t bandwidthBps = 0;
    std::string codecs;
};

struct HlsPlaylist {
    bool master = false;
    std::vector<HlsVariant> variants;  // master only, as listed
    double targetDurationSeconds = 0;
    int64_t mediaSequence = 0;
    bool endList = false;              // EXT-X-ENDLIST: video on demand
    std::vector<HlsSegment> segments;
    std::vector<HlsKey> keys;
    std::vector<HlsMap> maps;
};

// Parses `text`, the body fetched from `url`. False with a reason in *error
// when the text is not an HLS playlist or a tag it needs is malformed.
bool parseHlsPlaylist(const std::string& text, const std::string& url, HlsPlaylist* playlist,
                      std::string* error);

// `reference` made absolute against `base` (RFC 3986, the common cases: an
// absolute URL, a scheme-relative "//host/...", an absolute path, a relative
// path with "." and ".." segments, a query alone).
std::string resolveHlsUrl(const std::string& base, const std::string& reference);

}  // namespace velka

#endif  // VELKA_SRC_HLSPLAYLIST_H
