#ifndef VELKA_FILEFACTORY_H
#define VELKA_FILEFACTORY_H

#include <string>

#include "velka/File.h"

namespace velka {

// Chooses the source for a URL: "file://" followed by a path is a LocalFile,
// every other URL goes to the download engine through a DtaFile. A host may
// choose, once for the whole process, that http:// and https:// URLs go to
// the library's own network stack instead: a playlist (".m3u8" in the path,
// or a server that answers with an HLS Content-Type) to an HlsFile, anything
// else to an HttpFile.
class FileFactory {
public:
    // From now on, for the rest of the process, http(s) URLs go to the
    // library's sources. Any thread; it cannot be undone.
    static void useLibraryNetworkStack();
    static bool usesLibraryNetworkStack();

    // A new, unopened File for `url`; never null. The caller owns it, opens
    // it, and destroys it through a pointer to File. Whether the URL can be
    // read is learnt from open().
    static File* createFile(const std::string& url);
};

}  // namespace velka

#endif  // VELKA_FILEFACTORY_H
