#include "velka/HttpFile.h"

#include <cstdio>

#include "HttpTask.h"
#include "velka/Assert.h"
#include "LogLine.h"

namespace velka {

namespace {
// How often close() looks again whether the worker still runs while it waits
// for the task to go: at process exit the worker may stop first.
constexpr unsigned int kCloseRecheckMs = 100;
}  // namespace

HttpFile::HttpFile(const std::string& url, const HttpOptions& options)
    : File(url), options_(options), task_(nullptr) {}

HttpFile::~HttpFile() {
    logPuts("~HttpFile");
    if (task_ != nullptr) close();
}

int HttpFile::open() {
    logPuts("HttpFile::open");
    task_ = HttpTask::create(url_, options_);
    if (task_ != nullptr) return 0;
    logPuts("HttpFile::open fail 1");
    return -1;
}

int HttpFile::close() {
    logPuts("HttpFile::close");
    if (task_ != nullptr) {
        if (onHttpWorker()) {
            // Inside a completion: the worker completes the queue right after.
            HttpTask::remove(task_);
        } else {
            // Once the task is gone its queued requests have completed, so the
            // caller may free their callbacks and buffers.
            Semaphore destroyed(0);
            HttpTask::remove(task_, &destroyed);
            while (!destroyed.timedWait(kCloseRecheckMs)) {
                if (!workerRunning_) break;
            }
        }
        task_ = nullptr;
        logPuts("HttpFile::close end");
    }
    return 0;
}

int HttpFile::read(char* buffer, uint32_t length) {
    logPuts("HttpFile::read");
    VELKA_ASSERT(task_ != NULL);
    return task_->read(buffer, length);
}

void* HttpFile::readAsync(char* buffer, uint32_t length, AsyncCallback& callback) {
    logPuts("HttpFile::readAsync");
    VELKA_ASSERT(task_ != NULL);
    return task_->readAsync(buffer, length, callback);
}

int HttpFile::cancel(void* request) {
    logPuts("HttpFile::cancel");
    AsyncRequest* asyncReq = static_cast<AsyncRequest*>(request);
    VELKA_ASSERT(task_ != NULL);
    VELKA_ASSERT(asyncReq != NULL);
    return task_->cancelAsync(asyncReq);
}

int64_t HttpFile::seek(int64_t offset, Whence whence) {
    VELKA_ASSERT(task_ != NULL);
    return task_->seek(offset, whence);
}

int64_t HttpFile::tell() {
    VELKA_ASSERT(task_ != NULL);
    return task_->tell();
}

int64_t HttpFile::length() {
    logPuts("HttpFile::length");
    VELKA_ASSERT(task_ != NULL);
    return task_->length();
}

int64_t HttpFile::available() {
    logPuts("HttpFile::available");
    VELKA_ASSERT(task_ != NULL);
    return task_->length() - task_->tell();
}

int HttpFile::cachePercent() {
    logPuts("HttpFile::cachePercent");
    if (task_ == nullptr) return 0;
    return task_->cachePercent();
}

int HttpFile::error() { return 0; }

std::string HttpFile::contentType() const { return task_ == nullptr ? std::string() : task_->contentType(); }

}  // namespace velka
