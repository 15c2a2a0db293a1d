#include "HlsSession.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "HlsSessionShared.h"
#include "LogLine.h"

namespace velka {

using namespace hls;

// --- Opening, reloads and adaptation, on the worker ------------------------------------------

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

}  // namespace velka
