#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "LogFiles.h"

struct sqlite3;
struct sqlite3_stmt;

// Reading a log file below the library, for `check` and `recover`: straight through SQLite on a
// read-only connection, row by row, stepping over the parts of a damaged file that cannot be read.
namespace KorvaneLog {

// Ids kept as runs of consecutive numbers: the ids of a log file rarely have gaps, so even
// millions of them take a few bytes.
class IdSet {
public:
    struct Run {
        std::int64_t first;
        std::int64_t last;
    };

    // Adds `id`, which must be above every id added before; others are ignored.
    void add(std::int64_t id);
    // Adds the ids of `other`, in whatever order they stand to these.
    void addAll(const IdSet& other);
    bool empty() const { return runs.empty(); }
    std::int64_t size() const;
    const std::vector<Run>& asRuns() const { return runs; }

    // The ids from `first` to `last` that this set does not hold.
    IdSet gapsBetween(std::int64_t first, std::int64_t last) const;

    // "3-7, 12, 40-41": the first `maxRuns` runs, then ", ...".
    std::string text(std::size_t maxRuns = 5) const;

private:
    std::vector<Run> runs;
};

// What the first page of an SQLite database says about the file's size.
struct DatabaseHeader {
    std::uint32_t pageSize = 0;
    std::uint32_t pageCount = 0;  // as the header states it; 0 when SQLite would not trust it
    std::uint64_t fileSize = 0;

    // The pages the file holds, a trailing partial page counted as one.
    std::uint64_t pagesInFile() const { return (fileSize + pageSize - 1) / pageSize; }
    // What is wrong with the header's idea of the file's size; empty when nothing is. A file
    // longer than the pages it counts is not wrong.
    std::string disagreement() const;
};

// Refuses a path the way `openLog` does, and a file that is no SQLite database as a legacy
// file or as no log file; otherwise reads the header of its first page.
DatabaseHeader readDatabaseHeader(const fs::path& file);

// The bytes of the pages of the log file at `file` as SQLite counts them, also those that a live
// recorder's write-ahead log still holds: the size the file has once it is cleanly closed, without
// the room that a writer grew ahead of its pages. Empty when SQLite cannot tell.
std::optional<std::uint64_t> bytesOfPages(const fs::path& file);

// Copies `damaged` to a new file `copy`, with the journal of an unfinished write, and makes the
// copy's header agree with the copy: a header that counts pages past its end then counts the
// pages it holds, a trailing partial page padded with zeros; the room that a writer grew ahead of
// its pages is cut off.
void copyWithRepairedHeader(const fs::path& damaged, const fs::path& copy);

// One row of a walk: its row id, then the columns that the walk asked for, counted from 0.
class Row {
public:
    explicit Row(sqlite3_stmt* statement) : statement(statement) {}

    std::int64_t id() const;
    // A column of SQLite's integer kind; empty for any other kind.
    std::optional<std::int64_t> integer(int column) const;
    // A column of the text kind.
    std::optional<std::string> text(int column) const;
    // A column of the blob kind; `nullAsEmpty` takes NULL for an empty blob.
    std::optional<ByteArray> blob(int column, bool nullAsEmpty = false) const;
    // An integer, real or text column as the library reads metadata and property values; a blob
    // becomes text of its bytes, and NULL gives nothing.
    std::optional<PropertyValue> value(int column) const;

private:
    sqlite3_stmt* statement;
};

// What a walk over a table found.
struct WalkReport {
    IdSet keys;                    // the row ids that the table's pages list
    bool endKnown = false;         // the last pages of the table, with its highest key, were read
    bool unreadablePages = false;  // some of the table's pages could not be read: stepped over
    IdSet unreadableRows;          // keys whose rows cannot be read
    bool damaged() const { return unreadablePages || !unreadableRows.empty(); }
};

// A log file opened through SQLite itself, which only reads from it. A header that counts
// pages past the end of the file is read past, as far as the file goes.
class RawLogReader {
public:
    enum class Opening {
        ReadOnly,     // never written; fails on a file with the journal of an unfinished write
        AsItStands,   // never written; reads the file as it is and leaves such a journal alone
        RollingBack,  // for a copy: undoes an unfinished write that a journal beside it records
    };

    // Opens `file`, which `readDatabaseHeader` accepted. Throws `ToolError` about `shownAs`
    // when the file lacks one of the six tables of a log file, or when its list of tables
    // cannot be read.
    RawLogReader(const fs::path& file, const fs::path& shownAs, Opening opening);
    ~RawLogReader();
    RawLogReader(const RawLogReader&) = delete;
    RawLogReader& operator=(const RawLogReader&) = delete;

    // What `PRAGMA integrity_check` finds; empty when it says "ok". A check that cannot finish
    // adds the reason why as its last line.
    std::vector<std::string> integrityProblems() const;
    // The rows that refer to a row that does not exist: "data row 17 refers to a missing row of
    // dataSources". A check that cannot finish adds the reason why.
    std::vector<std::string> foreignKeyProblems() const;

    // Calls `visit` with every row of `table` that can be read, in row id order, giving it the
    // `columns` (a list of column names for SQL). Where pages cannot be read, the walk steps
    // ahead to where they can, and comes back for what it stepped over.
    WalkReport walk(const std::string& table, const std::string& columns,
                    const std::function<void(const Row&)>& visit) const;

private:
    sqlite3* database = nullptr;
};

// Uncompresses a stored payload: empty unless it is one zstd frame that records its size and
// decodes to exactly that many bytes.
std::optional<ByteArray> uncompressPayload(const ByteArray& stored);

// True when `stored` begins like a zstd frame.
bool looksCompressed(const ByteArray& stored);

}  // namespace KorvaneLog
