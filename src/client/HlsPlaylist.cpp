#include "HlsPlaylist.h"

#include <cstdlib>
#include <cstring>
#include <map>

namespace velka {

namespace {

// An attribute list: NAME=VALUE pairs separated by commas, where a quoted
// value may itself hold commas. Quotes are removed.
std::map<std::string, std::string> parseAttributes(const std::string& text) {
    std::map<std::string, std::string> attributes;
    size_t i = 0;
    while (i < text.size()) {
        const size_t equals = text.find('=', i);
        if (equals == std::string::npos) break;
        std::string name = text.substr(i, equals - i);
        while (!name.empty() && name.front() == ' ') name.erase(0, 1);
        std::string value;
        size_t next = equals + 1;
        if (next < text.size() && text[next] == '"') {
            const size_t close = text.find('"', next + 1);
            if (close == std::string::npos) {
                value = text.substr(next + 1);
                next = text.size();
            } else {
                value = text.substr(next + 1, close - next - 1);
                next = close + 1;
            }
            next = text.find(',', next);
        } else {
            const size_t comma = text.find(',', next);
            value = text.substr(next, comma == std::string::npos ? std::string::npos : comma - next);
            next = comma;
        }
        attributes[name] = value;
        if (next == std::string::npos) break;
        i = next + 1;
    }
    return attributes;
}

bool startsWith(const std::string& text, const char* prefix) {
    return text.compare(0, strlen(prefix), prefix) == 0;
}

// "N[@O]" of EXT-X-BYTERANGE and BYTERANGE=; without @O the range follows
// the previous one of the same resource (`nextOffset`).
bool parseByteRange(const std::string& text, int64_t nextOffset, int64_t* offset,
                    int64_t* length) {
    char* end = nullptr;
    const long long n = strtoll(text.c_str(), &end, 10);
    if (end == text.c_str() || n <= 0) return false;
    *length = n;
    if (*end == '@') {
        const char* start = end + 1;
        const long long o = strtoll(start, &end, 10);
        if (end == start || o < 0) return false;
        *offset = o;
    } else {
        *offset = nextOffset < 0 ? 0 : nextOffset;
    }
    return true;
}

bool parseIv(const std::string& text, uint8_t (&iv)[16]) {
    if (text.size() < 3 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X')) return false;
    std::string hex = text.substr(2);
    if (hex.size() > 32) return false;
    hex = std::string(32 - hex.size(), '0') + hex;
    for (int i = 0; i < 16; ++i) {
        char byte[3] = {hex[2 * i], hex[2 * i + 1], 0};
        char* end = nullptr;
        iv[i] = static_cast<uint8_t>(strtoul(byte, &end, 16));
        if (*end != 0) return false;
    }
    return true;
}

}  // namespace

std::string resolveHlsUrl(const std::string& base, const std::string& reference) {
    if (reference.find("://") != std::string::npos &&
        reference.find("://") < reference.find_first_of("/?#")) {
        return reference;
    }
    const size_t schemeEnd = base.find("://");
    if (schemeEnd == std::string::npos) return reference;
    if (startsWith(reference, "//")) return base.substr(0, schemeEnd + 1) + reference;
    const size_t pathStart = base.find('/', schemeEnd + 3);
    const std::string origin = pathStart == std::string::npos ? base : base.substr(0, pathStart);
    std::string basePath = pathStart == std::string::npos ? "/" : base.substr(pathStart);
    const size_t query = basePath.find_first_of("?#");
    if (!reference.empty() && reference[0] == '?') {
        return origin + basePath.substr(0, query) + reference;
    }
    if (query != std::string::npos) basePath.erase(query);
    std::string path;
    if (!reference.empty() && reference[0] == '/') {
        path = reference;
    } else {
        path = basePath.substr(0, basePath.rfind('/') + 1) + reference;
    }
    // Remove "." and ".." segments; the query stays as it is.
    const size_t refQuery = path.find_first_of("?#");
    const std::string tail = refQuery == std::string::npos ? "" : path.substr(refQuery);
    if (refQuery != std::string::npos) path.erase(refQuery);
    std::vector<std::string> parts;
    size_t i = 1;
    while (i <= path.size()) {
        size_t slash = path.find('/', i);
        if (slash == std::string::npos) slash = path.size();
        const std::string part = path.substr(i, slash - i);
        const bool last = slash == path.size();
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
            if (last) parts.push_back("");
        } else if (part == ".") {
            if (last) parts.push_back("");
        } else {
            parts.push_back(part);
        }
        i = slash + 1;
    }
    std::string normal;
    for (const std::string& part : parts) normal += "/" + part;
    if (normal.empty()) normal = "/";
    return origin + normal + tail;
}

bool parseHlsPlaylist(const std::string& text, const std::string& url, HlsPlaylist* playlist,
                      std::string* error) {
    *playlist = HlsPlaylist();
    std::vector<std::string> lines;
    size_t i = 0;
    // A UTF-8 byte order mark may come first.
    if (startsWith(text, "\xEF\xBB\xBF")) i = 3;
    while (i < text.size()) {
        size_t end = text.find('\n', i);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(i, end - i);
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) {
            line.pop_back();
        }
        if (!line.empty()) lines.push_back(line);
        i = end + 1;
    }
    if (lines.empty() || lines[0] != "#EXTM3U") {
        *error = "not an HLS playlist (no #EXTM3U first line)";
        return false;
    }

    HlsSegment next;           // what the tags so far say of the next segment
    bool haveExtinf = false;
    int keyIndex = -1;
    int mapIndex = -1;
    int64_t rangeNext = -1;    // where a BYTERANGE without @ starts
    std::string rangeUri;      // the resource rangeNext belongs to
    HlsVariant variant;
    bool haveVariant = false;
    for (size_t n = 1; n < lines.size(); ++n) {
        const std::string& line = lines[n];
        if (line[0] != '#') {
            if (haveVariant) {
                variant.uri = resolveHlsUrl(url, line);
                playlist->variants.push_back(variant);
                haveVariant = false;
                continue;
            }
            if (!haveExtinf) {
                *error = "segment without #EXTINF: " + line;
                return false;
            }
            next.uri = resolveHlsUrl(url, line);
            if (next.rangeLength > 0 && next.rangeOffset < 0) {
                next.rangeOffset = rangeUri == next.uri && rangeNext >= 0 ? rangeNext : 0;
            }
            if (next.rangeLength > 0) {
                rangeNext = next.rangeOffset + next.rangeLength;
                rangeUri = next.uri;
            }
            next.sequence = playlist->mediaSequence + static_cast<int64_t>(playlist->segments.size());
            next.keyIndex = keyIndex;
            next.mapIndex = mapIndex;
            playlist->segments.push_back(next);
            next = HlsSegment();
            haveExtinf = false;
            continue;
        }
        const size_t colon = line.find(':');
        const std::string tag = line.substr(0, colon);
        const std::string value = colon == std::string::npos ? "" : line.substr(colon + 1);
        if (tag == "#EXTINF") {
            char* end = nullptr;
            next.durationSeconds = strtod(value.c_str(), &end);
            if (end == value.c_str() || next.durationSeconds < 0) {
                *error = "bad #EXTINF: " + line;
                return false;
            }
            haveExtinf = true;
        } else if (tag == "#EXT-X-TARGETDURATION") {
            playlist->targetDurationSeconds = atof(value.c_str());
        } else if (tag == "#EXT-X-MEDIA-SEQUENCE") {
            if (!playlist->segments.empty()) continue;
            playlist->mediaSequence = strtoll(value.c_str(), nullptr, 10);
        } else if (tag == "#EXT-X-ENDLIST") {
            playlist->endList = true;
        } else if (tag == "#EXT-X-PLAYLIST-TYPE") {
            // VOD promises the list never changes; it still needs ENDLIST to end.
        } else if (tag == "#EXT-X-DISCONTINUITY") {
            next.discontinuity = true;
        } else if (tag == "#EXT-X-BYTERANGE") {
            int64_t offset = -1, length = -1;
            // Without @ the offset is known only once the URI line names the resource.
            if (value.find('@') == std::string::npos) {
                char* end = nullptr;
                length = strtoll(value.c_str(), &end, 10);
                if (end == value.c_str() || length <= 0) {
                    *error = "bad #EXT-X-BYTERANGE: " + line;
                    return false;
                }
            } else if (!parseByteRange(value, -1, &offset, &length)) {
                *error = "bad #EXT-X-BYTERANGE: " + line;
                return false;
            }
            next.rangeOffset = offset;
            next.rangeLength = length;
        } else if (tag == "#EXT-X-KEY") {
            std::map<std::string, std::string> attributes = parseAttributes(value);
            const std::string method = attributes["METHOD"];
            if (method == "NONE") {
                keyIndex = -1;
                continue;
            }
            HlsKey key;
            key.methodName = method;
            key.method = method == "AES-128" ? HlsKey::kAes128 : HlsKey::kUnsupported;
            if (attributes.count("URI") != 0) key.uri = resolveHlsUrl(url, attributes["URI"]);
            if (key.method == HlsKey::kAes128 && key.uri.empty()) {
                *error = "EXT-X-KEY METHOD=AES-128 without a URI";
                return false;
            }
            if (attributes.count("IV") != 0) {
                if (!parseIv(attributes["IV"], key.iv)) {
                    *error = "bad IV in " + line;
                    return false;
                }
                key.hasIv = true;
            }
            playlist->keys.push_back(key);
            keyIndex = static_cast<int>(playlist->keys.size()) - 1;
        } else if (tag == "#EXT-X-MAP") {
            std::map<std::string, std::string> attributes = parseAttributes(value);
            HlsMap map;
            if (attributes["URI"].empty()) {
                *error = "EXT-X-MAP without a URI";
                return false;
            }
            map.uri = resolveHlsUrl(url, attributes["URI"]);
            if (attributes.count("BYTERANGE") != 0 &&
                !parseByteRange(attributes["BYTERANGE"], 0, &map.rangeOffset, &map.rangeLength)) {
                *error = "bad BYTERANGE in " + line;
                return false;
            }
            playlist->maps.push_back(map);
            mapIndex = static_cast<int>(playlist->maps.size()) - 1;
        } else if (tag == "#EXT-X-STREAM-INF") {
            std::map<std::string, std::string> attributes = parseAttributes(value);
            variant = HlsVariant();
            variant.bandwidthBps = strtoll(attributes["BANDWIDTH"].c_str(), nullptr, 10);
            variant.codecs = attributes["CODECS"];
            haveVariant = true;
            playlist->master = true;
        }
        // Other tags (EXT-X-VERSION, EXT-X-MEDIA, EXT-X-PROGRAM-DATE-TIME, ...)
        // change nothing this reader does.
    }
    if (playlist->master) {
        if (playlist->variants.empty()) {
            *error = "master playlist without a variant";
            return false;
        }
        return true;
    }
    if (playlist->segments.empty() && playlist->endList) {
        *error = "playlist without a segment";
        return false;
    }
    if (playlist->targetDurationSeconds <= 0) {
        *error = "media playlist without #EXT-X-TARGETDURATION";
        return false;
    }
    return true;
}

}  // namespace velka
