#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <numeric>
#include <thread>

#include "RawDatabase.h"
#include "TempDir.h"
#include "playback/LogFilePlayer.h"
#include "sqlite/SqliteLogFile.h"

namespace Korvane::Logging::Playback {
namespace {

using Frames = std::vector<std::int32_t>;
constexpr KV_LogDataSourceType typeA{1};
constexpr KV_LogDataSourceType typeB{2};
// Far above the long cap, so that the first frame of a new player waits the whole cap.
constexpr std::int64_t baseTime = 1'700'000'000'000;
constexpr std::int32_t longCap = 60'000;

Frames range(std::int32_t first, std::int32_t last) {
    Frames numbers(std::size_t(last - first + 1));
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
}

// Collects the frames a player delivers, from whichever thread; it outlives the players.
struct FrameRecorder {
    struct Delivery {
        std::int32_t frame;
        DataEntry entry;
        bool onCallersThread;
    };
    FrameCallback callback() {
        return [this](std::int32_t frame, DataEntry entry) {
            std::lock_guard<std::mutex> lock(mutex);
            delivered.push_back({frame, std::move(entry), std::this_thread::get_id() == caller});
            arrived.notify_all();
        };
    }
    // Waits, a generous time at most, until `count` frames have arrived in all.
    bool waitForCount(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        return arrived.wait_for(lock, std::chrono::seconds(20),
                                [&] { return delivered.size() >= count; });
    }
    std::vector<Delivery> deliveries() {
        std::lock_guard<std::mutex> lock(mutex);
        return delivered;
    }
    Frames frames() {
        Frames numbers;
        for (const auto& delivery : deliveries()) {
            numbers.push_back(delivery.frame);
        }
        return numbers;
    }

    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<Delivery> delivered;
    const std::thread::id caller = std::this_thread::get_id();
};

class PlayerTest : public Testing::TempDirTest {
protected:
    // Sources 1 (A), 2 (B), 3 (A); entry i + 1 from `sources[i]` (or 1) at `timestamps[i]`.
    std::unique_ptr<SqliteLogFile> record(const std::vector<std::int64_t>& timestamps,
                                          const std::vector<std::int8_t>& sources = {}) {
        name = path(std::to_string(++files));
        auto file = std::make_unique<SqliteLogFile>(name, "", "", "", 3, 0);
        for (const KV_LogDataSourceType type : {typeA, typeB, typeA}) {
            DataSource source{-1, type, "s"};
            EXPECT_TRUE(file->addDataSource(source));
        }
        for (std::size_t i = 0; i < timestamps.size(); ++i) {
            const std::int8_t source = i < sources.size() ? sources[i] : 1;
            EXPECT_TRUE(file->logData({0, source, 0, {std::uint8_t(i + 1), 0xAB}, timestamps[i]}));
        }
        return file;
    }
    std::unique_ptr<SqliteLogFile> frames(int count) {
        std::vector<std::int64_t> timestamps(std::size_t(count), baseTime);
        std::iota(timestamps.begin(), timestamps.end(), baseTime);
        return record(timestamps);
    }

    std::string name;  // of the latest file
    int files = 0;
};

TEST_F(PlayerTest, TypeListSelectsSourcesAndFramesAndBookmarksMapToTheirFrame) {
    struct Row {
        std::vector<KV_LogDataSourceType> types;
        std::vector<std::int8_t> sources;
        Frames entryIds;
        Frames bookmarkFrames;  // of bookmarks on entries 5, 1, 2, 3, 4 and 9
    };
    const Row rows[] = {
        {{typeA}, {1, 3}, {1, 3, 4}, {2, 0, 1, 1, 2, 2}},
        {{typeB}, {2}, {2, 5}, {1, 0, 0, 1, 1, 1}},
        {{typeB, typeA}, {1, 2, 3}, {1, 2, 3, 4, 5}, {4, 0, 1, 2, 3, 4}},
        {{KV_LogDataSourceType{9}}, {}, {1, 2, 3, 4, 5}, {4, 0, 1, 2, 3, 4}},  // no restriction
    };
    for (const Row& row : rows) {
        auto file = record({1, 2, 3, 4, 5}, {1, 2, 3, 1, 2});
        Testing::RawDatabase(name).exec(
            "INSERT INTO bookmarks VALUES (5, 't', 'c', NULL), (1, 't', 'c', NULL), (2, 't', 'c', "
            "NULL), (3, 't', 'c', NULL), (4, 't', 'c', NULL), (9, 't', 'c', NULL);");
        LogFilePlayer player(std::move(file), row.types, {}, false, 0);
        player.play();  // without a frame callback nothing starts
        EXPECT_THROW(player.seek(0), std::bad_function_call);
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
        Frames frames;
        for (const auto& bookmark : player.getBookmarks()) {
            frames.push_back(bookmark.frameNumber);
            EXPECT_EQ(bookmark.title + bookmark.comment, "tc");
        }
        EXPECT_EQ(frames, row.bookmarkFrames);
    }
    auto empty = record({});
    Testing::RawDatabase(name).exec("INSERT INTO bookmarks VALUES (3, 'orphan', '', NULL);");
    EXPECT_EQ(LogFilePlayer(std::move(empty), {}, {}, false, 0).getBookmarks().at(0).frameNumber,
              -1);
}

// Both timings must deliver the same frames in the same order.
class TimedPlaybackTest : public PlayerTest, public testing::WithParamInterface<PlaybackTiming> {
protected:
    LogFilePlayer timed(std::unique_ptr<SqliteLogFile> file, FrameRecorder& recorder,
                        std::int32_t cap) {
        LogFilePlayer player(std::move(file), {typeA}, recorder.callback(), false, cap);
        player.setPlaybackTiming(GetParam());
        return player;
    }
};

INSTANTIATE_TEST_SUITE_P(BothTimings, TimedPlaybackTest,
                         testing::Values(PlaybackTiming::Milliseconds, PlaybackTiming::Timeline),
                         [](const auto& info) {
                             return info.param == PlaybackTiming::Timeline ? "Timeline"
                                                                           : "Milliseconds";
                         });

TEST_P(TimedPlaybackTest, PlaysFramesAfterThePositionInOrderThenEndsOrLoops) {
    FrameRecorder recorder;
    // Gaps of 1 ms are scaled; the first frame and each wrap wait the cap of 3 ms.
    LogFilePlayer player = timed(frames(5), recorder, 3);
    player.stop();  // never played: nothing to do
    player.play();
    player.play();  // already playing: no second thread
    ASSERT_TRUE(recorder.waitForCount(4));
    player.stop();
    player.play();  // past the end a run ends at once, however often it is tried
    player.play();
    player.stop();
    EXPECT_EQ(recorder.frames(), range(1, 4));
    EXPECT_FALSE(recorder.deliveries().at(0).onCallersThread);
    // Looping switched on after the end restarts from frame 0 and wraps again.
    player.setLoopPlayback(true);
    player.play();
    ASSERT_TRUE(recorder.waitForCount(4 + 7));
    player.stop();
    const Frames frames = recorder.frames();
    EXPECT_EQ(Frames(frames.begin() + 4, frames.begin() + 11), (Frames{0, 1, 2, 3, 4, 0, 1}));
    for (std::size_t i = 5; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i], (frames[i - 1] + 1) % 5) << "at delivery " << i;
    }
}

TEST_P(TimedPlaybackTest, StopDuringAWaitSkipsTheWaitingFrame) {
    FrameRecorder recorder;
    LogFilePlayer player =
        timed(record({baseTime, baseTime + 1, baseTime + 2, baseTime + 50'000, baseTime + 50'001}),
              recorder, longCap);
    const auto start = std::chrono::steady_clock::now();
    player.play();  // frame 1 waits the whole cap
    player.stop();
    player.play();  // frame 2 comes 1 ms later, frame 3 only after 50 s
    ASSERT_TRUE(recorder.waitForCount(1));
    player.stop();
    player.play();
    ASSERT_TRUE(recorder.waitForCount(2));
    player.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_EQ(recorder.frames(), (Frames{2, 4}));
}

TEST_P(TimedPlaybackTest, SeekDeliversTheTargetAndPlayGoesOnAfterIt) {
    for (const std::int32_t target : {0, 2, 4, -1, 5}) {  // the last two are out of range
        const bool inRange = target >= 0 && target < 5;
        // Under a long cap the frames after a seek come at once only if it resets the gap.
        FrameRecorder recorder;
        LogFilePlayer player = timed(frames(5), recorder, inRange ? longCap : 0);
        player.seek(target);
        const auto seen = recorder.deliveries();
        ASSERT_EQ(seen.size(), inRange ? 1u : 0u);
        if (inRange) {
            EXPECT_TRUE(seen[0].onCallersThread);
            EXPECT_EQ(seen[0].entry.entryId, target + 1);
        }
        player.play();
        const Frames expected = inRange ? range(target, 4) : range(1, 4);
        ASSERT_TRUE(recorder.waitForCount(expected.size()));
        player.stop();
        EXPECT_EQ(recorder.frames(), expected) << "seek to " << target;
    }
}

// After a wrap, frame 0 has no frame before it: it waits the whole cap, like a new player's first.
TEST_P(TimedPlaybackTest, AWrapWaitsTheCapBeforeFrameZero) {
    FrameRecorder recorder;
    LogFilePlayer player = timed(frames(2), recorder, longCap);
    player.setLoopPlayback(true);
    player.seek(0);
    player.play();  // frame 1 is 1 ms after frame 0
    ASSERT_TRUE(recorder.waitForCount(2));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    player.stop();
    EXPECT_EQ(recorder.frames(), (Frames{0, 1}));
}

// A frame that reads as nothing or throws ends a run; seek and getTotalPlayTime raise.
TEST_P(TimedPlaybackTest, UnreadableFramesEndTheRunAndAreNotDelivered) {
    FrameRecorder recorder;
    LogFilePlayer player = timed(frames(7), recorder, 0);
    Testing::RawDatabase(name).exec(
        "DELETE FROM data WHERE entryId = 3;"
        "UPDATE data SET payload = x'0102' WHERE entryId IN (5, 7);");
    player.play();
    ASSERT_TRUE(recorder.waitForCount(1));
    player.seek(2);  // stops the run if it still goes, and delivers nothing
    player.play();
    ASSERT_TRUE(recorder.waitForCount(2));
    player.stop();
    EXPECT_THROW(player.seek(4), std::runtime_error);
    EXPECT_THROW(player.getTotalPlayTime(), std::runtime_error);
    player.play();  // goes on after the failed seek's frame
    ASSERT_TRUE(recorder.waitForCount(3));
    player.stop();
    EXPECT_EQ(recorder.frames(), (Frames{1, 3, 5}));
}

TEST_F(PlayerTest, TotalPlayTimeSpansThePlayersFramesAndKeepsThePosition) {
    for (const auto& [timestamps, expected] : {std::pair{std::vector<std::int64_t>{baseTime}, 0},
                                               {{baseTime, baseTime + 500, baseTime + 3000}, 3000},
                                               {{baseTime, baseTime - 20}, -20},
                                               {{0, 2147483648}, -2147483647 - 1},
                                               {{0x1FFFFFFF0, 0x200000010}, 0x20}}) {
        EXPECT_EQ(LogFilePlayer(record(timestamps), {typeA}, {}, false, 0).getTotalPlayTime(),
                  expected);
    }
    // Seek prefers its own callable; the run ends by itself and the destructor disposes of it.
    FrameRecorder own;
    FrameRecorder recorder;
    LogFilePlayer player(record({1, 2, 3, 4, 5}, {1, 2, 3, 1, 2}), {typeB}, recorder.callback(),
                         false, 0);
    EXPECT_EQ(player.getTotalPlayTime(), 3);  // 4 ms across the file, 3 across its frames
    player.seek(0, own.callback());
    player.play();
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_EQ(recorder.frames(), Frames{1});
    EXPECT_EQ(own.frames(), Frames{0});
}

// Camera (A, odd ids) and IMU (B, even ids) in turns, played in a loop while bookmarks change
// and another connection takes the file's write lock now and then: every change waits for the
// lock and succeeds, whatever the playback thread is reading.
TEST_F(PlayerTest, BookmarksChangeWhileThePlaybackThreadReads) {
    constexpr int frameCount = 20;
    std::vector<std::int64_t> timestamps;
    std::vector<std::int8_t> sources;
    for (int i = 0; i < 2 * frameCount; ++i) {
        timestamps.push_back(baseTime + i / 2);
        sources.push_back(std::int8_t(1 + i % 2));
    }
    std::atomic<int> delivered{0};
    std::atomic<bool> inOrder{true};
    auto check = [&](std::int32_t frame, DataEntry entry) {
        inOrder = inOrder && frame == delivered % frameCount && entry.entryId == 2 * frame + 1 &&
                  entry.timestamp == baseTime + frame &&
                  entry.data == std::vector<std::uint8_t>{std::uint8_t(2 * frame + 1), 0xAB};
        ++delivered;
    };
    LogFilePlayer player(record(timestamps, sources), {typeA}, check, true, 0);
    player.seek(frameCount - 1, [](std::int32_t, DataEntry) {});
    player.play();
    std::atomic<bool> writing{true};
    std::thread otherWriter([&, file = name] {
        Testing::RawDatabase other(file);
        while (writing) {
            other.exec("BEGIN IMMEDIATE;");
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            other.exec("COMMIT;");
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
    });
    for (int round = 0; round < 30; ++round) {
        const std::int32_t entryId = 1 + (round * 7) % (2 * frameCount);
        player.addBookmark(entryId, "round", "added");
        player.updateBookmark(entryId, "updated", "");
        if (round % 3 == 0)
            player.removeBookmark(entryId);
        ASSERT_EQ(player.getBookmarks().size(),
                  player.getUnderlyingLogFile().getBookmarks().size());
    }
    writing = false;
    otherWriter.join();
    EXPECT_EQ(player.getUnderlyingLogFile().getLastError(), "No error");
    EXPECT_EQ(player.getBookmarks().size(), 20u) << "30 added, every third removed";
    player.addBookmark(1000, "missing", "no such entry");  // refused, and nothing raised
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (delivered < 3 * frameCount && std::chrono::steady_clock::now() < giveUp) {
        std::this_thread::yield();
    }
    player.stop();
    EXPECT_GE(delivered, 3 * frameCount);
    EXPECT_TRUE(inOrder);
    for (const auto& bookmark : player.getBookmarks()) {
        EXPECT_EQ(bookmark.title, "updated");
        EXPECT_EQ(bookmark.frameNumber, std::min(bookmark.entryId / 2, frameCount - 1));
    }
}

}  // namespace
}  // namespace Korvane::Logging::Playback
