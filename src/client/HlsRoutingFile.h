#ifndef VELKA_SRC_HLSROUTINGFILE_H
#define VELKA_SRC_HLSROUTINGFILE_H

// The File FileFactory gives an http(s) URL without ".m3u8" in its path once
// the host chose the library's network stack. open() opens it as an HttpFile,
// so ordinary media costs no request more than before; when the first
// response names an HLS playlist by its Content-Type, that HttpFile is closed
// and the URL opened again as an HlsFile. Every other call goes to the file
// that opened. Private to the library.

#include <memory>
#include <string>

#include "velka/File.h"

namespace velka {

// Whether a Content-Type value names an HLS playlist (case-insensitive,
// parameters ignored).
bool isHlsContentType(const std::string& contentType);

// No lock of its own: the owner opens, uses and closes it from its threads.
class HlsRoutingFile : public File {
public:
    explicit HlsRoutingFile(const std::string& url);

    int open() override;
    int close() override;
    int read(char* buffer, uint32_t length) override;
    void* readAsync(char* buffer, uint32_t length, AsyncCallback& callback) override;
    int cancel(void* request) override;
    int64_t seek(int64_t offset, Whence whence) override;
    int64_t tell() override;
    int64_t length() override;
    int64_t available() override;
    int cachePercent() override;
    int error() override;

    // True once open() chose the HlsFile.
    bool isHls() const { return hls_; }

private:
    std::unique_ptr<File> file_;  // the file that opened; null before that
    bool hls_;
};

}  // namespace velka

#endif  // VELKA_SRC_HLSROUTINGFILE_H
