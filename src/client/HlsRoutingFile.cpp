#include "HlsRoutingFile.h"

#include <cctype>

#include "LogLine.h"
#include "velka/Assert.h"
#include "velka/HlsFile.h"
#include "velka/HttpFile.h"

namespace velka {

bool isHlsContentType(const std::string& contentType) {
    std::string type = contentType.substr(0, contentType.find(';'));
    while (!type.empty() && isspace(static_cast<unsigned char>(type.back()))) type.pop_back();
    size_t first = 0;
    while (first < type.size() && isspace(static_cast<unsigned char>(type[first]))) ++first;
    type.erase(0, first);
    for (char& c : type) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return type == "application/vnd.apple.mpegurl" || type == "application/x-mpegurl" ||
           type == "audio/mpegurl" || type == "audio/x-mpegurl";
}

HlsRoutingFile::HlsRoutingFile(const std::string& url) : File(url), hls_(false) {}

int HlsRoutingFile::open() {
    std::unique_ptr<HttpFile> http(new HttpFile(url_));
    if (http->open() != 0) return -1;
    const std::string type = http->contentType();
    if (!isHlsContentType(type)) {
        file_ = std::move(http);
        return 0;
    }
    // A playlist: fetched again by the HlsFile, the one request more that
    // only playlists cost.
    logPrint("HlsFile: %s is a playlist (%s)\n", url_.c_str(), type.c_str());
    http->close();
    std::unique_ptr<HlsFile> hls(new HlsFile(url_));
    if (hls->open() != 0) return -1;
    file_ = std::move(hls);
    hls_ = true;
    return 0;
}

int HlsRoutingFile::close() {
    const int result = file_ ? file_->close() : 0;
    file_.reset();
    return result;
}

int HlsRoutingFile::read(char* buffer, uint32_t length) {
    VELKA_ASSERT(file_ != NULL);
    return file_->read(buffer, length);
}

void* HlsRoutingFile::readAsync(char* buffer, uint32_t length, AsyncCallback& callback) {
    VELKA_ASSERT(file_ != NULL);
    return file_->readAsync(buffer, length, callback);
}

int HlsRoutingFile::cancel(void* request) {
    VELKA_ASSERT(file_ != NULL);
    return file_->cancel(request);
}

int64_t HlsRoutingFile::seek(int64_t offset, Whence whence) {
    VELKA_ASSERT(file_ != NULL);
    return file_->seek(offset, whence);
}

int64_t HlsRoutingFile::tell() {
    VELKA_ASSERT(file_ != NULL);
    return file_->tell();
}

int64_t HlsRoutingFile::length() {
    VELKA_ASSERT(file_ != NULL);
    return file_->length();
}

int64_t HlsRoutingFile::available() {
    VELKA_ASSERT(file_ != NULL);
    return file_->available();
}

int HlsRoutingFile::cachePercent() { return file_ ? file_->cachePercent() : 0; }

int HlsRoutingFile::error() { return file_ ? file_->error() : 0; }

}  // namespace velka
