// Process exit tears the DTA worker down: its thread ends, the engine is
// uninitialised (ending the engine's own threads) and "/tmp/velka" goes.
// Runs in a child process of its own, where the worker has not been built.

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "DtaTestSupport.h"
#include "bctidta_control.h"
#include "velka/DtaFile.h"

namespace {

namespace control = bctidta::control;

bool threadAlive(pid_t tid) {
    struct stat st;
    return stat(("/proc/self/task/" + std::to_string(tid)).c_str(), &st) == 0;
}

// Threads of this process whose name is `name`.
int threadsNamed(const std::string& name) {
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) return -1;
    int count = 0;
    for (struct dirent* entry = readdir(dir); entry != nullptr; entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string line;
        std::getline(comm, line);
        if (line == name) ++count;
    }
    closedir(dir);
    return count;
}

bool tmpVelkaExists() {
    struct stat st;
    return stat("/tmp/velka", &st) == 0;
}

// The engine's download threads carry this name.
const char kDownloadThread[] = "dta-download";

// What the child saw before exit; the exit handler reports it with the rest.
pid_t workerTid_ = 0;
int downloadsWhileOpen_ = 0;
bool tmpVelkaWhileOpen_ = false;
bool dataMatched_ = false;

// Notes the thread it completes on: the worker's.
class WorkerTidCallback : public velka::File::AsyncCallback {
public:
    explicit WorkerTidCallback(dtatest::CompletionLog& log) : log_(log) {}
    void complete(velka::VelkaStatus status, uint32_t length) override {
        workerTid_ = static_cast<pid_t>(syscall(SYS_gettid));
        log_.add({1, status, length});
    }

private:
    dtatest::CompletionLog& log_;
};

// Registered before the worker is built, so it runs after the worker's
// destructor.
void reportAtExit() {
    fprintf(stderr,
            "report: data=%d tmp_velka_while_open=%d downloads_while_open=%d uninit=%d "
            "tmp_velka_after=%d worker_alive=%d downloads_left=%d\n",
            dataMatched_ ? 1 : 0, tmpVelkaWhileOpen_ ? 1 : 0, downloadsWhileOpen_,
            control::calls().uninitEngine, tmpVelkaExists() ? 1 : 0,
            workerTid_ != 0 && threadAlive(workerTid_) ? 1 : 0, threadsNamed(kDownloadThread));
}

// The child: reads the test program itself through a DtaFile, leaves one
// engine task open, and exits.
void readThenExit() {
    atexit(reportAtExit);

    const char* self = "/proc/self/exe";
    std::ifstream in(self, std::ios::binary);
    std::vector<char> expected((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    expected.resize(std::min<size_t>(expected.size(), 64 * 1024));

    velka::DtaFile* file = new velka::DtaFile(std::string("dta-test://") + self);
    if (file->open() != 0) exit(3);
    std::vector<char> got(expected.size());
    dtatest::CompletionLog log;
    WorkerTidCallback callback(log);
    if (file->readAsync(got.data(), static_cast<uint32_t>(got.size()), callback) == nullptr) exit(4);
    if (!log.waitForCount(1)) exit(5);
    dataMatched_ = log.all()[0].status == velka::kStatusOk && got == expected;
    file->close();
    delete file;

    // A second task stays open in the engine: the file goes without close().
    velka::DtaFile* open = new velka::DtaFile(std::string("dta-test://") + self);
    if (open->open() != 0) exit(6);
    delete open;

    tmpVelkaWhileOpen_ = tmpVelkaExists();
    downloadsWhileOpen_ = threadsNamed(kDownloadThread);
    exit(0);
}

TEST(DtaExitDeathTest, ProcessExitEndsWorkerAndEngineAndRemovesWorkDir) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(readThenExit(), ::testing::ExitedWithCode(0),
                "report: data=1 tmp_velka_while_open=1 downloads_while_open=1 uninit=1 "
                "tmp_velka_after=0 worker_alive=0 downloads_left=0");
    EXPECT_FALSE(tmpVelkaExists());
}

}  // namespace
