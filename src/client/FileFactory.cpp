#include "velka/FileFactory.h"

#include <cstdio>

#include "velka/DtaFile.h"
#include "velka/LocalFile.h"

namespace velka {

File* FileFactory::createFile(const std::string& url) {
    printf("file path is %s\n", url.c_str());
    // One test, case-sensitive, at the very start; LocalFile strips the prefix itself.
    if (url.find("file://") == 0) {
        puts("local file ");
        return new LocalFile(url);
    }
    printf("--------DTA set------- %p\n", static_cast<const void*>("true"));
    puts("dta file");
    return new DtaFile(url);
}

}  // namespace velka
