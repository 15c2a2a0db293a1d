#include "velka/FileFactory.h"

#include <atomic>
#include <cctype>
#include <cstdio>

#include "velka/DtaFile.h"
#include "velka/HlsFile.h"
#include "velka/LocalFile.h"
#include "HlsRoutingFile.h"
#include "LogLine.h"

namespace velka {

namespace {

// Set once by the host, read by every createFile.
std::atomic<bool> libraryNetworkStack_(false);

// ".m3u8" in the URL's path (before any query or fragment), in any case.
bool isPlaylistUrl(const std::string& url) {
    std::string path = url.substr(0, url.find_first_of("?#"));
    for (char& c : path) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return path.find(".m3u8") != std::string::npos;
}

}  // namespace

void FileFactory::useLibraryNetworkStack() { libraryNetworkStack_ = true; }

bool FileFactory::usesLibraryNetworkStack() { return libraryNetworkStack_; }

File* FileFactory::createFile(const std::string& url) {
    logPrint("file path is %s\n", url.c_str());
    // One test, case-sensitive, at the very start; LocalFile strips the prefix itself.
    if (url.find("file://") == 0) {
        logPuts("local file ");
        return new LocalFile(url);
    }
    if (libraryNetworkStack_ && (url.compare(0, 7, "http://") == 0 || url.compare(0, 8, "https://") == 0)) {
        if (isPlaylistUrl(url)) {
            logPuts("hls file");
            return new HlsFile(url);
        }
        // An HttpFile, or an HlsFile once the server names a playlist.
        logPuts("http file");
        return new HlsRoutingFile(url);
    }
    logPrint("--------DTA set------- %p\n", static_cast<const void*>("true"));
    logPuts("dta file");
    return new DtaFile(url);
}

}  // namespace velka
