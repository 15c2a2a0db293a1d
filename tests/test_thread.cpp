// Threading primitives: Mutex, Semaphore and Thread on real platform threads.
// Timing is only checked from below ("did not return before the deadline");
// upper bounds are left to the bounded waits, so the tests hold on a loaded
// machine.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <time.h>

#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>

#include "TestSupport.h"
#include "velka/Mutex.h"
#include "velka/Semaphore.h"
#include "velka/Thread.h"

// The wall clock as the library reads it: the real one, moved by
// wallClockStepSeconds while a test plays a box whose clock is not yet set.
std::atomic<int64_t> wallClockStepSeconds(0);

extern "C" int clock_gettime(clockid_t clock, struct timespec* ts) {
    using Real = int (*)(clockid_t, struct timespec*);
    static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "clock_gettime"));
    const int ret = real(clock, ts);
    if (ret == 0 && clock == CLOCK_REALTIME) ts->tv_sec += wallClockStepSeconds.load();
    return ret;
}

namespace {

using testing_support::kWaitMs;
using testing_support::waitUntil;
using velka::Mutex;
using velka::Semaphore;
using velka::Thread;

// The priority and stack size every thread of the library asks for.
constexpr int kPriority = 40;
constexpr int kStackSize = 2048;

using Clock = std::chrono::steady_clock;

int64_t msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

pid_t currentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// True when thread `tid` of this process is asleep in the kernel (state S),
// which for the callers means blocked in the wait under test.
bool isSleeping(pid_t tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    if (tid == 0 || !std::getline(stat, line)) return false;
    const std::string::size_type paren = line.rfind(')');
    return paren != std::string::npos && paren + 2 < line.size() && line[paren + 2] == 'S';
}

// A run() that executes a function given by the test.
class FunctionRunnable : public Thread::Runnable {
public:
    explicit FunctionRunnable(std::function<void()> body) : body_(std::move(body)) {}
    void run() override { body_(); }

private:
    std::function<void()> body_;
};

// A run() that announces itself and then blocks until the test opens the gate.
class GatedRunnable : public Thread::Runnable {
public:
    void run() override {
        tid = currentTid();
        runs++;
        started_.post();
        gate_.timedWait(kWaitMs);
    }
    bool waitStarted() { return started_.timedWait(kWaitMs); }
    void open() { gate_.post(); }

    std::atomic<int> runs{0};
    std::atomic<pid_t> tid{0};

private:
    Semaphore started_{0};
    Semaphore gate_{0};
};

TEST(MutexTest, OwnerRelocksAndOthersWaitForTheLastUnlock) {
    Mutex mutex;
    std::atomic<bool> acquired{false};
    std::atomic<pid_t> contender{0};
    FunctionRunnable body([&] {
        contender = currentTid();
        Mutex::Autolock lock(mutex);
        acquired = true;
    });
    Thread thread(body, false, "contender", kPriority, kStackSize);
    mutex.lock();
    mutex.lock();  // a non-recursive lock would hang here (CTest time-out)
    { Mutex::Autolock nested(mutex); }
    mutex.unlock();
    thread.start();
    ASSERT_TRUE(waitUntil([&] { return isSleeping(contender); }));
    EXPECT_FALSE(acquired) << "the lock was taken while its owner still held it once";
    mutex.unlock();
    EXPECT_EQ(velka::kStatusOk, thread.wait(0));
    EXPECT_TRUE(acquired);
}

TEST(SemaphoreTest, TryWaitAndTimedWaitZeroTakeOnlyAvailableUnitsAtOnce) {
    Semaphore sem(0);
    EXPECT_FALSE(sem.tryWait());
    EXPECT_FALSE(sem.timedWait(0));
    sem.post();
    EXPECT_TRUE(sem.tryWait());
    EXPECT_FALSE(sem.tryWait());
    sem.post();
    EXPECT_TRUE(sem.timedWait(0));
    EXPECT_FALSE(sem.timedWait(0));
    Semaphore two(2);
    EXPECT_TRUE(two.tryWait());
    EXPECT_TRUE(two.tryWait());
    EXPECT_FALSE(two.tryWait());
}

// Timed waits keep their length across a second boundary and while the wall
// clock reads decades behind, as on a box that sets it from the network
// later. 999 ms carries the deadline's nanoseconds into its seconds for every
// start but the first millisecond of a second, 1999 ms likewise with a whole
// second on top; the platform refuses a deadline of 10^9 nanoseconds or more.
TEST(SemaphoreTest, TimedWaitsKeepTheirLengthAcrossSecondsAndWithTheWallClockBehind) {
    struct timespec now;
    ASSERT_EQ(0, clock_gettime(CLOCK_REALTIME, &now));
    Semaphore sem(0);
    GatedRunnable runnable;
    Thread thread(runnable, false, "long", kPriority, kStackSize);
    thread.start();
    ASSERT_TRUE(runnable.waitStarted());
    const std::pair<const char*, std::function<bool(int)>> waits[] = {
        {"Semaphore::timedWait", [&](int ms) { return !sem.timedWait(ms); }},
        {"Thread::wait", [&](int ms) { return thread.wait(ms) == velka::kStatusTimeout; }},
    };
    for (const auto& wait : waits) {
        for (const int ms : {999, 1999}) {
            // The second round reads 1970 plus a few minutes on the wall clock.
            if (ms == 1999) wallClockStepSeconds = 300 - static_cast<int64_t>(now.tv_sec);
            const Clock::time_point start = Clock::now();
            const bool timedOut = wait.second(ms);
            const int64_t took = msSince(start);
            wallClockStepSeconds = 0;
            EXPECT_TRUE(timedOut) << wait.first << "(" << ms << ")";
            EXPECT_GE(took, ms - 1) << wait.first << "(" << ms << ")";
        }
    }
    EXPECT_EQ(Thread::RUNNING, thread.state());
    runnable.open();
}

// Both waiters are asleep in wait() before the two posts arrive, so a post that
// wakes nobody (e.g. one that only signals on a count of zero) leaves one of
// them behind. Each takes one unit per round and then holds back until the
// next round. The platform sometimes wakes more threads than asked, which
// hides such a fault, so the scene is played several times.
TEST(SemaphoreTest, TwoPostsReleaseTwoBlockedWaiters) {
    constexpr int kRounds = 10;
    struct Scene {
        Semaphore sem{0}, done{0};
        Semaphore next[2] = {Semaphore(0), Semaphore(0)};
        std::atomic<pid_t> blocked[2] = {{0}, {0}};
        FunctionRunnable bodies[2] = {FunctionRunnable([this] { waiter(0); }),
                                      FunctionRunnable([this] { waiter(1); })};
        Thread threads[2] = {Thread(bodies[0], false, "waiterA", kPriority, kStackSize),
                             Thread(bodies[1], false, "waiterB", kPriority, kStackSize)};
        void waiter(int i) {
            for (int round = 0; round < kRounds; ++round) {
                if (round > 0 && !next[i].timedWait(kWaitMs)) return;
                blocked[i] = currentTid();
                sem.wait();
                blocked[i] = 0;
                done.post();
            }
        }
    };
    // Left behind on purpose when a waiter stays stuck: its Thread could not be destroyed.
    Scene* scene = new Scene;
    scene->threads[0].start();
    scene->threads[1].start();
    for (int round = 0; round < kRounds; ++round) {
        const auto bothBlocked = [&] {
            return isSleeping(scene->blocked[0]) && isSleeping(scene->blocked[1]);
        };
        ASSERT_TRUE(waitUntil(bothBlocked)) << "round " << round;
        scene->sem.post();
        scene->sem.post();
        ASSERT_TRUE(scene->done.timedWait(kWaitMs) && scene->done.timedWait(kWaitMs))
            << "round " << round << ": the second post did not release the second waiter";
        scene->next[0].post();
        scene->next[1].post();
    }
    EXPECT_EQ(velka::kStatusOk, scene->threads[0].wait(0));
    EXPECT_EQ(velka::kStatusOk, scene->threads[1].wait(0));
    delete scene;
}

TEST(ThreadTest, SleepRefusesNegativeAndSleepsTheFullTime) {
    EXPECT_EQ(velka::kStatusError, Thread::sleep(-1));
    EXPECT_EQ(velka::kStatusOk, Thread::sleep(0));
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(velka::kStatusOk, Thread::sleep(1500));
    EXPECT_GE(msSince(start), 1500);
    EXPECT_EQ(velka::kStatusOk, Thread::yield());
}

// While run() lasts, timed waits time out and leave it running; when it ends,
// every waiter returns (the end is broadcast) and one of them joins. The
// waiters' limits keep a missed wake-up from hanging the test.
TEST(ThreadTest, WaitsOnALongRunTimeOutAndAllReturnWhenItEnds) {
    GatedRunnable runnable;
    Thread thread(runnable, false, "long", kPriority, kStackSize);
    thread.start();
    ASSERT_TRUE(runnable.waitStarted());
    EXPECT_EQ(velka::kStatusTimeout, thread.wait(100));
    EXPECT_EQ(Thread::RUNNING, thread.state());
    // Round-robin priorities need privilege; ThreadPrivilegeTest checks the refusal.
    if (thread.setPriority(55) == velka::kStatusOk) {
        struct sched_param param = {};
        EXPECT_EQ(SCHED_RR, sched_getscheduler(runnable.tid));
        EXPECT_EQ(0, sched_getparam(runnable.tid, &param));
        EXPECT_EQ(55, param.sched_priority);
    }
    std::atomic<int> results[2] = {{-1}, {-1}};
    std::atomic<pid_t> tids[2] = {{0}, {0}};
    FunctionRunnable first([&] {
        tids[0] = currentTid();
        results[0] = thread.wait(kWaitMs);
    });
    FunctionRunnable second([&] {
        tids[1] = currentTid();
        results[1] = thread.wait(kWaitMs);
    });
    Thread a(first, false, "joinerA", kPriority, kStackSize);
    Thread b(second, false, "joinerB", kPriority, kStackSize);
    a.start();
    b.start();
    ASSERT_TRUE(waitUntil([&] { return isSleeping(tids[0]) && isSleeping(tids[1]); }));
    runnable.open();
    EXPECT_EQ(velka::kStatusOk, b.wait(0));
    EXPECT_EQ(velka::kStatusOk, a.wait(0));
    EXPECT_EQ(velka::kStatusOk, results[0]);
    EXPECT_EQ(velka::kStatusOk, results[1]);
    EXPECT_EQ(Thread::TERMINATED, thread.state());
    EXPECT_EQ(velka::kStatusOk, thread.wait(0));
}

TEST(ThreadTest, WaitFromInsideRunIsADeadlockAndDoesNotJoin) {
    Thread* self = nullptr;
    std::atomic<int> timed{-1}, unlimited{-1}, stateAfter{-1};
    FunctionRunnable body([&] {
        timed = self->wait(100);
        // Without the self check wait(0) would block for ever; only ask once
        // the bounded call has shown the check is there.
        if (timed == velka::kStatusDeadlock) unlimited = self->wait(0);
        stateAfter = self->state();
    });
    Thread thread(body, false, "selfwaiter", kPriority, kStackSize);
    self = &thread;
    thread.start();
    EXPECT_EQ(velka::kStatusOk, thread.wait(0));
    EXPECT_EQ(velka::kStatusDeadlock, timed);
    EXPECT_EQ(velka::kStatusDeadlock, unlimited);
    EXPECT_EQ(Thread::RUNNING, stateAfter);
    EXPECT_EQ(Thread::TERMINATED, thread.state());
}

// Never started, a thread waits at once (its destructor too) and refuses a
// priority; it restarts after a join, and once straight from FINISHED.
TEST(ThreadTest, NeverStartedWaitsAtOnceAndStartAfterJoinOrFromFinishedRunsRunAgain) {
    GatedRunnable runnable;
    { Thread idle(runnable, false, "idle", kPriority, kStackSize); }
    Thread thread(runnable, false, "again", kPriority, kStackSize);
    EXPECT_EQ(Thread::INIT, thread.state());
    EXPECT_EQ(velka::kStatusError, thread.setPriority(kPriority));
    EXPECT_EQ(velka::kStatusOk, thread.wait(0));
    EXPECT_EQ(velka::kStatusOk, thread.wait(100));
    EXPECT_EQ(0, runnable.runs);
    for (int round = 1; round <= 3; ++round) {
        thread.start();
        ASSERT_TRUE(runnable.waitStarted()) << "round " << round;
        EXPECT_EQ(Thread::RUNNING, thread.state());
        runnable.open();
        EXPECT_EQ(velka::kStatusOk, thread.wait(0));
        EXPECT_EQ(Thread::TERMINATED, thread.state());
        EXPECT_EQ(round, runnable.runs);
    }
    EXPECT_EQ(velka::kStatusError, thread.setPriority(kPriority)) << "no thread left to set";
    runnable.open();
    runnable.open();
    thread.start();
    ASSERT_TRUE(waitUntil([&] { return thread.state() == Thread::FINISHED; }));
    thread.start();
    EXPECT_EQ(velka::kStatusOk, thread.wait(0));
    EXPECT_EQ(5, runnable.runs);
}

// An exception out of run() is printed with the thread's name and ends the
// thread FINISHED; a join then makes it TERMINATED.
TEST(ThreadTest, ExceptionIsPrintedAndThreadEndsFinished) {
    const std::pair<std::function<void()>, const char*> throwers[] = {
        {[] { throw std::runtime_error("disk on fire"); },
         "exception in create thread thrower n message: disk on fire\n"},
        {[] { throw 42; }, "unknown exception in create thread thrower\n"},
    };
    for (const auto& c : throwers) {
        FunctionRunnable runnable(c.first);
        Thread thread(runnable, false, "thrower", kPriority, kStackSize);
        bool ended = false;
        const std::string printed = testing_support::capturedStdout([&] {
            thread.start();
            ended = waitUntil([&] { return thread.state() != Thread::RUNNING; });
        });
        ASSERT_TRUE(ended) << c.second;
        EXPECT_EQ(Thread::FINISHED, thread.state());
        EXPECT_EQ(c.second, printed);
        EXPECT_EQ(velka::kStatusOk, thread.wait(0));
        EXPECT_EQ(Thread::TERMINATED, thread.state());
    }
}

// A detached Thread destroys itself on its own thread once run() returns. Its
// destructor's wait(0) must see the self-wait and not try to join; the
// platform thread then ends (LeakSanitizer reports the object if it is never
// freed). Nothing of the runnable is touched after `ended` is set.
TEST(ThreadTest, DetachedThreadFreesItselfAndEnds) {
    std::atomic<bool> ended{false};
    GatedRunnable gated;
    FunctionRunnable runnable([&] {
        gated.run();
        ended.store(true, std::memory_order_release);
    });
    (new Thread(runnable, true, "detached", kPriority, kStackSize))->start();
    ASSERT_TRUE(gated.waitStarted());
    const std::string task = "/proc/self/task/" + std::to_string(gated.tid);
    gated.open();
    EXPECT_TRUE(waitUntil([&] { return ended.load(std::memory_order_acquire); }));
    EXPECT_TRUE(waitUntil([&] { return !std::ifstream(task + "/stat").good(); }));
}

// The host process of the box runs without privilege. Round-robin scheduling
// at the library's priorities and a 2048-byte stack request must not stop it
// from getting its threads; when the platform refuses a thread (no process
// may be created), start() is silent, the Thread goes to TERMINATED and wait()
// returns at once. The child's exit code names the step that failed.
[[noreturn]] void runUnprivileged() {
    fflush(stdout);
    dup2(STDERR_FILENO, STDOUT_FILENO);  // anything printed reaches the matcher
    const uid_t nobody = 65534;
    if (geteuid() == 0 && (setgid(nobody) != 0 || setuid(nobody) != 0)) _exit(2);
    struct rlimit none = {0, 0};
    if (setrlimit(RLIMIT_RTPRIO, &none) != 0) _exit(3);
    for (int priority : {40, 60, 70}) {
        GatedRunnable runnable;
        Thread thread(runnable, false, "unprivileged", priority, kStackSize);
        thread.start();
        if (thread.state() == Thread::TERMINATED) _exit(4);  // creation refused
        if (!runnable.waitStarted()) _exit(5);
        if (thread.setPriority(priority) != velka::kStatusError) _exit(6);
        runnable.open();
        if (thread.wait(0) != velka::kStatusOk || runnable.runs != 1) _exit(7);
    }
    if (setrlimit(RLIMIT_NPROC, &none) != 0) _exit(8);
    GatedRunnable runnable;
    Thread thread(runnable, false, "refused", kPriority, kStackSize);
    thread.start();
    fflush(stdout);
    if (thread.state() != Thread::TERMINATED) _exit(9);
    if (thread.wait(0) != velka::kStatusOk || runnable.runs != 0) _exit(10);
    _exit(0);
}

TEST(ThreadPrivilegeTest, UnprivilegedProcessGetsItsThreadsAndARefusedOneEndsSilently) {
    testing_support::useThreadsafeDeathTests();
    EXPECT_EXIT(runUnprivileged(), testing::ExitedWithCode(0), "^$");
}

TEST(ThreadDeathTest, BrokenPreconditionsStopWithTheirAssertionText) {
    testing_support::useThreadsafeDeathTests();
    Mutex mutex;
#if defined(__SANITIZE_THREAD__)
    // ThreadSanitizer checks the unlock itself; with halt_on_error it stops
    // the process with its own report before the assertion is reached.
    EXPECT_DEATH(mutex.unlock(), testing::AnyOf(testing::HasSubstr("Assertion `ret == 0' failed."),
                                                testing::HasSubstr("unlock of an unlocked mutex")));
#else
    EXPECT_DEATH(mutex.unlock(), testing::HasSubstr("Assertion `ret == 0' failed."));
#endif
    GatedRunnable runnable;
    Thread thread(runnable, false, "twice", kPriority, kStackSize);
    EXPECT_DEATH(
        {
            thread.start();
            thread.start();
        },
        testing::HasSubstr("Assertion `state_ != RUNNING' failed."));
}

}  // namespace
