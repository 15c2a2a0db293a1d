#include <gtest/gtest.h>

#include "velka/Semaphore.h"
#include "velka/Thread.h"

namespace {
struct Poster : velka::Thread::Runnable {
    velka::Semaphore& sem;
    explicit Poster(velka::Semaphore& s) : sem(s) {}
    void run() override { sem.post(); }
};
}  // namespace

TEST(Smoke, ThreadPostsSemaphore) {
    velka::Semaphore sem(0);
    Poster poster(sem);
    velka::Thread thread(poster, false, "poster", 40, 2048);
    thread.start();
    EXPECT_TRUE(sem.timedWait(10000));
    EXPECT_EQ(velka::kStatusOk, thread.wait(0));
    EXPECT_EQ(velka::Thread::TERMINATED, thread.state());
}
