// A program built only against the installed library: the C++ classes and the C interface.
#include <korvane/logging/KV_Log.h>
#include <korvane/logging/algorithms/Algorithms.h>
#include <korvane/logging/playback/LogFilePlayer.h>
#include <korvane/logging/sqlite/SqliteLogFile.h>

#include <cstdio>
#include <filesystem>

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    const std::filesystem::path folder = argv[1];
    Korvane::Logging::SqliteLogFile log((folder / "cpp.log").string(), "", "consumer", "1", 0, 0);
    Korvane::Logging::DataSource source{-1, KV_LogDataSourceType{1}, "s"};
    log.addDataSource(source);
    log.logData({0, source.id, 1, {1, 2, 3}, 5});
    auto cloned = Korvane::Logging::Algorithms::clone(log, "", "consumer", "1", 3);
    const bool clonedOne = cloned && cloned->getEntryCount() == 1;

    // The player takes the clone over; `seek` shows its one frame on this thread.
    std::int32_t shown = -1;
    if (cloned) {
        namespace Playback = Korvane::Logging::Playback;
        Playback::LogFilePlayer player(
            std::move(cloned), {},
            [&shown](std::int32_t frame, Korvane::Logging::DataEntry) { shown = frame; }, false,
            0);
        player.setPlaybackTiming(Playback::PlaybackTiming::Timeline);
        player.seek(0);
    }

    KV_LogConfig* config = KV_LogConfig_Create("consumer", "1", "");
    KV_LogFile* file = KV_LogFile_Create((folder / "c.log").string().c_str(), config, nullptr);
    std::int32_t count = -1;
    const bool counted = file != nullptr && KV_LogFile_GetEntryCount(file, &count, nullptr);
    KV_LogFile_Destroy(file);
    KV_LogConfig_Destroy(config);

    const bool ok = clonedOne && shown == 0 && counted && count == 0;
    std::puts(ok ? "consumer ok" : "consumer FAILED");
    return ok ? 0 : 1;
}
