// The C++ examples of the API reference's guide, as one program: records a file, reads it back,
// and plays it. The reference quotes the parts between the [name] markers.
//
// Usage: korvane-guide FOLDER (the program writes FOLDER/drive.kvlog).
// Exits with 1 when something it reads back differs from what it wrote.

#include <korvane/logging/playback/LogFilePlayer.h>
#include <korvane/logging/sqlite/SqliteLogFile.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

using namespace Korvane::Logging;

namespace {

bool record(const std::string& path) {
    const std::int64_t nowMs = 1'700'000'000'000;
    // [recording]
    SqliteLogFile log(path, "Europe/Berlin", "recorder", "1.0", /*level*/ -1, nowMs);
    DataSource imu{-1, KV_LogDataSourceType{1}, "imu"};
    DataSource gnss{-1, KV_LogDataSourceType{2}, "gnss"};
    log.addDataSource(imu);  // the file assigns imu.id
    log.addDataSource(gnss);
    log.addMetadata("vehicle", std::string("car 3"));

    ByteArray bytes{0x01, 0x02, 0x03};
    if (!log.logData(DataEntry{0, imu.id, /*type*/ 7, bytes, nowMs})) {
        std::fprintf(stderr, "%s\n", log.getLastError().c_str());
        return false;
    }
    std::vector<DataEntry> batch;  // many entries in one transaction: all of them or none
    for (int i = 1; i <= 99; ++i) {
        const std::int8_t source = i % 10 == 0 ? gnss.id : imu.id;
        batch.push_back(DataEntry{0, source, 7, ByteArray(16, std::uint8_t(i)), nowMs + i * 10});
    }
    log.logEntries(batch);
    log.addBookmark(Bookmark{50, "Crossing", "braking", {}});
    // [recording]
    return log.getEntryCount() == 100;
}

bool read(const std::string& path) {
    // [reading]
    // ReadOnly never writes to the file, so it may be opened while another process records.
    SqliteLogFile log(std::filesystem::path(path), SqliteLogFile::Access::ReadOnly);
    EntryIndexFilter gnssOnly;
    gnssOnly.dataSourceTypes = {KV_LogDataSourceType{2}};
    std::vector<std::int32_t> ids = log.getEntryIndex(gnssOnly);  // ids 11, 21, ..., 91
    for (const DataEntry& entry : log.readEntries(/*first*/ 1, /*last*/ 40, gnssOnly, -1)) {
        std::printf("entry %d at %lld: %zu bytes\n", entry.entryId,
                    static_cast<long long>(entry.timestamp), entry.data.size());
    }
    std::optional<DataEntry> first = log.readEntry(1);
    // [reading]
    return ids.size() == 9 && first && first->data == ByteArray{0x01, 0x02, 0x03};
}

bool play(const std::string& path) {
    std::atomic<int> delivered{0};
    // [playback]
    auto file = std::make_unique<SqliteLogFile>(std::filesystem::path(path));
    Playback::LogFilePlayer player(
        std::move(file), {KV_LogDataSourceType{1}},  // the frames: entries of imu sources
        [&delivered](std::int32_t /*frame*/, DataEntry /*entry*/) { ++delivered; },
        /*loop*/ false, /*maxFrameDelayMs*/ 1000);
    player.setPlaybackTiming(Playback::PlaybackTiming::Timeline);
    player.setPlaybackSpeedMultiplier(4.0f);
    player.play();  // frames 1, 2, ... on the player's thread, as they were recorded
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    player.stop();
    player.seek(0);  // delivers frame 0 on this thread
    // [playback]
    return delivered > 0 && player.getFrameCount() == 91;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: korvane-guide FOLDER\n");
        return 2;
    }
    const std::string path = (std::filesystem::path(argv[1]) / "drive.kvlog").string();
    std::filesystem::create_directories(argv[1]);
    std::filesystem::remove(path);  // a new file is never made over an existing one
    const bool ok = record(path) && read(path) && play(path);
    std::puts(ok ? "guide ok" : "guide FAILED");
    return ok ? 0 : 1;
}
