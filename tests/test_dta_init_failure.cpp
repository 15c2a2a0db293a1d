// A download engine that fails to initialise: the worker serves no request
// through it, yet every queued request still completes, in order.

#include <gtest/gtest.h>

#include <vector>

#include "DtaTestSupport.h"
#include "TempDataFile.h"
#include "bctidta_control.h"
#include "velka/DtaFile.h"

namespace {

namespace control = bctidta::control;

// Before any test of this program builds the worker.
class EngineInitFails : public ::testing::Environment {
public:
    void SetUp() override { control::setInitEngineResult(-1); }
};
::testing::Environment* const engineInitFails =
    ::testing::AddGlobalTestEnvironment(new EngineInitFails);

TEST(DtaFileWithoutEngine, QueuedReadsCompleteWithErrorInOrder) {
    TempDataFile data(10000, 81);
    velka::DtaFile file(data.dtaUrl());
    ASSERT_EQ(0, file.open()) << "the engine still hands out tasks";
    EXPECT_EQ(1, control::calls().initEngine);

    std::vector<char> first(100), second(100), third(100);
    dtatest::GateCallback gate;
    dtatest::CompletionLog log;
    dtatest::LoggingCallback secondCallback(log, 2), thirdCallback(log, 3);
    ASSERT_NE(nullptr, file.readAsync(first.data(), 100, gate));
    ASSERT_TRUE(gate.waitEntered());
    void* cancelled = file.readAsync(second.data(), 100, secondCallback);
    ASSERT_NE(nullptr, file.readAsync(third.data(), 100, thirdCallback));
    EXPECT_EQ(0, file.cancel(cancelled));
    gate.release();
    ASSERT_TRUE(log.waitForCount(2));

    EXPECT_EQ(velka::kStatusError, gate.status());
    EXPECT_EQ(0u, gate.length());
    std::vector<dtatest::Completion> completions = log.all();
    EXPECT_EQ(2, completions[0].tag);
    EXPECT_EQ(velka::kStatusCancelled, completions[0].status);
    EXPECT_EQ(0u, completions[0].length);
    EXPECT_EQ(3, completions[1].tag);
    EXPECT_EQ(velka::kStatusError, completions[1].status);
    EXPECT_EQ(0u, completions[1].length);
    EXPECT_EQ(0, file.tell());
    EXPECT_EQ(0, control::calls().readData) << "the worker never read through the engine";
    EXPECT_EQ(0, control::calls().setEventCallback);

    // Blocking reads call the engine on the caller's thread, as always.
    ASSERT_EQ(100, file.read(first.data(), 100));
    EXPECT_EQ(data.slice(0, 100), first);
    file.close();
}

}  // namespace
