#ifndef VELKA_SRC_CLIENT_ENGINEWORKDIR_H
#define VELKA_SRC_CLIENT_ENGINEWORKDIR_H

// The working directory "/tmp/velka" of the outside engines (download and
// peer-to-peer), where each finds its configuration file.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace velka {

// Makes the directory and copies `configFile` into it with `copyCommand`.
// Either may be there already or be missing (a box without a configuration);
// the engine decides what it can do without. Each command runs only when it
// has something to do, so that a host's standard error carries no complaints
// about a folder that exists or a file the box does not have.
inline void prepareEngineWorkDir(const char* configFile, const char* copyCommand) {
    struct stat st;
    if (stat("/tmp/velka", &st) != 0 || !S_ISDIR(st.st_mode)) {
        int ret = system("mkdir /tmp/velka");
        (void)ret;
    }
    if (access(configFile, R_OK) == 0) {
        int ret = system(copyCommand);
        (void)ret;
    }
}

// Removes the directory with what the engine left in it, at process exit.
inline void removeEngineWorkDir() {
    int ret = system("rm -fr /tmp/velka");
    (void)ret;
}

}  // namespace velka

#endif  // VELKA_SRC_CLIENT_ENGINEWORKDIR_H
