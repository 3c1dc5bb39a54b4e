#include "RawSqlite.h"

#include <stdexcept>

#include "sqlite/Statements.h"

namespace Korvane::Bench {

namespace Sql = Logging::Statements;

RawLog::RawLog(const std::string& path, bool create)
    : compressor(ZSTD_createCCtx()), decompressor(ZSTD_createDCtx()) {
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;
    if (sqlite3_open_v2(path.c_str(), &connection, flags, nullptr) != SQLITE_OK) {
        throw std::runtime_error("cannot open " + path);
    }
    exec(Sql::enableForeignKeys);
    if (create) {
        for (const char* statement : Sql::schema) {
            exec(statement);
        }
    }
    exec(Sql::synchronousOff);
    exec(Sql::journalInMemory);
    insert = prepare(Sql::insertData);
    selectOne = prepare(Sql::selectEntry);
}

RawLog::~RawLog() {
    sqlite3_finalize(insert);
    sqlite3_finalize(selectOne);
    sqlite3_close_v2(connection);
    ZSTD_freeCCtx(compressor);
    ZSTD_freeDCtx(decompressor);
}

void RawLog::exec(const char* sql) {
    sqlite3_exec(connection, sql, nullptr, nullptr, nullptr);
}

sqlite3_stmt* RawLog::prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(connection, sql, -1, &statement, nullptr) != SQLITE_OK) {
        throw std::runtime_error(std::string("cannot prepare ") + sql);
    }
    return statement;
}

std::int64_t RawLog::addSource(int type, const std::string& name) {
    sqlite3_stmt* statement = prepare(Sql::insertDataSource);
    sqlite3_bind_int(statement, 1, type);
    sqlite3_bind_text(statement, 2, name.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_step(statement);
    sqlite3_finalize(statement);
    return sqlite3_last_insert_rowid(connection);
}

void RawLog::log(std::int64_t timestamp, std::int32_t type, std::int64_t source,
                 const ByteArray& data, int level) {
    const void* payload = data.data();
    std::size_t size = data.size();
    if (level != 0) {
        buffer.resize(ZSTD_compressBound(data.size()));
        // -1 stands for the codec's default level, as in the library.
        ZSTD_CCtx_setParameter(compressor, ZSTD_c_compressionLevel,
                               level == -1 ? ZSTD_CLEVEL_DEFAULT : level);
        size = ZSTD_compress2(compressor, buffer.data(), buffer.size(), data.data(), data.size());
        payload = buffer.data();
    }
    sqlite3_bind_int64(insert, 1, timestamp);
    sqlite3_bind_int(insert, 2, type);
    sqlite3_bind_int64(insert, 3, source);
    sqlite3_bind_int(insert, 4, static_cast<int>(size));
    sqlite3_bind_blob64(insert, 5, payload, size, SQLITE_STATIC);
    if (sqlite3_step(insert) != SQLITE_DONE) {
        throw std::runtime_error(sqlite3_errmsg(connection));
    }
    sqlite3_reset(insert);
}

ByteArray RawLog::payloadOf(sqlite3_stmt* statement, int column, bool compressed) {
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
    const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement, column));
    if (!compressed) {
        return ByteArray(bytes, bytes + size);
    }
    ByteArray data(ZSTD_getFrameContentSize(bytes, size));
    ZSTD_decompressDCtx(decompressor, data.data(), data.size(), bytes, size);
    return data;
}

std::vector<DataEntry> RawLog::readEntries(bool compressed) {
    // The same two statements as a filtered read over the whole file.
    const std::string selection = std::string(Sql::bareLead) + Sql::rangeCondition;
    sqlite3_stmt* count = prepare((Sql::countHead + selection + " ;").c_str());
    sqlite3_stmt* rows = prepare((Sql::entryHead + selection + Sql::orderForEntries + ";").c_str());
    for (sqlite3_stmt* statement : {count, rows}) {
        sqlite3_bind_int(statement, 1, 1);
        sqlite3_bind_int(statement, 2, 0x7fffffff);
    }
    sqlite3_step(count);
    std::vector<DataEntry> entries;
    entries.reserve(static_cast<std::size_t>(sqlite3_column_int(count, 0)));
    while (sqlite3_step(rows) == SQLITE_ROW) {
        DataEntry& entry = entries.emplace_back();
        entry.entryId = sqlite3_column_int(rows, 0);
        entry.timestamp = sqlite3_column_int64(rows, 1);
        entry.type = sqlite3_column_int(rows, 2);
        entry.dataSourceId = static_cast<std::int8_t>(sqlite3_column_int(rows, 3));
        entry.data = payloadOf(rows, 4, compressed);
    }
    sqlite3_finalize(rows);
    sqlite3_finalize(count);
    return entries;
}

DataEntry RawLog::readEntry(std::int32_t id, bool compressed) {
    DataEntry entry;
    sqlite3_bind_int(selectOne, 1, id);
    if (sqlite3_step(selectOne) == SQLITE_ROW) {
        entry.entryId = id;
        entry.timestamp = sqlite3_column_int64(selectOne, 0);
        entry.type = sqlite3_column_int(selectOne, 1);
        entry.dataSourceId = static_cast<std::int8_t>(sqlite3_column_int(selectOne, 2));
        entry.data = payloadOf(selectOne, 3, compressed);
    }
    sqlite3_reset(selectOne);
    return entry;
}

std::vector<std::int32_t> RawLog::entryIndexOfSource(std::int64_t source) {
    const std::string clause = "WHERE  data.dataSourceId IN (:source0)";
    sqlite3_stmt* count = prepare((Sql::countHead + clause + ";").c_str());
    sqlite3_stmt* rows = prepare((Sql::idHead + clause + Sql::orderForIds).c_str());
    std::vector<std::int32_t> ids;
    sqlite3_bind_int64(count, 1, source);
    sqlite3_bind_int64(rows, 1, source);
    sqlite3_step(count);
    ids.reserve(static_cast<std::size_t>(sqlite3_column_int(count, 0)));
    while (sqlite3_step(rows) == SQLITE_ROW) {
        ids.push_back(sqlite3_column_int(rows, 0));
    }
    sqlite3_finalize(rows);
    sqlite3_finalize(count);
    return ids;
}

}  // namespace Korvane::Bench
