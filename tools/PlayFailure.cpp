#include "PlayFailure.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include <curl/curl.h>

namespace velka {
namespace tools {

namespace {

const char kFilePrefix[] = "file://";
constexpr size_t kFilePrefixLength = sizeof kFilePrefix - 1;
// The question to a server whose URL the library could not open: connect
// within this, answer within the second, or it counts as a network error.
constexpr long kProbeConnectSeconds = 5;
constexpr long kProbeTotalSeconds = 10;
constexpr long kProbeMaxRedirects = 10;

bool startsWith(const std::string& text, const char* prefix) {
    return text.compare(0, strlen(prefix), prefix) == 0;
}

bool isNetworkUrl(const std::string& url) {
    return startsWith(url, "http://") || startsWith(url, "https://");
}

// "scheme://" with a scheme of a letter, then letters, digits, '+', '-', '.'.
bool hasScheme(const std::string& url) {
    const size_t colon = url.find("://");
    if (colon == std::string::npos || colon == 0) return false;
    if (!isalpha(static_cast<unsigned char>(url[0]))) return false;
    for (size_t i = 1; i < colon; ++i) {
        const unsigned char c = static_cast<unsigned char>(url[i]);
        if (!isalnum(c) && c != '+' && c != '-' && c != '.') return false;
    }
    return true;
}

PlayFailure failure(const std::string& reason, int exitStatus) {
    PlayFailure f;
    f.reason = reason;
    f.exitStatus = exitStatus;
    return f;
}

// The last status line of a response ("HTTP/1.1 404 Not Found"), redirects
// included.
size_t probe_header_cb(char* data, size_t size, size_t count, void* statusLine) {
    const size_t n = size * count;
    std::string line(data, n);
    if (startsWith(line, "HTTP/")) {
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
        *static_cast<std::string*>(statusLine) = line;
    }
    return n;
}

size_t probe_write_cb(char* /*data*/, size_t size, size_t count, void* /*unused*/) {
    return size * count;
}

// What the server of `url` answers to a request for its first byte: no
// failure when it serves it.
PlayFailure probeServer(const std::string& url) {
    CURL* curl = curl_easy_init();
    if (curl == nullptr) return failure("network error: cannot start a request", kExitCannotPlay);
    std::string statusLine;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_RANGE, "0-0");
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kProbeMaxRedirects);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kProbeConnectSeconds);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, kProbeTotalSeconds);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &probe_header_cb);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &statusLine);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &probe_write_cb);
    const CURLcode result = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(curl);
    if (status >= 400) {
        // "404 Not Found" from "HTTP/1.1 404 Not Found"; HTTP/2 sends no words.
        const size_t space = statusLine.find(' ');
        std::string answer = space != std::string::npos ? statusLine.substr(space + 1)
                                                        : std::to_string(status);
        return failure("the server answered " + answer, kExitCannotPlay);
    }
    if (result != CURLE_OK) {
        return failure(std::string("network error: ") + curl_easy_strerror(result), kExitCannotPlay);
    }
    return PlayFailure();
}

}  // namespace

std::string toPlayUrl(const std::string& arg) {
    if (arg.find("://") != std::string::npos) return arg;
    if (!arg.empty() && arg[0] == '/') return kFilePrefix + arg;
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) == nullptr) return kFilePrefix + arg;
    return std::string(kFilePrefix) + cwd + "/" + arg;
}

PlayFailure checkBeforeOpen(const std::string& url) {
    if (!hasScheme(url)) return failure("unsupported URL", kExitUnsupported);
    if (!startsWith(url, kFilePrefix)) return PlayFailure();
    // The library reads the path after the prefix as it stands.
    const std::string path = url.substr(kFilePrefixLength);
    struct stat info;
    if (path.empty() || stat(path.c_str(), &info) != 0) {
        if (path.empty() || errno == ENOENT || errno == ENOTDIR) {
            return failure("no such file", kExitNoFile);
        }
        if (errno == EACCES) return failure("permission denied", kExitNoFile);
        return failure(strerror(errno), kExitNoFile);
    }
    if (S_ISDIR(info.st_mode)) return failure("a folder, not a media file", kExitNoFile);
    if (access(path.c_str(), R_OK) != 0) {
        return failure(errno == EACCES ? "permission denied" : strerror(errno), kExitNoFile);
    }
    return PlayFailure();
}

PlayFailure explainOpenFailure(const std::string& url) {
    if (isNetworkUrl(url)) {
        const PlayFailure answer = probeServer(url);
        if (!answer.reason.empty()) return answer;
        return failure("not a media file the engine can play", kExitCannotPlay);
    }
    if (startsWith(url, kFilePrefix)) {
        return failure("not a media file the engine can play", kExitCannotPlay);
    }
    // Every other URL went to the download engine, which refused it.
    return failure("unsupported URL (the download engine cannot open it)", kExitUnsupported);
}

PlayFailure explainPlaybackError(const std::string& url, int32_t errorCode) {
    if (isNetworkUrl(url)) {
        const PlayFailure answer = probeServer(url);
        if (!answer.reason.empty()) return answer;
    }
    std::string reason = "playback failed";
    // The download engine's states behind the source's error codes.
    if (errorCode == 5) reason = "playback failed: the download could not start";
    if (errorCode == 6) reason = "playback failed: the download broke off";
    return failure(reason + " (error code " + std::to_string(errorCode) + ")", kExitCannotPlay);
}

}  // namespace tools
}  // namespace velka
