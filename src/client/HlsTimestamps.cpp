#include "HlsTimestamps.h"

#include <cstring>
#include <functional>

#include "LogLine.h"

namespace velka {

namespace {

constexpr int64_t kPacketBytes = 188;
constexpr int kNullPid = 0x1FFF;
constexpr int64_t kTicksPerSecond = 90000;
constexpr int64_t kTimestampMask = (int64_t(1) << 33) - 1;

int64_t readTimestamp(const unsigned char* p) {
    return (int64_t((p[0] >> 1) & 0x07) << 30) | (int64_t(p[1]) << 22) | (int64_t(p[2] >> 1) << 15) |
           (int64_t(p[3]) << 7) | (p[4] >> 1);
}

void writeTimestamp(unsigned char* p, int64_t t) {
    p[0] = static_cast<unsigned char>((p[0] & 0xF1) | ((t >> 29) & 0x0E));
    p[1] = static_cast<unsigned char>(t >> 22);
    p[2] = static_cast<unsigned char>(((t >> 14) & 0xFE) | 1);
    p[3] = static_cast<unsigned char>(t >> 7);
    p[4] = static_cast<unsigned char>(((t << 1) & 0xFE) | 1);
}

// The 33-bit base of a PCR; its 9-bit extension stays.
int64_t readPcr(const unsigned char* p) {
    return (int64_t(p[0]) << 25) | (int64_t(p[1]) << 17) | (int64_t(p[2]) << 9) | (int64_t(p[3]) << 1) |
           (p[4] >> 7);
}

void writePcr(unsigned char* p, int64_t base) {
    p[0] = static_cast<unsigned char>(base >> 25);
    p[1] = static_cast<unsigned char>(base >> 17);
    p[2] = static_cast<unsigned char>(base >> 9);
    p[3] = static_cast<unsigned char>(base >> 1);
    p[4] = static_cast<unsigned char>(((base & 1) << 7) | (p[4] & 0x7F));
}

int64_t shifted(int64_t t, int64_t offset) { return (t + offset) & kTimestampMask; }

// Where the PES header's PTS starts in `packet`, or -1; `hasDts` says whether
// a DTS follows it.
int64_t ptsAt(const unsigned char* packet, int64_t payload, bool* hasDts) {
    const unsigned char* p = packet + payload;
    if (payload + 14 > kPacketBytes || p[0] != 0 || p[1] != 0 || p[2] != 1) return -1;
    const unsigned char id = p[3];
    // Streams without the optional PES header.
    if (id == 0xBC || id == 0xBE || id == 0xBF || id == 0xF0 || id == 0xF1 || id == 0xF2 || id == 0xF8 ||
        id == 0xFF || (p[6] & 0xC0) != 0x80) {
        return -1;
    }
    const int flags = p[7] >> 6;
    if (flags < 2) return -1;
    *hasDts = flags == 3;
    if (*hasDts && payload + 19 > kPacketBytes) return -1;
    return payload + 9;
}

uint32_t be32(const unsigned char* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

void putBe32(unsigned char* p, uint64_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (24 - 8 * i));
}

// The size of the box at `p` with `left` bytes from there (its header
// included); 0 when it is malformed, -1 when its size header is not all there.
int64_t boxSize(const unsigned char* p, int64_t left) {
    if (left < 8) return -1;
    uint64_t size = be32(p);
    if (size == 1) {
        if (left < 16) return -1;
        size = (uint64_t(be32(p + 8)) << 32) | be32(p + 12);
    }
    return size < 8 || size >= (uint64_t(1) << 62) ? 0 : static_cast<int64_t>(size);
}

// Calls `each` with the type and payload of every whole box in `p`.
void forEachBox(unsigned char* p, int64_t length,
                const std::function<void(const char* type, unsigned char* payload, int64_t size)>& each) {
    for (int64_t at = 0; at < length;) {
        const int64_t size = boxSize(p + at, length - at);
        if (size <= 0 || at + size > length) return;
        const int64_t header = be32(p + at) == 1 ? 16 : 8;
        each(reinterpret_cast<const char*>(p + at + 4), p + at + header, size - header);
        at += size;
    }
}

bool isType(const char* type, const char* name) { return memcmp(type, name, 4) == 0; }

}  // namespace

void HlsTimeline::begin(HlsTsRewrite* rewrite, bool mp4, int part, double startSeconds,
                        const std::map<int, int>& previousCc) {
    *rewrite = HlsTsRewrite();
    rewrite->active = true;
    rewrite->mp4 = mp4;
    rewrite->part = part;
    rewrite->startSeconds = startSeconds;
    rewrite->lastCc = previousCc;
}

void HlsTimeline::rewrite(std::string* data, HlsTsRewrite* rewrite, bool complete) {
    if (!rewrite->active) return;
    if (rewrite->mp4) {
        rewriteBoxes(data, rewrite, complete);
        return;
    }
    const int64_t size = static_cast<int64_t>(data->size());
    unsigned char* bytes = reinterpret_cast<unsigned char*>(&(*data)[0]);
    while (rewrite->done + kPacketBytes <= size) {
        if (bytes[rewrite->done] != 0x47) {
            // Not packets at the expected places: the rest goes as it is.
            logPrint("HlsFile: no MPEG-TS packet at %lld of a segment: left as it is\n",
                     static_cast<long long>(rewrite->done));
            rewrite->active = false;
            return;
        }
        rewritePacket(bytes + rewrite->done, rewrite);
        rewrite->done += kPacketBytes;
    }
    if (complete) rewrite->done = size;
}

int64_t HlsTimeline::offsetFor(HlsTsRewrite* rewrite, int64_t firstTimestamp) {
    if (!rewrite->haveOffset) {
        const auto known = partOffset90k_.find(rewrite->part);
        if (known != partOffset90k_.end()) {
            rewrite->offset90k = known->second;
        } else {
            const int64_t start = static_cast<int64_t>(rewrite->startSeconds * kTicksPerSecond);
            if (!haveBase_) {
                base90k_ = firstTimestamp - start;
                haveBase_ = true;
            }
            rewrite->offset90k = base90k_ + start - firstTimestamp;
            partOffset90k_[rewrite->part] = rewrite->offset90k;
            if (rewrite->offset90k != 0) {
                logPrint("HlsFile: part %d moved by %lld ticks of 90 kHz\n", rewrite->part,
                         static_cast<long long>(rewrite->offset90k));
            }
        }
        rewrite->haveOffset = true;
    }
    return rewrite->offset90k;
}

void HlsTimeline::rewritePacket(unsigned char* packet, HlsTsRewrite* rewrite) {
    const int pid = ((packet[1] & 0x1F) << 8) | packet[2];
    if (pid == kNullPid) return;
    const int control = (packet[3] >> 4) & 3;
    const bool hasPayload = (control & 1) != 0;
    const int cc = packet[3] & 0x0F;
    // Counters: a packet with payload adds one, one without repeats the last.
    auto delta = rewrite->ccDelta.find(pid);
    if (delta == rewrite->ccDelta.end()) {
        const auto last = rewrite->lastCc.find(pid);
        const int wanted = last == rewrite->lastCc.end() ? cc : (last->second + (hasPayload ? 1 : 0)) & 0x0F;
        delta = rewrite->ccDelta.emplace(pid, (wanted - cc) & 0x0F).first;
    }
    const int newCc = (cc + delta->second) & 0x0F;
    packet[3] = static_cast<unsigned char>((packet[3] & 0xF0) | newCc);
    rewrite->lastCc[pid] = newCc;

    int64_t payload = 4;
    if ((control & 2) != 0) {
        const int length = packet[4];
        if (length >= 7 && (packet[5] & 0x10) != 0) {  // PCR_flag, and room for the PCR
            writePcr(packet + 6, shifted(readPcr(packet + 6), offsetFor(rewrite, readPcr(packet + 6))));
        }
        payload = 5 + length;
    }
    if (!hasPayload || (packet[1] & 0x40) == 0 || payload >= kPacketBytes) return;
    bool hasDts = false;
    const int64_t at = ptsAt(packet, payload, &hasDts);
    if (at < 0) return;
    const int64_t offset = offsetFor(rewrite, readTimestamp(packet + at));
    if (offset == 0) return;
    writeTimestamp(packet + at, shifted(readTimestamp(packet + at), offset));
    if (hasDts) writeTimestamp(packet + at + 5, shifted(readTimestamp(packet + at + 5), offset));
}

void HlsTimeline::learnTracks(const std::string& init) {
    std::string copy = init;
    forEachBox(reinterpret_cast<unsigned char*>(&copy[0]), static_cast<int64_t>(copy.size()),
               [this](const char* type, unsigned char* moov, int64_t moovSize) {
        if (!isType(type, "moov")) return;
        forEachBox(moov, moovSize, [this](const char* type, unsigned char* trak, int64_t trakSize) {
            if (!isType(type, "trak")) return;
            uint32_t id = 0, timescale = 0;
            forEachBox(trak, trakSize, [&](const char* type, unsigned char* p, int64_t size) {
                // Full boxes: version 1 has 64-bit times before the field.
                const int64_t at = p[0] == 1 ? 20 : 12;
                if (isType(type, "tkhd") && size >= at + 4) id = be32(p + at);
                if (!isType(type, "mdia")) return;
                forEachBox(p, size, [&](const char* type, unsigned char* mdhd, int64_t mdhdSize) {
                    const int64_t field = mdhd[0] == 1 ? 20 : 12;
                    if (isType(type, "mdhd") && mdhdSize >= field + 4) timescale = be32(mdhd + field);
                });
            });
            if (id != 0 && timescale != 0) timescales_[id] = timescale;
        });
    });
}

void HlsTimeline::rewriteBoxes(std::string* data, HlsTsRewrite* rewrite, bool complete) {
    const int64_t size = static_cast<int64_t>(data->size());
    unsigned char* bytes = reinterpret_cast<unsigned char*>(&(*data)[0]);
    while (rewrite->done < size) {
        const int64_t box = boxSize(bytes + rewrite->done, size - rewrite->done);
        if (box == 0) {
            logPrint("HlsFile: no MP4 box at %lld of a segment: left as it is\n",
                     static_cast<long long>(rewrite->done));
            rewrite->active = false;
            return;
        }
        if (box < 0 || rewrite->done + box > size) break;
        const char* type = reinterpret_cast<const char*>(bytes + rewrite->done + 4);
        const int64_t header = be32(bytes + rewrite->done) == 1 ? 16 : 8;
        if (isType(type, "moov")) learnTracks(data->substr(static_cast<size_t>(rewrite->done), static_cast<size_t>(box)));
        if (isType(type, "moof")) rewriteFragment(bytes + rewrite->done + header, box - header, rewrite);
        rewrite->done += box;
    }
    if (complete) rewrite->done = size;
}

// Each track fragment's tfdt (baseMediaDecodeTime), in its track's timescale.
void HlsTimeline::rewriteFragment(unsigned char* moof, int64_t length, HlsTsRewrite* rewrite) {
    forEachBox(moof, length, [this, rewrite](const char* type, unsigned char* traf, int64_t trafSize) {
        if (!isType(type, "traf")) return;
        uint32_t id = 0;
        forEachBox(traf, trafSize, [&](const char* type, unsigned char* p, int64_t size) {
            if (isType(type, "tfhd") && size >= 8) id = be32(p + 4);
            const bool wide = p[0] == 1;
            if (!isType(type, "tfdt") || size < (wide ? 12 : 8)) return;
            const auto known = timescales_.find(id);
            const int64_t timescale = known == timescales_.end() ? kTicksPerSecond : known->second;
            const int64_t t = wide ? static_cast<int64_t>((uint64_t(be32(p + 4)) << 32) | be32(p + 8))
                                   : static_cast<int64_t>(be32(p + 4));
            const int64_t offset = offsetFor(rewrite, t * kTicksPerSecond / timescale) * timescale / kTicksPerSecond;
            const int64_t moved = t + offset;
            if (offset == 0 || moved < 0 || (!wide && moved > 0xFFFFFFFFll)) return;
            if (wide) {
                putBe32(p + 4, static_cast<uint64_t>(moved) >> 32);
                putBe32(p + 8, static_cast<uint64_t>(moved));
            } else {
                putBe32(p + 4, static_cast<uint64_t>(moved));
            }
        });
    });
}

}  // namespace velka
