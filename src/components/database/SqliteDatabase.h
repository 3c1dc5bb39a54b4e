#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

namespace Korvane::Database {

// Raised by any call on a database whose file is not an SQLite database.
class FileIsNotDatabase : public std::runtime_error {
public:
    FileIsNotDatabase();
};

class SqliteQuery;

// SQLite's own words for a result code: "database is locked" for 5.
std::string resultCodeText(std::int32_t code);

// One connection to an SQLite database file.
//
// The connection is serialised, so it may be used from several threads at once; each thread sees
// the result code of its own latest failure. A lock that another connection or process holds is
// waited for, up to a minute, instead of failing at once. Files opened for writing grow ahead of
// their pages (see GrowAheadVfs.h), so that a killed writer leaves a file that opens. It is
// hardened for files from elsewhere: triggers, views, extension loading and writes to the schema
// are refused. Compiled statements are kept in a small cache keyed by their text and handed out to
// one query at a time.
class SqliteDatabase {
public:
    enum class OpenMode : int {
        ReadOnly = 1,
        ReadWrite = 2,
        ReadWriteCreate = 6,
    };

    // Opens (and with `ReadWriteCreate` creates) the database at `path`. Throws
    // `std::runtime_error` when the file cannot be opened or the connection cannot be hardened.
    SqliteDatabase(const std::string& path, OpenMode mode);
    SqliteDatabase(SqliteDatabase&& other) noexcept;
    SqliteDatabase& operator=(SqliteDatabase&& other) noexcept;
    ~SqliteDatabase();

    // Runs one statement, rows and all; false on failure. Throws `FileIsNotDatabase`.
    bool executeSimpleQuery(const std::string& sql);
    // The row id of the latest successful insert on this connection.
    std::int64_t getLastInsertedRowId() const;
    // The extended result code of this thread's latest failure on this connection, 0 if none.
    std::int32_t getLastErrorCode() const;

private:
    friend class SqliteQuery;

    // SQLite's own words for a result code: "database is locked" for 5.
    std::string resultCodeText(std::int32_t code);
    struct Impl;
    std::unique_ptr<Impl> impl;
};

}  // namespace Korvane::Database
