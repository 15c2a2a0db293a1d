// Helpers shared by the player and playback tests: a recording listener,
// media generated with ffmpeg, and descriptor counting.
#ifndef VELKA_TESTS_SUPPORT_PLAYERTESTSUPPORT_H
#define VELKA_TESTS_SUPPORT_PLAYERTESTSUPPORT_H

#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "velka/MediaPlayer.h"

namespace velka {

inline bool operator==(const MediaPlayer::Event& a, const MediaPlayer::Event& b) {
    return a.id == b.id && a.param == b.param;
}

inline void PrintTo(const MediaPlayer::Event& event, std::ostream* os) {
    *os << "{" << event.id << ", " << event.param << "}";
}

}  // namespace velka

namespace velka_test {

using velka::MediaPlayer;
using Event = MediaPlayer::Event;
using Events = std::vector<Event>;

// Bound of every wait for an event. Without an engine notification the
// dispatch thread polls Playback every 500 ms, and a loaded two-core machine
// may be slow: several seconds per wait keep the tests robust.
constexpr int kEventWaitMs = 10000;

inline Event stateEvent(MediaPlayer::State state) {
    return Event{MediaPlayer::kEventStateChanged, state};
}

// Records every event it is notified of, for tests to wait on. An optional
// hook runs on the dispatch thread after the event is recorded, without the
// recorder's lock (it may issue player commands).
class EventLog : public MediaPlayer::Listener {
public:
    void notify(const Event& event) override {
        std::function<void(const Event&)> hook;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            events_.push_back(event);
            hook = hook_;
        }
        changed_.notify_all();
        if (hook) hook(event);
    }

    void setHook(std::function<void(const Event&)> hook) {
        std::lock_guard<std::mutex> lock(mutex_);
        hook_ = std::move(hook);
    }

    Events events() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }

    // The events without time updates and buffering reports, which arrive
    // at the engine's pace.
    Events transitions() const { return withoutProgress(events()); }

    static Events withoutProgress(const Events& all) {
        Events kept;
        for (const Event& e : all) {
            if (e.id != MediaPlayer::kEventTimeUpdate && e.id != MediaPlayer::kEventBuffering) {
                kept.push_back(e);
            }
        }
        return kept;
    }

    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.clear();
    }

    // Waits until `done` holds for the recorded events; at most timeoutMs.
    bool waitFor(const std::function<bool(const Events&)>& done, int timeoutMs = kEventWaitMs) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                 [&] { return done(events_); });
    }

    // Waits until at least `count` transitions (see transitions()) arrived.
    bool waitForTransitions(size_t count, int timeoutMs = kEventWaitMs) {
        return waitFor([count](const Events& all) { return withoutProgress(all).size() >= count; },
                       timeoutMs);
    }

    // Waits until the engine reported a playing position.
    bool waitForTimeUpdate(int timeoutMs = kEventWaitMs) {
        return waitFor([](const Events& all) {
            return std::any_of(all.begin(), all.end(),
                               [](const Event& e) { return e.id == MediaPlayer::kEventTimeUpdate; });
        }, timeoutMs);
    }

    // Waits until an event equal to `event` arrived.
    bool waitForEvent(const Event& event, int timeoutMs = kEventWaitMs) {
        return waitFor([event](const Events& all) {
            return std::find(all.begin(), all.end(), event) != all.end();
        }, timeoutMs);
    }

private:
    mutable std::mutex mutex_;  // guards events_ and hook_
    std::condition_variable changed_;
    Events events_;
    std::function<void(const Event&)> hook_;
};

// Open file descriptors of this process.
inline int openDescriptors() {
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
    return count - 3;  // ".", ".." and the directory's own descriptor
}

// Media written by ffmpeg into a fresh directory, removed at exit: an MP4
// whose index (moov) follows the data, and an MPEG-TS, both with video and
// audio; a long, tiny video-only MP4 for tests that must not reach the end;
// and a file of text that no demuxer recognises.
struct Media {
    std::string dir;
    std::string mp4;       // path
    std::string ts;        // path
    std::string longClip;  // path; kLongSeconds long
    std::string garbage;   // path
    int durationMs = 0;    // of mp4 and ts

    static std::string url(const std::string& path) { return "file://" + path; }
};

constexpr int kMediaSeconds = 6;
// Longer than any test runs at speed 1.
constexpr int kLongSeconds = 600;

inline bool runCommand(const std::string& command) {
    int status = std::system(command.c_str());
    return status == 0;
}

// Generated once per test program; an empty dir means ffmpeg failed.
inline const Media& media() {
    static Media* made = [] {
        Media* m = new Media;
        char pattern[] = "/tmp/velka-player-test-XXXXXX";
        if (mkdtemp(pattern) == nullptr) return m;
        std::string dir = pattern;
        std::string sources = " -f lavfi -i testsrc=size=160x120:rate=25:duration=" +
                              std::to_string(kMediaSeconds) +
                              " -f lavfi -i sine=frequency=440:sample_rate=44100:duration=" +
                              std::to_string(kMediaSeconds);
        std::string ffmpeg = "ffmpeg -nostdin -hide_banner -loglevel error -y";
        // Without +faststart the MP4 muxer writes its index after the data.
        bool ok = runCommand(ffmpeg + sources + " -c:v mpeg4 -q:v 5 -c:a aac -b:a 64k " + dir +
                             "/clip.mp4") &&
                  runCommand(ffmpeg + sources + " -c:v mpeg2video -q:v 5 -c:a mp2 -f mpegts " +
                             dir + "/clip.ts") &&
                  runCommand(ffmpeg + " -f lavfi -i testsrc=size=64x48:rate=5:duration=" +
                             std::to_string(kLongSeconds) + " -c:v mpeg4 -g 5 " + dir +
                             "/long.mp4") &&
                  runCommand("echo 'no media in here, only words' > " + dir + "/garbage.bin");
        if (ok) {
            m->dir = dir;
            m->mp4 = dir + "/clip.mp4";
            m->ts = dir + "/clip.ts";
            m->longClip = dir + "/long.mp4";
            m->garbage = dir + "/garbage.bin";
            m->durationMs = kMediaSeconds * 1000;
        }
        static std::string toRemove = dir;
        std::atexit([] { runCommand("rm -rf '" + toRemove + "'"); });
        return m;
    }();
    return *made;
}

}  // namespace velka_test

#endif  // VELKA_TESTS_SUPPORT_PLAYERTESTSUPPORT_H
