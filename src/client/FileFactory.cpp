#include "velka/FileFactory.h"

#include <cstdio>

#include "velka/DtaFile.h"
#include "velka/LocalFile.h"
#include "LogLine.h"

namespace velka {

File* FileFactory::createFile(const std::string& url) {
    logPrint("file path is %s\n", url.c_str());
    // One test, case-sensitive, at the very start; LocalFile strips the prefix itself.
    if (url.find("file://") == 0) {
        logPuts("local file ");
        return new LocalFile(url);
    }
    logPrint("--------DTA set------- %p\n", static_cast<const void*>("true"));
    logPuts("dta file");
    return new DtaFile(url);
}

}  // namespace velka
