#include "HlsSession.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "HlsSessionShared.h"
#include "LogLine.h"

namespace velka {

using namespace hls;

// --- Segments and the reads served from them, on the worker ----------------------------------

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

int HlsSession::segmentAt(int64_t position) const {
    const auto it = std::upper_bound(base_.begin(), base_.end(), position);
    return static_cast<int>(it - base_.begin()) - 1;
}

// Reads are served strictly from the front of the queue.
void HlsSession::serveRequests() {
    while (!requests_.empty()) {
        HlsRequest* request = requests_.front();
        if (request->cancelled || released_) {
            // What the read had received goes back: the next read starts
            // where this one began (a video-on-demand stream is read by position).
            if (!live_) readPos_ -= request->length - request->remaining;
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
    const HlsSegment& segment = media_.segments[static_cast<size_t>(index)];
    if (ts && index + 1 == static_cast<int>(span_.size()) && !(segment.rangeLength > 0 && segment.keyIndex < 0)) {
        // The last MPEG-TS segment stands at its span's end, after the
        // filler: a demuxer that reads the stream's last bytes for its
        // duration finds the last timestamps there, not filler that would
        // send it back into the segments before. Its place is known once it
        // is whole.
        if (!buffer->complete) return 0;
        const int64_t lead = span - limit;
        if (offset < lead) {
            const uint32_t n = static_cast<uint32_t>(std::min<int64_t>(count, lead - offset));
            copyNullPackets(out, offset, n);
            done += n;
            offset += n;
        }
        if (done < count && offset < span) {
            const uint32_t n = static_cast<uint32_t>(std::min<int64_t>(count - done, span - offset));
            memcpy(out + done, buffer->data.data() + (offset - lead), n);
            done += n;
        }
        return done;
    }
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
            const uint32_t n = static_cast<uint32_t>(std::min<int64_t>(count - done, span - offset));
            copyNullPackets(out + done, k, n);
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
        buffers_.erase(oldest);
    }
    startSegment(want);
}

void HlsSession::startSegment(int index) {
    const int variant = variants_.empty() || phase_ != kReady ? -1 : chooseVariant();
    const HlsPlaylist& playlist = variant < 0 ? media_ : *variantMedia_[static_cast<size_t>(variant)];
    const HlsSegment& segment = playlist.segments[static_cast<size_t>(index)];
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
