// Threading primitives: Mutex, Semaphore and Thread on real platform threads.
//
// Waits are bounded. Timing is only checked from below ("did not return
// before the deadline"); upper bounds are left to the bounded waits, so the
// tests hold on a loaded machine.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

#include "velka/Mutex.h"
#include "velka/Semaphore.h"
#include "velka/Thread.h"

namespace {

using velka::Mutex;
using velka::Semaphore;
using velka::Thread;

// Every bounded wait of these tests gives up after this long; reaching it is a
// failure, never an expected outcome.
constexpr int kBoundMs = 20000;

// The priority and stack size every thread of the library asks for.
constexpr int kPriority = 40;
constexpr int kStackSize = 2048;

using Clock = std::chrono::steady_clock;

int64_t msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// Polls `condition` every millisecond until it holds or kBoundMs pass.
bool waitUntil(const std::function<bool()>& condition) {
    const Clock::time_point start = Clock::now();
    while (!condition()) {
        if (msSince(start) > kBoundMs) return false;
        Thread::sleep(1);
    }
    return true;
}

pid_t currentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// True when thread `tid` of this process is asleep in the kernel (state S),
// which for the helpers below means blocked in the wait under test.
bool isSleeping(pid_t tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return false;
    const std::string::size_type paren = line.rfind(')');
    return paren != std::string::npos && paren + 2 < line.size() && line[paren + 2] == 'S';
}

bool taskExists(pid_t tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    return stat.good();
}

// A run() that announces itself and then blocks until the test opens the gate.
class GatedRunnable : public Thread::Runnable {
public:
    void run() override {
        tid_ = currentTid();
        runs_++;
        started_.post();
        gate_.timedWait(kBoundMs);
    }

    bool waitStarted() { return started_.timedWait(kBoundMs); }
    void open() { gate_.post(); }
    int runs() const { return runs_.load(); }
    pid_t tid() const { return tid_.load(); }

private:
    std::atomic<int> runs_{0};
    std::atomic<pid_t> tid_{0};
    Semaphore started_{0};
    Semaphore gate_{0};
};

// A run() that counts its calls and returns at once.
class CountingRunnable : public Thread::Runnable {
public:
    void run() override { runs_++; }
    int runs() const { return runs_.load(); }

private:
    std::atomic<int> runs_{0};
};

// A run() that executes a function given by the test.
class FunctionRunnable : public Thread::Runnable {
public:
    explicit FunctionRunnable(std::function<void()> body) : body_(std::move(body)) {}
    void run() override { body_(); }

private:
    std::function<void()> body_;
};

// Mutex ----------------------------------------------------------------------

TEST(MutexTest, OwnerRelocksAndOthersWaitForTheLastUnlock) {
    Mutex mutex;
    std::atomic<bool> acquired{false};
    std::atomic<pid_t> contenderTid{0};
    FunctionRunnable contender([&] {
        contenderTid = currentTid();
        Mutex::Autolock lock(mutex);
        acquired = true;
    });
    Thread thread(contender, false, "contender", kPriority, kStackSize);

    mutex.lock();
    mutex.lock();  // a non-recursive lock would hang here (CTest time-out)
    {
        Mutex::Autolock nested(mutex);
    }
    mutex.unlock();

    thread.start();
    ASSERT_TRUE(waitUntil([&] { return contenderTid != 0 && isSleeping(contenderTid); }));
    EXPECT_FALSE(acquired) << "the lock was taken while its owner still held it once";

    mutex.unlock();
    EXPECT_TRUE(waitUntil([&] { return acquired.load(); }));
    EXPECT_EQ(velka::kStatusOk, thread.wait(0));
}

TEST(MutexDeathTest, UnlockByNonOwnerStopsOnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Mutex mutex;
#if defined(__SANITIZE_THREAD__)
    // ThreadSanitizer checks the unlock itself; with halt_on_error it stops
    // the process with its own report before the assertion is reached.
    EXPECT_DEATH(mutex.unlock(),
                 testing::AnyOf(testing::HasSubstr("Assertion `ret == 0' failed."),
                                testing::HasSubstr("unlock of an unlocked mutex")));
#else
    EXPECT_DEATH(mutex.unlock(), testing::HasSubstr("Assertion `ret == 0' failed."));
#endif
}

// Semaphore --------------------------------------------------------------------

TEST(SemaphoreTest, TryWaitTakesOnlyAvailableUnits) {
    Semaphore sem(0);
    EXPECT_FALSE(sem.tryWait());
    sem.post();
    EXPECT_TRUE(sem.tryWait());
    EXPECT_FALSE(sem.tryWait());

    Semaphore two(2);
    EXPECT_TRUE(two.tryWait());
    EXPECT_TRUE(two.tryWait());
    EXPECT_FALSE(two.tryWait());
}

TEST(SemaphoreTest, TimedWaitZeroNeverBlocks) {
    Semaphore sem(0);
    EXPECT_FALSE(sem.timedWait(0));
    sem.post();
    EXPECT_TRUE(sem.timedWait(0));
    EXPECT_FALSE(sem.timedWait(0));
}

// 999 ms carries the nanoseconds of the deadline into its seconds for every
// start time but the first millisecond of a second; 1999 ms likewise with a
// whole second on top. A deadline with nanoseconds left at or above 10^9 is
// refused by the platform (and the wait stops on "timedWait fail").
TEST(SemaphoreTest, TimedWaitAcrossASecondBoundaryWaitsTheFullTime) {
    Semaphore sem(0);
    for (unsigned int ms : {999u, 1999u}) {
        const Clock::time_point start = Clock::now();
        EXPECT_FALSE(sem.timedWait(ms));
        EXPECT_GE(msSince(start), static_cast<int64_t>(ms) - 1) << "timedWait(" << ms << ")";
    }
}

TEST(SemaphoreTest, PostWakesATimedWaiter) {
    Semaphore sem(0);
    std::atomic<int> result{-1};
    FunctionRunnable waiter([&] { result = sem.timedWait(kBoundMs) ? 1 : 0; });
    Thread thread(waiter, false, "waiter", kPriority, kStackSize);
    thread.start();
    sem.post();
    EXPECT_EQ(velka::kStatusOk, thread.wait(0));
    EXPECT_EQ(1, result.load());
    EXPECT_FALSE(sem.tryWait()) << "the unit was handed out twice";
}

// Both waiters are asleep in wait() before the two posts arrive, so a post that
// wakes nobody (e.g. one that only signals on a count of zero) leaves one of
// them behind. Each waiter takes one unit per round and then holds back until
// the next round, so a single waiter cannot take both units. The platform's
// condition variable sometimes wakes more threads than asked, which hides such
// a fault, so the scene is played several times.
TEST(SemaphoreTest, TwoPostsReleaseTwoBlockedWaiters) {
    constexpr int kRounds = 10;
    struct Scene {
        Semaphore sem{0};
        Semaphore done{0};
        Semaphore next[2] = {Semaphore(0), Semaphore(0)};
        std::atomic<pid_t> blockedTid[2] = {{0}, {0}};
        std::atomic<int> released[2] = {{0}, {0}};
        FunctionRunnable runnables[2] = {FunctionRunnable([this] { waiter(0); }),
                                         FunctionRunnable([this] { waiter(1); })};
        Thread threads[2] = {Thread(runnables[0], false, "waiterA", kPriority, kStackSize),
                             Thread(runnables[1], false, "waiterB", kPriority, kStackSize)};

        void waiter(int index) {
            for (int round = 0; round < kRounds; ++round) {
                if (round > 0 && !next[index].timedWait(kBoundMs)) return;
                blockedTid[index] = currentTid();
                sem.wait();
                blockedTid[index] = 0;
                released[index]++;
                done.post();
            }
        }
    };
    // Left behind on purpose when a waiter stays stuck: its Thread could not be
    // destroyed.
    Scene* scene = new Scene;
    scene->threads[0].start();
    scene->threads[1].start();

    bool ok = true;
    for (int round = 0; ok && round < kRounds; ++round) {
        ASSERT_TRUE(waitUntil([&] {
            const pid_t a = scene->blockedTid[0], b = scene->blockedTid[1];
            return a != 0 && b != 0 && isSleeping(a) && isSleeping(b);
        })) << "round " << round;
        scene->sem.post();
        scene->sem.post();
        ok = scene->done.timedWait(kBoundMs) && scene->done.timedWait(kBoundMs);
        EXPECT_TRUE(ok) << "round " << round
                        << ": the second post did not release the second waiter";
        EXPECT_EQ(round + 1, scene->released[0].load());
        EXPECT_EQ(round + 1, scene->released[1].load());
        scene->next[0].post();
        scene->next[1].post();
    }
    if (!ok) return;
    EXPECT_EQ(velka::kStatusOk, scene->threads[0].wait(0));
    EXPECT_EQ(velka::kStatusOk, scene->threads[1].wait(0));
    delete scene;
}

// Thread: statics and never-started threads -----------------------------------

TEST(ThreadTest, SleepRefusesNegativeAndSleepsTheFullTime) {
    EXPECT_EQ(velka::kStatusError, Thread::sleep(-1));
    EXPECT_EQ(velka::kStatusOk, Thread::sleep(0));

    const Clock::time_point start = Clock::now();
    EXPECT_EQ(velka::kStatusOk, Thread::sleep(1500));
    EXPECT_GE(msSince(start), 1500);

    EXPECT_EQ(velka::kStatusOk, Thread::yield());
}

TEST(ThreadTest, NeverStartedThreadWaitsAtOnceAndRefusesPriority) {
    CountingRunnable runnable;
    {
        Thread thread(runnable, false, "idle", kPriority, kStackSize);
        EXPECT_EQ(Thread::INIT, thread.state());
        EXPECT_EQ("idle", thread.name());
        EXPECT_EQ(velka::kStatusError, thread.setPriority(kPriority));
        EXPECT_EQ(velka::kStatusOk, thread.wait(0));
        EXPECT_EQ(velka::kStatusOk, thread.wait(100));
    }  // the destructor's wait must not block either
    EXPECT_EQ(0, runnable.runs());
}

// Thread: the join protocol ----------------------------------------------------

TEST(ThreadTest, WaitJoinsAFinishedThread) {
    CountingRunnable runnable;
    Thread thread(runnable, false, "counter", kPriority, kStackSize);
    thread.start();
    ASSERT_TRUE(waitUntil([&] { return thread.state() != Thread::RUNNING; }));
    EXPECT_EQ(Thread::FINISHED, thread.state());
    EXPECT_EQ(velka::kStatusOk, thread.wait(0));
    EXPECT_EQ(Thread::TERMINATED, thread.state());
    EXPECT_EQ(1, runnable.runs());
    EXPECT_EQ(velka::kStatusError, thread.setPriority(kPriority)) << "no thread left to set";
}

TEST(ThreadTest, TimedWaitOnALongRunTimesOutAndLeavesItRunning) {
    GatedRunnable runnable;
    Thread thread(runnable, false, "long", kPriority, kStackSize);
    thread.start();
    ASSERT_TRUE(runnable.waitStarted());

    EXPECT_EQ(velka::kStatusTimeout, thread.wait(100));
    EXPECT_EQ(Thread::RUNNING, thread.state());

    // 999 ms: the deadline's nanoseconds pass a full second.
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(velka::kStatusTimeout, thread.wait(999));
    EXPECT_GE(msSince(start), 998);
    EXPECT_EQ(Thread::RUNNING, thread.state());

    runnable.open();
    EXPECT_EQ(velka::kStatusOk, thread.wait(0));
    EXPECT_EQ(Thread::TERMINATED, thread.state());
}

TEST(ThreadTest, TimedWaitReturnsOkWhenRunEndsInTime) {
    GatedRunnable runnable;
    Thread thread(runnable, false, "short", kPriority, kStackSize);
    thread.start();
    ASSERT_TRUE(runnable.waitStarted());
    runnable.open();
    EXPECT_EQ(velka::kStatusOk, thread.wait(kBoundMs));
    EXPECT_EQ(Thread::TERMINATED, thread.state());
}

// finished_ is broadcast: every thread waiting on the same Thread returns; one
// of them joins and the other then finds it TERMINATED.
TEST(ThreadTest, SeveralWaitersAllReturnWhenRunEnds) {
    GatedRunnable runnable;
    Thread thread(runnable, false, "watched", kPriority, kStackSize);
    thread.start();
    ASSERT_TRUE(runnable.waitStarted());

    std::atomic<int> results[2] = {{-1}, {-1}};
    std::atomic<pid_t> tids[2] = {{0}, {0}};
    FunctionRunnable first([&] {
        tids[0] = currentTid();
        results[0] = thread.wait(0);
    });
    FunctionRunnable second([&] {
        tids[1] = currentTid();
        results[1] = thread.wait(kBoundMs);
    });
    Thread a(first, false, "joinerA", kPriority, kStackSize);
    Thread b(second, false, "joinerB", kPriority, kStackSize);
    a.start();
    b.start();
    ASSERT_TRUE(waitUntil([&] {
        return tids[0] != 0 && tids[1] != 0 && isSleeping(tids[0]) && isSleeping(tids[1]);
    }));

    runnable.open();
    EXPECT_EQ(velka::kStatusOk, b.wait(0));
    EXPECT_EQ(velka::kStatusOk, a.wait(0));
    EXPECT_EQ(velka::kStatusOk, results[0].load());
    EXPECT_EQ(velka::kStatusOk, results[1].load());
    EXPECT_EQ(Thread::TERMINATED, thread.state());
}

TEST(ThreadTest, WaitFromInsideRunIsADeadlockAndDoesNotJoin) {
    Thread* self = nullptr;
    std::atomic<int> timed{-1};
    std::atomic<int> unlimited{-1};
    std::atomic<int> stateAfter{-1};
    FunctionRunnable runnable([&] {
        timed = self->wait(100);
        // Without the self check wait(0) would block for ever; only ask once
        // the bounded call has shown the check is there.
        if (timed == velka::kStatusDeadlock) unlimited = self->wait(0);
        stateAfter = self->state();
    });
    Thread thread(runnable, false, "selfwaiter", kPriority, kStackSize);
    self = &thread;
    thread.start();
    EXPECT_EQ(velka::kStatusOk, thread.wait(0));
    EXPECT_EQ(velka::kStatusDeadlock, timed.load());
    EXPECT_EQ(velka::kStatusDeadlock, unlimited.load());
    EXPECT_EQ(Thread::RUNNING, stateAfter.load());
    EXPECT_EQ(Thread::TERMINATED, thread.state());
}

TEST(ThreadTest, StartAfterJoinRunsRunAgain) {
    GatedRunnable runnable;
    Thread thread(runnable, false, "again", kPriority, kStackSize);
    for (int round = 1; round <= 3; ++round) {
        thread.start();
        ASSERT_TRUE(runnable.waitStarted()) << "round " << round;
        EXPECT_EQ(Thread::RUNNING, thread.state());
        runnable.open();
        EXPECT_EQ(velka::kStatusOk, thread.wait(0));
        EXPECT_EQ(Thread::TERMINATED, thread.state());
        EXPECT_EQ(round, runnable.runs());
    }
}

// A restart straight from FINISHED, without a wait in between, is allowed too.
TEST(ThreadTest, StartFromFinishedRunsRunAgain) {
    CountingRunnable runnable;
    Thread thread(runnable, false, "restart", kPriority, kStackSize);
    thread.start();
    ASSERT_TRUE(waitUntil([&] { return thread.state() == Thread::FINISHED; }));
    thread.start();
    EXPECT_EQ(velka::kStatusOk, thread.wait(0));
    EXPECT_EQ(2, runnable.runs());
    EXPECT_EQ(Thread::TERMINATED, thread.state());
}

TEST(ThreadDeathTest, StartWhileRunningStopsOnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            GatedRunnable runnable;
            Thread thread(runnable, false, "twice", kPriority, kStackSize);
            thread.start();
            thread.start();
        },
        testing::HasSubstr("Assertion `state_ != RUNNING' failed."));
}

// Round-robin priorities need privilege (CAP_SYS_NICE or RLIMIT_RTPRIO); the
// unprivileged refusal is checked in ThreadPrivilegeTest.
TEST(ThreadTest, SetPriorityPutsTheRunningThreadOnRoundRobin) {
    GatedRunnable runnable;
    Thread thread(runnable, false, "prio", kPriority, kStackSize);
    thread.start();
    ASSERT_TRUE(runnable.waitStarted());
    const velka::VelkaStatus status = thread.setPriority(55);
    int policy = -1;
    struct sched_param param = {};
    if (status == velka::kStatusOk) {
        policy = sched_getscheduler(runnable.tid());
        sched_getparam(runnable.tid(), &param);
    }
    runnable.open();
    EXPECT_EQ(velka::kStatusOk, thread.wait(0));
    if (status != velka::kStatusOk) GTEST_SKIP() << "this process may not use real-time priorities";
    EXPECT_EQ(SCHED_RR, policy);
    EXPECT_EQ(55, param.sched_priority);
}

// Thread: exceptions out of run() ----------------------------------------------

class ThrowingRunnable : public Thread::Runnable {
public:
    explicit ThrowingRunnable(std::function<void()> thrower) : thrower_(std::move(thrower)) {}
    void run() override { thrower_(); }

private:
    std::function<void()> thrower_;
};

struct ThrowCase {
    const char* threadName;
    std::function<void()> thrower;
    const char* expectedLine;
};

void PrintTo(const ThrowCase& c, std::ostream* os) { *os << c.threadName; }

class ThreadExceptionTest : public testing::TestWithParam<ThrowCase> {};

TEST_P(ThreadExceptionTest, ExceptionIsPrintedAndThreadEndsFinished) {
    const ThrowCase& c = GetParam();
    ThrowingRunnable runnable(c.thrower);
    Thread thread(runnable, false, c.threadName, kPriority, kStackSize);

    testing::internal::CaptureStdout();
    thread.start();
    const bool ended = waitUntil([&] { return thread.state() != Thread::RUNNING; });
    const std::string printed = testing::internal::GetCapturedStdout();

    ASSERT_TRUE(ended);
    EXPECT_EQ(Thread::FINISHED, thread.state());
    EXPECT_EQ(c.expectedLine, printed);
    EXPECT_EQ(velka::kStatusOk, thread.wait(0));
    EXPECT_EQ(Thread::TERMINATED, thread.state());
}

INSTANTIATE_TEST_SUITE_P(
    Throwers, ThreadExceptionTest,
    testing::Values(
        ThrowCase{"stdThrower", [] { throw std::runtime_error("disk on fire"); },
                  "exception in create thread stdThrower n message: disk on fire\n"},
        ThrowCase{"intThrower", [] { throw 42; },
                  "unknown exception in create thread intThrower\n"}),
    [](const testing::TestParamInfo<ThrowCase>& info) {
        return std::string(info.param.threadName);
    });

// Thread: detached threads -------------------------------------------------------

// A detached Thread destroys itself on its own thread once run() returns. Its
// destructor's wait(0) must see the self-wait and not try to join; the platform
// thread then ends (LeakSanitizer reports the object if it is never freed).
TEST(ThreadTest, DetachedThreadFreesItselfAndEnds) {
    // Nothing of the runnable is touched after `ended` is set, so the test may
    // destroy it from then on; the Thread itself is gone by the time the task
    // has left /proc.
    class LastWordRunnable : public Thread::Runnable {
    public:
        void run() override {
            tid = currentTid();
            started.post();
            gate.timedWait(kBoundMs);
            ended.store(true, std::memory_order_release);
        }
        std::atomic<pid_t> tid{0};
        std::atomic<bool> ended{false};
        Semaphore started{0};
        Semaphore gate{0};
    } runnable;

    Thread* thread = new Thread(runnable, true, "detached", kPriority, kStackSize);
    thread->start();
    thread = nullptr;  // owned by the platform thread from here on
    ASSERT_TRUE(runnable.started.timedWait(kBoundMs));
    const pid_t tid = runnable.tid;
    runnable.gate.post();
    EXPECT_TRUE(waitUntil([&] { return runnable.ended.load(std::memory_order_acquire); }));
    EXPECT_TRUE(waitUntil([&] { return !taskExists(tid); }));
}

// Thread: privilege and creation failure -----------------------------------------

// Drops root, as the host process of the box runs. Returns false when that fails.
bool dropPrivileges() {
    if (geteuid() != 0) return true;
    const uid_t nobody = 65534;
    return setgid(nobody) == 0 && setuid(nobody) == 0;
}

// Round-robin scheduling at the library's priorities and a 2048-byte stack
// request must not stop an unprivileged process from getting its thread. The
// child gives up its privileges; its exit code names the step that failed.
[[noreturn]] void runUnprivileged() {
    if (!dropPrivileges()) _exit(2);
    struct rlimit noRealtime = {0, 0};
    if (setrlimit(RLIMIT_RTPRIO, &noRealtime) != 0) _exit(3);
    for (int priority : {40, 60, 70}) {
        GatedRunnable runnable;
        Thread thread(runnable, false, "unprivileged", priority, kStackSize);
        thread.start();
        if (thread.state() == Thread::TERMINATED) _exit(8);  // creation refused
        if (!runnable.waitStarted()) _exit(4);
        // Without privilege the platform refuses a real-time priority.
        if (thread.setPriority(priority) != velka::kStatusError) _exit(5);
        runnable.open();
        if (thread.wait(0) != velka::kStatusOk) _exit(6);
        if (runnable.runs() != 1) _exit(7);
    }
    _exit(0);
}

TEST(ThreadPrivilegeTest, UnprivilegedProcessGetsItsThread) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(runUnprivileged(), testing::ExitedWithCode(0), "");
}

// When the platform refuses the thread, start() is silent, the Thread goes to
// TERMINATED and wait() returns kStatusOk at once. An unprivileged child with
// a process limit of zero cannot create threads.
[[noreturn]] void runWithoutThreads() {
    fflush(stdout);
    dup2(STDERR_FILENO, STDOUT_FILENO);  // anything printed reaches the matcher
    if (!dropPrivileges()) _exit(2);
    struct rlimit none = {0, 0};
    if (setrlimit(RLIMIT_NPROC, &none) != 0) _exit(3);
    CountingRunnable runnable;
    Thread thread(runnable, false, "refused", kPriority, kStackSize);
    thread.start();
    fflush(stdout);
    if (thread.state() != Thread::TERMINATED) _exit(4);
    if (thread.wait(0) != velka::kStatusOk) _exit(5);
    if (runnable.runs() != 0) _exit(6);
    _exit(0);
}

TEST(ThreadPrivilegeTest, RefusedCreationEndsTerminatedSilently) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(runWithoutThreads(), testing::ExitedWithCode(0), "^$");
}

}  // namespace
