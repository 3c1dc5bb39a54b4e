#include "SqliteQuery.h"

#include "SqliteDatabaseImpl.h"

namespace Korvane::Database {

SqliteQuery::SqliteQuery(SqliteDatabase& owner, std::string_view sql) : database(*owner.impl) {
    const int code = database.acquire(sql, statement, cacheSlot);
    if (code != SQLITE_OK) {
        prepareError = code;
        database.recordFailure(code);
    }
}

SqliteQuery::~SqliteQuery() {
    database.release(statement, cacheSlot);
}

namespace {

sqlite3_destructor_type lifetime(SqliteQuery::BindMode mode) {
    return mode == SqliteQuery::BindMode::Copy ? SQLITE_TRANSIENT : SQLITE_STATIC;
}

}  // namespace

int SqliteQuery::parameterIndex(const std::string& name) const {
    return statement == nullptr ? 0 : sqlite3_bind_parameter_index(statement, name.c_str());
}

bool SqliteQuery::bindParameterAt(int index, std::int32_t value) {
    return index != 0 && sqlite3_bind_int(statement, index, value) == SQLITE_OK;
}

bool SqliteQuery::bindParameterAt(int index, std::int64_t value) {
    return index != 0 && sqlite3_bind_int64(statement, index, value) == SQLITE_OK;
}

bool SqliteQuery::bindParameterAt(int index, const ByteArray& value, BindMode mode) {
    if (index == 0) {
        return false;
    }
    // A null pointer would bind NULL, which the NOT NULL payload columns refuse.
    const int code = value.empty() ? sqlite3_bind_zeroblob(statement, index, 0)
                                   : sqlite3_bind_blob64(statement, index, value.data(),
                                                         value.size(), lifetime(mode));
    return code == SQLITE_OK;
}

bool SqliteQuery::bindParameter(const std::string& name, std::int32_t value) {
    return bindParameterAt(parameterIndex(name), value);
}

bool SqliteQuery::bindParameter(const std::string& name, std::int64_t value) {
    return bindParameterAt(parameterIndex(name), value);
}

bool SqliteQuery::bindParameter(const std::string& name, double value) {
    const int index = parameterIndex(name);
    return index != 0 && sqlite3_bind_double(statement, index, value) == SQLITE_OK;
}

bool SqliteQuery::bindParameter(const std::string& name, const std::string& value, BindMode mode) {
    const int index = parameterIndex(name);
    return index != 0 && sqlite3_bind_text64(statement, index, value.data(), value.size(),
                                             lifetime(mode), SQLITE_UTF8) == SQLITE_OK;
}

bool SqliteQuery::bindParameter(const std::string& name, const ByteArray& value, BindMode mode) {
    return bindParameterAt(parameterIndex(name), value, mode);
}

SqliteQuery::QueryResult SqliteQuery::executeStep() {
    if (statement == nullptr) {
        hasRow = false;
        database.recordFailure(prepareError);
        return Error;
    }
    const auto step = [this] { return sqlite3_step(statement); };
    const int code = sqlite3_stmt_readonly(statement) != 0
                         ? step()
                         : database.writeWaitingForLocks(step, [this] { sqlite3_reset(statement); });
    hasRow = code == SQLITE_ROW;
    if (hasRow) {
        return Row;
    }
    if (code == SQLITE_DONE) {
        return Done;
    }
    database.recordFailure(code);
    return Error;
}

std::optional<ColumnValue> SqliteQuery::getValueFromColumn(int column) const {
    if (!hasRow) {
        return std::nullopt;
    }
    switch (sqlite3_column_type(statement, column)) {
    case SQLITE_INTEGER:
        return ColumnValue{std::int64_t{sqlite3_column_int64(statement, column)}};
    case SQLITE_FLOAT:
        return ColumnValue{sqlite3_column_double(statement, column)};
    case SQLITE_TEXT: {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
        const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
        return ColumnValue{std::in_place_type<std::string>, text, size};
    }
    case SQLITE_BLOB: {
        // The size first: the pointer of an empty blob is null.
        const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
        const auto* bytes =
            static_cast<const std::uint8_t*>(sqlite3_column_blob(statement, column));
        return size == 0 ? ColumnValue{ByteArray{}}
                         : ColumnValue{std::in_place_type<ByteArray>, bytes, bytes + size};
    }
    default:
        return std::nullopt;
    }
}

// The typed reads take the column's value once and read it in its own type. That is one call
// under the connection's lock instead of two or three, and it is safe without the lock because a
// value read in its own type is neither converted nor reallocated.
std::optional<std::int64_t> SqliteQuery::getIntegerFromColumn(int column) const {
    if (!hasRow) {
        return std::nullopt;
    }
    sqlite3_value* value = sqlite3_column_value(statement, column);
    if (sqlite3_value_type(value) != SQLITE_INTEGER) {
        return std::nullopt;
    }
    return sqlite3_value_int64(value);
}

std::optional<BlobView> SqliteQuery::getBlobFromColumn(int column) const {
    if (!hasRow) {
        return std::nullopt;
    }
    sqlite3_value* value = sqlite3_column_value(statement, column);
    if (sqlite3_value_type(value) != SQLITE_BLOB) {
        return std::nullopt;
    }
    // The size first: the pointer of an empty blob is null.
    const auto size = static_cast<std::size_t>(sqlite3_value_bytes(value));
    const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_value_blob(value));
    return BlobView{size == 0 ? nullptr : bytes, size};
}

void SqliteQuery::resetQuery() {
    hasRow = false;
    if (statement != nullptr) {
        sqlite3_reset(statement);
    }
}

template <>
std::optional<int> getValueFromColumn<int>(const SqliteQuery& query, int column) {
    const auto value = query.getIntegerFromColumn(column);
    return value ? std::optional<int>(static_cast<int>(*value)) : std::nullopt;
}

template <>
std::optional<std::int64_t> getValueFromColumn<std::int64_t>(const SqliteQuery& query, int column) {
    return query.getIntegerFromColumn(column);
}

template <>
std::optional<std::string> getValueFromColumn<std::string>(const SqliteQuery& query, int column) {
    auto value = query.getValueFromColumn(column);
    if (value && std::holds_alternative<std::string>(*value)) {
        return std::move(std::get<std::string>(*value));
    }
    return std::nullopt;
}

template <>
std::optional<ByteArray> getValueFromColumn<ByteArray>(const SqliteQuery& query, int column) {
    const auto blob = query.getBlobFromColumn(column);
    if (!blob) {
        return std::nullopt;
    }
    return ByteArray(blob->data, blob->data + blob->size);
}

template <>
std::optional<int> requireType<int>(const std::optional<PropertyValue>& value) {
    if (!value) {
        return std::nullopt;
    }
    if (const auto* narrow = std::get_if<std::int32_t>(&*value)) {
        return *narrow;
    }
    if (const auto* wide = std::get_if<std::int64_t>(&*value)) {
        return static_cast<int>(*wide);
    }
    return std::nullopt;
}

}  // namespace Korvane::Database
