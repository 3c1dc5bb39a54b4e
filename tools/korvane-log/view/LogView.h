#pragma once

#include <korvane/logging/sqlite/SqliteLogFile.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <shared_mutex>
#include <string>
#include <thread>

#include "EntryTable.h"
#include "TimelineSummary.h"

// What the page of `view` and the file of `report` show of a log file, as JSON texts.
namespace KorvaneLog::View {

using Korvane::Logging::ByteArray;

// The media type of an image that a browser shows or that the page decodes itself ("image/png",
// "image/jpeg", "image/gif", "image/webp", "image/bmp", "image/x-portable-anymap" for PGM and
// PPM), told by its first bytes; empty for anything else.
std::string imageTypeOf(const ByteArray& bytes);

// A log file as the page sees it. Opening it starts a thread that counts its entries once, in
// windows of ids, into a `TimelineSummary`; with `follow`, the thread then asks the file every
// `pollInterval` for what was recorded since and for changed annotations, and keeps the summary
// up to date, until the object ends. The file is only ever read.
//
// Every text that comes from the file (names, metadata, titles, comments) goes into the JSON as
// a string, invalid UTF-8 replaced; the page shows it as text. All methods may be called from
// any thread.
class LogView {
public:
    struct Options {
        bool follow = true;
        std::chrono::milliseconds pollInterval{200};
    };

    // Opens `file` for reading only. Throws `ToolError` when it is missing, empty or not a log
    // file.
    LogView(const std::filesystem::path& file, const Options& options);
    ~LogView();
    LogView(const LogView&) = delete;
    LogView& operator=(const LogView&) = delete;

    // Waits until every entry that was there at the start is counted. Throws `ToolError` when
    // the file could not be read to its end.
    void waitUntilCounted() const;

    // {"version", "state" ("counting", "ready" or "gone"), "reason", "counted", "total"}: what
    // the page polls. `version` grows whenever anything that the page shows changes.
    std::string liveJson() const;

    // The file's identity, entry count and time span, sources with their counts, properties,
    // usual intervals and gaps, bookmarks, metadata, resources and thumbnail.
    std::string summaryJson() const;

    // Counts and bytes per source in at most `maxBins` bins over [from, to): from the summary,
    // or, when a bin would be narrower than its cells, from the rows of that stretch.
    std::string binsJson(std::int64_t from, std::int64_t to, std::size_t maxBins) const;

    // About `count` entries around timestamp `at`, half before and half from it on: of
    // `source`, or of all sources when it is empty. Each: id, timestamp, source, type, size.
    std::string entriesJson(std::optional<std::int8_t> source, std::int64_t at,
                            std::size_t count) const;

    // The uncompressed payload of entry `id`; empty when there is no such entry.
    std::optional<ByteArray> payload(std::int32_t id) const;
    // A resource by name, and the thumbnail; empty when absent.
    std::optional<ByteArray> resource(const std::string& name) const;
    std::optional<ByteArray> thumbnail() const;

    // The summary, and the cells of every source coarsened to at most `maxCellsPerSource`, for
    // a page that has no server to ask.
    std::string reportJson(std::size_t maxCellsPerSource) const;

private:
    void run();
    void countAll();
    bool followOnce();
    void loadAnnotations();
    nlohmann::ordered_json summaryLocked() const;
    // The rhythm of `source`, kept until the version changes; with `stateMutex` held.
    Rhythm rhythmOf(std::int8_t source) const;

    const std::filesystem::path file;
    const Options options;
    dev_t device = 0;
    ino_t inode = 0;

    mutable std::mutex libraryMutex;  // the library's object has no lock of its own
    std::unique_ptr<Korvane::Logging::SqliteLogFile> log;
    mutable std::mutex queryMutex;  // the table that answers requests
    std::unique_ptr<EntryTable> queries;
    std::unique_ptr<EntryTable> follower;  // the thread's own

    mutable std::shared_mutex stateMutex;  // guards what follows
    TimelineSummary summary;
    std::int64_t countedThrough = 0;     // the highest id in `summary`
    nlohmann::ordered_json annotations;  // what the summary shows that entries do not give
    std::uint64_t annotationsFingerprint = 0;
    std::string gone;  // why the file cannot be followed any more
    std::uintmax_t fileSize = 0;
    mutable std::condition_variable_any counted;
    bool ready = false;

    mutable std::mutex rhythmMutex;
    mutable std::uint64_t rhythmsVersion = 0;
    mutable std::map<std::int8_t, Rhythm> rhythms;

    std::atomic<std::uint64_t> version{1};
    std::atomic<std::uint64_t> rowsCounted{0};
    std::atomic<std::uint64_t> rowsToCount{0};

    std::atomic<bool> stopping{false};
    std::mutex stopMutex;
    std::condition_variable stopSignal;
    std::thread thread;
};

}  // namespace KorvaneLog::View
