#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "../model/Export.h"
#include "../model/LogFileInterface.h"

namespace Korvane::Logging {

// A log file in an SQLite 3 database: the one implementation of `LogFileInterface`.
//
// Every write is complete when the call returns: one autocommit statement, or for `logEntries`
// one transaction. Destroying the object only closes the connection. Storage failures give false
// and a text in `getLastError`; construction refuses a file it cannot use with `LegacyLogFileError`
// or `NotALogFileError`. The object has no lock: callers that share it between threads serialise
// their calls, except that a player may read on its own thread while its owner changes bookmarks.
class KORVANE_LOGGING_EXPORT SqliteLogFile final : public LogFileInterface {
public:
    // Creates a new log file at `filePath`, which must not hold a log file yet, and writes the six
    // metadata rows of a new file: creation time, application name and version, time zone, log
    // version 4 and `compressionLevel` (-1 to 9; 0 stores payloads uncompressed).
    //
    // Where nothing exists at `filePath`, the file is made under a temporary name in the same
    // folder, synced, and put in place in one step, so that another process finds nothing or
    // the whole file there, also after a power cut; something that appears at the path
    // meanwhile is not replaced: the constructor throws `std::runtime_error` with "Cannot create
    // file as file already exists.". An empty file or a log file that stands at the path already
    // is made a log file, or given its missing rows, where it stands.
    SqliteLogFile(const std::string& filePath, const std::string& timeZone,
                  const std::string& applicationName, const std::string& applicationVersion,
                  std::int8_t compressionLevel, std::int64_t creationTimeMs);

    // Opens the log file at `filePath`. A missing or empty file becomes a new file without
    // metadata. Throws `LegacyLogFileError` or `NotALogFileError` for a file it cannot use.
    explicit SqliteLogFile(const std::filesystem::path& filePath);

    // What an opened file may be used for.
    enum class Access {
        // As the constructor above.
        ReadWrite,
        // Reading only: nothing is ever written to the file. An empty file is refused with
        // `NotALogFileError` instead of becoming a log file, a missing one with the
        // `std::runtime_error` of the open, and a bookmarks table whose references cannot be
        // checked stays as it is. Every write fails with "The log file is open for reading
        // only.".
        ReadOnly,
    };

    // Opens the log file at `filePath` for `access`.
    SqliteLogFile(const std::filesystem::path& filePath, Access access);

    // Moves take the open file over and leave `other` only to be destroyed or assigned to.
    // Destruction closes the connection; every write is complete already.
    SqliteLogFile(SqliteLogFile&& other) noexcept;
    SqliteLogFile& operator=(SqliteLogFile&& other) noexcept;
    ~SqliteLogFile() override;

    // True from log version 4: bookmarks carry a payload.
    bool isBookmarkPayloadsSupported() const;
    // True from log version 3: resources are compressed at the file's level.
    bool isResourceCompressionSupported() const;

    std::filesystem::path getFilePath() const override;

    std::vector<DataSource> getDataSources() const override;
    std::optional<PropertyValue> getDataSourceProperty(std::int32_t dataSourceId,
                                                       std::string key) const override;
    std::vector<DataSourceProperty> getAllDataSourceProperties() const override;

    std::vector<std::int32_t> getEntryIndex(const EntryIndexFilter& filter) const override;
    std::int32_t getFirstEntryId() const override;
    std::int32_t getLastEntryId() const override;
    std::int32_t getEntryCount() const override;
    std::optional<DataEntry> readEntry(std::int32_t entryId) const override;

    std::optional<PropertyValue> getMetadataValue(const std::string& key) const override;
    std::vector<LogMetadataEntry> getAllMetadata() const override;

    std::optional<ByteArray> getResource(const std::string& name) const override;
    std::vector<LogResourceEntry> getAllResources() const override;
    std::optional<ByteArray> getThumbnail() const override;

    std::vector<Bookmark> getBookmarks() const override;

    bool addDataSource(const DataSource& source) override;
    bool addDataSource(DataSource& source) override;
    bool addDataSourceProperty(const DataSourceProperty& property) override;
    bool logData(const DataEntry& entry) override;

    // Writes `entries` in their order, each as `logData` would write it, in one transaction: true
    // when all of them are in the file, false when none is. After false, `getLastError` gives the
    // text that `logData` would have given for the first entry that failed, and the next ids
    // follow the last entry in the file without a gap. An empty vector writes nothing and gives
    // true. An exception (from compression, or `FileIsNotDatabase`) rolls the batch back before
    // it leaves. `entryId` is not read, as for `logData`.
    //
    // In a compressed file on a machine of more than one core, payloads that add up to a
    // megabyte or more are compressed on two threads: the caller's and one that lives for the
    // call. The stored bytes are those that `logData` stores.
    //
    // What a batch costs another process: it holds the file's write lock from its start to its
    // end, so another writer waits for the whole batch. Readers go on reading the file as it was
    // until the commit; while the commit writes the pages, the file is locked for reading too,
    // and a reader in another process waits for it (one without a busy handler is refused). A
    // batch larger than the page cache (about 2 MB of pages) starts to write pages before its
    // commit, and readers then wait from that moment to the end of the batch.
    //
    // Threads: like every call on this object, a batch is serialised with the caller's other
    // calls. A write that another thread makes on this object while the batch runs (which the
    // object does not prevent) joins the batch's transaction: it is committed with the batch,
    // or rolled back with it.
    bool logEntries(const std::vector<DataEntry>& entries);

    using LogFileInterface::addMetadata;
    bool addMetadata(const std::string& key, PropertyValue value) override;
    using LogFileInterface::addResource;
    bool addResource(const std::string& name, const ByteArray& data) override;
    bool setThumbnail(const ByteArray& data) override;

    bool addBookmark(const Bookmark& bookmark) override;
    bool updateBookmark(const Bookmark& bookmark) override;
    bool removeBookmark(const Bookmark& bookmark) override;

    std::string getLastError() const override;

    std::vector<DataEntry> readEntries(std::int32_t minimumEntryId, std::int32_t maximumEntryId,
                                       const EntryIndexFilter& filter,
                                       std::int32_t limit) const override;

    // ---- Entries without records ----

    // One entry as `visitEntries` shows it: the fields of its `DataEntry`, the size of its
    // payload as `readEntries` would give it, and where the visitor wants that payload.
    struct EntryRow {
        // The entry's id, as `DataEntry::entryId`.
        std::int32_t entryId = 0;
        // Milliseconds since the Unix epoch, as `DataEntry::timestamp`.
        std::int64_t timestamp = 0;
        // The caller's type of the entry, as `DataEntry::type`.
        std::int32_t type = 0;
        // The source that delivered it, as `DataEntry::dataSourceId`.
        std::int8_t dataSourceId = 0;
        // Bytes of the uncompressed payload; 0 when payloads are skipped.
        std::size_t size = 0;
        // Set by the visitor: where the `size` bytes of the payload go, in memory of its own.
        // Left null, the payload is neither copied nor uncompressed.
        std::uint8_t* target = nullptr;
    };

    // What `visitEntries` reads of each payload.
    enum class Payloads {
        // Nothing: the payload column is not read and `size` is 0.
        Skip,
        // Its size only: the visitor's `target` is not used.
        Size,
        // Its size, and its bytes into the visitor's `target`.
        Bytes,
    };

    // How `visitEntries` ended.
    enum class VisitEnd {
        // The entries ran out, or `visit` stopped.
        Complete,
        // A row, or the frame header of its payload, could not be read; every row visited is
        // whole.
        RowFailed,
        // The payload of the last row visited could not be uncompressed into its target, which
        // holds no whole payload; the rows visited before it are whole.
        PayloadFailed,
    };

    // Calls `visit` with each entry that `readEntries(minimumEntryId, maximumEntryId, filter, -1)`
    // would return, in the same order, from one statement and without making a `DataEntry`.
    // `visit` returns false to stop before the entry it was given, whose payload is then not
    // written. After a failure, `getLastError` tells what failed.
    VisitEnd visitEntries(std::int32_t minimumEntryId, std::int32_t maximumEntryId,
                          const EntryIndexFilter& filter, Payloads payloads,
                          const std::function<bool(EntryRow&)>& visit) const;

    // How many entries `visitEntries` would visit, and how many bytes their payloads hold.
    struct EntryTotals {
        // The number of entries.
        std::int64_t entries = 0;
        // 0 when payloads are skipped.
        std::uint64_t payloadBytes = 0;
    };

    // The totals of what `visitEntries` would visit with the same arguments. In a file of level
    // 0, and for the count alone, one aggregate statement gives them; a compressed file's
    // payload sizes are read from each payload's frame header. Empty, with `getLastError`, when
    // they cannot be read.
    std::optional<EntryTotals> measureEntries(std::int32_t minimumEntryId,
                                              std::int32_t maximumEntryId,
                                              const EntryIndexFilter& filter,
                                              Payloads payloads) const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

}  // namespace Korvane::Logging
