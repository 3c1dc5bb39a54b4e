#include "FuzzSupport.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "algorithms/Algorithms.h"
#include "model/LegacyLogFileError.h"
#include "model/NotALogFileError.h"
#include "playback/LogFilePlayer.h"
#include "sqlite/SqliteLogFile.h"

namespace Korvane::Fuzzing {

using namespace Korvane::Logging;
using Playback::LogFilePlayer;

namespace {

// In memory where the system offers it: a new log file is given its schema before the
// connection turns synchronous writes off, and those syncs would otherwise dominate the time of
// every input that makes a file.
std::filesystem::path makeScratchDir() {
    std::error_code ignored;
    const std::filesystem::path base = std::filesystem::is_directory("/dev/shm", ignored)
                                           ? std::filesystem::path("/dev/shm")
                                           : std::filesystem::temp_directory_path();
    std::string pattern = (base / "korvane-fuzz-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        std::perror("mkdtemp");
        std::abort();
    }
    return pattern;
}

void removeScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(scratchDir(), ignored);
}

// Runs one operation. Exceptions are part of the contract of the C++ classes (a refused file, a
// payload that does not uncompress), so they end the operation and nothing else.
template <typename Operation>
void attempt(Operation&& operation) {
    try {
        operation();
    } catch (const std::exception&) {
    }
}

// Entry ids worth asking for: the ends, a few from the index, and ids no file has.
std::vector<std::int32_t> probeIds(const LogFileInterface& log,
                                   const std::vector<std::int32_t>& index) {
    std::vector<std::int32_t> ids = {0, -1, 2147483647};
    attempt([&] { ids.push_back(log.getFirstEntryId()); });
    attempt([&] { ids.push_back(log.getLastEntryId()); });
    for (std::size_t i = 0; i < index.size() && i < 3; ++i) {
        ids.push_back(index[i]);
    }
    if (!index.empty()) {
        ids.push_back(index.back());
        ids.push_back(index[index.size() / 2]);
    }
    return ids;
}

void readEverything(const SqliteLogFile& log) {
    log.getLastError();
    log.getFilePath();
    log.isBookmarkPayloadsSupported();
    log.isResourceCompressionSupported();
    attempt([&] { log.getEntryCount(); });

    constexpr std::int32_t limit = 64;
    attempt([&] {
        const std::size_t count = log.readEntries(-1, -1, {}, limit).size();
        require(count <= limit, "readEntries passed its limit");
    });

    std::vector<std::int32_t> index;
    attempt([&] { index = log.getEntryIndex({}); });
    for (const std::int32_t id : probeIds(log, index)) {
        attempt([&] {
            const std::optional<DataEntry> entry = log.readEntry(id);
            require(!entry || entry->entryId == id, "readEntry gave another entry");
        });
    }

    std::vector<DataSource> sources;
    attempt([&] { sources = log.getDataSources(); });
    std::vector<DataSourceProperty> properties;
    attempt([&] { properties = log.getAllDataSourceProperties(); });
    EntryIndexFilter filter;
    filter.dataTypes = {0, 1, 7};
    for (const DataSource& source : sources) {
        filter.dataSources.push_back(source.id);
        filter.dataSourceTypes.push_back(source.type);
        attempt([&] {
            log.getDataSourceProperty(source.id,
                                      properties.empty() ? "rate" : properties.front().name);
        });
    }
    attempt([&] { log.getEntryIndex(filter); });
    attempt([&] { log.readEntries(-1, -1, filter, limit); });

    attempt([&] { log.getAllMetadata(); });
    for (const char* key : {"logVersion", "compressionLevel", "currentTimeZone"}) {
        attempt([&] { log.getMetadataValue(key); });
    }
    std::vector<LogResourceEntry> resources;
    attempt([&] { resources = log.getAllResources(); });
    if (!resources.empty()) {
        attempt([&] { log.getResource(resources.front().name); });
    }
    attempt([&] { log.getThumbnail(); });
    attempt([&] { log.getBookmarks(); });
}

void writeEverything(SqliteLogFile& log) {
    attempt([&] { log.addMetadata("fuzzNote", PropertyValue{std::string("note")}); });
    attempt([&] { log.addResource("fuzzResource", ByteArray{1, 2, 3}); });
    attempt([&] { log.setThumbnail(ByteArray{4, 5, 6, 7}); });
    DataSource source{-1, KV_LogDataSourceType{3}, "fuzz source"};
    attempt([&] { log.addDataSource(source); });
    attempt([&] { log.addDataSourceProperty({source.id, "rate", PropertyValue{2.5}}); });
    attempt([&] { log.logData({0, source.id, 1, ByteArray(40, 9), 1000}); });
    std::int32_t first = -1;
    attempt([&] { first = log.getFirstEntryId(); });
    attempt([&] { log.addBookmark({first, "title", "comment", ByteArray{8}}); });
    attempt([&] { log.updateBookmark({first, "new title", "", ByteArray{}}); });
    attempt([&] { log.removeBookmark({first, "", "", {}}); });
}

// Counts the frames that playback delivers, so that the caller can wait for a known number.
struct FrameCounter {
    std::mutex mutex;
    std::condition_variable delivered;
    std::int32_t count = 0;

    void add() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            ++count;
        }
        delivered.notify_all();
    }

    bool waitFor(std::int32_t expected) {
        std::unique_lock<std::mutex> lock(mutex);
        return delivered.wait_for(lock, std::chrono::seconds(10),
                                  [&] { return count >= expected; });
    }
};

// How many frames from `from` on can be read one after the other; playback stops at the first
// that cannot. Reading is deterministic, so this tells exactly what a run will deliver.
std::int32_t readableRun(const LogFileInterface& log, const std::vector<std::int32_t>& frames,
                         std::size_t from) {
    std::int32_t run = 0;
    for (std::size_t i = from; i < frames.size(); ++i) {
        bool readable = false;
        attempt([&] { readable = log.readEntry(frames[i]).has_value(); });
        if (!readable) {
            break;
        }
        ++run;
    }
    return run;
}

void play(std::unique_ptr<SqliteLogFile> log, bool writeToo) {
    std::vector<KV_LogDataSourceType> types;
    attempt([&] {
        const std::vector<DataSource> sources = log->getDataSources();
        if (!sources.empty()) {
            types.push_back(sources.front().type);
        }
    });
    FrameCounter counter;
    std::unique_ptr<LogFilePlayer> player;
    attempt([&] {
        player = std::make_unique<LogFilePlayer>(
            std::move(log), types, [&](std::int32_t, DataEntry) { counter.add(); }, false, 0);
    });
    if (!player) {
        return;
    }
    const LogFileInterface& file = player->getUnderlyingLogFile();
    const std::int32_t frameCount = player->getFrameCount();
    const auto ignore = [](std::int32_t, DataEntry) {};
    attempt([&] { player->getTotalPlayTime(); });
    attempt([&] { player->seek(frameCount - 1, ignore); });
    attempt([&] { player->seek(frameCount / 2, ignore); });

    // The frames are the entries of the chosen sources, or all entries when none was chosen.
    EntryIndexFilter filter;
    for (const DataSource& source : player->getDataSources()) {
        filter.dataSources.push_back(source.id);
    }
    std::vector<std::int32_t> frames;
    attempt([&] { frames = file.getEntryIndex(filter); });

    // The last few frames, played to the end on the playback thread. A seek leaves the position
    // on its frame even when that frame cannot be read.
    const std::int32_t start = std::max(0, frameCount - 4);
    attempt([&] { player->seek(start, ignore); });
    if (static_cast<std::int32_t>(frames.size()) == frameCount) {
        const std::int32_t expected =
            readableRun(file, frames, static_cast<std::size_t>(start) + 1);
        player->play();
        require(counter.waitFor(expected), "playback delivered fewer frames than can be read");
        player->stop();
    }

    if (writeToo && !frames.empty()) {
        attempt([&] { player->addBookmark(frames.front(), "player", "mark"); });
        attempt([&] { player->updateBookmark(frames.front(), "player", "changed"); });
        attempt([&] { player->removeBookmark(frames.front()); });
    }
    player->getBookmarks();
}

void slice(const LogFileInterface& log) {
    std::vector<std::int32_t> index;
    attempt([&] { index = log.getEntryIndex({}); });
    const std::int32_t first = index.empty() ? -1 : index.front();
    const std::int32_t last =
        index.empty() ? -1 : index[std::min<std::size_t>(3, index.size() - 1)];
    const std::filesystem::path target = scratchDir() / "slice.log";
    attempt([&] {
        std::unique_ptr<LogFileInterface> part =
            Algorithms::slice(log, first, last, target.string(), "fuzz", "1", 0);
        if (part) {
            part->getEntryCount();
            part->getBookmarks();
        }
    });
    std::error_code ignored;
    std::filesystem::remove(target, ignored);
}

}  // namespace

const std::filesystem::path& scratchDir() {
    // Never destroyed, so that the removal at exit can still read it.
    static const std::filesystem::path* const dir = [] {
        const auto* made = new std::filesystem::path(makeScratchDir());
        std::atexit(removeScratchDir);
        return made;
    }();
    return *dir;
}

void clearScratchDir() {
    for (const auto& item : std::filesystem::directory_iterator(scratchDir())) {
        std::error_code ignored;
        std::filesystem::remove_all(item.path(), ignored);
    }
}

void writeFile(const std::filesystem::path& file, const std::uint8_t* data, std::size_t size) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

std::vector<std::uint8_t> readFile(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void require(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "korvane-fuzz: broken promise: %s\n", what);
        std::abort();
    }
}

void visitLogFile(const std::filesystem::path& file, bool writeToo) {
    std::unique_ptr<SqliteLogFile> log;
    try {
        log = std::make_unique<SqliteLogFile>(file);
    } catch (const LegacyLogFileError&) {
        return;
    } catch (const NotALogFileError&) {
        return;
    } catch (const std::exception&) {
        return;
    }
    readEverything(*log);
    if (writeToo) {
        writeEverything(*log);
    }
    slice(*log);
    play(std::move(log), writeToo);
}

}  // namespace Korvane::Fuzzing
