#define ZSTD_STATIC_LINKING_ONLY  // ZSTD_decompressBound
#include "RawLogReader.h"

#include <sqlite3.h>
#include <zstd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>

namespace KorvaneLog {

namespace {

constexpr std::size_t headerSize = 100;
constexpr char sqliteMagic[] = "SQLite format 3";  // 16 bytes with its terminating zero
constexpr std::array<unsigned char, 4> legacyMark = {0x44, 0x33, 0x22, 0x11};
constexpr unsigned char zstdMagic[] = {0x28, 0xb5, 0x2f, 0xfd};
constexpr const char* logTables[] = {
    "dataSources", "dataSourceProperties", "data", "metadata", "resources", "bookmarks",
};

// A file that another process is writing is waited for, as the library waits.
constexpr int lockWaitMs = 60'000;

// Rows read per query: a batch that fails is read again row by row.
constexpr std::int64_t rowsPerBatch = 64;
constexpr std::int64_t lowestId = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t highestId = std::numeric_limits<std::int64_t>::max();

// How far `to` lies above `from`, which it must not lie below; unsigned, because keys may span
// the whole range of 64-bit integers.
std::uint64_t distance(std::int64_t from, std::int64_t to) {
    return static_cast<std::uint64_t>(to) - static_cast<std::uint64_t>(from);
}

// True when `id` lies above `last` with a gap between them.
bool beyond(std::int64_t id, std::int64_t last) {
    return id > last && distance(last, id) > 1;
}

std::uint32_t bigEndian32(const unsigned char* bytes) {
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
           std::uint32_t{bytes[2]} << 8 | std::uint32_t{bytes[3]};
}

// `file` as a URI for SQLite: "file:" and the absolute path, with what a URI reserves escaped.
std::string fileUri(const fs::path& file) {
    std::string uri = "file:";
    for (const char character : fs::absolute(file).string()) {
        if (character == '%' || character == '?' || character == '#') {
            constexpr char digits[] = "0123456789ABCDEF";
            const auto byte = static_cast<unsigned char>(character);
            uri += {'%', digits[byte >> 4], digits[byte & 15]};
        } else {
            uri += character;
        }
    }
    return uri;
}

// A compiled statement, finalized at its end. Walks bind a range of row ids as ?1 and ?2.
class Statement {
public:
    Statement(sqlite3* database, const std::string& sql) {
        if (sqlite3_prepare_v2(database, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
            sqlite3_finalize(statement);
            statement = nullptr;
        }
    }
    ~Statement() { sqlite3_finalize(statement); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool ready() const { return statement != nullptr; }
    sqlite3_stmt* get() const { return statement; }
    std::int64_t id() const { return sqlite3_column_int64(statement, 0); }

    // Starts over on the rows from `first` to `last`.
    void select(std::int64_t first, std::int64_t last) {
        sqlite3_reset(statement);
        sqlite3_bind_int64(statement, 1, first);
        sqlite3_bind_int64(statement, 2, last);
    }
    int step() { return sqlite3_step(statement); }

private:
    sqlite3_stmt* statement = nullptr;
};

std::string rangeQuery(const std::string& table, const std::string& columns) {
    // NOT INDEXED: the walk is over the table's own pages, not over a copy of its keys.
    return "SELECT " + columns + " FROM " + table +
           " NOT INDEXED WHERE rowid BETWEEN ?1 AND ?2 ORDER BY rowid;";
}

// Finds the row ids of a table. Reading keys touches only the table's tree, not the rows'
// overflow pages, so it gets past a row whose content is damaged.
//
// In a damaged tree a search can end early without an error: a page that lists a key far
// above the range ends a scan of the range. So a scan is trusted to have reached the end of
// its range only when the range ends at a key that is known to exist.
class KeyFinder {
public:
    KeyFinder(sqlite3* database, const std::string& table)
        : keys(database, rangeQuery(table, "rowid")) {}

    bool ready() const { return keys.ready(); }

    // Adds the keys from `first` to `last` that can be reached, in ascending order; `lastIsKey`
    // tells that `last` exists. Where stepping from key to key fails, a new search starts just
    // past the last key read; where that fails too, it looks 1, 2, 4, ... keys further until it
    // can read again, and then comes back for the stretch it jumped over.
    void collect(std::int64_t first, std::int64_t last, bool lastIsKey, IdSet& found,
                 bool& damaged) {
        std::int64_t next = first;
        while (next <= last) {
            const std::int64_t start = next;
            if (scan(next, last, lastIsKey, found)) {
                return;
            }
            damaged = true;
            if (next == start && !stepOver(next, last, lastIsKey, found, damaged)) {
                return;
            }
        }
    }

private:
    // Moves `next`, where nothing can be read, to the first key past it that can be read.
    // Returns false when there is nothing more to read up to `last`.
    bool stepOver(std::int64_t& next, std::int64_t last, bool lastIsKey, IdSet& found,
                  bool& damaged) {
        std::int64_t unreadable = next;
        std::uint64_t step = 1;
        while (unreadable < last) {
            const std::int64_t ahead = distance(unreadable, last) <= step
                                           ? last
                                           : static_cast<std::int64_t>(unreadable + step);
            keys.select(ahead, last);
            const int result = keys.step();
            if (result == SQLITE_ROW && keys.id() >= ahead && keys.id() <= last) {
                const std::int64_t key = keys.id();
                collect(unreadable + 1, key, true, found, damaged);
                found.add(key);
                next = key + 1;
                return key < last;
            }
            if (result == SQLITE_DONE && !lastIsKey) {
                collect(unreadable + 1, ahead - 1, false, found, damaged);
                return false;
            }
            unreadable = ahead;
            step *= 2;  // the distance left is below 2^64, so the loop ends first
        }
        return false;
    }

    // Reads keys from `next` to `last`, moving `next` past each. True when the range was read to
    // its end, false when the keys cannot be read on from `next`.
    bool scan(std::int64_t& next, std::int64_t last, bool lastIsKey, IdSet& found) {
        keys.select(next, last);
        int result = SQLITE_ROW;
        while ((result = keys.step()) == SQLITE_ROW) {
            const std::int64_t key = keys.id();
            if (key < next || key > last) {
                return false;  // keys out of order: the page that holds them is damaged
            }
            found.add(key);
            if (key == last) {
                return true;
            }
            next = key + 1;
        }
        return result == SQLITE_DONE && !lastIsKey;
    }

    Statement keys;
};

// Reads the lowest or highest key of `table`, by `aggregate` "MIN" or "MAX", into `key`, which
// an empty table leaves alone. False when the first or last pages of the table cannot be read.
bool readEdgeKey(sqlite3* database, const std::string& table, const char* aggregate,
                 std::int64_t& key) {
    Statement edge(database, std::string("SELECT ") + aggregate + "(rowid) FROM " + table + ";");
    if (!edge.ready() || edge.step() != SQLITE_ROW) {
        return false;
    }
    if (sqlite3_column_type(edge.get(), 0) == SQLITE_INTEGER) {
        key = edge.id();
    }
    return true;
}

// Reads the rows `first` to `last`, all of which the table lists. When the batch fails, each
// row it has not given yet is looked up on its own.
void readBatch(Statement& rows, std::int64_t first, std::int64_t last,
               const std::function<void(const Row&)>& visit, IdSet& unreadable) {
    std::int64_t next = first;
    rows.select(first, last);
    while (next <= last && rows.step() == SQLITE_ROW && rows.id() == next) {
        visit(Row(rows.get()));
        ++next;
    }
    for (; next <= last; ++next) {
        rows.select(next, next);
        if (rows.step() == SQLITE_ROW && rows.id() == next) {
            visit(Row(rows.get()));
        } else {
            unreadable.add(next);
        }
    }
}

}  // namespace

void IdSet::add(std::int64_t id) {
    if (runs.empty() || beyond(id, runs.back().last)) {
        runs.push_back({id, id});
    } else if (id > runs.back().last) {
        runs.back().last = id;
    }
}

void IdSet::addAll(const IdSet& other) {
    std::vector<Run> all = runs;
    all.insert(all.end(), other.runs.begin(), other.runs.end());
    std::sort(all.begin(), all.end(), [](const Run& a, const Run& b) { return a.first < b.first; });
    runs.clear();
    for (const Run& run : all) {
        if (runs.empty() || beyond(run.first, runs.back().last)) {
            runs.push_back(run);
        } else {
            runs.back().last = std::max(runs.back().last, run.last);
        }
    }
}

std::int64_t IdSet::size() const {
    std::int64_t count = 0;
    for (const Run& run : runs) {
        count += run.last - run.first + 1;
    }
    return count;
}

IdSet IdSet::gapsBetween(std::int64_t first, std::int64_t last) const {
    IdSet gaps;
    if (first > last) {
        return gaps;
    }
    std::int64_t next = first;
    for (const Run& run : runs) {
        if (run.last < next) {
            continue;
        }
        if (run.first > next) {
            gaps.runs.push_back({next, std::min(run.first - 1, last)});
        }
        if (run.last >= last) {
            return gaps;
        }
        next = run.last + 1;
    }
    gaps.runs.push_back({next, last});
    return gaps;
}

std::string IdSet::text(std::size_t maxRuns) const {
    std::string text;
    for (std::size_t i = 0; i < runs.size(); ++i) {
        if (i == maxRuns) {
            return text + ", ...";
        }
        text += (i == 0 ? "" : ", ") + std::to_string(runs[i].first);
        if (runs[i].last != runs[i].first) {
            text += "-" + std::to_string(runs[i].last);
        }
    }
    return text;
}

std::string DatabaseHeader::disagreement() const {
    std::string text;
    // A file longer than its pages is sound: writers grow files ahead of their pages.
    if (pageCount > pagesInFile()) {
        text = "its header counts " + std::to_string(pageCount) + " pages but the file holds " +
               std::to_string(pagesInFile());
    }
    if (fileSize % pageSize != 0) {
        text += (text.empty() ? "" : "; ") + std::string("the file ends inside page ") +
                std::to_string(pagesInFile());
    }
    return text;
}

DatabaseHeader readDatabaseHeader(const fs::path& file) {
    refuseUnusablePath(file);
    std::array<unsigned char, headerSize> bytes{};
    std::ifstream in(file, std::ios::binary);
    in.read(reinterpret_cast<char*>(bytes.data()), bytes.size());
    const auto got = static_cast<std::size_t>(in.gcount());
    if (got < headerSize || std::memcmp(bytes.data(), sqliteMagic, sizeof sqliteMagic) != 0) {
        if (got >= legacyMark.size() &&
            std::equal(legacyMark.begin(), legacyMark.end(), bytes.begin())) {
            throw ToolError(file, "a legacy log file of the older format, which cannot be read");
        }
        throw ToolError(file, "not a log file");
    }
    DatabaseHeader header;
    header.pageSize = bytes[16] << 8 | bytes[17];
    header.pageSize = header.pageSize == 1 ? 65536 : header.pageSize;
    if (header.pageSize < 512 || (header.pageSize & (header.pageSize - 1)) != 0) {
        throw ToolError(file, "not a log file (its database header is damaged)");
    }
    // SQLite trusts the page count only when the header was written by a writer that keeps it.
    const bool countKept = bigEndian32(&bytes[92]) == bigEndian32(&bytes[24]);
    header.pageCount = countKept ? bigEndian32(&bytes[28]) : 0;
    header.fileSize = fs::file_size(file);
    return header;
}

std::optional<std::uint64_t> bytesOfPages(const fs::path& file) {
    sqlite3* database = nullptr;
    const int opened = sqlite3_open_v2(fileUri(file).c_str(), &database,
                                       SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
    sqlite3_stmt* statement = nullptr;
    std::optional<std::uint64_t> bytes;
    if (opened == SQLITE_OK && sqlite3_busy_timeout(database, lockWaitMs) == SQLITE_OK &&
        sqlite3_prepare_v2(database,
                           "SELECT page_count * page_size FROM pragma_page_count(), "
                           "pragma_page_size();",
                           -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW) {
        bytes = static_cast<std::uint64_t>(sqlite3_column_int64(statement, 0));
    }
    sqlite3_finalize(statement);
    sqlite3_close(database);
    return bytes;
}

void copyWithRepairedHeader(const fs::path& damaged, const fs::path& copy) {
    readDatabaseHeader(damaged);
    std::error_code error;
    if (!fs::copy_file(damaged, copy, error)) {
        throw ToolError(copy, "cannot copy " + damaged.string() + " here: " + error.message());
    }
    if (const std::optional<fs::path> journal = unfinishedWrite(damaged)) {
        fs::path copiedJournal = copy;
        copiedJournal += "-journal";
        if (!fs::copy_file(*journal, copiedJournal, error)) {
            throw ToolError(copiedJournal,
                            "cannot copy " + journal->string() + " here: " + error.message());
        }
    }
    // The copy's own size counts: the damaged file may have grown meanwhile. A count within the
    // file stands, and what lies past it, grown ahead of the pages, is cut off.
    const DatabaseHeader header = readDatabaseHeader(copy);
    const std::uint64_t pages = header.pageCount != 0 && header.pageCount <= header.pagesInFile()
                                    ? header.pageCount
                                    : header.pagesInFile();
    fs::resize_file(copy, pages * header.pageSize, error);
    std::fstream out(copy, std::ios::binary | std::ios::in | std::ios::out);
    const char count[4] = {static_cast<char>(pages >> 24), static_cast<char>(pages >> 16),
                           static_cast<char>(pages >> 8), static_cast<char>(pages)};
    if (error || !out.seekp(28) || !out.write(count, sizeof count) || !out.flush()) {
        throw ToolError(copy, "cannot repair the header of the copy");
    }
}

std::int64_t Row::id() const {
    return sqlite3_column_int64(statement, 0);
}

std::optional<std::int64_t> Row::integer(int column) const {
    if (sqlite3_column_type(statement, column + 1) != SQLITE_INTEGER) {
        return std::nullopt;
    }
    return sqlite3_column_int64(statement, column + 1);
}

std::optional<std::string> Row::text(int column) const {
    if (sqlite3_column_type(statement, column + 1) != SQLITE_TEXT) {
        return std::nullopt;
    }
    const auto* characters = sqlite3_column_text(statement, column + 1);
    return std::string(reinterpret_cast<const char*>(characters),
                       static_cast<std::size_t>(sqlite3_column_bytes(statement, column + 1)));
}

std::optional<ByteArray> Row::blob(int column, bool nullAsEmpty) const {
    const int kind = sqlite3_column_type(statement, column + 1);
    if (kind == SQLITE_NULL && nullAsEmpty) {
        return ByteArray();
    }
    if (kind != SQLITE_BLOB) {
        return std::nullopt;
    }
    // The size first: an empty blob has no pointer.
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column + 1));
    const auto* bytes =
        static_cast<const std::uint8_t*>(sqlite3_column_blob(statement, column + 1));
    return size == 0 ? ByteArray() : ByteArray(bytes, bytes + size);
}

std::optional<PropertyValue> Row::value(int column) const {
    switch (sqlite3_column_type(statement, column + 1)) {
    case SQLITE_INTEGER:
        return PropertyValue(std::int64_t{sqlite3_column_int64(statement, column + 1)});
    case SQLITE_FLOAT:
        return PropertyValue(sqlite3_column_double(statement, column + 1));
    case SQLITE_TEXT:
        return PropertyValue(*text(column));
    case SQLITE_BLOB: {
        const ByteArray bytes = *blob(column);
        return PropertyValue(std::string(bytes.begin(), bytes.end()));
    }
    default:
        return std::nullopt;
    }
}

RawLogReader::RawLogReader(const fs::path& file, const fs::path& shownAs, Opening opening) {
    // An immutable file is read without locks and without a look at its journal.
    const std::string name =
        opening == Opening::AsItStands ? fileUri(file) + "?immutable=1" : fileUri(file);
    const int flags = SQLITE_OPEN_URI | (opening == Opening::RollingBack ? SQLITE_OPEN_READWRITE
                                                                         : SQLITE_OPEN_READONLY);
    const int opened = sqlite3_open_v2(name.c_str(), &database, flags, nullptr);
    auto refuse = [this, &shownAs](const std::string& reason) {
        sqlite3_close(database);
        throw ToolError(shownAs, reason);
    };
    if (opened != SQLITE_OK) {
        refuse(database != nullptr ? sqlite3_errmsg(database) : sqlite3_errstr(opened));
    }
    sqlite3_busy_timeout(database, lockWaitMs);
    // With the schema writable, SQLite takes a header that counts pages past the end of the file
    // for what the file holds instead of refusing it, and loads what it can of a damaged
    // schema. The connection stays read-only. Pages are checked as they are read, and the
    // schema of a file from elsewhere is not trusted to run code.
    sqlite3_db_config(database, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_exec(database, "PRAGMA writable_schema = ON; PRAGMA cell_size_check = ON;", nullptr,
                 nullptr, nullptr);

    std::set<std::string> tables;
    sqlite3_stmt* list = nullptr;
    int result = sqlite3_prepare_v2(database, "SELECT name FROM sqlite_master WHERE type='table';",
                                    -1, &list, nullptr);
    while (result == SQLITE_OK && (result = sqlite3_step(list)) == SQLITE_ROW) {
        tables.insert(reinterpret_cast<const char*>(sqlite3_column_text(list, 0)));
        result = SQLITE_OK;
    }
    sqlite3_finalize(list);
    if (result != SQLITE_DONE) {
        refuse(std::string("its list of tables cannot be read: ") + sqlite3_errmsg(database));
    }
    for (const char* table : logTables) {
        if (tables.count(table) == 0) {
            refuse("not a log file");
        }
    }
}

RawLogReader::~RawLogReader() {
    sqlite3_close(database);
}

namespace {

// Runs "PRAGMA `pragma`;" and gives each row to `line` as its columns' texts. A pragma that
// cannot run to its end adds the reason to `problems`.
void pragmaRows(sqlite3* database, const std::string& pragma, std::vector<std::string>& problems,
                const std::function<void(const std::vector<std::string>&)>& line) {
    sqlite3_stmt* statement = nullptr;
    const std::string sql = "PRAGMA " + pragma + ";";
    int result = sqlite3_prepare_v2(database, sql.c_str(), -1, &statement, nullptr);
    while (result == SQLITE_OK && (result = sqlite3_step(statement)) == SQLITE_ROW) {
        std::vector<std::string> columns;
        for (int i = 0; i < sqlite3_column_count(statement); ++i) {
            const auto* text = sqlite3_column_text(statement, i);
            columns.emplace_back(text != nullptr ? reinterpret_cast<const char*>(text) : "");
        }
        line(columns);
        result = SQLITE_OK;
    }
    sqlite3_finalize(statement);
    if (result != SQLITE_DONE) {
        problems.push_back(pragma + " stopped: " + sqlite3_errmsg(database));
    }
}

}  // namespace

std::vector<std::string> RawLogReader::integrityProblems() const {
    std::vector<std::string> problems;
    pragmaRows(database, "integrity_check", problems,
               [&problems](const std::vector<std::string>& columns) {
                   // A row may hold several problems, a line each, under a heading line.
                   std::istringstream lines(columns.at(0));
                   for (std::string line; std::getline(lines, line);) {
                       if (line != "ok" && line.rfind("*** in database ", 0) != 0) {
                           problems.push_back(line);
                       }
                   }
               });
    return problems;
}

std::vector<std::string> RawLogReader::foreignKeyProblems() const {
    std::vector<std::string> problems;
    pragmaRows(database, "foreign_key_check", problems,
               [&problems](const std::vector<std::string>& columns) {
                   problems.push_back(columns.at(0) + " row " + columns.at(1) +
                                      " refers to a missing row of " + columns.at(2));
               });
    return problems;
}

WalkReport RawLogReader::walk(const std::string& table, const std::string& columns,
                              const std::function<void(const Row&)>& visit) const {
    WalkReport report;
    KeyFinder finder(database, table);
    if (!finder.ready()) {
        report.unreadablePages = true;
        return report;
    }
    // A damaged page can list keys far outside the table's: the first and last keys, where
    // they can be read, bound what is believed.
    std::int64_t first = lowestId;
    std::int64_t last = highestId;
    readEdgeKey(database, table, "MIN", first);
    report.endKnown = readEdgeKey(database, table, "MAX", last);
    finder.collect(first, last, last != highestId, report.keys, report.unreadablePages);
    if (report.unreadablePages) {
        // A damaged page may have listed a key that was believed and sent a scan too far:
        // search each gap again, up to the key that ends it.
        const IdSet gaps = report.keys.gapsBetween(first, last);
        IdSet more;
        for (const IdSet::Run& gap : gaps.asRuns()) {
            const bool ended = gap.last < last;
            finder.collect(gap.first, ended ? gap.last + 1 : last, ended || last != highestId, more,
                           report.unreadablePages);
        }
        report.keys.addAll(more);
    }

    Statement rows(database, rangeQuery(table, "rowid, " + columns));
    if (!rows.ready()) {
        report.unreadableRows = report.keys;
        return report;
    }
    for (const IdSet::Run& run : report.keys.asRuns()) {
        for (std::int64_t batch = run.first;; batch += rowsPerBatch) {
            const std::int64_t end =
                run.last - batch < rowsPerBatch ? run.last : batch + rowsPerBatch - 1;
            readBatch(rows, batch, end, visit, report.unreadableRows);
            if (end == run.last) {
                break;
            }
        }
    }
    return report;
}

std::optional<ByteArray> uncompressPayload(const ByteArray& stored) {
    if (stored.empty()) {
        return ByteArray();
    }
    const unsigned long long size = ZSTD_getFrameContentSize(stored.data(), stored.size());
    const unsigned long long bound = ZSTD_decompressBound(stored.data(), stored.size());
    if (size == ZSTD_CONTENTSIZE_ERROR || size == ZSTD_CONTENTSIZE_UNKNOWN ||
        bound == ZSTD_CONTENTSIZE_ERROR || size > bound) {
        return std::nullopt;
    }
    ByteArray bytes(static_cast<std::size_t>(size));
    const std::size_t written =
        ZSTD_decompress(bytes.data(), bytes.size(), stored.data(), stored.size());
    if (ZSTD_isError(written) || written != size) {
        return std::nullopt;
    }
    return bytes;
}

bool looksCompressed(const ByteArray& stored) {
    return stored.size() >= sizeof zstdMagic &&
           std::equal(std::begin(zstdMagic), std::end(zstdMagic), stored.begin());
}

}  // namespace KorvaneLog
