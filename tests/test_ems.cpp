// The peer-to-peer engine stand-in on its own: a task downloads its stream in
// pieces at the set rate, reads take what has arrived and never wait, the
// start-up progress reaches the listener in order on the engine's thread with
// no engine lock held, HTTP streams come in byte ranges from a loopback
// server, every call can be made to fail, and ems_uninit() ends every task
// and thread.

#include <dirent.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "ems.h"
#include "ems_control.h"
#include "support/FaultServer.h"

namespace {

namespace control = ems::control;
using testing_support::FaultServer;
using testing_support::kWaitMs;
using testing_support::TempDataFile;
using testing_support::TempDir;
using testing_support::waitUntil;

struct Heard {
    int task;
    int32_t type;
    int32_t param;
    bool onCallerThread;
    int32_t stateInListener;  // the task's state, asked of the engine from inside the listener
};

std::mutex heardMutex;
std::vector<Heard> heard;
std::thread::id testThread;

int recordEvent(int task, ems_event event) {
    ems_task_status status;
    status.state = -1;
    ems_get_task_status(task, &status);  // would deadlock under an engine lock
    std::lock_guard<std::mutex> lock(heardMutex);
    heard.push_back({task, event.type, event.param, std::this_thread::get_id() == testThread,
                     status.state});
    return 0;
}

std::vector<Heard> heardFor(int task) {
    std::lock_guard<std::mutex> lock(heardMutex);
    std::vector<Heard> out;
    for (const Heard& h : heard) {
        if (h.task == task) out.push_back(h);
    }
    return out;
}

// Threads of this process with the given name.
int threadsNamed(const std::string& wanted) {
    DIR* dir = opendir("/proc/self/task");
    int count = 0;
    for (struct dirent* e = dir ? readdir(dir) : nullptr; e != nullptr; e = readdir(dir)) {
        std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
        std::string name;
        count += e->d_name[0] != '.' && std::getline(comm, name) && name == wanted;
    }
    if (dir != nullptr) closedir(dir);
    return count;
}

class EmsTest : public ::testing::Test {
protected:
    void SetUp() override {
        control::reset();
        testThread = std::this_thread::get_id();
        ASSERT_EQ(EMS_OK, ems_init(workDir_.path().c_str()));
        ASSERT_EQ(EMS_OK, ems_event_listener_func(&recordEvent));
    }
    void TearDown() override {
        control::reset();
        for (int task : tasks_) ems_del_task(task);
    }

    // A started task for `url`.
    int start(const std::string& url, int expected = EMS_OK) {
        const int task = ems_add_task(url.c_str(), 0, 0);
        EXPECT_GE(task, 0);
        tasks_.push_back(task);
        EXPECT_EQ(expected, ems_start_task(task, 0)) << url;
        return task;
    }

    // Reads the whole stream at `task`, asking again while parts have not
    // arrived; the number of reads that got nothing in *notYet.
    std::vector<char> readAll(int task, int64_t size, int* notYet) {
        std::vector<char> out(static_cast<size_t>(size));
        int64_t at = 0;
        *notYet = 0;
        EXPECT_TRUE(waitUntil([&] {
            int64_t hint = 15;
            const int n = ems_readdata(task, out.data() + at, 50000, at, &hint);
            EXPECT_GE(n, 0);
            EXPECT_EQ(15, hint);
            if (n == 0) ++*notYet;
            at += n > 0 ? n : 0;
            return n < 0 || at == size;
        }));
        return out;
    }

    TempDir workDir_;
    std::vector<int> tasks_;
};

TEST_F(EmsTest, DownloadsPiecesAtTheSetRateAndReportsItsStartUpInOrder) {
    control::setDownloadRate(1024 * 1024);  // about 0.4 s for the file
    TempDataFile file(400 * 1024 + 5, 3);
    const int task = start("pps-test://" + file.path());
    char byte;
    int64_t hint = 15;
    EXPECT_EQ(0, ems_readdata(task, &byte, 1, file.size() - 1, &hint)) << "the end arrived at once";

    int notYet = 0;
    EXPECT_EQ(file.bytes(), readAll(task, file.size(), &notYet));
    EXPECT_GT(notYet, 0);
    EXPECT_EQ(0, ems_readdata(task, &byte, 1, file.size(), &hint)) << "at the end";
    ASSERT_TRUE(control::waitForDownloadsIdle(kWaitMs));

    // The record's layout is fixed where the library reads it (PpsFile.cpp).
    ems_task_status status;
    ASSERT_EQ(EMS_OK, ems_get_task_status(task, &status));
    EXPECT_EQ(file.size(), status.total_length);
    EXPECT_EQ(file.size(), status.downloaded);
    EXPECT_EQ(EMS_TASK_COMPLETE, status.state);
    EXPECT_EQ(100, status.percent);

    // connecting, media info 0/50/100 %, media info done, rising buffering
    // percentages up to 100, buffering done, playing: all on the engine's
    // thread, which could ask the engine about the task while it reported.
    std::vector<std::pair<int32_t, int32_t>> order;
    for (const Heard& h : heardFor(task)) {
        EXPECT_FALSE(h.onCallerThread);
        EXPECT_NE(-1, h.stateInListener);
        if (order.empty() || h.type != EMS_EVENT_BUFFERING ||
            order.back().first != EMS_EVENT_BUFFERING) {
            order.push_back({h.type, h.param});
        } else {
            EXPECT_GT(h.param, order.back().second);
            order.back().second = h.param;
        }
    }
    const std::vector<std::pair<int32_t, int32_t>> expected = {
        {EMS_EVENT_CONNECTING, 0},     {EMS_EVENT_REQUESTING_MEDIA_INFO, 0},
        {EMS_EVENT_REQUESTING_MEDIA_INFO, 50}, {EMS_EVENT_REQUESTING_MEDIA_INFO, 100},
        {EMS_EVENT_MEDIA_INFO_OK, 0},  {EMS_EVENT_BUFFERING, 100},
        {EMS_EVENT_BUFFERING_DONE, 0}, {EMS_EVENT_PLAYING, 0}};
    EXPECT_EQ(expected, order);
}

TEST_F(EmsTest, HttpStreamsComeInByteRanges) {
    FaultServer server(testing_support::patternBytes(100 * 1024 + 7, 9));
    std::string why;
    ASSERT_TRUE(server.start(&why)) << why;
    const auto url = [&](const std::string& path) { return "pps-test://" + server.url(path); };
    const int task = start(url("/data"));
    int notYet = 0;
    EXPECT_EQ(server.file(), readAll(task, static_cast<int64_t>(server.file().size()), &notYet));
    ASSERT_TRUE(server.waitIdle());
    int ranged = 0;
    for (const FaultServer::Request& r : server.requests("/data")) ranged += r.range != "-";
    EXPECT_GE(ranged, 7) << "one range request per piece";
    FaultServer::Reply notFound;
    notFound.status = 404;
    server.script("/missing", {notFound});
    start(url("/missing"), EMS_ERR_SOURCE);

    // A server that answers a range with the whole body breaks the download:
    // reads of what did not arrive fail, and the listener hears of it.
    FaultServer::Reply whole;
    whole.status = 200;
    server.script("/careless", {whole});
    const int broken = start(url("/careless"));
    ASSERT_TRUE(control::waitForDownloadsIdle(kWaitMs));
    char byte;
    int64_t hint = 15;
    EXPECT_EQ(EMS_ERR_SOURCE, ems_readdata(broken, &byte, 1, 0, &hint));
    ems_task_status status;
    ASSERT_EQ(EMS_OK, ems_get_task_status(broken, &status));
    EXPECT_EQ(EMS_TASK_BROKEN, status.state);
    EXPECT_EQ(EMS_EVENT_WAIT_DATA_TIMEOUT, heardFor(broken).back().type);
}

TEST_F(EmsTest, CallsFailWhenToldOrMisusedAndPauseHoldsThePieces) {
    TempDataFile file(100000, 4);
    const std::string url = "pps-test://" + file.path();
    char byte;
    int64_t hint = 15;
    ems_task_status status;

    // Forced results: the call does nothing else.
    const int tasks = control::taskCount();
    control::failCall(control::kAddTask, -9);
    EXPECT_EQ(-9, ems_add_task(url.c_str(), 0, 0));
    EXPECT_EQ(tasks, control::taskCount());
    control::reset();
    const int task = ems_add_task(url.c_str(), 0, 0);
    tasks_.push_back(task);
    EXPECT_EQ(EMS_ERR_STATE, ems_readdata(task, &byte, 1, 0, &hint)) << "not started";
    control::failCall(control::kStartTask, -9);
    EXPECT_EQ(-9, ems_start_task(task, 0));
    control::reset();
    control::pauseDownloads(true);
    ASSERT_EQ(EMS_OK, ems_start_task(task, 0));
    EXPECT_EQ(EMS_ERR_STATE, ems_start_task(task, 0)) << "started twice";

    // Paused: nothing arrives (given a moment to go wrong). Checked before any
    // reset(), which lets the downloads go on.
    usleep(50 * 1000);
    EXPECT_EQ(0, ems_readdata(task, &byte, 1, 0, &hint));
    ASSERT_EQ(EMS_OK, ems_get_task_status(task, &status));
    EXPECT_EQ(0, status.downloaded);

    control::failCall(control::kGetTaskStatus, -9);
    status.total_length = 77;
    EXPECT_EQ(-9, ems_get_task_status(task, &status));
    EXPECT_EQ(77, status.total_length) << "a failed query left the record alone";
    control::failCall(control::kReadData, -9);
    EXPECT_EQ(-9, ems_readdata(task, &byte, 1, 0, &hint));
    control::reset();
    ASSERT_TRUE(control::waitForDownloadsIdle(kWaitMs));
    EXPECT_EQ(1, ems_readdata(task, &byte, 1, 99999, &hint));
    EXPECT_EQ(file.bytes().back(), byte);

    // Bad arguments, unknown tasks and streams that cannot be opened.
    EXPECT_EQ(EMS_ERR_ARGUMENT, ems_init("/nonexistent/velka"));
    EXPECT_EQ(EMS_ERR_ARGUMENT, ems_add_task(nullptr, 0, 0));
    EXPECT_EQ(EMS_ERR_ARGUMENT, ems_readdata(task, &byte, 1, -1, &hint));
    EXPECT_EQ(EMS_ERR_TASK, ems_readdata(task + 1000, &byte, 1, 0, &hint));
    EXPECT_EQ(EMS_ERR_TASK, ems_stop_task(task + 1000));
    for (const char* bad : {"pps-test:///nonexistent/velka/none.ts", "gopher://x/y", "pps-test:///tmp"}) {
        start(bad, EMS_ERR_SOURCE);
    }

    // Stopped tasks are read no more; uninit ends every task and thread.
    ASSERT_EQ(EMS_OK, ems_stop_task(task));
    EXPECT_EQ(EMS_ERR_STATE, ems_readdata(task, &byte, 1, 0, &hint));
    control::pauseDownloads(true);
    start(url);
    EXPECT_EQ(1, threadsNamed("ems-download"));
    EXPECT_EQ(1, threadsNamed("ems-events"));
    ASSERT_EQ(EMS_OK, ems_uninit());
    EXPECT_EQ(0, control::taskCount());
    EXPECT_EQ(0, threadsNamed("ems-download"));
    EXPECT_EQ(0, threadsNamed("ems-events"));
}

}  // namespace
