#ifndef VELKA_SRC_HLSTIMESTAMPS_H
#define VELKA_SRC_HLSTIMESTAMPS_H

// Segments rewritten as they arrive so that the byte stream stays one the
// demuxer reads as one recording:
// - MPEG-TS continuity counters continue, per PID, from the segment before it
//   in the stream, so a variant switch or a discontinuity is no counter jump;
// - timestamps (MPEG-TS PCR, PTS and DTS; fragmented MP4's tfdt) keep growing
//   across EXT-X-DISCONTINUITY: each part after one is moved to start where
//   the playlist says it starts, the stream's first timestamp plus the
//   playlist time before it, so the engine's time seeks land in it.
// Bytes become readable as whole packets (or whole top-level boxes) are done.
// Private to the library.

#include <cstdint>
#include <map>
#include <string>

namespace velka {

// One segment's rewriting; lives with the segment's bytes.
struct HlsTsRewrite {
    bool active = false;         // a segment whose packets or boxes are rewritten
    bool mp4 = false;            // fragmented MP4 (boxes), else MPEG-TS (packets)
    int64_t done = 0;            // bytes rewritten so far: the ones that may be read
    int part = 0;                // parts are separated by EXT-X-DISCONTINUITY
    double startSeconds = 0;     // where the segment starts in playlist time
    bool haveOffset = false;
    int64_t offset90k = 0;       // added to every timestamp of the segment
    std::map<int, int> ccDelta;  // per PID: added to its continuity counters
    std::map<int, int> lastCc;   // per PID: the last counter in the stream so far
};

// The timing a stream's segments share. Worker only.
class HlsTimeline {
public:
    // Starts `rewrite` for a segment of part `part` at `startSeconds` that
    // follows, in the stream, a segment whose counters ended as `previousCc`
    // (empty when it is not known: the counters stay as they are).
    static void begin(HlsTsRewrite* rewrite, bool mp4, int part, double startSeconds,
                      const std::map<int, int>& previousCc);
    // Fragmented MP4: the tracks' timescales from an initialisation section.
    void learnTracks(const std::string& init);
    // Rewrites the whole packets of `data` from rewrite->done on; with
    // `complete`, the segment has all its bytes and a partial packet at the
    // end goes through as it is.
    void rewrite(std::string* data, HlsTsRewrite* rewrite, bool complete);
    // The bytes of `data` that may be read.
    static int64_t readable(const std::string& data, const HlsTsRewrite& rewrite) {
        return rewrite.active ? rewrite.done : static_cast<int64_t>(data.size());
    }

private:
    void rewritePacket(unsigned char* packet, HlsTsRewrite* rewrite);
    void rewriteBoxes(std::string* data, HlsTsRewrite* rewrite, bool complete);
    void rewriteFragment(unsigned char* moof, int64_t length, HlsTsRewrite* rewrite);
    int64_t offsetFor(HlsTsRewrite* rewrite, int64_t firstTimestamp);

    bool haveBase_ = false;
    int64_t base90k_ = 0;                  // the stream's timestamp at playlist time 0
    std::map<int, int64_t> partOffset90k_;  // per part, once its first segment was seen
    std::map<uint32_t, uint32_t> timescales_;  // fragmented MP4: per track ID
};

}  // namespace velka

#endif  // VELKA_SRC_HLSTIMESTAMPS_H
