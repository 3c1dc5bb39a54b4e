#include "EntryTable.h"

#include <sqlite3.h>

#include <limits>
#include <stdexcept>

namespace KorvaneLog::View {

namespace {

// A statement that is finalized at its end and reset before it is used again.
class Query {
public:
    Query(sqlite3* database, const char* sql) {
        if (sqlite3_prepare_v2(database, sql, -1, &statement, nullptr) != SQLITE_OK) {
            const std::string reason = sqlite3_errmsg(database);
            sqlite3_finalize(statement);
            throw std::runtime_error("cannot read the entries: " + reason);
        }
    }
    ~Query() { sqlite3_finalize(statement); }
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    sqlite3_stmt* get() const { return statement; }
    bool step() { return sqlite3_step(statement) == SQLITE_ROW; }
    std::int64_t integer(int column) const { return sqlite3_column_int64(statement, column); }

private:
    sqlite3_stmt* statement = nullptr;
};

constexpr const char* windowSql =
    "SELECT entryId, timestamp, dataSourceId, type, length FROM data "
    "WHERE entryId BETWEEN ?1 AND ?2 ORDER BY entryId;";

// Ids outside the range of the library's entry ids cannot be asked for by id: such rows of a
// file from elsewhere are left out, as the library leaves them out.
bool usableId(std::int64_t id) {
    return id >= 0 && id <= std::numeric_limits<std::int32_t>::max();
}

EntryRow rowOf(sqlite3_stmt* statement) {
    EntryRow row;
    row.id = static_cast<std::int32_t>(sqlite3_column_int64(statement, 0));
    row.timestamp = sqlite3_column_int64(statement, 1);
    row.source = static_cast<std::int8_t>(sqlite3_column_int64(statement, 2));
    row.type = static_cast<std::int32_t>(sqlite3_column_int64(statement, 3));
    const std::int64_t length = sqlite3_column_int64(statement, 4);
    row.storedBytes = length > 0 ? static_cast<std::uint64_t>(length) : 0;
    return row;
}

// The 64-bit FNV-1a hash, folded over the columns of a row.
void fold(std::uint64_t& hash, const void* bytes, int size) {
    const auto* byte = static_cast<const unsigned char*>(bytes);
    for (int i = 0; i < size; ++i) {
        hash = (hash ^ byte[i]) * 1099511628211ULL;
    }
}

}  // namespace

EntryTable::EntryTable(const std::filesystem::path& file) {
    const int opened = sqlite3_open_v2(file.c_str(), &database, SQLITE_OPEN_READONLY, nullptr);
    if (opened != SQLITE_OK) {
        const std::string reason =
            database != nullptr ? sqlite3_errmsg(database) : sqlite3_errstr(opened);
        sqlite3_close(database);
        throw std::runtime_error(reason);
    }
    // A recorder's commit holds the file for a moment: wait for it, as the library does. The
    // schema of a file from elsewhere runs no code here.
    sqlite3_busy_timeout(database, 60'000);
    sqlite3_db_config(database, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(database, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    sqlite3_db_config(database, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
    sqlite3_exec(database, "PRAGMA cell_size_check = ON;", nullptr, nullptr, nullptr);
    if (sqlite3_prepare_v2(database, windowSql, -1, &window, nullptr) != SQLITE_OK) {
        const std::string reason = sqlite3_errmsg(database);
        sqlite3_finalize(window);
        sqlite3_close(database);
        throw std::runtime_error("cannot read the entries: " + reason);
    }
}

EntryTable::~EntryTable() {
    sqlite3_finalize(window);
    sqlite3_close(database);
}

std::int64_t EntryTable::firstId() {
    Query query(database, "SELECT MIN(entryId) FROM data;");
    return query.step() ? query.integer(0) : 0;
}

std::int64_t EntryTable::lastId() {
    Query query(database, "SELECT MAX(entryId) FROM data;");
    return query.step() ? query.integer(0) : 0;
}

void EntryTable::scan(std::int64_t first, std::int64_t last,
                      const std::function<bool(const EntryRow&)>& visit, std::int64_t ids) {
    for (std::int64_t from = first; from <= last;) {
        const std::int64_t to = last - from < ids ? last : from + ids - 1;
        sqlite3_reset(window);
        sqlite3_bind_int64(window, 1, from);
        sqlite3_bind_int64(window, 2, to);
        while (sqlite3_step(window) == SQLITE_ROW) {
            if (usableId(sqlite3_column_int64(window, 0)) && !visit(rowOf(window))) {
                sqlite3_reset(window);
                return;
            }
        }
        // The reset ends the statement's hold on the file before the next window.
        sqlite3_reset(window);
        if (to == last) {
            break;
        }
        from = to + 1;
    }
}

std::vector<EntryRow> EntryTable::rowsOf(std::int8_t source, std::int64_t first,
                                         std::int64_t last) {
    Query query(database,
                "SELECT entryId, timestamp, dataSourceId, type, length FROM data "
                "INDEXED BY dataDataSourceIndex "
                "WHERE dataSourceId = ?1 AND entryId BETWEEN ?2 AND ?3 ORDER BY entryId;");
    sqlite3_bind_int64(query.get(), 1, source);
    sqlite3_bind_int64(query.get(), 2, first);
    sqlite3_bind_int64(query.get(), 3, last);
    std::vector<EntryRow> rows;
    while (query.step()) {
        if (usableId(query.integer(0))) {
            rows.push_back(rowOf(query.get()));
        }
    }
    return rows;
}

std::int64_t EntryTable::timestampOf(std::int64_t id, bool& found) {
    Query query(database, "SELECT timestamp FROM data WHERE entryId = ?1;");
    sqlite3_bind_int64(query.get(), 1, id);
    found = query.step();
    return found ? query.integer(0) : -1;
}

std::uint64_t EntryTable::annotationsFingerprint() {
    // Each table is small; a bookmark's title can change in place, so its rows are hashed.
    Query query(database,
                "SELECT 's', count(*), 0, 0 FROM dataSources "
                "UNION ALL SELECT 'p', count(*), 0, 0 FROM dataSourceProperties "
                "UNION ALL SELECT 'm', count(*), 0, 0 FROM metadata "
                "UNION ALL SELECT 'r', count(*), total(length(payload)), 0 FROM resources "
                "UNION ALL SELECT 'b', entryId, title, comments FROM bookmarks;");
    std::uint64_t hash = 14695981039346656037ULL;
    while (query.step()) {
        for (int column = 0; column < 4; ++column) {
            const auto* text = sqlite3_column_blob(query.get(), column);
            const int size = sqlite3_column_bytes(query.get(), column);
            fold(hash, text, size);
            fold(hash, "\x1f", 1);
        }
    }
    return hash;
}

}  // namespace KorvaneLog::View
