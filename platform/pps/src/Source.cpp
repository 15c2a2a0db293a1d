#include "Source.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace ems {

namespace {

// "pps-test://" followed by a path of local storage, or by an http:// URL.
const char kScheme[] = "pps-test://";
const char kHttpPrefix[] = "http://";

// A server that has not answered a piece request within these gives the task
// a read error rather than a download thread that hangs.
const long kHttpConnectTimeoutSeconds = 10;
const long kHttpTransferTimeoutSeconds = 60;

class LocalSource : public Source {
public:
    explicit LocalSource(const std::string& path) : path_(path), fd_(-1) {}
    ~LocalSource() override {
        if (fd_ != -1) ::close(fd_);
    }

    int open(int64_t* length) override {
        fd_ = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ == -1) return -errno;
        struct stat st;
        if (fstat(fd_, &st) != 0) return -errno;
        if (!S_ISREG(st.st_mode)) return -EINVAL;
        *length = static_cast<int64_t>(st.st_size);
        return 0;
    }

    int64_t readAt(char* buffer, uint32_t count, int64_t offset,
                   const std::atomic<bool>& /*cancel*/) override {
        uint32_t done = 0;
        while (done < count) {
            ssize_t n = pread(fd_, buffer + done, count - done, static_cast<off_t>(offset + done));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return -errno;
            if (n == 0) return -EIO;  // the file shrank under the task
            done += static_cast<uint32_t>(n);
        }
        return count;
    }

private:
    std::string path_;
    int fd_;
};

// One HEAD request for the length, then one range request per piece.
class HttpSource : public Source {
public:
    explicit HttpSource(const std::string& url) : url_(url), curl_(nullptr) {}
    ~HttpSource() override {
        if (curl_ != nullptr) curl_easy_cleanup(curl_);
    }

    int open(int64_t* length) override {
        CURL* curl = newHandle();
        if (curl == nullptr) return -ENOMEM;
        curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
        CURLcode rc = curl_easy_perform(curl);
        long code = 0;
        curl_off_t size = -1;
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code);
        curl_easy_getinfo(curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &size);
        curl_easy_cleanup(curl);
        if (rc != CURLE_OK) return -EIO;
        if (code != 200) return -ENOENT;
        // The store is laid out for the whole stream, so its length must be known.
        if (size < 0) return -EPROTO;
        *length = static_cast<int64_t>(size);
        return 0;
    }

    int64_t readAt(char* buffer, uint32_t count, int64_t offset,
                   const std::atomic<bool>& cancel) override {
        if (curl_ == nullptr) curl_ = newHandle();  // kept: the connection is reused
        if (curl_ == nullptr) return -ENOMEM;
        char range[64];
        snprintf(range, sizeof range, "%" PRId64 "-%" PRId64, offset,
                 offset + static_cast<int64_t>(count) - 1);
        Piece piece{buffer, count, 0};
        curl_easy_setopt(curl_, CURLOPT_RANGE, range);
        curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, &HttpSource::write_cb);
        curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &piece);
        curl_easy_setopt(curl_, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(curl_, CURLOPT_XFERINFOFUNCTION, &HttpSource::progress_cb);
        curl_easy_setopt(curl_, CURLOPT_XFERINFODATA, &cancel);
        CURLcode rc = curl_easy_perform(curl_);
        long code = 0;
        curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &code);
        if (cancel) return -ECANCELED;
        if (rc != CURLE_OK) return -EIO;
        // 200 would be the whole stream from its start: not this piece.
        if (code != 206 || piece.got != count) return -EPROTO;
        return count;
    }

private:
    struct Piece {
        char* buffer;
        uint32_t size;
        uint32_t got;
    };

    static size_t write_cb(char* data, size_t size, size_t nmemb, void* userdata) {
        Piece* piece = static_cast<Piece*>(userdata);
        const size_t n = size * nmemb;
        if (n > piece->size - piece->got) return 0;  // more than asked for: abort
        memcpy(piece->buffer + piece->got, data, n);
        piece->got += static_cast<uint32_t>(n);
        return n;
    }

    static int progress_cb(void* userdata, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
        return static_cast<const std::atomic<bool>*>(userdata)->load() ? 1 : 0;
    }

    CURL* newHandle() {
        static std::once_flag initialised;
        std::call_once(initialised, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
        CURL* curl = curl_easy_init();
        if (curl == nullptr) return nullptr;
        curl_easy_setopt(curl, CURLOPT_URL, url_.c_str());
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kHttpConnectTimeoutSeconds);
        curl_easy_setopt(curl, CURLOPT_TIMEOUT, kHttpTransferTimeoutSeconds);
        return curl;
    }

    std::string url_;
    CURL* curl_;  // the download thread's handle
};

bool startsWith(const std::string& text, const char* prefix) {
    return text.compare(0, strlen(prefix), prefix) == 0;
}

}  // namespace

std::unique_ptr<Source> makeSource(const std::string& url) {
    if (!startsWith(url, kScheme)) return nullptr;
    const std::string rest = url.substr(sizeof(kScheme) - 1);
    if (startsWith(rest, kHttpPrefix)) return std::unique_ptr<Source>(new HttpSource(rest));
    return std::unique_ptr<Source>(new LocalSource(rest));
}

}  // namespace ems
