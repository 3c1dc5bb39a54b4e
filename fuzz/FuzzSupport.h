#pragma once

// What the fuzz targets share: a scratch folder per process and a user's visit to a log file.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "playback/LogFilePlayer.h"
#include "sqlite/SqliteLogFile.h"

namespace Korvane::Fuzzing {

using namespace Korvane::Logging;

// Emptied on every call, so that no input sees the files of the one before, and removed at exit;
// in memory where the system offers it, as the syncs of making files would dominate otherwise.
inline const std::filesystem::path& freshScratchDir() {
    static const struct ScratchDir {
        std::filesystem::path path =
            (std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp") +
            ("/korvane-fuzz-" + std::to_string(getpid()));
        ~ScratchDir() { std::filesystem::remove_all(path); }
    } dir;
    std::filesystem::remove_all(dir.path);
    std::filesystem::create_directories(dir.path);
    return dir.path;
}

// Aborts with `what` when the library breaks a promise; libFuzzer then keeps the input.
inline void require(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "korvane-fuzz: broken promise: %s\n", what);
        std::abort();
    }
}

// Writes `bytes` to a file and opens it; an opened file gets every read and a few frames of
// playback. What the library throws at a refused or damaged file is an answer, not a finding.
inline void visitLogFile(const std::vector<std::uint8_t>& bytes) {
    const std::filesystem::path file = freshScratchDir() / "visited.log";
    std::ofstream(file) << std::string(bytes.begin(), bytes.end());
    try {
        auto log = std::make_unique<SqliteLogFile>(file);
        for (const std::int32_t id : log->getEntryIndex({})) {
            try {
                const std::optional<DataEntry> entry = log->readEntry(id);
                require(!entry || entry->entryId == id, "readEntry gave another entry");
            } catch (const std::exception&) {  // a payload that does not decode
            }
        }
        log->getDataSources();
        log->getAllDataSourceProperties();
        log->getAllMetadata();
        log->getAllResources();
        log->getBookmarks();
        const auto ignore = [](std::int32_t, DataEntry) {};
        Playback::LogFilePlayer player(std::move(log), {}, ignore, false, 0);
        player.seek(player.getFrameCount() - 2, ignore);
        player.play();
    } catch (const std::exception&) {
    }
}

}  // namespace Korvane::Fuzzing
