// End to end: media that ffmpeg writes during the run, played by a player
// through LocalFile, the pull source and the software playback engine.

#include <gtest/gtest.h>

extern "C" {
#include <libavformat/avformat.h>
}

#include <string>
#include <vector>

#include "PlayerFixture.h"
#include "velka/MediaPlayer.h"

namespace {

using namespace velka_test;
using velka::kStatusOk;

// How the engine fingerprints what it demuxed (see mtkpb_control.h), here
// computed by reading the file directly with libavformat.
bool directChecksum(const std::string& path, uint64_t* checksum, uint64_t* packets) {
    AVFormatContext* format = nullptr;
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0) return false;
    bool ok = avformat_find_stream_info(format, nullptr) >= 0;
    AVPacket* packet = av_packet_alloc();
    *checksum = mtkpb::control::kFnvOffsetBasis;
    *packets = 0;
    while (ok && av_read_frame(format, packet) >= 0) {
        *checksum = mtkpb::control::fnv1a64(*checksum, packet->data,
                                            static_cast<size_t>(packet->size));
        ++*packets;
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&format);
    return ok;
}

struct Clip {
    const char* name;
    std::string Media::*path;
};

class EndToEndTest : public EngineTest, public ::testing::WithParamInterface<Clip> {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        path_ = media().*(GetParam().path);
        player_.addListener(log_);
    }
    void TearDown() override {
        player_.close();
        EngineTest::TearDown();
    }

    std::string path_;
    EventLog log_;
    MediaPlayer player_;
};

TEST_P(EndToEndTest, PlaysToTheEndWithIncreasingTimeAndEveryPacket) {
    // Twice real time: the 6 s clip plays in about 3 s, long enough for
    // several polls to see the time move.
    mtkpb::control::setSpeed(2);
    ASSERT_EQ(kStatusOk, player_.open(Media::url(path_)));
    EXPECT_NEAR(media().durationMs, player_.duration(), 300);
    ASSERT_EQ(kStatusOk, player_.play(0));
    ASSERT_TRUE(log_.waitForEvent(kStopped, 60000))
        << "never stopped: " << ::testing::PrintToString(log_.events());
    EXPECT_EQ((Events{kOpening, kOpened, kPlaying, kEndOfStream, kStopped}), log_.transitions());
    EXPECT_EQ(MediaPlayer::kStateStopped, player_.state());

    // Time updates: before the end, each later than the one before, within the clip.
    std::vector<int32_t> times;
    for (const Event& e : log_.events()) {
        if (e.id == MediaPlayer::kEventEndOfStream) break;
        if (e.id == MediaPlayer::kEventTimeUpdate) times.push_back(e.param);
    }
    ASSERT_GE(times.size(), 2u) << ::testing::PrintToString(log_.events());
    for (size_t i = 1; i < times.size(); ++i) EXPECT_LT(times[i - 1], times[i]);
    EXPECT_GE(times.front(), 0);
    EXPECT_LE(times.back(), media().durationMs + 200);

    uint64_t checksum = 0, packets = 0;
    ASSERT_TRUE(directChecksum(path_, &checksum, &packets));
    const mtkpb::control::Counters counters = mtkpb::control::counters();
    EXPECT_EQ(packets, counters.packets);
    EXPECT_EQ(checksum, counters.packetChecksum);
    EXPECT_EQ(0u, counters.protocolErrors);
    EXPECT_EQ(0u, counters.readsFailed);
}

TEST_P(EndToEndTest, StartPositionAndTimeSeekLandWhereAsked) {
    // A seek lands on the key frame at or before the second asked for.
    auto expectAt = [this](int32_t from, int32_t below, MediaPlayer::State state) {
        const int32_t pts = player_.currentPts();
        EXPECT_TRUE(pts >= from && pts < below) << pts << " is not in [" << from << ", " << below;
        EXPECT_EQ(state, player_.state());
    };
    ASSERT_EQ(kStatusOk, player_.open(Media::url(path_)));
    ASSERT_EQ(kStatusOk, player_.play(3000));
    ASSERT_TRUE(mtkpb::control::waitForNotifications(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE, 1,
                                                     kEventWaitMs));
    expectAt(2000, 5000, MediaPlayer::kStatePlaying);
    ASSERT_EQ(kStatusOk, player_.timeSeek(1000));
    expectAt(400, 2500, MediaPlayer::kStatePlaying);
    ASSERT_EQ(kStatusOk, player_.pause());
    ASSERT_EQ(kStatusOk, player_.timeSeek(4000));
    expectAt(3400, 4500, MediaPlayer::kStatePaused);
    EXPECT_EQ(0u, mtkpb::control::counters().protocolErrors);
}

INSTANTIATE_TEST_SUITE_P(Containers, EndToEndTest,
                         ::testing::Values(Clip{"Mp4IndexAtEnd", &Media::mp4},
                                           Clip{"MpegTs", &Media::ts}),
                         [](const ::testing::TestParamInfo<Clip>& info) {
                             return info.param.name;
                         });

}  // namespace
