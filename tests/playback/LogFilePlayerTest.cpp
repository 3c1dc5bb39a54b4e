#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "FakeLogFile.h"
#include "FrameRecorder.h"
#include "playback/LogFilePlayer.h"

namespace {

using Korvane::Logging::DataEntry;
using Korvane::Logging::Playback::LogFilePlayer;
using Korvane::Logging::Playback::PlaybackTiming;
using Korvane::Testing::FakeLogFile;
using Korvane::Testing::FrameRecorder;
using Frames = std::vector<std::int32_t>;

constexpr KV_LogDataSourceType typeA{1};
constexpr KV_LogDataSourceType typeB{2};
// Far above the long cap, so that the first frame of a new player waits the whole cap.
constexpr std::int64_t baseTime = 1'700'000'000'000;
constexpr std::int32_t longCap = 60'000;

// One source of type A with an entry for each timestamp.
std::unique_ptr<FakeLogFile> fileWith(const std::vector<std::int64_t>& timestamps) {
    auto file = std::make_unique<FakeLogFile>();
    const std::int8_t source = file->addSource(typeA);
    for (std::int64_t timestamp : timestamps) {
        file->addEntry(source, timestamp);
    }
    return file;
}

// `count` frames 1 ms apart.
std::unique_ptr<FakeLogFile> fileWithFrames(int count) {
    std::vector<std::int64_t> timestamps;
    for (int i = 0; i < count; ++i) {
        timestamps.push_back(baseTime + i);
    }
    return fileWith(timestamps);
}

// Sources 1 (A), 2 (B), 3 (A); entries 1 to 5 from sources 1, 2, 3, 1, 2.
std::unique_ptr<FakeLogFile> fileWithThreeSources() {
    auto file = std::make_unique<FakeLogFile>();
    const std::int8_t ids[] = {file->addSource(typeA), file->addSource(typeB),
                               file->addSource(typeA)};
    for (int source : {0, 1, 2, 0, 1}) {
        file->addEntry(ids[source], baseTime + source);
    }
    return file;
}

Frames range(std::int32_t first, std::int32_t last) {
    Frames numbers;
    for (std::int32_t n = first; n <= last; ++n) {
        numbers.push_back(n);
    }
    return numbers;
}

// The tests of timed playback run in both timings, which must deliver the same frames in the same
// order under the same numbers.
class TimedPlaybackTest : public testing::TestWithParam<PlaybackTiming> {
protected:
    LogFilePlayer timed(LogFilePlayer player) {
        player.setPlaybackTiming(GetParam());
        return player;
    }
};

INSTANTIATE_TEST_SUITE_P(BothTimings, TimedPlaybackTest,
                         testing::Values(PlaybackTiming::Milliseconds, PlaybackTiming::Timeline),
                         [](const testing::TestParamInfo<PlaybackTiming>& info) {
                             return info.param == PlaybackTiming::Timeline ? "Timeline"
                                                                           : "Milliseconds";
                         });

TEST(LogFilePlayerTest, TypeListSelectsSourcesAndFramesWithoutReading) {
    struct Row {
        std::vector<KV_LogDataSourceType> types;
        std::vector<std::int8_t> sources;
        Frames entryIds;
    };
    const Row rows[] = {
        {{typeA}, {1, 3}, {1, 3, 4}},
        {{typeB, typeA}, {1, 2, 3}, {1, 2, 3, 4, 5}},
        {{}, {}, {1, 2, 3, 4, 5}},  // no source left means no restriction
        {{KV_LogDataSourceType{9}}, {}, {1, 2, 3, 4, 5}},
    };
    for (const Row& row : rows) {
        auto file = fileWithThreeSources();
        const FakeLogFile& fake = *file;
        LogFilePlayer player(std::move(file), row.types, {}, false, 0);
        EXPECT_EQ(fake.reads, 0);
        std::vector<std::int8_t> sources;
        for (const auto& source : player.getDataSources()) {
            sources.push_back(source.id);
        }
        EXPECT_EQ(sources, row.sources);
        Frames entryIds;
        for (std::int32_t frame = 0; frame < player.getFrameCount(); ++frame) {
            player.seek(frame, [&](std::int32_t, DataEntry e) { entryIds.push_back(e.entryId); });
        }
        EXPECT_EQ(entryIds, row.entryIds);
    }
}

TEST(LogFilePlayerTest, BookmarksMapToTheNextFrameInFileOrder) {
    struct Row {
        KV_LogDataSourceType type;
        Frames bookmarkedEntries;
        Frames frameNumbers;
    };
    const Row rows[] = {
        {typeA, {5, 1, 2, 3, 4}, {2, 0, 1, 1, 2}},  // frames are entries 1, 3, 4
        {typeB, {1, 2, 3, 5}, {0, 0, 1, 1}},        // frames are entries 2, 5
    };
    for (const Row& row : rows) {
        auto file = fileWithThreeSources();
        for (std::int32_t entryId : row.bookmarkedEntries) {
            file->bookmarks.push_back({entryId, "title", "comment", {1, 2, 3}});
        }
        LogFilePlayer player(std::move(file), {row.type}, {}, false, 0);
        Frames entries;
        Frames frames;
        for (const auto& bookmark : player.getBookmarks()) {
            entries.push_back(bookmark.entryId);
            frames.push_back(bookmark.frameNumber);
            EXPECT_EQ(bookmark.title + bookmark.comment, "titlecomment");
            EXPECT_TRUE(bookmark.payload.empty());
        }
        EXPECT_EQ(entries, row.bookmarkedEntries);
        EXPECT_EQ(frames, row.frameNumbers);
    }
    auto empty = std::make_unique<FakeLogFile>();
    empty->bookmarks.push_back({3, "orphan", "", {}});
    LogFilePlayer player(std::move(empty), {}, {}, false, 0);
    EXPECT_EQ(player.getBookmarks().at(0).frameNumber, -1);
}

TEST_P(TimedPlaybackTest, PlaysFramesAfterThePositionInOrderThenEnds) {
    FrameRecorder recorder;
    auto file = fileWithFrames(5);
    const FakeLogFile& fake = *file;
    // Gaps of 1 ms are scaled; the first frame and each wrap wait the cap of 3 ms.
    LogFilePlayer player = timed({std::move(file), {typeA}, recorder.callback(), false, 3});
    player.stop();  // never played: nothing to do
    player.play();
    player.play();  // already playing: no second thread
    ASSERT_TRUE(recorder.waitForCount(4));
    player.stop();
    player.stop();
    EXPECT_EQ(recorder.frameNumbers(), range(1, 4));
    for (const auto& delivery : recorder.deliveries()) {
        const auto id = std::uint8_t(delivery.entry.entryId);
        EXPECT_NE(delivery.thread, std::this_thread::get_id());
        EXPECT_EQ(delivery.entry.data, (std::vector<std::uint8_t>{id, 0xAB}));
        EXPECT_EQ(delivery.entry.timestamp, baseTime + delivery.frameNumber);
    }

    // Past the end a run reads nothing and ends at once, however often it is tried.
    const int readsAtEnd = fake.reads;
    for (int i = 0; i < 2; ++i) {
        player.play();
        player.stop();
    }
    EXPECT_EQ(fake.reads, readsAtEnd);

    // Looping switched on after the end restarts from frame 0 and wraps again.
    player.setLoopPlayback(true);
    player.play();
    ASSERT_TRUE(recorder.waitForCount(4 + 7));
    player.stop();
    const Frames frames = recorder.frameNumbers();
    EXPECT_EQ(Frames(frames.begin() + 4, frames.begin() + 11), (Frames{0, 1, 2, 3, 4, 0, 1}));
    for (std::size_t i = 5; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i], (frames[i - 1] + 1) % 5) << "at delivery " << i;
    }
}

TEST(LogFilePlayerTest, FinishedRunIsDisposedOfByStopPlayOrDestructor) {
    for (int disposal = 0; disposal < 3; ++disposal) {
        FrameRecorder recorder;
        {
            LogFilePlayer player(fileWithFrames(3), {typeA}, recorder.callback(), false, 0);
            player.play();
            ASSERT_TRUE(recorder.waitForCount(2));
            if (disposal == 0) {
                player.stop();
            } else if (disposal == 1) {
                player.play();
            }
        }
        EXPECT_EQ(recorder.frameNumbers(), range(1, 2));
    }
}

TEST_P(TimedPlaybackTest, OneFrameRepeatsOnlyWhenLoopingAndNoFramesNeverRead) {
    FrameRecorder recorder;
    auto file = fileWithFrames(1);
    const FakeLogFile& fake = *file;
    LogFilePlayer player = timed({std::move(file), {typeA}, recorder.callback(), false, 0});
    player.play();
    player.stop();
    player.seek(0);
    player.play();
    player.stop();
    EXPECT_EQ(fake.reads, 1);
    player.setLoopPlayback(true);
    player.play();
    ASSERT_TRUE(recorder.waitForCount(4));
    player.stop();
    EXPECT_EQ(recorder.frameNumbers(), Frames(recorder.frameNumbers().size(), 0));

    auto none = std::make_unique<FakeLogFile>();
    const FakeLogFile& empty = *none;
    LogFilePlayer idle = timed({std::move(none), {}, recorder.callback(), true, 0});
    idle.play();
    idle.seek(0);
    EXPECT_EQ(idle.getTotalPlayTime(), 0);
    idle.stop();
    EXPECT_EQ(empty.reads, 0);
}

TEST_P(TimedPlaybackTest, StopDuringAWaitSkipsTheWaitingFrame) {
    FrameRecorder recorder;
    const std::vector<std::int64_t> timestamps = {baseTime, baseTime + 1, baseTime + 2,
                                                  baseTime + 50'000, baseTime + 50'001};
    LogFilePlayer player =
        timed({fileWith(timestamps), {typeA}, recorder.callback(), false, longCap});
    const auto start = std::chrono::steady_clock::now();
    player.play();  // frame 1 waits the whole cap
    player.play();  // already playing: neither a second thread nor a join
    player.stop();
    player.play();  // frame 2 comes 1 ms later, frame 3 only after 50 s
    ASSERT_TRUE(recorder.waitForCount(1));
    player.stop();
    player.play();
    ASSERT_TRUE(recorder.waitForCount(2));
    player.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_EQ(recorder.frameNumbers(), (Frames{2, 4}));
}

TEST_P(TimedPlaybackTest, SeekDeliversTheTargetAndPlayGoesOnAfterIt) {
    const std::int32_t targets[] = {0, 2, 4, -1, 5};  // the last two are out of range
    for (std::int32_t target : targets) {
        const bool inRange = target >= 0 && target < 5;
        // Under a long cap, only a seek that measures the next gap from its own frame lets the
        // following frames come at once; the first frame of a new player waits the whole cap.
        FrameRecorder recorder;
        LogFilePlayer player = timed(
            {fileWithFrames(5), {typeA}, recorder.callback(), false, inRange ? longCap : 0});
        player.seek(target);
        const auto seen = recorder.deliveries();
        ASSERT_EQ(seen.size(), inRange ? 1u : 0u);
        if (inRange) {
            EXPECT_EQ(seen[0].thread, std::this_thread::get_id());
            EXPECT_EQ(seen[0].entry.entryId, target + 1);
        }
        player.play();
        const Frames expected = inRange ? range(target, 4) : range(1, 4);
        ASSERT_TRUE(recorder.waitForCount(expected.size()));
        player.stop();
        EXPECT_EQ(recorder.frameNumbers(), expected) << "seek to " << target;
    }
}

TEST(LogFilePlayerTest, SeekPrefersItsOwnCallableAndWithoutAnyThrows) {
    FrameRecorder own;
    FrameRecorder recorder;
    LogFilePlayer player(fileWithFrames(3), {typeA}, recorder.callback(), false, 0);
    player.seek(1, own.callback());
    EXPECT_EQ(own.frameNumbers(), Frames{1});
    EXPECT_TRUE(recorder.frameNumbers().empty());

    auto file = fileWithFrames(4);
    const FakeLogFile& fake = *file;
    LogFilePlayer silent(std::move(file), {typeA}, {}, false, 0);
    silent.play();  // without a frame callback nothing starts
    silent.stop();
    EXPECT_EQ(fake.reads, 0);
    EXPECT_THROW(silent.seek(2), std::bad_function_call);
    EXPECT_EQ(fake.lastReadId, 3);  // the position moved before the call failed
}

TEST_P(TimedPlaybackTest, SeekAndTotalPlayTimeDuringPlayRestartAfterTheirFrame) {
    FrameRecorder recorder;
    LogFilePlayer player =
        timed({fileWithFrames(6), {typeA}, recorder.callback(), false, longCap});
    player.play();  // frame 1 waits the whole cap
    player.seek(3);
    ASSERT_TRUE(recorder.waitForCount(3));
    player.stop();
    const auto seen = recorder.deliveries();
    EXPECT_EQ(recorder.frameNumbers(), range(3, 5));
    EXPECT_EQ(seen[0].thread, std::this_thread::get_id());
    EXPECT_NE(seen[1].thread, std::this_thread::get_id());

    player.seek(0);
    player.setPlaybackSpeedMultiplier(0.0f);  // holds playback at frame 1
    player.play();
    // Stops the run held at frame 1 and restarts one that holds at frame 2.
    EXPECT_EQ(player.getTotalPlayTime(), 5);
    player.stop();
    player.setPlaybackSpeedMultiplier(1.0f);
    player.play();
    ASSERT_TRUE(recorder.waitForCount(3 + 4));
    player.stop();
    EXPECT_EQ(recorder.frameNumbers(), (Frames{3, 4, 5, 0, 3, 4, 5}));
}

TEST(LogFilePlayerTest, TotalPlayTimeSpansThePlayersFramesAndKeepsThePosition) {
    struct Row {
        std::vector<std::int64_t> timestamps;
        std::int32_t expected;
    };
    const Row rows[] = {
        {{baseTime}, 0},
        {{baseTime, baseTime + 500, baseTime + 3000}, 3000},
        {{baseTime, baseTime - 20}, -20},
        {{0, 2147483648}, -2147483647 - 1},
    };
    for (const Row& row : rows) {
        LogFilePlayer player(fileWith(row.timestamps), {typeA}, {}, false, 0);
        EXPECT_EQ(player.getTotalPlayTime(), row.expected);
    }

    FrameRecorder recorder;
    LogFilePlayer player(fileWithThreeSources(), {typeB}, recorder.callback(), false, 0);
    EXPECT_EQ(player.getTotalPlayTime(), 0);  // 1 ms across the file, 0 across its frames
    player.play();
    ASSERT_TRUE(recorder.waitForCount(1));
    player.stop();
    EXPECT_EQ(recorder.frameNumbers(), Frames{1});
}

TEST_P(TimedPlaybackTest, UnreadableFrameEndsTheRunAndIsNotDelivered) {
    FrameRecorder recorder;
    auto file = fileWithFrames(5);
    file->unreadable = {3};  // frame 2
    LogFilePlayer player = timed({std::move(file), {typeA}, recorder.callback(), false, 0});
    player.play();
    ASSERT_TRUE(recorder.waitForCount(1));
    player.seek(2);  // stops the run if it still goes, and delivers nothing
    player.play();
    ASSERT_TRUE(recorder.waitForCount(3));
    player.stop();
    EXPECT_EQ(recorder.frameNumbers(), (Frames{1, 3, 4}));
}

TEST_P(TimedPlaybackTest, ReadExceptionsReachSeekAndTotalPlayTimeButEndARunQuietly) {
    FrameRecorder recorder;
    auto file = fileWithFrames(7);
    file->throwing = {1, 3};  // frames 0 and 2
    LogFilePlayer player =
        timed({std::move(file), {typeA}, recorder.callback(), false, longCap});
    player.play();  // frame 1 waits the whole cap
    EXPECT_THROW(player.seek(2), std::runtime_error);
    // A run restarted by the failed seek would have read frame 3 before seeing this stop.
    player.stop();

    // The position is the seek's target: a new run goes on with frame 3, held by the
    // multiplier 0 until getTotalPlayTime stops it.
    player.setPlaybackSpeedMultiplier(0.0f);
    player.play();
    EXPECT_THROW(player.getTotalPlayTime(), std::runtime_error);
    player.stop();  // likewise for a run restarted after the failure
    player.setPlaybackSpeedMultiplier(1.0f);
    player.play();
    ASSERT_TRUE(recorder.waitForCount(3));
    player.stop();

    // On the playback thread a read that throws ends the run quietly at that frame, which the
    // run reads before it can see a stop; the next run goes on after it.
    player.seek(1);
    player.play();
    player.stop();
    player.play();
    ASSERT_TRUE(recorder.waitForCount(3 + 1 + 4));
    player.stop();
    EXPECT_EQ(recorder.frameNumbers(), (Frames{4, 5, 6, 1, 3, 4, 5, 6}));
}

TEST(LogFilePlayerTest, PlayerOwnsAndDestroysItsLogFile) {
    bool firstDestroyed = false;
    bool secondDestroyed = false;
    auto first = fileWithFrames(2);
    first->destroyed = &firstDestroyed;
    auto second = fileWithFrames(3);
    second->destroyed = &secondDestroyed;
    {
        LogFilePlayer kept(std::move(second), {}, {}, false, 0);
        {
            LogFilePlayer original(std::move(first), {}, {}, false, 0);
            LogFilePlayer moved(std::move(original));
            kept = std::move(moved);  // gives up the second file
            EXPECT_TRUE(secondDestroyed);
        }
        EXPECT_FALSE(firstDestroyed);  // the moved-from players were empty
        EXPECT_EQ(kept.getFrameCount(), 2);
    }
    EXPECT_TRUE(firstDestroyed);
}

}  // namespace
