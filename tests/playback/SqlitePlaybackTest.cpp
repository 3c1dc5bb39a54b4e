#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "FrameRecorder.h"
#include "TempDir.h"
#include "playback/LogFilePlayer.h"
#include "sqlite/SqliteLogFile.h"

namespace {

using Korvane::Logging::DataEntry;
using Korvane::Logging::DataSource;
using Korvane::Logging::SqliteLogFile;
using Korvane::Logging::Playback::LogFilePlayer;
using Korvane::Testing::sensorBytes;

constexpr KV_LogDataSourceType cameraType{7};
constexpr std::int64_t baseTime = 1'700'000'000'000;

class SqlitePlaybackTest : public Korvane::Testing::TempDirTest {
protected:
    // A compressed file in which a camera and an IMU log in turns, `perSource` entries each,
    // 1 ms apart: the camera's entries have odd ids, the IMU's even ones.
    std::unique_ptr<SqliteLogFile> record(int perSource) {
        auto file = std::make_unique<SqliteLogFile>(path("session.klog"), "UTC", "test", "1.0",
                                                    std::int8_t{3}, baseTime);
        DataSource sources[] = {{-1, cameraType, "camera"}, {-1, KV_LogDataSourceType{8}, "imu"}};
        for (int i = 0; i < 2 * perSource; ++i) {
            DataSource& source = sources[i % 2];
            if (i < 2) {
                EXPECT_TRUE(file->addDataSource(source));
            }
            EXPECT_TRUE(file->logData({0, source.id, source.type,
                                       sensorBytes(200, std::uint32_t(i / 2)), baseTime + i / 2}));
        }
        return file;
    }
};

TEST_F(SqlitePlaybackTest, PlaysTheChosenSourceAndKeepsBookmarksInStep) {
    Korvane::Testing::FrameRecorder recorder;
    auto file = record(10);
    EXPECT_TRUE(file->addBookmark({4, "imu", "not a frame", {5, 6}}));
    const SqliteLogFile& log = *file;
    LogFilePlayer player(std::move(file), {cameraType}, recorder.callback(), false, 0);
    ASSERT_EQ(player.getFrameCount(), 10);
    EXPECT_EQ(player.getDataSources().at(0).name, "camera");
    EXPECT_EQ(player.getBookmarks().at(0).frameNumber, 2);  // entry 5, the camera's next

    player.seek(0);
    player.play();
    ASSERT_TRUE(recorder.waitForCount(10));
    player.stop();
    const auto deliveries = recorder.deliveries();
    for (std::int32_t frame = 0; frame < 10; ++frame) {
        const DataEntry& entry = deliveries[std::size_t(frame)].entry;
        EXPECT_EQ(deliveries[std::size_t(frame)].frameNumber, frame);
        EXPECT_EQ(entry.entryId, 2 * frame + 1);
        EXPECT_EQ(entry.timestamp, baseTime + frame);
        EXPECT_EQ(entry.data, sensorBytes(200, std::uint32_t(frame)));
    }
    EXPECT_EQ(player.getTotalPlayTime(), 9);

    player.updateBookmark(4, "renamed", "");
    EXPECT_TRUE(log.getBookmarks().at(0).payload.empty());
    EXPECT_EQ(player.getBookmarks().at(0).title, "renamed");
    player.addBookmark(1000, "missing", "no such entry");  // refused, and nothing raised
    EXPECT_EQ(player.getBookmarks().size(), 1u);
    EXPECT_NE(log.getLastError(), "No error");
}

TEST_F(SqlitePlaybackTest, BookmarksChangeWhileThePlaybackThreadReads) {
    constexpr int frameCount = 20;
    std::atomic<int> delivered{0};
    std::int32_t lastFrame = 0;  // written by the playback thread only, read after `stop`
    bool inOrder = true;
    auto check = [&](std::int32_t frame, DataEntry entry) {
        inOrder = inOrder && frame == (lastFrame + 1) % frameCount &&
                  entry.data == sensorBytes(200, std::uint32_t(frame));
        lastFrame = frame;
        ++delivered;
    };
    LogFilePlayer player(record(frameCount), {cameraType}, check, true, 0);
    player.play();
    for (int round = 0; round < 30; ++round) {
        const std::int32_t entryId = 1 + (round * 7) % (2 * frameCount);
        player.addBookmark(entryId, "round " + std::to_string(round), "added");
        player.updateBookmark(entryId, "updated", "");
        if (round % 3 == 0) {
            player.removeBookmark(entryId);
        }
        ASSERT_EQ(player.getBookmarks().size(),
                  player.getUnderlyingLogFile().getBookmarks().size());
    }
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (delivered < 3 * frameCount && std::chrono::steady_clock::now() < giveUp) {
        std::this_thread::yield();
    }
    player.stop();
    EXPECT_GE(delivered, 3 * frameCount);
    EXPECT_TRUE(inOrder);
    EXPECT_FALSE(player.getBookmarks().empty());
    for (const auto& bookmark : player.getBookmarks()) {
        EXPECT_EQ(bookmark.title, "updated");
        EXPECT_EQ(bookmark.frameNumber, std::min(bookmark.entryId / 2, frameCount - 1));
    }
}

}  // namespace
