#include "HlsSession.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <ctime>

#include "HttpRequestOptions.h"
#include "HttpTask.h"
#include "LogLine.h"

namespace velka {

namespace {

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

uint64_t monotonicMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

std::string mapKey(const std::string& uri, int64_t rangeOffset) {
    return uri + "@" + std::to_string(rangeOffset);
}

std::string mapKey(const HlsMap& map) { return mapKey(map.uri, map.rangeOffset); }

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

uint32_t readBe32(const std::string& data, int64_t at) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(data.data()) + at;
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

// The MPEG-TS null packet (PID 0x1FFF), which demuxers skip.
const unsigned char* nullPacket() {
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

}  // namespace

HlsSession::HlsSession(const std::string& url, const HttpOptions& options)
    : url_(url),
      options_(options),
      phase_(kStarting),
      bandwidthBps_(0),
      fmp4_(false),
      variant_(0),
      upVotes_(0),
      live_(false),
      nextSequence_(0),
      lastListed_(-1),
      liveOffset_(0),
      livePart_(0),
      liveChosenFor_(-1),
      liveSeconds_(0),
      nextReloadMs_(0),
      lastAdvanceMs_(0),
      useClock_(0),
      current_(0),
      openDecided_(false),
      dirty_(false),
      opened_(0),
      openOk_(false),
      readDone_(0),
      destroyed_(nullptr),
      released_(false),
      length_(0),
      cachePercent_(0),
      error_(0),
      readPos_(0) {
    initCurl();
    // The session's connections live in a pool of its own: kept alive from
    // one fetch to the next, and closed when the session goes. Both handles
    // are only used on the worker, so the pool needs no lock.
    share_ = curl_share_init();
    if (share_ != nullptr) curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
    for (HlsFetch* fetch : {&control_, &segment_}) {
        fetch->owner = this;
        fetch->curl = curl_easy_init();
        if (fetch->curl == nullptr) continue;
        CURL* curl = fetch->curl;
        if (share_ != nullptr) curl_easy_setopt(curl, CURLOPT_SHARE, share_);
        curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kMaxRedirects);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &HlsSession::write_cb);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, fetch);
        curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
        curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, kStallBytesPerSecond);
        curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, kStallSeconds);
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, kProtocols);
        curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, kProtocols);
        fetch->headers = applyHttpOptions(curl, options_);
    }
}

HlsSession::~HlsSession() {
    logPrint("HlsFile: session %p destroyed\n", static_cast<void*>(this));
    for (auto& entry : buffers_) {
        if (entry.second->cipher != nullptr) EVP_CIPHER_CTX_free(entry.second->cipher);
    }
    for (HlsFetch* fetch : {&control_, &segment_}) {
        if (fetch->curl != nullptr) curl_easy_cleanup(fetch->curl);
        curl_slist_free_all(fetch->headers);
    }
    if (share_ != nullptr) curl_share_cleanup(share_);
    if (destroyed_ != nullptr) destroyed_->post();
}

// --- The caller's side ---------------------------------------------------------------------

bool HlsSession::open(std::string* why, bool* withWorker) {
    *withWorker = false;
    if (control_.curl == nullptr || segment_.curl == nullptr) {
        *why = "no libcurl handle";
        delete this;
        return false;
    }
    if (url_.compare(0, 7, "http://") != 0 && url_.compare(0, 8, "https://") != 0) {
        *why = "not an http:// or https:// URL";
        delete this;
        return false;
    }
    if (!addHttpWorkerClient(this)) {
        *why = "the HTTP worker has stopped";
        delete this;
        return false;
    }
    *withWorker = true;
    opened_.wait();
    if (!openOk_) *why = openWhy_;
    return openOk_;
}

void HlsSession::release(Semaphore* destroyed) {
    // Stored before released_ is published: the worker reads it after the flag.
    destroyed_ = destroyed;
    released_ = true;
    wakeHttpWorker();
}

HlsRequest* HlsSession::readAsync(char* buffer, uint32_t length, File::AsyncCallback& callback) {
    if (error_ != 0 || released_ || !workerRunning_) return nullptr;
    HlsRequest* request = new HlsRequest{buffer, length, length, false, &callback};
    {
        Mutex::Autolock lock(mutex_);
        requests_.push_back(request);
    }
    wakeHttpWorker();
    // The request may already be completed and freed; only its address is returned.
    return request;
}

namespace {
class HlsReadCallback : public File::AsyncCallback {
public:
    explicit HlsReadCallback(Semaphore& done) : result(0), done_(done) {}
    void complete(VelkaStatus status, uint32_t length) override {
        result = status == kStatusError ? -1 : static_cast<int>(length);
        done_.post();
    }
    int result;

private:
    Semaphore& done_;
};
}  // namespace

int HlsSession::read(char* buffer, uint32_t length) {
    HlsReadCallback callback(readDone_);
    if (readAsync(buffer, length, callback) == nullptr) return -1;
    readDone_.wait();
    return callback.result;
}

int HlsSession::cancel(HlsRequest* request) {
    Mutex::Autolock lock(mutex_);
    for (HlsRequest* queued : requests_) {
        if (queued == request) {
            queued->cancelled = true;
            wakeHttpWorker();
            return 0;
        }
    }
    return -1;
}

int64_t HlsSession::seek(int64_t offset, File::Whence whence) {
    Mutex::Autolock lock(mutex_);
    const int64_t length = length_;
    if (length < 0) return whence != File::kSeekSet && offset != 0 ? -1 : 0;
    int64_t target;
    if (whence == File::kSeekSet) {
        target = offset;
    } else if (whence == File::kSeekCurrent) {
        target = offset > length ? length : readPos_ + offset;
    } else {
        target = offset > 0 ? length : length + offset;
    }
    target = std::max<int64_t>(0, std::min(target, length));
    readPos_ = target;
    return target;
}

int64_t HlsSession::tell() {
    Mutex::Autolock lock(mutex_);
    return readPos_;
}

// --- Transfers, on the worker ---------------------------------------------------------------

size_t HlsSession::write_cb(char* data, size_t size, size_t count, void* fetchArg) {
    HlsFetch* fetch = static_cast<HlsFetch*>(fetchArg);
    return fetch->owner->accept(fetch, data, size * count);
}

size_t HlsSession::accept(HlsFetch* fetch, const char* data, size_t size) {
    if (released_ || !workerRunning_) return size + 1;
    curl_easy_getinfo(fetch->curl, CURLINFO_RESPONSE_CODE, &fetch->status);
    // A body of the wrong kind (an error page, the whole resource for a range).
    if (fetch->status != (fetch->rangeRequest ? 206 : 200)) return size + 1;
    if (fetch->kind == HlsFetch::kSegment) {
        HlsSegmentBuffer* buffer = bufferFor(*fetch);
        if (buffer == nullptr) return size + 1;
        appendSegmentBytes(buffer, data, size);
        if (!live_) scanBoxes(static_cast<int>(fetch->index), buffer);
    } else {
        if (fetch->body.size() + size > kMaxControlBytes) return size + 1;
        fetch->body.append(data, size);
    }
    fetch->received += static_cast<int64_t>(size);
    fetch->retries = 0;
    dirty_ = true;
    return size;
}

void HlsSession::appendSegmentBytes(HlsSegmentBuffer* buffer, const char* data, size_t size) {
    if (buffer->cipher == nullptr) {
        buffer->data.append(data, size);
        timeline_.rewrite(&buffer->data, &buffer->ts, false);
        return;
    }
    const size_t before = buffer->data.size();
    buffer->data.resize(before + size + 16);
    int out = 0;
    if (EVP_DecryptUpdate(buffer->cipher, reinterpret_cast<unsigned char*>(&buffer->data[before]),
                          &out, reinterpret_cast<const unsigned char*>(data),
                          static_cast<int>(size)) != 1) {
        out = 0;
    }
    buffer->data.resize(before + static_cast<size_t>(out));
    timeline_.rewrite(&buffer->data, &buffer->ts, false);
}

// Lets through the whole top-level boxes that fit the segment's span with
// room for a filler box after them; the first that does not is where the
// segment is cut.
void HlsSession::scanBoxes(int index, HlsSegmentBuffer* buffer) {
    if (span_.empty() || media_.segments[static_cast<size_t>(index)].mapIndex < 0) return;
    const int64_t span = span_[static_cast<size_t>(index)];
    const int64_t size = static_cast<int64_t>(buffer->data.size());
    while (buffer->cut < 0 && buffer->boxScan + 8 <= size) {
        const int64_t at = buffer->boxScan;
        uint64_t boxSize = readBe32(buffer->data, at);
        if (boxSize == 1) {
            if (at + 16 > size) break;
            boxSize = (uint64_t(readBe32(buffer->data, at + 8)) << 32) | readBe32(buffer->data, at + 12);
        }
        const int64_t end = boxSize >= 8 && boxSize < (uint64_t(1) << 62)
                                ? at + static_cast<int64_t>(boxSize) : -1;
        if (end > 0 && (end == span || end + kFreeBoxHeaderBytes <= span)) {
            buffer->validEnd = end;
            buffer->boxScan = end;
            continue;
        }
        buffer->cut = at;
        logPrint("HlsFile: segment %d outgrows its span of %lld bytes: cut at %lld\n", index,
                 static_cast<long long>(span), static_cast<long long>(at));
    }
}

void HlsSession::start(HlsFetch* fetch, HlsFetch::Kind kind, int index, const std::string& url,
                       int64_t rangeOffset, int64_t rangeLength) {
    stop(fetch);
    fetch->kind = kind;
    fetch->index = index;
    fetch->url = url;
    fetch->rangeOffset = rangeOffset;
    fetch->rangeLength = rangeLength;
    fetch->received = 0;
    fetch->retries = 0;
    fetch->variant = -1;
    fetch->startMs = monotonicMs();
    fetch->body.clear();
    restart(fetch);
}

void HlsSession::restart(HlsFetch* fetch) {
    if (fetch->running) curl_multi_remove_handle(multiHandle_, fetch->curl);
    if (fetch->kind != HlsFetch::kSegment) {
        // Small bodies: fetched again whole.
        fetch->received = 0;
        fetch->body.clear();
    }
    const int64_t from = (fetch->rangeOffset < 0 ? 0 : fetch->rangeOffset) + fetch->received;
    char range[64] = "";
    if (fetch->rangeLength > 0) {
        snprintf(range, sizeof range, "%" PRId64 "-%" PRId64, from,
                 fetch->rangeOffset + fetch->rangeLength - 1);
    } else if (from > 0) {
        snprintf(range, sizeof range, "%" PRId64 "-", from);
    }
    fetch->rangeRequest = range[0] != 0;
    curl_easy_setopt(fetch->curl, CURLOPT_URL, fetch->url.c_str());
    curl_easy_setopt(fetch->curl, CURLOPT_RANGE, fetch->rangeRequest ? range : nullptr);
    fetch->done = false;
    fetch->result = CURLE_OK;
    fetch->status = 0;
    logPrint("HlsFile: GET %s%s%s\n", fetch->url.c_str(), fetch->rangeRequest ? " range " : "",
             range);
    if (curl_multi_add_handle(multiHandle_, fetch->curl) == CURLM_OK) {
        fetch->running = true;
        runningCount_ += 1;
    } else {
        fetch->done = true;
        fetch->result = CURLE_FAILED_INIT;
        dirty_ = true;
    }
}

void HlsSession::stop(HlsFetch* fetch) {
    if (fetch->running) curl_multi_remove_handle(multiHandle_, fetch->curl);
    fetch->running = false;
    fetch->done = false;
    fetch->kind = HlsFetch::kIdle;
    fetch->index = -1;
}

bool HlsSession::transferDone(CURL* curl, CURLcode code) {
    HlsFetch* fetch = curl == control_.curl ? &control_ : curl == segment_.curl ? &segment_ : nullptr;
    if (fetch == nullptr) return false;
    curl_multi_remove_handle(multiHandle_, curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &fetch->status);
    fetch->running = false;
    fetch->done = true;
    fetch->result = code;
    dirty_ = true;
    return true;
}

void HlsSession::removeTransfers() {
    stop(&control_);
    stop(&segment_);
}

// A finished transfer: true when it succeeded; a failed one is restarted
// (kMaxRetries in a row) and false is returned with fetch->done still set
// only when it failed for good.
bool HlsSession::handleFinished(HlsFetch* fetch) {
    const long expected = fetch->rangeRequest ? 206 : 200;
    bool ok = fetch->result == CURLE_OK && fetch->status == expected;
    if (ok && fetch->rangeLength > 0 && fetch->received != fetch->rangeLength) ok = false;
    if (ok) return true;
    logPrint("HlsFile: %s failed: libcurl %d, status %ld, %" PRId64 " bytes\n", fetch->url.c_str(),
             static_cast<int>(fetch->result), fetch->status, fetch->received);
    if (fetch->retries < kMaxRetries && !released_) {
        fetch->retries += 1;
        restart(fetch);
        return false;
    }
    return false;
}

// --- Opening --------------------------------------------------------------------------------

void HlsSession::finishOpen(bool ok, const std::string& why) {
    if (openDecided_) return;
    openDecided_ = true;
    openOk_ = ok;
    openWhy_ = why;
    phase_ = ok ? kReady : kFailed;
    if (!ok) error_ = -1;
    opened_.post();
}

bool HlsSession::takeMediaPlaylist(const std::string& body, const std::string& url) {
    std::string why;
    HlsPlaylist playlist;
    if (!parseHlsPlaylist(body, url, &playlist, &why)) {
        finishOpen(false, url + ": " + why);
        return false;
    }
    if (playlist.master) {
        finishOpen(false, url + ": a variant that is itself a master playlist");
        return false;
    }
    live_ = !playlist.endList;
    if (playlist.segments.empty()) {
        finishOpen(false, url + ": a live playlist without a segment");
        return false;
    }
    for (const HlsSegment& segment : playlist.segments) {
        if (segment.keyIndex >= 0 &&
            playlist.keys[static_cast<size_t>(segment.keyIndex)].method != HlsKey::kAes128) {
            finishOpen(false, "EXT-X-KEY METHOD=" +
                                  playlist.keys[static_cast<size_t>(segment.keyIndex)].methodName +
                                  " is not supported (only AES-128)");
            return false;
        }
        if (segment.mapIndex >= 0) fmp4_ = true;
    }
    media_ = playlist;
    mediaUrl_ = url;
    phase_ = kKeysAndMaps;
    return true;
}

void HlsSession::advanceOpen() {
    if (phase_ == kStarting) {
        phase_ = kMasterPlaylist;
        start(&control_, HlsFetch::kPlaylist, -1, url_, -1, -1);
        return;
    }
    if (control_.kind != HlsFetch::kIdle && control_.done) {
        if (!handleFinished(&control_)) {
            if (control_.done) {
                finishOpen(false, control_.url + ": " +
                                      (control_.status >= 400
                                           ? "the server answered " + std::to_string(control_.status)
                                           : std::string(curl_easy_strerror(control_.result))));
            }
            return;
        }
        const HlsFetch::Kind kind = control_.kind;
        const std::string body = control_.body;
        const std::string url = control_.url;
        const int index = control_.index;
        stop(&control_);
        if (kind == HlsFetch::kPlaylist && phase_ == kMasterPlaylist) {
            HlsPlaylist playlist;
            std::string why;
            if (!parseHlsPlaylist(body, url, &playlist, &why)) {
                finishOpen(false, url + ": " + why);
                return;
            }
            if (playlist.master) {
                variants_ = playlist.variants;
                variantMedia_.resize(variants_.size());
                variantState_.assign(variants_.size(), kVariantUnknown);
                for (size_t v = 0; v < variants_.size(); ++v) {
                    bandwidthBps_ = std::max(bandwidthBps_, variants_[v].bandwidthBps);
                    // Nothing is measured yet: the lowest rate first.
                    if (variants_[v].bandwidthBps < variants_[static_cast<size_t>(variant_)].bandwidthBps) {
                        variant_ = static_cast<int>(v);
                    }
                }
                phase_ = kMediaPlaylist;
                logPrint("HlsFile: variant %d (%s) of %zu\n", variant_,
                         variants_[static_cast<size_t>(variant_)].uri.c_str(), variants_.size());
                start(&control_, HlsFetch::kPlaylist, -1, variants_[static_cast<size_t>(variant_)].uri, -1, -1);
                return;
            }
            if (!takeMediaPlaylist(body, url)) return;
        } else if (kind == HlsFetch::kPlaylist) {
            if (!takeMediaPlaylist(body, url)) return;
            if (!variants_.empty()) {
                variantMedia_[static_cast<size_t>(variant_)].reset(new HlsPlaylist(media_));
                variantState_[static_cast<size_t>(variant_)] = kVariantUsable;
            }
        } else if (kind == HlsFetch::kKey) {
            if (body.size() != 16) {
                finishOpen(false, url + ": a key of " + std::to_string(body.size()) +
                                      " bytes (16 expected)");
                return;
            }
            keys_[url] = body;
        } else if (kind == HlsFetch::kMap) {
            maps_[mapKey(media_.maps[static_cast<size_t>(index)])] = body;
        }
    }
    if (control_.kind != HlsFetch::kIdle) return;
    if (phase_ == kKeysAndMaps) {
        // Every key and initialisation section the stream names, one at a time.
        for (const HlsKey& key : media_.keys) {
            if (key.method == HlsKey::kAes128 && keys_.count(key.uri) == 0) {
                start(&control_, HlsFetch::kKey, -1, key.uri, -1, -1);
                return;
            }
        }
        for (size_t i = 0; i < media_.maps.size(); ++i) {
            if (maps_.count(mapKey(media_.maps[i])) == 0) {
                start(&control_, HlsFetch::kMap, static_cast<int>(i), media_.maps[i].uri,
                      media_.maps[i].rangeOffset, media_.maps[i].rangeLength);
                return;
            }
        }
        if (live_) {
            // Three target durations from the end, at a segment's start.
            size_t first = media_.segments.size() - 1;
            double fromEnd = media_.segments[first].durationSeconds;
            while (first > 0 && fromEnd < kLiveStartTargetDurations * media_.targetDurationSeconds) {
                first -= 1;
                fromEnd += media_.segments[first].durationSeconds;
            }
            nextSequence_ = media_.segments[first].sequence;
            lastListed_ = media_.segments.back().sequence;
            lastAdvanceMs_ = monotonicMs();
            nextReloadMs_ = lastAdvanceMs_ + static_cast<uint64_t>(media_.targetDurationSeconds * 1000);
            length_ = -1;
            logPrint("HlsFile: live, starting at segment %" PRId64 " of %" PRId64 "-%" PRId64 "\n",
                     nextSequence_, media_.mediaSequence, lastListed_);
            finishOpen(true, "");
            return;
        }
        prefix_.clear();
        for (size_t i = 0; i < media_.segments.size(); ++i) {
            const int map = media_.segments[i].mapIndex;
            const bool newMap = map >= 0 && (i == 0 || media_.segments[i - 1].mapIndex != map);
            prefix_.push_back(
                newMap ? static_cast<int64_t>(maps_[mapKey(media_.maps[static_cast<size_t>(map)])].size())
                       : 0);
        }
        bool allRanged = true;
        for (const HlsSegment& segment : media_.segments) allRanged &= segment.rangeLength > 0;
        if (bandwidthBps_ > 0 || allRanged) {
            layOut();
            return;
        }
        // No rate to size the spans with: measured on the first segment.
        phase_ = kFirstSegment;
        startSegment(0);
        return;
    }
}

void HlsSession::layOut() {
    if (phase_ == kFirstSegment) {
        const HlsSegmentBuffer& first = *buffers_[0];
        const double seconds = std::max(0.5, media_.segments[0].durationSeconds);
        bandwidthBps_ = static_cast<int64_t>(static_cast<double>(first.data.size()) * 8 / seconds *
                                             kMeasuredSpanMargin / kSpanMargin);
    }
    int64_t position = 0;
    base_.clear();
    span_.clear();
    for (size_t i = 0; i < media_.segments.size(); ++i) {
        const HlsSegment& segment = media_.segments[i];
        const bool ts = segment.mapIndex < 0;
        int64_t body;
        if (segment.rangeLength > 0) {
            // Exact; cipher text is never shorter than its plain text.
            body = segment.rangeLength + (!ts && segment.keyIndex >= 0 ? kFreeBoxHeaderBytes : 0);
        } else {
            body = static_cast<int64_t>(static_cast<double>(bandwidthBps_) / 8 *
                                        segment.durationSeconds * kSpanMargin) +
                   kSpanSlackBytes;
        }
        int64_t span = prefix_[i] + body;
        // Filler in an MPEG-TS span is whole null packets. A plain byte range
        // fills its span exactly and needs none, so its span stays its size.
        const bool exact = segment.rangeLength > 0 && segment.keyIndex < 0;
        if (ts && !exact) span = (span + kTsPacketBytes - 1) / kTsPacketBytes * kTsPacketBytes;
        base_.push_back(position);
        span_.push_back(span);
        position += span;
    }
    length_ = position;
    for (auto& entry : buffers_) scanBoxes(entry.first, entry.second.get());
    logPrint("HlsFile: %zu segments, %" PRId64 " bytes at %" PRId64 " bit/s\n",
             media_.segments.size(), position, bandwidthBps_);
    finishOpen(true, "");
}

// --- Serving, on the worker -----------------------------------------------------------------

void HlsSession::serve() {
    Mutex::Autolock lock(mutex_);
    dirty_ = false;
    if (released_) {
        while (!requests_.empty()) complete(requests_.front(), kStatusCancelled, 0);
        if (!openDecided_) finishOpen(false, "closed");
        return;
    }
    if (phase_ != kReady && phase_ != kFailed) advanceOpen();
    if (phase_ == kReady) handleControlWhileReady();
    if (segment_.kind == HlsFetch::kSegment && segment_.done) {
        const int64_t index = segment_.index;
        HlsSegmentBuffer* buffer = bufferFor(segment_);
        if (handleFinished(&segment_)) {
            const uint64_t elapsedMs = std::max<uint64_t>(1, monotonicMs() - segment_.startMs);
            throughputBps_.push_back(static_cast<double>(segment_.received) * 8 * 1000 /
                                     static_cast<double>(elapsedMs));
            if (throughputBps_.size() > kThroughputSamples) throughputBps_.pop_front();
            stop(&segment_);
            if (buffer != nullptr) finishSegment(buffer, index);
            if (phase_ == kFirstSegment) layOut();
        } else if (segment_.done) {
            stop(&segment_);
            const std::string why = "segment " + std::to_string(index) + " failed for good";
            if (phase_ == kFirstSegment) {
                finishOpen(false, why);
            } else if (live_) {
                // Live goes on with the next segment; what the reader already
                // has of this one stays, the demuxer resynchronises.
                logPrint("HlsFile: %s: skipped\n", why.c_str());
                if (!liveQueue_.empty() && liveQueue_.back().first == index) {
                    if (liveQueue_.size() == 1 && liveOffset_ > 0) {
                        finishSegment(liveQueue_.back().second.get(), index);
                    } else {
                        liveQueue_.pop_back();
                    }
                }
            } else {
                // Fails the reader only once it reaches this segment: what
                // comes before it is still served.
                logPrint("HlsFile: %s\n", why.c_str());
                buffers_.erase(static_cast<int>(index));
                failedSegments_.insert(static_cast<int>(index));
            }
        }
    }
    if (phase_ == kReady) {
        if (live_) {
            scheduleLive();
        } else {
            scheduleSegments();
        }
    }
    serveRequests();
    updateCachePercent();
}

void HlsSession::finishSegment(HlsSegmentBuffer* buffer, int64_t index) {
    if (buffer->cipher != nullptr) {
        const size_t before = buffer->data.size();
        buffer->data.resize(before + 32);
        int out = 0;
        if (EVP_DecryptFinal_ex(buffer->cipher, reinterpret_cast<unsigned char*>(&buffer->data[before]),
                                &out) != 1) {
            logPrint("HlsFile: segment %" PRId64 " does not decrypt (bad padding)\n", index);
            out = 0;
        }
        buffer->data.resize(before + static_cast<size_t>(out));
        EVP_CIPHER_CTX_free(buffer->cipher);
        buffer->cipher = nullptr;
        if (!live_) scanBoxes(static_cast<int>(index), buffer);
    }
    timeline_.rewrite(&buffer->data, &buffer->ts, true);
    if (live_) liveCc_ = buffer->ts.lastCc;
    buffer->complete = true;
    const int64_t span = span_.empty() || live_ ? 0 : span_[static_cast<size_t>(index)];
    logPrint("HlsFile: segment %" PRId64 ": %zu bytes, span %" PRId64 "\n", index,
             buffer->data.size(), span);
    if (span > 0 && media_.segments[static_cast<size_t>(index)].mapIndex < 0 &&
        static_cast<int64_t>(buffer->data.size()) > span) {
        logPrint("HlsFile: segment %" PRId64 " outgrows its span of %" PRId64 " bytes: cut at %" PRId64
                 "\n", index, span, span);
    }
}

HlsSegmentBuffer* HlsSession::bufferFor(const HlsFetch& fetch) {
    if (live_) {
        for (auto& entry : liveQueue_) {
            if (entry.first == fetch.index) return entry.second.get();
        }
        return nullptr;
    }
    const auto it = buffers_.find(static_cast<int>(fetch.index));
    return it == buffers_.end() ? nullptr : it->second.get();
}

// Playlist reloads, and keys and initialisation sections a reload brought.
void HlsSession::handleControlWhileReady() {
    const uint64_t now = monotonicMs();
    if (control_.kind != HlsFetch::kIdle && control_.done) {
        const bool ok = handleFinished(&control_);
        if (!ok && !control_.done) return;  // restarted
        const HlsFetch::Kind kind = control_.kind;
        const std::string body = control_.body;
        const std::string url = control_.url;
        const int64_t control_rangeOffset = control_.rangeOffset;
        const int control_variant = control_.variant;
        stop(&control_);
        const uint64_t targetMs = static_cast<uint64_t>(media_.targetDurationSeconds * 1000);
        const int variant = control_variant;
        if (variant >= 0 && kind == HlsFetch::kPlaylist) {
            if (ok) {
                takeVariantPlaylist(variant, body, url);
            } else {
                variantState_[static_cast<size_t>(variant)] = kVariantUnusable;
            }
        } else if (variant >= 0 && !ok) {
            variantState_[static_cast<size_t>(variant)] = kVariantUnusable;
        } else if (kind == HlsFetch::kPlaylist) {
            HlsPlaylist playlist;
            std::string why;
            if (url != mediaUrl_) {
                // A reload of the variant the stream switched away from.
            } else if (!ok || !parseHlsPlaylist(body, url, &playlist, &why) || playlist.master ||
                playlist.segments.empty()) {
                // Tried again at the next reload; the stall limit bounds the wait.
                logPrint("HlsFile: reload of %s failed %s\n", url.c_str(), why.c_str());
                nextReloadMs_ = now + targetMs / 2;
            } else {
                const int64_t last = playlist.segments.back().sequence;
                if (last > lastListed_) {
                    lastListed_ = last;
                    lastAdvanceMs_ = now;
                    nextReloadMs_ = now + static_cast<uint64_t>(playlist.targetDurationSeconds * 1000);
                } else {
                    // Nothing new: half a target duration, as the rules ask.
                    nextReloadMs_ = now + targetMs / 2;
                }
                media_ = playlist;
            }
        } else if (ok && kind == HlsFetch::kKey && body.size() == 16) {
            keys_[url] = body;
        } else if (ok && kind == HlsFetch::kMap) {
            maps_[mapKey(url, control_rangeOffset)] = body;
        } else {
            fail(-1, url + ": a key or initialisation section that cannot be loaded");
            return;
        }
    }
    if (live_ && !media_.endList && control_.kind == HlsFetch::kIdle && now >= nextReloadMs_) {
        start(&control_, HlsFetch::kPlaylist, -1, mediaUrl_, -1, -1);
    }
}

void HlsSession::scheduleLive() {
    if (segment_.kind != HlsFetch::kIdle) return;
    if (liveQueue_.size() >= kLiveQueuedSegments) return;
    const int64_t first = media_.mediaSequence;
    const int64_t last = first + static_cast<int64_t>(media_.segments.size()) - 1;
    if (nextSequence_ < first) {
        // The reader fell behind the sliding window (a long pause): on from
        // the oldest segment still listed.
        logPrint("HlsFile: segment %" PRId64 " left the playlist: going on at %" PRId64 "\n",
                 nextSequence_, first);
        nextSequence_ = first;
    }
    if (nextSequence_ > last) return;  // the next reload brings it
    if (!variants_.empty() && liveChosenFor_ != nextSequence_) {
        // A variant for each segment, at its boundary, by media sequence number.
        liveChosenFor_ = nextSequence_;
        chooseVariant();
        scheduleLive();
        return;
    }
    const HlsSegment& segment = media_.segments[static_cast<size_t>(nextSequence_ - first)];
    if (segment.keyIndex >= 0) {
        const HlsKey& key = media_.keys[static_cast<size_t>(segment.keyIndex)];
        if (key.method != HlsKey::kAes128) {
            fail(-1, "EXT-X-KEY METHOD=" + key.methodName + " is not supported (only AES-128)");
            return;
        }
        if (keys_.count(key.uri) == 0) {
            if (control_.kind == HlsFetch::kIdle) start(&control_, HlsFetch::kKey, -1, key.uri, -1, -1);
            return;
        }
    }
    std::string map;
    if (segment.mapIndex >= 0) {
        const HlsMap& m = media_.maps[static_cast<size_t>(segment.mapIndex)];
        map = mapKey(m);
        if (maps_.count(map) == 0) {
            if (control_.kind == HlsFetch::kIdle) {
                start(&control_, HlsFetch::kMap, segment.mapIndex, m.uri, m.rangeOffset, m.rangeLength);
            }
            return;
        }
    }
    liveQueue_.emplace_back(nextSequence_, newBuffer(media_, segment, map != lastMapKey_));
    livePart_ += segment.discontinuity ? 1 : 0;
    if (segment.mapIndex >= 0) timeline_.learnTracks(maps_[map]);
    HlsTimeline::begin(&liveQueue_.back().second->ts, segment.mapIndex >= 0, livePart_, liveSeconds_, liveCc_);
    liveSeconds_ += segment.durationSeconds;
    lastMapKey_ = map;
    start(&segment_, HlsFetch::kSegment, nextSequence_, segment.uri, segment.rangeOffset,
          segment.rangeLength);
    nextSequence_ += 1;
}

HlsSession::Fill HlsSession::fillLive(HlsRequest* request) {
    while (request->remaining > 0 && !liveQueue_.empty()) {
        HlsSegmentBuffer* front = liveQueue_.front().second.get();
        const int64_t size = HlsTimeline::readable(front->data, front->ts);
        const uint32_t n = static_cast<uint32_t>(std::min<int64_t>(request->remaining, size - liveOffset_));
        memcpy(request->buffer, front->data.data() + liveOffset_, n);
        request->buffer += n;
        request->remaining -= n;
        readPos_ += n;
        liveOffset_ += n;
        if (!front->complete || liveOffset_ < size) break;
        liveQueue_.pop_front();
        liveOffset_ = 0;
        scheduleLive();
    }
    if (request->remaining == 0) return kFillAgain;
    const bool ended = media_.endList && liveQueue_.empty() && segment_.kind == HlsFetch::kIdle &&
                       nextSequence_ > media_.mediaSequence + static_cast<int64_t>(media_.segments.size()) - 1;
    if (ended) return kFillEnded;
    // Waiting for the playlist to move; not for ever.
    const uint64_t limit = std::max<uint64_t>(
        kMinLiveStallMs, static_cast<uint64_t>(kLiveStallTargetDurations * media_.targetDurationSeconds * 1000));
    if (liveQueue_.empty() && segment_.kind == HlsFetch::kIdle && monotonicMs() - lastAdvanceMs_ > limit) {
        fail(-1, "the live playlist brought no new segment for " + std::to_string(limit / 1000) + " s");
        return kFillAgain;
    }
    return kFillWait;
}

void HlsSession::fail(int code, const std::string& why) {
    logPrint("HlsFile: %s\n", why.c_str());
    error_ = code;
    phase_ = kFailed;
    stop(&segment_);
}

long HlsSession::nextPassMs() {
    // A release seen after this pass's serve() still needs its own pass.
    if (dirty_ || released_) return 0;
    if (!live_ || phase_ != kReady) return -1;
    // The next reload; a waiting reader's stall check comes with it, at
    // least every half target duration.
    const uint64_t now = monotonicMs();
    const uint64_t half = static_cast<uint64_t>(media_.targetDurationSeconds * 500) + 1;
    uint64_t wait = nextReloadMs_ > now ? nextReloadMs_ - now : 0;
    if (wait > half) wait = half;
    return static_cast<long>(std::max<uint64_t>(wait, 1));
}

int HlsSession::segmentAt(int64_t position) const {
    const auto it = std::upper_bound(base_.begin(), base_.end(), position);
    return static_cast<int>(it - base_.begin()) - 1;
}

// Reads are served strictly from the front of the queue.
void HlsSession::serveRequests() {
    while (!requests_.empty()) {
        HlsRequest* request = requests_.front();
        if (request->cancelled || released_) {
            complete(request, kStatusCancelled, 0);
            continue;
        }
        if (phase_ == kFailed) {
            complete(request, kStatusError, 0);
            continue;
        }
        if (phase_ != kReady) return;
        const Fill fill = live_ ? fillLive(request) : fillVod(request);
        if (fill == kFillEnded) {
            complete(request, kStatusEndOfFile, request->length - request->remaining);
        } else if (request->remaining == 0) {
            complete(request, kStatusOk, request->length);
        } else if (fill == kFillWait) {
            return;
        }
    }
}

HlsSession::Fill HlsSession::fillVod(HlsRequest* request) {
    if (readPos_ >= length_) return kFillEnded;
    const int index = segmentAt(readPos_);
    if (failedSegments_.count(index) != 0) {
        fail(-1, "the reader reached segment " + std::to_string(index) + ", which failed");
        return kFillAgain;
    }
    if (index != current_) {
        current_ = index;
        scheduleSegments();
    }
    const uint32_t n = copyOut(index, readPos_ - base_[static_cast<size_t>(index)], request->buffer, request->remaining);
    request->buffer += n;
    request->remaining -= n;
    readPos_ += n;
    return n == 0 ? kFillWait : kFillAgain;  // waiting for the segment's bytes
}

uint32_t HlsSession::copyOut(int index, int64_t offset, char* out, uint32_t count) {
    const auto it = buffers_.find(index);
    if (it == buffers_.end()) return 0;
    HlsSegmentBuffer* buffer = it->second.get();
    buffer->lastUse = ++useClock_;
    const int64_t span = span_[static_cast<size_t>(index)];
    const bool ts = media_.segments[static_cast<size_t>(index)].mapIndex < 0;
    const int64_t size = static_cast<int64_t>(buffer->data.size());
    const int64_t limit = ts ? std::min(HlsTimeline::readable(buffer->data, buffer->ts), span)
                             : std::min({size, buffer->validEnd, HlsTimeline::readable(buffer->data, buffer->ts)});
    uint32_t done = 0;
    if (count == 0) return 0;  // an empty read may come with no buffer at all
    if (offset < limit) {
        const uint32_t n = static_cast<uint32_t>(std::min<int64_t>(count, limit - offset));
        memcpy(out, buffer->data.data() + offset, n);
        done += n;
        offset += n;
    }
    if (done == count || !buffer->complete) return done;
    // Filler from where the real bytes stop to the span's end.
    const int64_t padStart = ts ? limit : (buffer->cut >= 0 ? buffer->cut : limit);
    const int64_t gap = span - padStart;
    while (done < count && offset < span) {
        const int64_t k = offset - padStart;
        if (ts) {
            const int64_t inPacket = k % kTsPacketBytes;
            const uint32_t n = static_cast<uint32_t>(
                std::min<int64_t>({count - done, kTsPacketBytes - inPacket, span - offset}));
            memcpy(out + done, nullPacket() + inPacket, n);
            done += n;
            offset += n;
        } else if (k < kFreeBoxHeaderBytes) {
            const unsigned char header[8] = {static_cast<unsigned char>(gap >> 24),
                                             static_cast<unsigned char>(gap >> 16),
                                             static_cast<unsigned char>(gap >> 8),
                                             static_cast<unsigned char>(gap), 'f', 'r', 'e', 'e'};
            out[done++] = static_cast<char>(header[k]);
            offset += 1;
        } else {
            const uint32_t n = static_cast<uint32_t>(std::min<int64_t>(count - done, span - offset));
            memset(out + done, 0, n);
            done += n;
            offset += n;
        }
    }
    return done;
}

void HlsSession::scheduleSegments() {
    if (phase_ != kReady) return;
    const int count = static_cast<int>(span_.size());
    const int current = readPos_ < length_ ? segmentAt(readPos_) : count - 1;
    int want = -1;
    for (int i = current; i < count && i <= current + kAheadSegments; ++i) {
        const auto it = buffers_.find(i);
        if (failedSegments_.count(i) != 0) break;  // nothing to fetch past it
        if (it == buffers_.end() || !it->second->complete) {
            want = i;
            break;
        }
    }
    if (segment_.kind == HlsFetch::kSegment) {
        if (segment_.index == want || want < 0) return;
        // The reader moved away (a seek): what it needs comes first.
        logPrint("HlsFile: segment %" PRId64 " abandoned for %d\n", segment_.index, want);
        buffers_.erase(static_cast<int>(segment_.index));
        stop(&segment_);
    }
    if (want < 0) return;
    // Room for the new buffer: the least recently read outside the window.
    while (buffers_.size() >= kKeptBuffers) {
        auto oldest = buffers_.end();
        for (auto it = buffers_.begin(); it != buffers_.end(); ++it) {
            if (it->first >= current - 1 && it->first <= current + kAheadSegments) continue;
            if (oldest == buffers_.end() || it->second->lastUse < oldest->second->lastUse) oldest = it;
        }
        if (oldest == buffers_.end()) break;
        if (oldest->second->cipher != nullptr) EVP_CIPHER_CTX_free(oldest->second->cipher);
        buffers_.erase(oldest);
    }
    startSegment(want);
}

void HlsSession::startSegment(int index) {
    const int variant = variants_.empty() || phase_ != kReady ? -1 : chooseVariant();
    const HlsPlaylist& playlist = variant < 0 ? media_ : *variantMedia_[static_cast<size_t>(variant)];
    const HlsSegment& segment = playlist.segments[static_cast<size_t>(index)];
    auto old = buffers_.find(index);
    if (old != buffers_.end() && old->second->cipher != nullptr) EVP_CIPHER_CTX_free(old->second->cipher);
    buffers_[index] = newBuffer(playlist, segment,
                                segment.mapIndex >= 0 && (index == 0 || prefix_[static_cast<size_t>(index)] > 0));
    {
        int part = 0;
        double startSeconds = 0;
        for (int i = 0; i < index; ++i) {
            part += playlist.segments[static_cast<size_t>(i)].discontinuity ? 1 : 0;
            startSeconds += playlist.segments[static_cast<size_t>(i)].durationSeconds;
        }
        part += segment.discontinuity ? 1 : 0;
        // Counters continue from the segment before it when that one is here.
        const auto previous = buffers_.find(index - 1);
        if (segment.mapIndex >= 0) {
            timeline_.learnTracks(maps_[mapKey(playlist.maps[static_cast<size_t>(segment.mapIndex)])]);
        }
        HlsTimeline::begin(&buffers_[index]->ts, segment.mapIndex >= 0, part, startSeconds,
                           previous != buffers_.end() && previous->second->complete ? previous->second->ts.lastCc
                                                                                      : std::map<int, int>());
    }
    scanBoxes(index, buffers_[index].get());
    start(&segment_, HlsFetch::kSegment, index, segment.uri, segment.rangeOffset, segment.rangeLength);
}

std::unique_ptr<HlsSegmentBuffer> HlsSession::newBuffer(const HlsPlaylist& playlist,
                                                        const HlsSegment& segment, bool withInit) {
    std::unique_ptr<HlsSegmentBuffer> buffer(new HlsSegmentBuffer);
    if (withInit) buffer->data = maps_[mapKey(playlist.maps[static_cast<size_t>(segment.mapIndex)])];
    if (segment.keyIndex >= 0) {
        const HlsKey& key = playlist.keys[static_cast<size_t>(segment.keyIndex)];
        uint8_t iv[16] = {};
        if (key.hasIv) {
            memcpy(iv, key.iv, sizeof iv);
        } else {
            // The media sequence number, big-endian, in the IV's last bytes.
            for (int b = 0; b < 8; ++b) iv[15 - b] = static_cast<uint8_t>(segment.sequence >> (8 * b));
        }
        buffer->cipher = EVP_CIPHER_CTX_new();
        EVP_DecryptInit_ex(buffer->cipher, EVP_aes_128_cbc(), nullptr,
                           reinterpret_cast<const unsigned char*>(keys_[key.uri].data()), iv);
    }
    return buffer;
}

int HlsSession::chooseVariant() {
    if (throughputBps_.empty()) return variant_;
    std::vector<double> samples(throughputBps_.begin(), throughputBps_.end());
    std::nth_element(samples.begin(), samples.begin() + static_cast<long>(samples.size() / 2), samples.end());
    const double median = samples[samples.size() / 2];
    // A link that slows is believed at once, one that recovers only over
    // several segments.
    const double estimate = std::min(median, throughputBps_.back());
    const int64_t current = variants_[static_cast<size_t>(variant_)].bandwidthBps;
    int target = variant_;
    if (static_cast<double>(current) > kDownShare * estimate) {
        // Down to the best variant the estimate affords, or the lowest.
        int lowest = variant_;
        int best = -1;
        for (size_t v = 0; v < variants_.size(); ++v) {
            const int64_t bps = variants_[v].bandwidthBps;
            if (variantState_[v] == kVariantUnusable) continue;
            if (bps < variants_[static_cast<size_t>(lowest)].bandwidthBps) lowest = static_cast<int>(v);
            if (static_cast<double>(bps) <= kUsableShare * estimate && bps < current &&
                (best < 0 || bps > variants_[static_cast<size_t>(best)].bandwidthBps)) {
                best = static_cast<int>(v);
            }
        }
        target = best >= 0 ? best : lowest;
        upVotes_ = 0;
    } else {
        // Up one step at a time, after kUpVotes segments in a row allowed it.
        int higher = -1;
        for (size_t v = 0; v < variants_.size(); ++v) {
            const int64_t bps = variants_[v].bandwidthBps;
            if (variantState_[v] == kVariantUnusable || bps <= current) continue;
            if (higher < 0 || bps < variants_[static_cast<size_t>(higher)].bandwidthBps) higher = static_cast<int>(v);
        }
        if (higher >= 0 &&
            static_cast<double>(variants_[static_cast<size_t>(higher)].bandwidthBps) <= kUsableShare * estimate) {
            upVotes_ += 1;
        } else {
            upVotes_ = 0;
        }
        if (higher >= 0 && upVotes_ >= kUpVotes) target = higher;
    }
    if (target != variant_ && variantReady(target)) {
        logPrint("HlsFile: variant %d -> %d (estimate %.0f bit/s)\n", variant_, target, estimate);
        variant_ = target;
        upVotes_ = 0;
        if (live_) {
            // From here on the stream and the reloads follow the new variant's
            // playlist, reloaded at once when it was loaded too long ago to
            // list the next segment.
            media_ = *variantMedia_[static_cast<size_t>(target)];
            mediaUrl_ = variants_[static_cast<size_t>(target)].uri;
            lastListed_ = std::max(lastListed_, media_.segments.back().sequence);
            if (media_.segments.back().sequence < nextSequence_) nextReloadMs_ = 0;
        }
    }
    return variant_;
}

bool HlsSession::variantReady(int v) {
    const size_t i = static_cast<size_t>(v);
    if (variantState_[i] == kVariantUnusable) return false;
    if (control_.kind != HlsFetch::kIdle) return false;  // one thing at a time
    if (!variantMedia_[i]) {
        start(&control_, HlsFetch::kPlaylist, -1, variants_[i].uri, -1, -1);
        control_.variant = v;
        return false;
    }
    const HlsPlaylist& playlist = *variantMedia_[i];
    for (const HlsKey& key : playlist.keys) {
        if (key.method == HlsKey::kAes128 && keys_.count(key.uri) == 0) {
            start(&control_, HlsFetch::kKey, -1, key.uri, -1, -1);
            control_.variant = v;
            return false;
        }
    }
    for (size_t s = 0; s < playlist.segments.size(); ++s) {
        const int map = playlist.segments[s].mapIndex;
        if (map < 0) continue;
        const HlsMap& own = playlist.maps[static_cast<size_t>(map)];
        if (maps_.count(mapKey(own)) == 0) {
            start(&control_, HlsFetch::kMap, -1, own.uri, own.rangeOffset, own.rangeLength);
            control_.variant = v;
            return false;
        }
        // Fragmented MP4 switches only where the initialisation sections agree.
        const std::string ours =
            live_ ? lastMapKey_ : mapKey(media_.maps[static_cast<size_t>(media_.segments[s].mapIndex)]);
        if (maps_[mapKey(own)] != maps_[ours]) {
            logPrint("HlsFile: variant %d has other initialisation sections: not used\n", v);
            variantState_[i] = kVariantUnusable;
            return false;
        }
    }
    return true;
}

void HlsSession::takeVariantPlaylist(int v, const std::string& body, const std::string& url) {
    HlsPlaylist playlist;
    std::string why;
    bool usable = parseHlsPlaylist(body, url, &playlist, &why) && !playlist.master && !playlist.segments.empty();
    if (usable && live_) {
        // Live lines up by media sequence number: the same kind of segments.
        usable = (playlist.segments[0].mapIndex < 0) == (media_.segments[0].mapIndex < 0);
        for (const HlsKey& key : playlist.keys) usable &= key.method == HlsKey::kAes128;
    } else {
        usable &= playlist.endList && playlist.segments.size() == media_.segments.size();
    }
    for (size_t s = 0; usable && !live_ && s < playlist.segments.size(); ++s) {
        const HlsSegment& own = playlist.segments[s];
        const HlsSegment& ours = media_.segments[s];
        // The same spans: the same durations and kinds, no byte-range sizes.
        usable = std::abs(own.durationSeconds - ours.durationSeconds) < 0.5 &&
                 (own.mapIndex < 0) == (ours.mapIndex < 0) &&
                 (own.rangeLength < 0 && ours.rangeLength < 0) &&
                 (own.keyIndex < 0 || playlist.keys[static_cast<size_t>(own.keyIndex)].method == HlsKey::kAes128);
    }
    if (!usable) logPrint("HlsFile: variant %d does not line up with the stream: not used\n", v);
    variantState_[static_cast<size_t>(v)] = usable ? kVariantUsable : kVariantUnusable;
    if (usable) variantMedia_[static_cast<size_t>(v)].reset(new HlsPlaylist(playlist));
}

void HlsSession::complete(HlsRequest* request, VelkaStatus status, uint32_t length) {
    // The callback may queue the next read (recursive lock); the front stays
    // this one until it is popped.
    request->callback->complete(status, length);
    requests_.pop_front();
    delete request;
}

void HlsSession::updateCachePercent() {
    if (phase_ != kReady) {
        cachePercent_ = 0;
        return;
    }
    if (live_) {
        int64_t ahead = -liveOffset_;
        for (const auto& entry : liveQueue_) ahead += static_cast<int64_t>(entry.second->data.size());
        cachePercent_ = ahead >= kCacheThresholdBytes ? 100 : static_cast<int>(ahead * 100 / kCacheThresholdBytes);
        return;
    }
    int64_t ahead = 0;
    int64_t position = readPos_;
    while (position < length_ && ahead < kCacheThresholdBytes) {
        const int index = segmentAt(position);
        const auto it = buffers_.find(index);
        if (it == buffers_.end()) break;
        const int64_t offset = position - base_[static_cast<size_t>(index)];
        const int64_t span = span_[static_cast<size_t>(index)];
        if (it->second->complete) {
            ahead += span - offset;
            position += span - offset;
            continue;
        }
        ahead += std::max<int64_t>(0, static_cast<int64_t>(it->second->data.size()) - offset);
        break;
    }
    const int64_t threshold = std::min(kCacheThresholdBytes, length_ - readPos_);
    cachePercent_ = threshold <= 0 || ahead >= threshold ? 100 : static_cast<int>(ahead * 100 / threshold);
}

}  // namespace velka
