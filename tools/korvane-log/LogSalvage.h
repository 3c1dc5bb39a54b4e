#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "LogFiles.h"
#include "RawLogReader.h"

namespace KorvaneLog {

using Korvane::Logging::Bookmark;
using Korvane::Logging::DataSourceProperty;

// What reading one table found, besides the records it gave back.
struct TableReport {
    std::string table;
    std::int64_t rows = 0;  // rows read and understood
    WalkReport walk;
    IdSet undecodable;  // row ids of rows read whose values or payload make no sense
};

// Reads the tables of a log file through `RawLogReader`, past damage, and turns their rows back
// into the library's records, keeping count of what cannot be read or decoded.
//
// Payloads are stored compressed by the rule of the file's "compressionLevel" and "logVersion"
// metadata, so `metadata` is read first. When the metadata is damaged and lacks them, each
// payload tells by its first bytes whether it is compressed.
class LogSalvage {
public:
    // Opens `file` as `opening` says; failures are reported about `shownAs`.
    LogSalvage(const fs::path& file, const fs::path& shownAs, RawLogReader::Opening opening)
        : reader(file, shownAs, opening) {}

    const RawLogReader& raw() const { return reader; }
    // One report per table read so far, in the order they were read.
    const std::vector<TableReport>& reports() const { return tables; }

    std::vector<LogMetadataEntry> metadata();
    std::vector<DataSource> sources();
    std::vector<DataSourceProperty> properties();
    // Gives each entry that reads and decodes, with its id in this file, in id order; `visit`
    // may take it over.
    void entries(const std::function<void(DataEntry&&)>& visit);
    std::vector<LogResourceEntry> resources();
    std::vector<Bookmark> bookmarks();

    // The level that the metadata gives; empty when it gives none.
    std::optional<std::int64_t> level() const { return compressionLevel; }

    // After `entries`: the highest entry id that the file lists, 0 when none.
    std::int64_t lastEntryId() const { return lastId; }
    // After `entries`: the ids from 1 to `lastEntryId` whose rows cannot be read at all.
    const IdSet& unreadableEntries() const { return unreadable; }
    // After `entries`: false when the last pages of the entries cannot be read, so that ids
    // past `lastEntryId` may have been lost unseen.
    bool entriesEndKnown() const { return endKnown; }

private:
    // Whether a payload of a column that is compressed from log version `since` on is stored
    // compressed; empty when the metadata cannot say.
    std::optional<bool> compressed(std::int64_t since) const;

    // Walks `table` and gives each row to `take`, which returns false for a row that makes no
    // sense.
    TableReport& walk(const std::string& table, const std::string& columns,
                      const std::function<bool(const Row&)>& take);

    RawLogReader reader;
    std::vector<TableReport> tables;
    std::optional<std::int64_t> compressionLevel;
    std::optional<std::int64_t> logVersion;
    bool steeringKnown = true;
    std::int64_t lastId = 0;
    IdSet unreadable;
    bool endKnown = true;
};

}  // namespace KorvaneLog
