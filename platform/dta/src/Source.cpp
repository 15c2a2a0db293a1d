#include "Source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace bctidta {

namespace {

// "dta-test://" followed by a path: a file of local storage.
const char kLocalScheme[] = "dta-test://";

class LocalSource : public Source {
public:
    explicit LocalSource(const std::string& path) : path_(path), fd_(-1), offset_(0) {}
    ~LocalSource() override {
        if (fd_ != -1) ::close(fd_);
    }

    int open(int64_t offset, int64_t* totalLength) override {
        if (fd_ == -1) {
            fd_ = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd_ == -1) return -errno;
        }
        struct stat st;
        if (fstat(fd_, &st) != 0) return -errno;
        if (!S_ISREG(st.st_mode)) return -EINVAL;
        *totalLength = static_cast<int64_t>(st.st_size);
        offset_ = offset;
        return 0;
    }

    int64_t fetch(char* buffer, uint32_t count) override {
        ssize_t n;
        do {
            n = pread(fd_, buffer, count, static_cast<off_t>(offset_));
        } while (n < 0 && errno == EINTR);
        if (n < 0) return -errno;
        offset_ += n;
        return n;
    }

private:
    std::string path_;
    int fd_;
    int64_t offset_;
};

bool hasScheme(const std::string& url, const char* scheme) {
    return url.compare(0, std::strlen(scheme), scheme) == 0;
}

}  // namespace

std::unique_ptr<Source> makeSource(const std::string& url, const std::atomic<bool>& interrupted) {
    if (hasScheme(url, kLocalScheme)) {
        return std::unique_ptr<Source>(new LocalSource(url.substr(sizeof(kLocalScheme) - 1)));
    }
    if (hasScheme(url, "http://") || hasScheme(url, "https://")) {
        return makeHttpSource(url, interrupted);
    }
    return nullptr;
}

}  // namespace bctidta
