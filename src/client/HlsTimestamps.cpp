#include "HlsTimestamps.h"

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

}  // namespace

void HlsTimeline::begin(HlsTsRewrite* rewrite, int part, double startSeconds,
                        const std::map<int, int>& previousCc) {
    *rewrite = HlsTsRewrite();
    rewrite->active = true;
    rewrite->part = part;
    rewrite->startSeconds = startSeconds;
    rewrite->lastCc = previousCc;
}

void HlsTimeline::rewrite(std::string* data, HlsTsRewrite* rewrite, bool complete) {
    if (!rewrite->active) return;
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
        if (length > 0 && length >= 7 && (packet[5] & 0x10) != 0) {
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

}  // namespace velka
