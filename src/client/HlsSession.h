#ifndef VELKA_SRC_HLSSESSION_H
#define VELKA_SRC_HLSSESSION_H

// The worker's half of HlsFile: playlists, keys, initialisation sections and
// segments fetched on the HTTP worker, the byte stream laid out over them and
// the FIFO of reads served from it. Private to the library. Its definitions
// are in three files: HlsSession.cpp (the caller's side, transfers, the
// serve pass), HlsSessionPlaylists.cpp (opening, reloads, adaptation) and
// HlsSessionSegments.cpp (segments and the reads served from them).

#define CURL_DISABLE_DEPRECATION 1
#include <curl/curl.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <memory>
#include <string>
#include <vector>

#include "HlsPlaylist.h"
#include "HlsTimestamps.h"
#include "HttpWorkerClient.h"
#include "velka/File.h"
#include "velka/HttpOptions.h"
#include "velka/Mutex.h"
#include "velka/Semaphore.h"

typedef struct evp_cipher_ctx_st EVP_CIPHER_CTX;

namespace velka {

// One pending read of an HlsFile; its address is the request handle.
struct HlsRequest {
    char* buffer;        // where the next byte goes; advances with partial deliveries
    uint32_t length;     // bytes asked for
    uint32_t remaining;  // bytes still to deliver
    bool cancelled;      // set by cancel() under mutex_
    File::AsyncCallback* callback;
};

// One transfer: an easy handle kept for the session's life, so that its
// connection is reused from one fetch to the next.
class HlsSession;

struct HlsFetch {
    enum Kind { kIdle, kPlaylist, kKey, kMap, kSegment };
    HlsSession* owner = nullptr;
    CURL* curl = nullptr;
    curl_slist* headers = nullptr;
    Kind kind = kIdle;
    int64_t index = -1;          // segment index (VOD) or media sequence number (live)
    int variant = -1;            // a variant playlist (or its key or map) being loaded
    uint64_t startMs = 0;        // when the fetch started, for the throughput estimate
    std::string url;
    int64_t rangeOffset = -1;    // -1: the whole resource
    int64_t rangeLength = -1;
    int64_t received = 0;        // body bytes accepted so far (cipher text for segments)
    bool rangeRequest = false;   // the current request has a Range: 206 expected
    bool running = false;        // in the multi handle
    bool done = false;           // ended; result holds the outcome
    CURLcode result = CURLE_OK;
    long status = 0;
    int retries = 0;             // restarts since bytes were last accepted
    std::string body;            // playlists, keys and maps
};

// A segment as fetched: the initialisation section in front when the segment
// starts a new one, then its plain text.
struct HlsSegmentBuffer {
    HlsSegmentBuffer() = default;
    ~HlsSegmentBuffer();  // frees cipher
    HlsSegmentBuffer(const HlsSegmentBuffer&) = delete;
    HlsSegmentBuffer& operator=(const HlsSegmentBuffer&) = delete;

    std::string data;
    bool complete = false;
    int64_t validEnd = 0;        // bytes up to here may be delivered (whole packets or boxes)
    int64_t cut = -1;            // where filler starts because the segment outgrew its span
    int64_t boxScan = 0;         // fragmented MP4: the next top-level box to check
    EVP_CIPHER_CTX* cipher = nullptr;  // owned; freed once the segment is decrypted
    uint64_t lastUse = 0;
    HlsTsRewrite ts;             // MPEG-TS: counters and timestamps rewritten on arrival
};

class HlsSession : public HttpWorkerClient {
public:
    HlsSession(const std::string& url, const HttpOptions& options);

    // Caller's side.
    // Hands the session to the worker and waits until the open is decided,
    // at most `limitMs`. False with the reason; then, with *withWorker, the
    // owner must still release() it, else it is already freed.
    bool open(uint32_t limitMs, std::string* why, bool* withWorker);
    // The owner lets go; with `destroyed`, posted once the session is gone.
    void release(Semaphore* destroyed);
    HlsRequest* readAsync(char* buffer, uint32_t length, File::AsyncCallback& callback);
    int read(char* buffer, uint32_t length);
    int cancel(HlsRequest* request);
    int64_t seek(int64_t offset, File::Whence whence);
    int64_t tell();
    int64_t length() const { return length_; }
    int cachePercent() const { return cachePercent_; }
    int error() const { return error_; }

    // Worker's side.
    void serve() override;
    bool transferDone(CURL* curl, CURLcode code) override;
    long nextPassMs() override;
    bool released() override { return released_; }
    void removeTransfers() override;

private:
    ~HlsSession() override;

    static size_t write_cb(char* data, size_t size, size_t count, void* fetch);
    size_t accept(HlsFetch* fetch, const char* data, size_t size);
    void appendSegmentBytes(HlsSegmentBuffer* buffer, const char* data, size_t size);
    void scanBoxes(int index, HlsSegmentBuffer* buffer);

    void start(HlsFetch* fetch, HlsFetch::Kind kind, int index, const std::string& url,
               int64_t rangeOffset, int64_t rangeLength);
    void restart(HlsFetch* fetch);
    void stop(HlsFetch* fetch);
    bool handleFinished(HlsFetch* fetch);

    // Opening.
    void advanceOpen();
    bool takeMediaPlaylist(const std::string& body, const std::string& url);
    void layOut();
    void finishOpen(bool ok, const std::string& why);

    // Serving.
    void serveRequests();
    // Fills the front request from the stream: kFillAgain when it took bytes
    // (or the stream failed) and serving goes on, kFillWait when it waits for
    // bytes, kFillEnded at the stream's end.
    enum Fill { kFillAgain, kFillWait, kFillEnded };
    Fill fillVod(HlsRequest* request);
    Fill fillLive(HlsRequest* request);
    int segmentAt(int64_t position) const;
    // Bytes of segment `index` from `offset` within its span into `out`; how
    // many were available now.
    uint32_t copyOut(int index, int64_t offset, char* out, uint32_t count);
    void scheduleSegments();
    HlsSegmentBuffer* bufferFor(const HlsFetch& fetch);
    std::unique_ptr<HlsSegmentBuffer> newBuffer(const HlsPlaylist& playlist, const HlsSegment& segment,
                                                bool withInit);
    // Adaptation: the variant the next segment comes from.
    int chooseVariant();
    // True when variant `v` can be switched to now; else starts loading what
    // it lacks (its playlist, a key, its initialisation section).
    bool variantReady(int v);
    void takeVariantPlaylist(int v, const std::string& body, const std::string& url);
    void finishSegment(HlsSegmentBuffer* buffer, int64_t index);
    void handleControlWhileReady();
    void scheduleLive();
    void startSegment(int index);
    void complete(HlsRequest* request, VelkaStatus status, uint32_t length);
    void updateCachePercent();
    void fail(int code, const std::string& why);

    const std::string url_;
    const HttpOptions options_;

    // Worker only, unless said otherwise.
    enum Phase { kStarting, kMasterPlaylist, kMediaPlaylist, kKeysAndMaps, kFirstSegment, kReady,
                 kFailed };
    Phase phase_;
    HlsPlaylist media_;
    std::string mediaUrl_;
    int64_t bandwidthBps_;       // the span estimate's rate: the highest variant's
    std::map<std::string, std::string> keys_;   // key URI -> 16 key bytes
    std::map<std::string, std::string> maps_;  // initialisation sections by mapKey()
    std::vector<int64_t> prefix_;              // per segment: init bytes in front of it
    std::vector<int64_t> base_;                // per segment: start of its span
    std::vector<int64_t> span_;                // per segment
    bool fmp4_;
    // Adaptation between the variants of a master playlist. Video on demand:
    // every variant is laid out in the same spans (sized from the highest
    // BANDWIDTH), so a switch at a segment boundary keeps the layout. Live: a
    // switch goes on at the same media sequence number in the new variant.
    std::vector<HlsVariant> variants_;
    std::vector<std::unique_ptr<HlsPlaylist>> variantMedia_;  // loaded; null until then
    std::vector<int> variantState_;  // kVariant* below
    int variant_;                    // the variant segments are fetched from
    std::deque<double> throughputBps_;  // the last segments' transfer rates
    int upVotes_;                    // segments in a row that allowed a higher variant
    // Live (no EXT-X-ENDLIST): the stream is the segments one after another,
    // without spans; the playlist is reloaded while it plays.
    bool live_;
    int64_t nextSequence_;       // live: the next segment to fetch
    int64_t lastListed_;         // live: the highest sequence number listed so far
    // live: fetched segments not yet read to their end, by sequence number;
    // the front is the one being read
    std::deque<std::pair<int64_t, std::unique_ptr<HlsSegmentBuffer>>> liveQueue_;
    int64_t liveOffset_;         // live: bytes of the front segment already read
    std::string lastMapKey_;     // live: the initialisation section last put in the stream
    int livePart_;               // live: EXT-X-DISCONTINUITY tags met so far
    int64_t liveChosenFor_;      // live: the segment a variant was last chosen for
    double liveSeconds_;         // live: playlist time of the segments queued so far
    std::map<int, int> liveCc_;  // live: the continuity counters the last segment ended with
    HlsTimeline timeline_;
    uint64_t nextReloadMs_;      // live: when the playlist is fetched again (monotonic)
    uint64_t lastAdvanceMs_;     // live: when a reload last brought a new segment
    std::map<int, std::unique_ptr<HlsSegmentBuffer>> buffers_;
    std::set<int> failedSegments_;  // VOD: failed for good; a reader reaching one fails
    uint64_t useClock_;          // orders buffers for eviction
    int current_;                // the segment the reader is in
    CURLSH* share_;              // the session's connection pool; owned
    HlsFetch control_;           // playlists, keys, maps
    HlsFetch segment_;           // segments, one at a time
    std::string openWhy_;
    bool openDecided_;
    std::atomic<bool> dirty_;    // a transfer moved since the last serve(); set on the worker

    Semaphore opened_;           // posted once when the open is decided
    bool openOk_;                // written before opened_ is posted
    Semaphore readDone_;         // a synchronous read completed
    Semaphore* destroyed_;       // posted by the destructor when the owner waits
    std::atomic<bool> released_;
    std::atomic<int64_t> length_;      // known once open; -1 live
    std::atomic<int> cachePercent_;
    std::atomic<int> error_;           // fatal failure code, 0 while none

    Mutex mutex_;                // guards requests_, readPos_ and everything serve() does
    std::deque<HlsRequest*> requests_;  // served strictly from the front
    int64_t readPos_;
};

}  // namespace velka

#endif  // VELKA_SRC_HLSSESSION_H
