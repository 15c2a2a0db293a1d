#include "velka/HlsFile.h"

#include "HlsSession.h"
#include "HttpTask.h"
#include "LogLine.h"
#include "velka/Assert.h"

namespace velka {

namespace {
// How often close() looks again whether the worker still runs while it waits
// for the session to go: at process exit the worker may stop first.
constexpr unsigned int kCloseRecheckMs = 100;

// Releases `session` and, off the worker, waits until the worker has
// completed its queued reads and destroyed it.
void releaseSession(HlsSession* session) {
    if (onHttpWorker()) {
        session->release(nullptr);
        return;
    }
    Semaphore destroyed(0);
    session->release(&destroyed);
    while (!destroyed.timedWait(kCloseRecheckMs)) {
        if (!workerRunning_) break;
    }
}
}  // namespace

HlsFile::HlsFile(const std::string& url, const HttpOptions& options)
    : File(url), options_(options), openTimeLimitMs_(kDefaultOpenTimeLimitMs), session_(nullptr) {}

HlsFile::~HlsFile() {
    logPuts("~HlsFile");
    if (session_ != nullptr) close();
}

int HlsFile::open() {
    logPrint("HlsFile::open %s\n", url_.c_str());
    HlsSession* session = new HlsSession(url_, options_);
    std::string why;
    bool withWorker = false;
    if (!session->open(openTimeLimitMs_, &why, &withWorker)) {
        if (withWorker) releaseSession(session);
        logPrint("HlsFile::open fail: %s\n", why.c_str());
        return -1;
    }
    session_ = session;
    return 0;
}

int HlsFile::close() {
    logPuts("HlsFile::close");
    if (session_ != nullptr) {
        releaseSession(session_);
        session_ = nullptr;
        logPuts("HlsFile::close end");
    }
    return 0;
}

int HlsFile::read(char* buffer, uint32_t length) {
    VELKA_ASSERT(session_ != NULL);
    return session_->read(buffer, length);
}

void* HlsFile::readAsync(char* buffer, uint32_t length, AsyncCallback& callback) {
    VELKA_ASSERT(session_ != NULL);
    return session_->readAsync(buffer, length, callback);
}

int HlsFile::cancel(void* request) {
    VELKA_ASSERT(session_ != NULL);
    VELKA_ASSERT(request != NULL);
    return session_->cancel(static_cast<HlsRequest*>(request));
}

int64_t HlsFile::seek(int64_t offset, Whence whence) {
    VELKA_ASSERT(session_ != NULL);
    return session_->seek(offset, whence);
}

int64_t HlsFile::tell() {
    VELKA_ASSERT(session_ != NULL);
    return session_->tell();
}

int64_t HlsFile::length() {
    VELKA_ASSERT(session_ != NULL);
    return session_->length();
}

int64_t HlsFile::available() {
    VELKA_ASSERT(session_ != NULL);
    const int64_t length = session_->length();
    return length < 0 ? -1 : length - session_->tell();
}

int HlsFile::cachePercent() { return session_ == nullptr ? 0 : session_->cachePercent(); }

int HlsFile::error() { return session_ == nullptr ? 0 : session_->error(); }

}  // namespace velka
