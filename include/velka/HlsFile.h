#ifndef VELKA_HLSFILE_H
#define VELKA_HLSFILE_H

#include <cstdint>
#include <string>

#include "velka/File.h"
#include "velka/HttpOptions.h"

namespace velka {

class HlsSession;

// The File for an HLS stream: given the URL of a master or media playlist, it
// serves one continuous byte stream of the chosen variant's segments (MPEG-TS,
// or fragmented MP4 with its initialisation section first), which the
// playback engine demuxes as it demuxes a file. All its transfers and read
// completions run on the one HTTP worker (HttpTaskThread), like HttpFile's.
//
// Video on demand has a known length() and byte seeks: every segment owns a
// fixed span of the byte stream, sized before it is fetched, and the bytes of
// a span past the segment's real end are filler the demuxer skips (MPEG-TS
// null packets, an MP4 "free" box); the last MPEG-TS segment comes after its
// filler instead, so that the stream's last bytes carry its last timestamps
// (a demuxer reads them for the duration). A segment larger than its span keeps the
// whole packets or boxes that fit and loses the rest (logged). A master
// playlist's variants share those spans, so the file switches between them
// at segment boundaries by measured throughput. A live playlist (no
// EXT-X-ENDLIST) has length() -1, starts three target durations from its end,
// follows the sliding window and, under a master playlist, switches variants
// at segment boundaries by media sequence number. AES-128 segments are
// decrypted as they arrive. MPEG-TS continuity counters continue across
// segments and variants, and timestamps keep growing across
// EXT-X-DISCONTINUITY (MPEG-TS PCR/PTS/DTS, fragmented MP4's tfdt), so the
// engine's time seeks land in every part.
//
// Reads complete on the worker, strictly in order, each exactly once,
// possibly before readAsync() returns; complete() runs with the worker's
// locks held (recursive), so it may queue the next read.
//
// No lock of its own: the owner opens, uses and closes it from its threads.
class HlsFile : public File {
public:
    explicit HlsFile(const std::string& url, const HttpOptions& options = HttpOptions());
    ~HlsFile() override;  // closes a file still open

    // Blocks until the playlist(s), the keys and the initialisation sections
    // are loaded and the byte stream's layout is known, at most the open time
    // limit. -1 when the URL is not http(s), a playlist cannot be fetched or
    // is not a playlist, a key cannot be fetched, the stream uses a method
    // other than AES-128, or the limit passed first; the reason is logged as
    // "HlsFile::open fail: REASON".
    int open() override;
    // How long open() may take; kDefaultOpenTimeLimitMs unless set before it.
    static constexpr uint32_t kDefaultOpenTimeLimitMs = 20000;
    void setOpenTimeLimit(uint32_t ms) { openTimeLimitMs_ = ms; }
    // Releases the stream: queued reads complete with kStatusCancelled on the
    // worker before close() returns (right after it when called from a
    // completion). Transfers under way are abandoned.
    int close() override;
    int read(char* buffer, uint32_t length) override;
    void* readAsync(char* buffer, uint32_t length, AsyncCallback& callback) override;
    // A live read already partly filled cannot give its bytes back: -1, and
    // it completes normally. Video on demand gives them back (File.h).
    int cancel(void* request) override;
    int64_t seek(int64_t offset, Whence whence) override;
    int64_t tell() override;
    // The byte stream's length for video on demand; -1 for a live stream.
    int64_t length() override;
    int64_t available() override;
    // How much of the next 512 KiB of the stream is fetched, 0 to 100.
    int cachePercent() override;
    // -1 once the stream has failed for good (a segment, key or initialisation
    // section that could not be loaded, a live playlist that stopped
    // advancing); 0 while it has not.
    int error() override;

private:
    HttpOptions options_;
    uint32_t openTimeLimitMs_;
    HlsSession* session_;  // null while the file is not open
};

}  // namespace velka

#endif  // VELKA_HLSFILE_H
