#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Export.h"
#include "Records.h"

namespace Korvane::Logging {

// The abstract log file. Every `bool` result is true on success; after false, `getLastError`
// gives the reason. Reads return an empty optional or an empty array when there is nothing.
// Objects are handed around as `std::unique_ptr<LogFileInterface>`; they move but do not copy.
class KORVANE_LOGGING_EXPORT LogFileInterface {
public:
    // Made and moved by the implementations, never copied; destroying one closes its file.
    LogFileInterface() = default;
    LogFileInterface(LogFileInterface&&) noexcept = default;
    LogFileInterface& operator=(LogFileInterface&&) noexcept = default;
    LogFileInterface(const LogFileInterface&) = delete;
    LogFileInterface& operator=(const LogFileInterface&) = delete;
    virtual ~LogFileInterface();

    // The path the file was opened with.
    virtual std::filesystem::path getFilePath() const = 0;

    // All data sources of the file, in ascending id order.
    virtual std::vector<DataSource> getDataSources() const = 0;
    // The value of property `key` of source `dataSourceId`; empty when there is none.
    virtual std::optional<PropertyValue> getDataSourceProperty(std::int32_t dataSourceId,
                                                               std::string key) const = 0;
    // All properties of all sources, in the order the file stores them.
    virtual std::vector<DataSourceProperty> getAllDataSourceProperties() const = 0;

    // The ids of the entries that `filter` selects, ascending.
    virtual std::vector<std::int32_t> getEntryIndex(const EntryIndexFilter& filter) const = 0;
    // The lowest entry id, or -1 (with `getLastError` set) when there is none.
    virtual std::int32_t getFirstEntryId() const = 0;
    // The highest entry id, or -1 (with `getLastError` set) when there is none.
    virtual std::int32_t getLastEntryId() const = 0;
    // The number of entries, or -1 (with `getLastError` set) when it cannot be read.
    virtual std::int32_t getEntryCount() const = 0;
    // The entry with id `entryId`, uncompressed; empty when it does not exist.
    virtual std::optional<DataEntry> readEntry(std::int32_t entryId) const = 0;

    // The value stored under `key`; empty when the key does not exist.
    virtual std::optional<PropertyValue> getMetadataValue(const std::string& key) const = 0;
    // All metadata of the file, in the order the file stores it.
    virtual std::vector<LogMetadataEntry> getAllMetadata() const = 0;

    // The bytes of resource `name`; empty when it does not exist.
    virtual std::optional<ByteArray> getResource(const std::string& name) const = 0;
    // All resources of the file, the thumbnail among them.
    virtual std::vector<LogResourceEntry> getAllResources() const = 0;
    // The thumbnail, which is the resource named "thumbnail"; empty when there is none.
    virtual std::optional<ByteArray> getThumbnail() const = 0;

    // All bookmarks, in the order the file stores them.
    virtual std::vector<Bookmark> getBookmarks() const = 0;

    // Adds a source under its own `id`.
    virtual bool addDataSource(const DataSource& source) = 0;
    // Adds a source under an id that the file assigns and writes back into `source.id`.
    virtual bool addDataSource(DataSource& source) = 0;
    // Adds a property to an existing source; keys may repeat.
    virtual bool addDataSourceProperty(const DataSourceProperty& property) = 0;
    // Logs an entry under the next id; `entry.entryId` is not read.
    virtual bool logData(const DataEntry& entry) = 0;

    // Adds `entry.key` with a copy of `entry.value`; false if the key exists.
    virtual bool addMetadata(const LogMetadataEntry& entry);
    // Adds `key` with `value`; false if the key exists, which keeps the stored value.
    virtual bool addMetadata(const std::string& key, PropertyValue value) = 0;
    // Adds the resource `entry.name`; false if the name exists.
    virtual bool addResource(const LogResourceEntry& entry);
    // Adds the resource `name`; false if the name exists, which keeps the stored bytes.
    virtual bool addResource(const std::string& name, const ByteArray& data) = 0;
    // Adds or replaces the thumbnail.
    virtual bool setThumbnail(const ByteArray& data) = 0;

    // Adds a bookmark; the entry must exist.
    virtual bool addBookmark(const Bookmark& bookmark) = 0;
    // Replaces title, comment and payload of every bookmark of `bookmark.entryId`.
    virtual bool updateBookmark(const Bookmark& bookmark) = 0;
    // Removes every bookmark of `bookmark.entryId`.
    virtual bool removeBookmark(const Bookmark& bookmark) = 0;

    // The text of the latest failure; "No error" when nothing has failed yet.
    virtual std::string getLastError() const = 0;

    // Entries with ids from `minimumEntryId` to `maximumEntryId` that `filter` selects, ascending,
    // at most `limit` of them. -1 for a bound means the file's first or last entry, -1 for
    // `limit` means no limit.
    virtual std::vector<DataEntry> readEntries(std::int32_t minimumEntryId,
                                               std::int32_t maximumEntryId,
                                               const EntryIndexFilter& filter,
                                               std::int32_t limit) const = 0;
};

}  // namespace Korvane::Logging
