#include "SqliteLogFile.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "../model/LegacyLogFileError.h"
#include "../model/NotALogFileError.h"
#include "EntryFilterSql.h"
#include "Statements.h"
#include "components/core/Compression.h"
#include "components/core/Filesystem.h"
#include "components/database/SqliteDatabase.h"
#include "components/database/SqliteQuery.h"

namespace Korvane::Logging {

using Database::BindParameterVisitor;
using Database::BlobView;
using Database::getValueFromColumn;
using Database::ReturnPropertyValueVisitor;
using Database::SqliteDatabase;
using Database::SqliteQuery;
using BindMode = SqliteQuery::BindMode;

namespace {

constexpr std::int32_t currentLogVersion = 4;
constexpr int sqliteError = 1;
constexpr int sqliteFull = 13;
constexpr int sqliteIoErrorRead = 266;
constexpr int sqliteIoErrorWrite = 778;
constexpr int sqliteReadOnly = 8;
constexpr int sqliteForeignKeyConstraint = 787;
constexpr const char* thumbnailName = "thumbnail";
constexpr const char* missingSourceForEntry =
    "Attempted to log data against a data source that did not exist in the file.";
constexpr const char* openForReadingOnly = "The log file is open for reading only.";

// Payload bytes of a batch that are compressed ahead of their inserts at a time: bounds the
// memory that the compressed copies hold.
constexpr std::size_t compressionWindowBytes = std::size_t{16} << 20;
// A window of fewer payload bytes is compressed on the caller's thread alone. A new thread
// starts with a new compression context, which costs up to 3 ms at level 9; compressing a
// megabyte costs 5 to 20 ms, so from here on half of that is worth the start.
constexpr std::size_t parallelCompressionBytes = std::size_t{1} << 20;

// The first four bytes of a file of the earlier, non-database format: 0x11223344, little-endian.
constexpr std::array<char, 4> legacyMark = {0x44, 0x33, 0x22, 0x11};

}  // namespace

struct SqliteLogFile::Impl {
    Impl(const std::string& narrowPath, const std::filesystem::path& path, Access access)
        : database(narrowPath, access == Access::ReadOnly
                                   ? SqliteDatabase::OpenMode::ReadOnly
                                   : SqliteDatabase::OpenMode::ReadWriteCreate),
          filePath(path),
          readOnly(access == Access::ReadOnly) {}

    SqliteDatabase database;
    std::filesystem::path filePath;
    bool isNewFile = false;
    std::int8_t compressionLevel = 0;
    std::int32_t logVersion = 0;
    std::string lastError = "No error";
    bool readOnly;

    // Replaces `lastError` with the text for the connection's latest failure.
    void reportDatabaseError() {
        const int code = database.getLastErrorCode();
        if (readOnly && (code & 0xff) == sqliteReadOnly) {
            lastError = openForReadingOnly;
            return;
        }
        switch (code) {
        case sqliteFull:
            lastError = "Filesystem full.";
            break;
        case sqliteIoErrorRead:
        case sqliteIoErrorWrite:
            lastError = "IO error while reading or writing to the file.";
            break;
        default:
            lastError = "Unknown internal error";
            break;
        }
    }

    // Steps a statement that writes; on failure reports it and returns false.
    bool executeWrite(SqliteQuery& query) {
        if (query.executeStep() == SqliteQuery::Done) {
            return true;
        }
        reportDatabaseError();
        return false;
    }

    // Like `executeWrite`, but a missing data source gets a text of its own.
    bool executeWriteForSource(SqliteQuery& query, const char* missingSourceText) {
        if (query.executeStep() == SqliteQuery::Done) {
            return true;
        }
        if (database.getLastErrorCode() == sqliteForeignKeyConstraint) {
            lastError = missingSourceText;
        } else {
            reportDatabaseError();
        }
        return false;
    }

    bool insertEntries(const std::vector<DataEntry>& entries);

    Compression::CompressionLevel level() const {
        return static_cast<Compression::CompressionLevel>(compressionLevel);
    }

    bool compressesResources() const { return logVersion >= 3 && compressionLevel != 0; }
    bool hasBookmarkPayloads() const { return logVersion >= currentLogVersion; }

    // The stored form of a payload: compressed into `buffer` when `compressed`, else `data`
    // itself, without a copy.
    const ByteArray& storedForm(const ByteArray& data, bool compressed, ByteArray& buffer) const {
        if (!compressed) {
            return data;
        }
        buffer = Compression::compress(data, level());
        return buffer;
    }

    // The bytes of a stored payload, uncompressed straight into the result when `compressed`.
    static ByteArray payloadFrom(const std::optional<BlobView>& blob, bool compressed) {
        if (!blob) {
            return {};
        }
        if (compressed) {
            return Compression::uncompress(blob->data, blob->size);
        }
        return ByteArray(blob->data, blob->data + blob->size);
    }

    // One value of an aggregate statement, or -1 with the failure reported.
    std::int32_t aggregate(const char* sql) {
        SqliteQuery query(database, sql);
        query.executeStep();
        if (const auto value = getValueFromColumn<int>(query, 0)) {
            return *value;
        }
        reportDatabaseError();
        return -1;
    }

    bool writeBookmark(const Bookmark& bookmark, const char* withPayload, const char* without);
    bool addMetadata(const std::string& key, const PropertyValue& value);

    // A value that decides how the file is read: "compressionLevel" or "logVersion"; empty when
    // the file has none. A file that stays busy is refused rather than read at a wrong level.
    std::optional<int> readSetting(const char* key);

    // Opens the connection, tells what the file is, gives a new file its schema and sets the
    // connection up. `compressionLevel` and `logVersion` stay 0. For a new file,
    // `initialiseNewFile` runs right after the schema, in the same transaction, so that another
    // process never finds the file half made.
    static std::unique_ptr<Impl> open(const std::filesystem::path& path, Access access,
                                      const std::function<void(Impl&)>& initialiseNewFile = {});

    // Makes a new log file at `path` when nothing exists there: builds it under a temporary name
    // in the same folder, gives it the schema and runs `initialise` on it, syncs it, and puts it
    // in place in one step, so that another process finds nothing or the whole file, and a
    // power cut leaves the same. False, with nothing changed, when something exists at `path`
    // or the file system cannot put a file in place that way; the caller then makes the file
    // where it stands. Throws when the file cannot be made, and when something appeared at
    // `path` meanwhile. A row that `initialise` failed to write leaves its text in `failure`.
    static bool buildInPlaceOf(const std::filesystem::path& path,
                               const std::function<void(Impl&)>& initialise, std::string& failure);
};

namespace {

PropertyValue toPropertyValue(Database::ColumnValue&& value) {
    return std::visit(ReturnPropertyValueVisitor{}, std::move(value));
}

// Steps once and converts column 0; empty when there is no row or the value is NULL.
std::optional<PropertyValue> firstPropertyValue(SqliteQuery& query) {
    query.executeStep();
    auto value = query.getValueFromColumn(0);
    if (!value) {
        return std::nullopt;
    }
    return toPropertyValue(std::move(*value));
}

// `text` with every `from` in it replaced by `to`.
std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

std::string textColumn(const SqliteQuery& query, int column) {
    return getValueFromColumn<std::string>(query, column).value_or(std::string());
}

// Failures that say nothing about what the file holds: it stayed locked by another process, it
// could not be read at this moment, or memory ran out.
bool isPassingFailure(int code) {
    constexpr int busy = 5, locked = 6, noMemory = 7, ioError = 10, cannotOpen = 14,
                  lockProtocol = 15;
    switch (code & 0xff) {
    case busy:
    case locked:
    case noMemory:
    case ioError:
    case cannotOpen:
    case lockProtocol:
        return true;
    default:
        return false;
    }
}

// Throws when the latest failure on `database` was a passing one, with SQLite's words for it.
void refusePassingFailure(const SqliteDatabase& database) {
    const int code = database.getLastErrorCode();
    if (isPassingFailure(code)) {
        throw std::runtime_error("Cannot read the file: " + Database::resultCodeText(code) + ".");
    }
}

// A catalogue that cannot be read makes the file no log file, unless the failure was a passing
// one: a file that is only busy or unreadable for a moment is reported as it is.
[[noreturn]] void refuseUnreadable(const SqliteDatabase& database) {
    refusePassingFailure(database);
    throw NotALogFileError();
}

std::int32_t countTables(SqliteDatabase& database) {
    SqliteQuery query(database, Statements::countTables);
    query.executeStep();
    const std::optional<int> count = getValueFromColumn<int>(query, 0);
    if (!count) {
        refuseUnreadable(database);
    }
    return *count;
}

// Throws `NotALogFileError` unless all six tables of a log file are there.
void requireLogTables(SqliteDatabase& database) {
    SqliteQuery findQuery(database, Statements::findTable);
    int found = 0;
    for (const char* table : Statements::requiredTables) {
        findQuery.resetQuery();
        findQuery.bindParameter(":tableName", std::string(table), BindMode::Copy);
        const SqliteQuery::QueryResult result = findQuery.executeStep();
        if (result == SqliteQuery::Row) {
            ++found;
        } else if (result == SqliteQuery::Error) {
            refuseUnreadable(database);
        }
    }
    if (found < static_cast<int>(std::size(Statements::requiredTables))) {
        throw NotALogFileError();
    }
}

// A bookmarks table whose references cannot be checked is replaced by an empty one. Only the
// check's own verdict counts: a file that is busy, or damaged elsewhere, keeps its bookmarks.
void checkBookmarksTable(SqliteDatabase& database) {
    if (!database.executeSimpleQuery(Statements::checkBookmarks) &&
        database.getLastErrorCode() == sqliteError) {
        database.executeSimpleQuery(Statements::dropBookmarks);
        database.executeSimpleQuery(Statements::createBookmarksTable);
    }
}

// SQLite reports a file of one byte as empty (a workaround of its own for file systems that
// write such a byte), so that file would be given the schema as an empty one is. A file that holds
// bytes but is too short for a database header is no database.
bool holdsBytesButNoDatabase(const std::filesystem::path& path) {
    constexpr std::uintmax_t databaseHeaderSize = 100;
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    return !error && size > 0 && size < databaseHeaderSize;
}

// Why a file that is no database cannot be opened: the legacy format, or anything else.
[[noreturn]] void refuseNonDatabase(const std::filesystem::path& path) {
    std::array<char, 4> head{};
    std::ifstream file(path, std::ios::binary);
    if (file.read(head.data(), head.size()) && head == legacyMark) {
        throw LegacyLogFileError();
    }
    throw NotALogFileError();
}

// The insert of one entry, compiled once and bound by position for each entry of a batch.
class EntryInsert {
public:
    explicit EntryInsert(SqliteDatabase& database)
        : query(database, Statements::insertData),
          timestamp(query.parameterIndex(":timestamp")),
          type(query.parameterIndex(":type")),
          dataSourceId(query.parameterIndex(":dataSourceId")),
          length(query.parameterIndex(":length")),
          payload(query.parameterIndex(":payload")) {}

    // Binds `entry` with `stored`, the stored form of its payload, which must live until the
    // next `bind` or the end of this object.
    SqliteQuery& bind(const DataEntry& entry, const ByteArray& stored) {
        query.resetQuery();
        query.bindParameterAt(timestamp, entry.timestamp);
        query.bindParameterAt(type, entry.type);
        query.bindParameterAt(dataSourceId, static_cast<std::int32_t>(entry.dataSourceId));
        query.bindParameterAt(length, static_cast<std::int32_t>(stored.size()));
        query.bindParameterAt(payload, stored, BindMode::NoCopy);
        return query;
    }

private:
    SqliteQuery query;
    int timestamp;
    int type;
    int dataSourceId;
    int length;
    int payload;
};

// Compresses the payloads of `entries[begin, end)` into `stored`, on the caller's thread and
// one more, which take the entries in turn. The frames are those of `Compression::compress`.
void compressOnTwoThreads(const std::vector<DataEntry>& entries, std::size_t begin, std::size_t end,
                          Compression::CompressionLevel level, std::vector<ByteArray>& stored) {
    stored.resize(end - begin);
    std::atomic<std::size_t> next{begin};
    const auto work = [&] {
        for (std::size_t i = next++; i < end; i = next++) {
            Compression::compress(entries[i].data, level, stored[i - begin]);
        }
    };
    std::future<void> helper;
    try {
        helper = std::async(std::launch::async, work);
    } catch (const std::system_error&) {
        // No thread to be had: the caller's thread does all of it.
    }
    try {
        work();
    } catch (...) {
        next = end;  // the helper stops at its next entry; it uses this frame until it returns
        if (helper.valid()) {
            helper.wait();
        }
        throw;
    }
    if (helper.valid()) {
        helper.get();  // passes on what the helper raised
    }
}

bool worthTwoThreads(std::size_t entryCount, std::size_t bytes) {
    static const unsigned cores = std::thread::hardware_concurrency();
    return cores > 1 && entryCount > 1 && bytes >= parallelCompressionBytes;
}

// Ends a batch's transaction with a rollback unless it was committed. Runs while an exception
// passes, so it raises none.
class RollbackUnlessCommitted {
public:
    explicit RollbackUnlessCommitted(SqliteDatabase& database) : database(database) {}
    ~RollbackUnlessCommitted() {
        if (!committed) {
            try {
                database.executeSimpleQuery(Statements::rollback);
            } catch (...) {
                // A file that is no database has nothing to roll back.
            }
        }
    }
    RollbackUnlessCommitted(const RollbackUnlessCommitted&) = delete;
    RollbackUnlessCommitted& operator=(const RollbackUnlessCommitted&) = delete;

    bool commit() {
        committed = database.executeSimpleQuery(Statements::commit);
        return committed;
    }

private:
    SqliteDatabase& database;
    bool committed = false;
};

}  // namespace

// Each entry is inserted as `logData` inserts it. In a compressed file, the payloads of a window
// of entries are compressed first, on two threads when the window is large enough; otherwise
// each payload is compressed into one reused buffer just before its insert.
bool SqliteLogFile::Impl::insertEntries(const std::vector<DataEntry>& entries) {
    EntryInsert insert(database);
    const auto write = [&](const DataEntry& entry, const ByteArray& stored) {
        return executeWriteForSource(insert.bind(entry, stored), missingSourceForEntry);
    };
    if (compressionLevel == 0) {
        return std::all_of(entries.begin(), entries.end(),
                           [&](const DataEntry& entry) { return write(entry, entry.data); });
    }
    ByteArray buffer;
    std::vector<ByteArray> stored;
    for (std::size_t begin = 0, end = 0; begin < entries.size(); begin = end) {
        std::size_t bytes = 0;
        for (end = begin;
             end < entries.size() &&
             (end == begin || bytes + entries[end].data.size() <= compressionWindowBytes);
             ++end) {
            bytes += entries[end].data.size();
        }
        const bool ahead = worthTwoThreads(end - begin, bytes);
        if (ahead) {
            compressOnTwoThreads(entries, begin, end, level(), stored);
        }
        for (std::size_t i = begin; i < end; ++i) {
            if (!ahead) {
                Compression::compress(entries[i].data, level(), buffer);
            }
            if (!write(entries[i], ahead ? stored[i - begin] : buffer)) {
                return false;
            }
        }
    }
    return true;
}

std::unique_ptr<SqliteLogFile::Impl> SqliteLogFile::Impl::open(
    const std::filesystem::path& path, Access access,
    const std::function<void(Impl&)>& initialiseNewFile) {
    const std::string narrowPath = path.string();
    try {
        auto impl = std::make_unique<Impl>(narrowPath, path, access);
        SqliteDatabase& database = impl->database;
        database.executeSimpleQuery(Statements::enableForeignKeys);
        if (countTables(database) == 0) {
            if (holdsBytesButNoDatabase(path)) {
                throw Database::FileIsNotDatabase();
            }
            if (impl->readOnly) {
                throw NotALogFileError();  // reading never makes a file a log file
            }
            // The schema and the first rows are written under one lock. Another process that
            // found the file empty as well waits here, and then finds the whole log file.
            database.executeSimpleQuery(Statements::beginImmediate);
            impl->isNewFile = countTables(database) == 0;
            if (impl->isNewFile) {
                for (const char* statement : Statements::schema) {
                    database.executeSimpleQuery(statement);
                }
                if (initialiseNewFile) {
                    initialiseNewFile(*impl);
                }
            }
            if (!database.executeSimpleQuery(Statements::commit)) {
                database.executeSimpleQuery(Statements::rollback);
            }
        }
        if (!impl->isNewFile) {
            requireLogTables(database);
            if (!impl->readOnly) {
                checkBookmarksTable(database);
            }
        }
        if (!impl->readOnly) {
            database.executeSimpleQuery(Statements::synchronousOff);
            database.executeSimpleQuery(Statements::journalInMemory);
        }
        return impl;
    } catch (const Database::FileIsNotDatabase&) {
        // The connection is closed by now; only the file's first bytes are left to read.
    }
    refuseNonDatabase(path);
}

bool SqliteLogFile::Impl::buildInPlaceOf(const std::filesystem::path& path,
                                         const std::function<void(Impl&)>& initialise,
                                         std::string& failure) {
    const std::filesystem::path target = Filesystem::followLinks(path);
    std::error_code error;
    if (std::filesystem::symlink_status(target, error).type() !=
        std::filesystem::file_type::not_found) {
        return false;  // something is there, or the path cannot be examined
    }
    const std::filesystem::path temporary = Filesystem::makeTemporarySibling(target);
    // Whatever happens before the file is in place, nothing of it stays behind.
    const auto removeTemporary = [&] { std::filesystem::remove(temporary, error); };
    try {
        std::unique_ptr<Impl> building;
        try {
            building = std::make_unique<Impl>(temporary.string(), temporary, Access::ReadWrite);
        } catch (const std::runtime_error& refusal) {
            throw std::runtime_error(
                replaceAll(refusal.what(), temporary.string(), path.string()));
        }
        SqliteDatabase& database = building->database;
        database.executeSimpleQuery(Statements::synchronousOff);
        database.executeSimpleQuery(Statements::journalInMemory);
        for (const char* statement : Statements::schema) {
            database.executeSimpleQuery(statement);
        }
        initialise(*building);
        if (building->lastError != "No error") {
            failure = building->lastError;
        }
    } catch (...) {
        removeTemporary();
        throw;
    }
    // Once the file is in place it is whole on disk, whatever happens to the machine.
    Filesystem::sync(temporary);
    switch (Filesystem::placeWithoutReplacing(temporary, target)) {
    case Filesystem::Placement::Placed:
        Filesystem::sync(target.parent_path().empty() ? "." : target.parent_path());
        return true;
    case Filesystem::Placement::Occupied:
        removeTemporary();
        throw std::runtime_error("Cannot create file as file already exists.");
    case Filesystem::Placement::Unsupported:
        break;
    }
    removeTemporary();
    return false;
}

std::optional<int> SqliteLogFile::Impl::readSetting(const char* key) {
    SqliteQuery query(database, Statements::selectMetadataValue);
    query.bindParameter(":key", std::string(key), BindMode::Copy);
    if (query.executeStep() == SqliteQuery::Error) {
        refusePassingFailure(database);
    }
    auto value = query.getValueFromColumn(0);
    if (!value) {
        return std::nullopt;
    }
    return Database::requireType<int>(toPropertyValue(std::move(*value)));
}

SqliteLogFile::SqliteLogFile(const std::filesystem::path& filePath)
    : SqliteLogFile(filePath, Access::ReadWrite) {}

SqliteLogFile::SqliteLogFile(const std::filesystem::path& filePath, Access access)
    : impl(Impl::open(filePath, access)) {
    if (impl->isNewFile) {
        return;
    }
    impl->compressionLevel =
        static_cast<std::int8_t>(impl->readSetting("compressionLevel").value_or(0));
    impl->logVersion = impl->readSetting("logVersion").value_or(0);
}

SqliteLogFile::SqliteLogFile(const std::string& filePath, const std::string& timeZone,
                             const std::string& applicationName,
                             const std::string& applicationVersion, std::int8_t compressionLevel,
                             std::int64_t creationTimeMs) {
    const auto writeMetadata = [&](Impl& file) {
        file.addMetadata("createdDateTime",
                         PropertyValue{std::in_place_type<std::int64_t>, creationTimeMs});
        file.addMetadata("applicationName", PropertyValue{applicationName});
        file.addMetadata("applicationVersion", PropertyValue{applicationVersion});
        file.addMetadata("currentTimeZone", PropertyValue{timeZone});
        file.addMetadata("logVersion",
                         PropertyValue{std::in_place_type<std::int32_t>, currentLogVersion});
        file.addMetadata("compressionLevel",
                         PropertyValue{std::in_place_type<std::int32_t>, compressionLevel});
    };
    const std::filesystem::path path(filePath);
    std::string buildError;
    if (Impl::buildInPlaceOf(path, writeMetadata, buildError)) {
        impl = Impl::open(path, Access::ReadWrite);
        impl->isNewFile = true;
        if (!buildError.empty()) {
            impl->lastError = buildError;
        }
    } else {
        impl = Impl::open(path, Access::ReadWrite, writeMetadata);
        if (!impl->isNewFile) {
            // A log file stood at the path already: its own rows stay, the missing ones are added.
            writeMetadata(*impl);
        }
    }
    impl->compressionLevel = compressionLevel;
    impl->logVersion = currentLogVersion;
}

SqliteLogFile::SqliteLogFile(SqliteLogFile&& other) noexcept = default;

SqliteLogFile& SqliteLogFile::operator=(SqliteLogFile&& other) noexcept {
    if (this != &other) {
        std::unique_ptr<Impl> previous = std::exchange(impl, std::move(other.impl));
        previous.reset();
    }
    return *this;
}

SqliteLogFile::~SqliteLogFile() = default;

bool SqliteLogFile::isBookmarkPayloadsSupported() const {
    return impl->hasBookmarkPayloads();
}

bool SqliteLogFile::isResourceCompressionSupported() const {
    return impl->logVersion >= 3;
}

std::filesystem::path SqliteLogFile::getFilePath() const {
    return impl->filePath;
}

std::string SqliteLogFile::getLastError() const {
    return impl->lastError;
}

// ---- Metadata ----

bool SqliteLogFile::Impl::addMetadata(const std::string& key, const PropertyValue& value) {
    SqliteQuery existing(database, Statements::findMetadata);
    existing.bindParameter(":key", key, BindMode::NoCopy);
    if (existing.executeStep() == SqliteQuery::Row) {
        return false;
    }
    SqliteQuery insert(database, Statements::insertMetadata);
    insert.bindParameter(":key", key, BindMode::NoCopy);
    std::visit(BindParameterVisitor{insert, ":value", BindMode::Copy}, value);
    return executeWrite(insert);
}

bool SqliteLogFile::addMetadata(const std::string& key, PropertyValue value) {
    return impl->addMetadata(key, value);
}

std::optional<PropertyValue> SqliteLogFile::getMetadataValue(const std::string& key) const {
    SqliteQuery query(impl->database, Statements::selectMetadataValue);
    query.bindParameter(":key", key, BindMode::NoCopy);
    return firstPropertyValue(query);
}

std::vector<LogMetadataEntry> SqliteLogFile::getAllMetadata() const {
    std::vector<LogMetadataEntry> entries;
    SqliteQuery query(impl->database, Statements::selectAllMetadata);
    while (query.executeStep() == SqliteQuery::Row) {
        auto value = query.getValueFromColumn(1);
        if (value) {
            entries.push_back(
                LogMetadataEntry{textColumn(query, 0), toPropertyValue(std::move(*value))});
        }
    }
    return entries;
}

// ---- Data sources and entries ----

bool SqliteLogFile::addDataSource(DataSource& source) {
    SqliteQuery query(impl->database, Statements::insertDataSource);
    query.bindParameter(":dataSourceType", static_cast<std::int32_t>(source.type));
    query.bindParameter(":dataSourceName", source.name, BindMode::NoCopy);
    if (!impl->executeWrite(query)) {
        return false;
    }
    // Source ids are 8 bits wide in every record; the file is good for 127 assigned ids.
    source.id = static_cast<std::int8_t>(impl->database.getLastInsertedRowId());
    return true;
}

bool SqliteLogFile::addDataSource(const DataSource& source) {
    SqliteQuery query(impl->database, Statements::insertDataSourceWithId);
    query.bindParameter(":dataSourceId", static_cast<std::int32_t>(source.id));
    query.bindParameter(":dataSourceType", static_cast<std::int32_t>(source.type));
    query.bindParameter(":dataSourceName", source.name, BindMode::NoCopy);
    return impl->executeWrite(query);
}

bool SqliteLogFile::addDataSourceProperty(const DataSourceProperty& property) {
    SqliteQuery query(impl->database, Statements::insertDataSourceProperty);
    query.bindParameter(":dataSourceId", static_cast<std::int32_t>(property.dataSourceId));
    query.bindParameter(":key", property.name, BindMode::NoCopy);
    std::visit(BindParameterVisitor{query, ":value", BindMode::NoCopy}, property.value);
    return impl->executeWriteForSource(
        query,
        "Attempted to add a data source property for a data source that did not exist in "
        "the file.");
}

bool SqliteLogFile::logData(const DataEntry& entry) {
    ByteArray compressed;
    const ByteArray& payload =
        impl->storedForm(entry.data, impl->compressionLevel != 0, compressed);
    EntryInsert insert(impl->database);
    return impl->executeWriteForSource(insert.bind(entry, payload), missingSourceForEntry);
}

// BEGIN IMMEDIATE takes the write lock at once, while the connection holds no lock: there a busy
// handler may wait for another writer, and the batch's one wait for a lock comes before any
// work. In a deferred transaction, a connection that has read and then asks for the write lock
// gets SQLITE_BUSY without its busy handler, since waiting could deadlock with a writer that
// waits for the readers to go. The batch reads nothing before it writes, and IMMEDIATE keeps it
// out of that case whatever a statement reads.
bool SqliteLogFile::logEntries(const std::vector<DataEntry>& entries) {
    if (entries.empty()) {
        return true;
    }
    if (!impl->database.executeSimpleQuery(Statements::beginImmediate)) {
        impl->reportDatabaseError();
        return false;
    }
    RollbackUnlessCommitted transaction(impl->database);
    if (!impl->insertEntries(entries)) {
        return false;
    }
    if (!transaction.commit()) {
        impl->reportDatabaseError();
        return false;
    }
    return true;
}

// ---- Reading entries ----

namespace {

std::int64_t integerColumn(const SqliteQuery& query, int column) {
    return query.getIntegerFromColumn(column).value_or(0);
}

}  // namespace

std::vector<DataEntry> SqliteLogFile::readEntries(std::int32_t minimumEntryId,
                                                  std::int32_t maximumEntryId,
                                                  const EntryIndexFilter& filter,
                                                  std::int32_t limit) const {
    if (minimumEntryId == -1) {
        minimumEntryId = getFirstEntryId();
    }
    if (maximumEntryId == -1) {
        maximumEntryId = getLastEntryId();
    }
    if (minimumEntryId == -1 || maximumEntryId == -1) {
        return {};
    }

    const std::string clause = buildFilterClause(filter);
    const std::string selection =
        (clause.empty() ? std::string(Statements::bareLead) : clause + Statements::joiner) +
        Statements::rangeCondition;
    const std::string limitText = limit == -1 ? std::string() : Statements::limitClause;
    const auto bindAll = [&](SqliteQuery& query) {
        query.bindParameter(":minimumEntryId", minimumEntryId);
        query.bindParameter(":maximumEntryId", maximumEntryId);
        query.bindParameter(":limit", limit);
        bindFilterParameters(filter, query);
    };

    // The count sizes the result, so that entries are moved in without reallocation. Its LIMIT
    // applies to the one aggregate row: it counts every match.
    SqliteQuery countQuery(impl->database,
                           Statements::countHead + selection + " " + limitText + ";");
    bindAll(countQuery);
    countQuery.executeStep();
    const int count = getValueFromColumn<int>(countQuery, 0).value_or(0);
    if (count <= 0) {
        return {};
    }
    std::vector<DataEntry> entries;
    entries.reserve(limit >= 0 ? std::min(count, limit) : count);

    SqliteQuery rowQuery(impl->database, Statements::entryHead + selection +
                                             Statements::orderForEntries + limitText + ";");
    bindAll(rowQuery);
    const bool compressed = impl->compressionLevel != 0;
    while (rowQuery.executeStep() == SqliteQuery::Row) {
        DataEntry& entry = entries.emplace_back();
        entry.entryId = static_cast<std::int32_t>(integerColumn(rowQuery, 0));
        entry.timestamp = integerColumn(rowQuery, 1);
        entry.type = static_cast<std::int32_t>(integerColumn(rowQuery, 2));
        entry.dataSourceId = static_cast<std::int8_t>(integerColumn(rowQuery, 3));
        entry.data = Impl::payloadFrom(rowQuery.getBlobFromColumn(4), compressed);
    }
    return entries;
}

std::vector<std::int32_t> SqliteLogFile::getEntryIndex(const EntryIndexFilter& filter) const {
    const std::string clause = buildFilterClause(filter);
    SqliteQuery countQuery(impl->database, Statements::countHead + clause + ";");
    bindFilterParameters(filter, countQuery);
    countQuery.executeStep();
    const int count = getValueFromColumn<int>(countQuery, 0).value_or(0);
    if (count <= 0) {
        return {};
    }
    std::vector<std::int32_t> ids;
    ids.reserve(static_cast<std::size_t>(count));

    SqliteQuery idQuery(impl->database, Statements::idHead + clause + Statements::orderForIds);
    bindFilterParameters(filter, idQuery);
    while (idQuery.executeStep() == SqliteQuery::Row) {
        ids.push_back(static_cast<std::int32_t>(integerColumn(idQuery, 0)));
    }
    return ids;
}

std::optional<DataEntry> SqliteLogFile::readEntry(std::int32_t entryId) const {
    SqliteQuery query(impl->database, Statements::selectEntry);
    query.bindParameter(":entryId", entryId);
    if (query.executeStep() != SqliteQuery::Row) {
        return std::nullopt;
    }
    std::optional<DataEntry> entry(std::in_place);
    entry->entryId = entryId;
    entry->timestamp = integerColumn(query, 0);
    entry->data = Impl::payloadFrom(query.getBlobFromColumn(3), impl->compressionLevel != 0);
    entry->type = static_cast<std::int32_t>(integerColumn(query, 1));
    entry->dataSourceId = static_cast<std::int8_t>(integerColumn(query, 2));
    return entry;
}

std::int32_t SqliteLogFile::getEntryCount() const {
    return impl->aggregate(Statements::countEntries);
}

std::int32_t SqliteLogFile::getFirstEntryId() const {
    return impl->aggregate(Statements::firstEntryId);
}

std::int32_t SqliteLogFile::getLastEntryId() const {
    return impl->aggregate(Statements::lastEntryId);
}

// ---- Resources and the thumbnail ----

bool SqliteLogFile::addResource(const std::string& name, const ByteArray& data) {
    SqliteQuery existing(impl->database, Statements::findResource);
    existing.bindParameter(":name", name, BindMode::NoCopy);
    if (existing.executeStep() == SqliteQuery::Row) {
        return false;
    }
    ByteArray compressed;
    const ByteArray& payload = impl->storedForm(data, impl->compressesResources(), compressed);
    SqliteQuery insert(impl->database, Statements::insertResource);
    insert.bindParameter(":name", name, BindMode::NoCopy);
    insert.bindParameter(":payload", payload, BindMode::NoCopy);
    return impl->executeWrite(insert);
}

std::optional<ByteArray> SqliteLogFile::getResource(const std::string& name) const {
    SqliteQuery query(impl->database, Statements::selectResource);
    query.bindParameter(":name", name, BindMode::NoCopy);
    if (query.executeStep() != SqliteQuery::Row) {
        return std::nullopt;
    }
    const auto blob = query.getBlobFromColumn(0);
    if (!blob) {
        return std::nullopt;  // a payload that is no blob cannot come from this writer
    }
    return Impl::payloadFrom(blob, impl->compressesResources());
}

std::vector<LogResourceEntry> SqliteLogFile::getAllResources() const {
    std::vector<LogResourceEntry> resources;
    SqliteQuery query(impl->database, Statements::selectAllResources);
    const bool compressed = impl->compressesResources();
    while (query.executeStep() == SqliteQuery::Row) {
        ByteArray data = Impl::payloadFrom(query.getBlobFromColumn(1), compressed);
        resources.push_back(LogResourceEntry{textColumn(query, 0), std::move(data)});
    }
    return resources;
}

std::optional<ByteArray> SqliteLogFile::getThumbnail() const {
    return getResource(thumbnailName);
}

bool SqliteLogFile::setThumbnail(const ByteArray& data) {
    std::optional<int> count;
    {
        // The count is read and its statement reset before anything is written: a connection
        // that holds a read open while it writes cannot wait for another process's lock.
        SqliteQuery countQuery(impl->database, Statements::countThumbnails);
        countQuery.executeStep();
        count = getValueFromColumn<int>(countQuery, 0);
    }
    if (!count) {
        impl->reportDatabaseError();
        return false;
    }
    if (*count == 0) {
        return addResource(thumbnailName, data);
    }
    ByteArray compressed;
    const ByteArray& payload = impl->storedForm(data, impl->compressesResources(), compressed);
    SqliteQuery replace(impl->database, Statements::replaceThumbnail);
    replace.bindParameter(":payload", payload, BindMode::NoCopy);
    return impl->executeWrite(replace);
}

// ---- Bookmarks ----

bool SqliteLogFile::Impl::writeBookmark(const Bookmark& bookmark, const char* withPayload,
                                        const char* without) {
    const bool payloads = hasBookmarkPayloads();
    SqliteQuery query(database, payloads ? withPayload : without);
    query.bindParameter(":entryId", bookmark.entryId);
    query.bindParameter(":title", bookmark.title, BindMode::NoCopy);
    query.bindParameter(":comments", bookmark.comment, BindMode::NoCopy);
    ByteArray compressed;
    if (payloads) {
        const ByteArray& payload = storedForm(bookmark.payload, compressionLevel != 0, compressed);
        query.bindParameter(":payload", payload, BindMode::NoCopy);
    }
    return executeWrite(query);
}

bool SqliteLogFile::addBookmark(const Bookmark& bookmark) {
    return impl->writeBookmark(bookmark, Statements::insertBookmarkWithPayload,
                               Statements::insertBookmark);
}

bool SqliteLogFile::updateBookmark(const Bookmark& bookmark) {
    return impl->writeBookmark(bookmark, Statements::updateBookmarkWithPayload,
                               Statements::updateBookmark);
}

bool SqliteLogFile::removeBookmark(const Bookmark& bookmark) {
    SqliteQuery query(impl->database, Statements::deleteBookmark);
    query.bindParameter(":entryId", bookmark.entryId);
    return impl->executeWrite(query);
}

std::vector<Bookmark> SqliteLogFile::getBookmarks() const {
    const bool payloads = impl->hasBookmarkPayloads();
    const bool compressed = impl->compressionLevel != 0;
    std::vector<Bookmark> bookmarks;
    SqliteQuery query(impl->database, payloads ? Statements::selectBookmarksWithPayload
                                               : Statements::selectBookmarks);
    while (query.executeStep() == SqliteQuery::Row) {
        Bookmark& bookmark = bookmarks.emplace_back();
        if (payloads) {
            // A NULL payload reads as an empty array, which uncompresses to an empty array.
            bookmark.payload = Impl::payloadFrom(query.getBlobFromColumn(3), compressed);
        }
        bookmark.comment = textColumn(query, 2);  // NULL comments read as empty
        bookmark.title = textColumn(query, 1);
        bookmark.entryId = static_cast<std::int32_t>(integerColumn(query, 0));
    }
    return bookmarks;
}

// ---- The source catalogue ----

std::vector<DataSource> SqliteLogFile::getDataSources() const {
    std::vector<DataSource> sources;
    SqliteQuery query(impl->database, Statements::selectDataSources);
    while (query.executeStep() == SqliteQuery::Row) {
        DataSource& source = sources.emplace_back();
        source.name = textColumn(query, 2);
        source.type = static_cast<KV_LogDataSourceType>(integerColumn(query, 1));
        source.id = static_cast<std::int8_t>(integerColumn(query, 0));
    }
    return sources;
}

std::optional<PropertyValue> SqliteLogFile::getDataSourceProperty(std::int32_t dataSourceId,
                                                                  std::string key) const {
    SqliteQuery query(impl->database, Statements::selectDataSourceProperty);
    query.bindParameter(":id", dataSourceId);
    query.bindParameter(":key", key, BindMode::NoCopy);
    return firstPropertyValue(query);
}

std::vector<DataSourceProperty> SqliteLogFile::getAllDataSourceProperties() const {
    SqliteQuery countQuery(impl->database, Statements::countDataSourceProperties);
    countQuery.executeStep();
    const int count = getValueFromColumn<int>(countQuery, 0).value_or(0);
    if (count <= 0) {
        return {};
    }
    std::vector<DataSourceProperty> properties;
    properties.reserve(static_cast<std::size_t>(count));
    SqliteQuery query(impl->database, Statements::selectAllDataSourceProperties);
    while (query.executeStep() == SqliteQuery::Row) {
        auto value = query.getValueFromColumn(2);
        DataSourceProperty& property = properties.emplace_back();
        if (value) {
            property.value = toPropertyValue(std::move(*value));
        }
        property.name = textColumn(query, 1);
        property.dataSourceId = static_cast<std::int8_t>(integerColumn(query, 0));
    }
    return properties;
}

// ---- Entries without records ----

namespace {

// What selects the entries of a range and a filter, after a head: the filter, the range.
std::string rangeSelection(const EntryIndexFilter& filter) {
    const std::string clause = buildFilterClause(filter);
    return (clause.empty() ? std::string(Statements::bareLead) : clause + Statements::joiner) +
           Statements::rangeCondition;
}

// Binds the parameters of `rangeSelection`. -1 stands for the first and last entry, so the
// whole range of ids selects the same rows without the two aggregates.
void bindRange(SqliteQuery& query, std::int32_t minimumEntryId, std::int32_t maximumEntryId,
               const EntryIndexFilter& filter) {
    constexpr std::int32_t lowest = std::numeric_limits<std::int32_t>::min();
    constexpr std::int32_t highest = std::numeric_limits<std::int32_t>::max();
    query.bindParameter(":minimumEntryId", minimumEntryId == -1 ? lowest : minimumEntryId);
    query.bindParameter(":maximumEntryId", maximumEntryId == -1 ? highest : maximumEntryId);
    bindFilterParameters(filter, query);
}

}  // namespace

SqliteLogFile::VisitEnd SqliteLogFile::visitEntries(
    std::int32_t minimumEntryId, std::int32_t maximumEntryId, const EntryIndexFilter& filter,
    Payloads payloads, const std::function<bool(EntryRow&)>& visit) const {
    const bool compressed = impl->compressionLevel != 0;
    // A stored payload's size is its uncompressed size, which SQLite reads without its pages;
    // a compressed one records that size in its frame, which has to be read.
    const bool sizeFromLength = payloads == Payloads::Size && !compressed;
    const char* head = payloads == Payloads::Skip ? Statements::entryFieldsHead
                       : sizeFromLength           ? Statements::entrySizeHead
                                                  : Statements::entryHead;
    SqliteQuery query(impl->database,
                      head + rangeSelection(filter) + Statements::orderForEntries + ";");
    bindRange(query, minimumEntryId, maximumEntryId, filter);

    // Damaged payloads end the visit with a result rather than an exception, so that the
    // visitor knows whether the last row it was given holds its payload.
    const auto payloadFailure = [&](const std::exception& failure, VisitEnd end) {
        impl->lastError = failure.what();
        return end;
    };
    SqliteQuery::QueryResult result;
    EntryRow row;
    while ((result = query.executeStep()) == SqliteQuery::Row) {
        row.entryId = static_cast<std::int32_t>(integerColumn(query, 0));
        row.timestamp = integerColumn(query, 1);
        row.type = static_cast<std::int32_t>(integerColumn(query, 2));
        row.dataSourceId = static_cast<std::int8_t>(integerColumn(query, 3));
        row.target = nullptr;
        row.size = 0;
        std::optional<BlobView> blob;
        if (sizeFromLength) {
            row.size = static_cast<std::size_t>(integerColumn(query, 4));
        } else if (payloads != Payloads::Skip) {
            // A payload that is no blob reads as empty, as in `readEntries`.
            blob = query.getBlobFromColumn(4);
            row.size = blob ? blob->size : 0;
            if (compressed && row.size != 0) {
                try {
                    row.size = Compression::uncompressedSize(blob->data, blob->size);
                } catch (const std::runtime_error& failure) {
                    return payloadFailure(failure, VisitEnd::RowFailed);
                }
            }
        }
        const std::size_t size = row.size;
        if (!visit(row)) {
            return VisitEnd::Complete;
        }
        if (payloads != Payloads::Bytes || row.target == nullptr || size == 0) {
            continue;
        }
        if (!compressed) {
            std::memcpy(row.target, blob->data, size);
            continue;
        }
        try {
            Compression::uncompress(blob->data, blob->size, row.target, size);
        } catch (const std::runtime_error& failure) {
            return payloadFailure(failure, VisitEnd::PayloadFailed);
        }
    }
    if (result == SqliteQuery::Error) {
        impl->reportDatabaseError();
        return VisitEnd::RowFailed;
    }
    return VisitEnd::Complete;
}

std::optional<SqliteLogFile::EntryTotals> SqliteLogFile::measureEntries(
    std::int32_t minimumEntryId, std::int32_t maximumEntryId, const EntryIndexFilter& filter,
    Payloads payloads) const {
    EntryTotals totals;
    if (payloads != Payloads::Skip && impl->compressionLevel != 0) {
        const VisitEnd end = visitEntries(minimumEntryId, maximumEntryId, filter, Payloads::Size,
                                          [&](const EntryRow& row) {
                                              ++totals.entries;
                                              totals.payloadBytes += row.size;
                                              return true;
                                          });
        return end == VisitEnd::Complete ? std::optional(totals) : std::nullopt;
    }
    SqliteQuery query(impl->database, Statements::countAndSizeHead + rangeSelection(filter) + ";");
    bindRange(query, minimumEntryId, maximumEntryId, filter);
    query.executeStep();
    const std::optional<std::int64_t> entries = query.getIntegerFromColumn(0);
    if (!entries) {
        impl->reportDatabaseError();
        return std::nullopt;
    }
    totals.entries = *entries;
    if (payloads != Payloads::Skip) {
        // The sum of no rows is NULL.
        totals.payloadBytes = static_cast<std::uint64_t>(query.getIntegerFromColumn(1).value_or(0));
    }
    return totals;
}

}  // namespace Korvane::Logging
