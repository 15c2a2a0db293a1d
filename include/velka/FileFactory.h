#ifndef VELKA_FILEFACTORY_H
#define VELKA_FILEFACTORY_H

#include <string>

#include "velka/File.h"

namespace velka {

// Chooses the source for a URL: "file://" followed by a path is a LocalFile,
// every other URL goes to the download engine through a DtaFile.
class FileFactory {
public:
    // A new, unopened File for `url`; never null. The caller owns it, opens
    // it, and destroys it through a pointer to File. Whether the URL can be
    // read is learnt from open().
    static File* createFile(const std::string& url);
};

}  // namespace velka

#endif  // VELKA_FILEFACTORY_H
