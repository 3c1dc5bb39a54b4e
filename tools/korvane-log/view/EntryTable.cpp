#include "EntryTable.h"

#include <sqlite3.h>

#include <exception>
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

// Rows are handed over from inside the statement, by a function of the connection that the
// statement calls for each row: a third faster than stepping through result rows, which matters
// when a file of millions of entries is counted.
constexpr const char* visitFunction = "korvaneVisitRow";
constexpr const char* windowSql =
    "SELECT count(*) FROM data WHERE entryId BETWEEN ?1 AND ?2 "
    "AND korvaneVisitRow(entryId, timestamp, dataSourceId, length);";

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

}  // namespace

// What the row function passes each row to, for the statement being stepped.
struct EntryTable::Visit {
    const std::function<bool(const EntryRow&)>* visit = nullptr;
    bool stopped = false;
    std::exception_ptr failure;

    static void row(sqlite3_context* context, int, sqlite3_value** values) {
        auto* self = static_cast<Visit*>(sqlite3_user_data(context));
        sqlite3_result_int(context, 0);
        const std::int64_t id = sqlite3_value_int64(values[0]);
        if (self->stopped || self->visit == nullptr || !usableId(id)) {
            return;
        }
        EntryRow row;
        row.id = static_cast<std::int32_t>(id);
        row.timestamp = sqlite3_value_int64(values[1]);
        row.source = static_cast<std::int8_t>(sqlite3_value_int64(values[2]));
        const std::int64_t length = sqlite3_value_int64(values[3]);
        row.storedBytes = length > 0 ? static_cast<std::uint64_t>(length) : 0;
        // No exception may pass through SQLite's frames: it is kept and thrown after the step.
        try {
            self->stopped = !(*self->visit)(row);
        } catch (...) {
            self->failure = std::current_exception();
            self->stopped = true;
        }
    }
};

namespace {

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
    visiting = std::make_unique<Visit>();
    // DIRECTONLY: the schema of a file can never call it.
    sqlite3_create_function(database, visitFunction, 4, SQLITE_UTF8 | SQLITE_DIRECTONLY,
                            visiting.get(), &Visit::row, nullptr, nullptr);
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
    visiting->visit = &visit;
    visiting->stopped = false;
    visiting->failure = nullptr;
    for (std::int64_t from = first; from <= last && !visiting->stopped;) {
        const std::int64_t to = last - from < ids ? last : from + ids - 1;
        sqlite3_bind_int64(window, 1, from);
        sqlite3_bind_int64(window, 2, to);
        const int result = sqlite3_step(window);
        const std::string reason = result != SQLITE_ROW ? sqlite3_errmsg(database) : "";
        // The reset ends the statement's hold on the file before the next window.
        sqlite3_reset(window);
        if (visiting->failure) {
            visiting->visit = nullptr;
            std::rethrow_exception(visiting->failure);
        }
        if (result != SQLITE_ROW) {
            visiting->visit = nullptr;
            throw std::runtime_error("cannot read the entries: " + reason);
        }
        if (to == last) {
            break;
        }
        from = to + 1;
    }
    visiting->visit = nullptr;
}

std::vector<EntryRow> EntryTable::rowsOf(std::int8_t source, std::int64_t first,
                                         std::int64_t last) {
    Query query(database,
                "SELECT entryId, timestamp, dataSourceId, type, length FROM data "
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
