// slice and clone: a new log file from a range of another one, or from all of it.
//
// The new file holds what `Algorithms::slice` and `Algorithms::clone` of the library write, in
// the same order. The library's slice of no entries writes everything around the entries; the
// entries are then read a bounded batch at a time and written in batches, which holds less in
// memory and is many times faster for small entries, and the bookmarks follow them.

#include <korvane/logging/algorithms/Algorithms.h>

#include <algorithm>
#include <iostream>

#include "Commands.h"
#include "EntryBatch.h"
#include "Format.h"
#include "Terminal.h"

namespace KorvaneLog {

namespace {

namespace Algorithms = Korvane::Logging::Algorithms;
using Korvane::Logging::Bookmark;

// "drive.kvlog" gives "drive_100-250.kvlog" for a slice and "drive_clone.kvlog" for a clone.
fs::path defaultOutput(const DeriveOptions& options) {
    const fs::path source = options.file;
    const std::string tag =
        options.wholeFile ? "clone"
                          : std::to_string(options.first) + "-" + std::to_string(options.last);
    return source.parent_path() /
           (source.stem().string() + "_" + tag + source.extension().string());
}

// The library refuses a range that does not fit with a null result and no reason; find the
// reason first.
void checkRange(const LogFileInterface& log, const DeriveOptions& options) {
    if (options.first > options.last) {
        throw UsageError("FIRST " + std::to_string(options.first) + " comes after LAST " +
                         std::to_string(options.last));
    }
    const std::int32_t count = log.getEntryCount();
    if (count <= 0) {
        throw ToolError(options.file, "has no entries to slice");
    }
    const std::string idRange =
        std::to_string(log.getFirstEntryId()) + " to " + std::to_string(log.getLastEntryId());
    for (const std::int32_t id : {options.first, options.last}) {
        if (!log.readEntry(id)) {
            throw ToolError(options.file, "no entry with id " + std::to_string(id) +
                                              " (its ids run from " + idRange + ")");
        }
    }
}

std::string progressText(const char* verb, const fs::path& output) {
    std::error_code error;
    const std::uintmax_t written = fs::file_size(output, error);
    return std::string(verb) + ": writing " + output.string() + ", " +
           humanSize(error ? 0 : written) + " so far";
}

// Writes the entries of `range` into `target`, numbered from 1, and the bookmarks of the range,
// moved with their entries.
void copyEntries(const SqliteLogFile& source, const EntryRange& range, SqliteLogFile& target) {
    std::vector<std::int32_t> copied;  // the source's ids of the entries, in order
    EntryBatch batch(target, [&target](std::int64_t id) {
        return refusal(target, "log entry " + std::to_string(id));
    });
    forEachEntry(source, range, [&](DataEntry&& entry) {
        copied.push_back(entry.entryId);
        batch.add(std::move(entry), copied.back());
        return true;
    });
    batch.flush();

    // A bookmark in the range on an id without an entry moves to the next entry.
    for (Bookmark& bookmark : source.getBookmarks()) {
        const auto next = std::lower_bound(copied.begin(), copied.end(), bookmark.entryId);
        if (copied.empty() || bookmark.entryId < copied.front() || next == copied.end()) {
            continue;
        }
        bookmark.entryId = static_cast<std::int32_t>(next - copied.begin() + 1);
        target.addBookmark(bookmark);
    }
}

// Writes the new file at `output`: metadata (a replaced name and version archived once),
// resources, data sources with their ids and properties, then the entries and bookmarks.
void derive(const SqliteLogFile& source, const EntryRange& range, const fs::path& output,
            const std::string& name, const std::string& version, std::int8_t level) {
    // The range (-1, -1) selects no entry and is never refused.
    std::unique_ptr<LogFileInterface> made =
        Algorithms::slice(source, -1, -1, output.string(), name, version, level);
    auto* target = dynamic_cast<SqliteLogFile*>(made.get());
    if (target == nullptr) {
        throw ToolError(output, "could not be written");
    }
    try {
        copyEntries(source, range, *target);
    } catch (const std::exception&) {
        // Part of the entries is no slice of the source: take the file away again.
        made.reset();
        std::error_code ignored;
        fs::remove(output, ignored);
        throw;
    }
}

}  // namespace

int runDerive(const DeriveOptions& options) {
    const std::unique_ptr<SqliteLogFile> source = openLog(options.file);
    const fs::path output =
        options.output.empty() ? defaultOutput(options) : fs::path(options.output);
    requireAbsent(output);
    if (!options.wholeFile) {
        checkRange(*source, options);
    }
    const std::string name =
        options.applicationName.value_or(textMetadata(*source, "applicationName"));
    const std::string version =
        options.applicationVersion.value_or(textMetadata(*source, "applicationVersion"));
    const auto level = static_cast<std::int8_t>(options.compressionLevel.value_or(
        static_cast<int>(integerMetadata(*source, "compressionLevel").value_or(0))));

    const EntryRange range =
        options.wholeFile ? EntryRange{} : EntryRange{options.first, options.last, -1, {}};
    const char* verb = options.wholeFile ? "clone" : "slice";
    {
        ProgressTicker ticker([verb, &output] { return progressText(verb, output); });
        derive(*source, range, output, name, version, level);
    }
    std::cout << output.string() << '\n';
    return 0;
}

}  // namespace KorvaneLog
