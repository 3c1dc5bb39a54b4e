#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "SqliteDatabase.h"

struct sqlite3_stmt;

namespace Korvane::Database {

using ByteArray = std::vector<std::uint8_t>;
// A column value: integer, real, text or blob. NULL has no value.
using ColumnValue = std::variant<std::int64_t, double, std::string, ByteArray>;
// The value of a metadata entry or a property, as the log files keep it.
using PropertyValue = std::variant<std::int32_t, std::int64_t, double, std::string>;

// A read-only view of a blob column, valid until the query steps, resets or is destroyed.
struct BlobView {
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
};

// One compiled statement: bind parameters by name, step, read columns.
//
// The statement is reset the moment the query is destroyed, so no read transaction outlives it.
class SqliteQuery {
public:
    enum QueryResult : int {
        Row = 0,
        Done = 1,
        Error = 2,
    };

    // `Copy` lets the statement keep its own copy; with `NoCopy` the caller keeps text and bytes
    // alive until the statement has been stepped.
    enum class BindMode : int {
        Copy = 0,
        NoCopy = 1,
    };

    // Compiles `sql`, or takes an idle compiled copy from the connection's cache. Throws
    // `FileIsNotDatabase`. A statement that does not compile makes a query whose binds and reads
    // have no effect and whose every step gives `Error` with the compiler's result code.
    SqliteQuery(SqliteDatabase& database, std::string_view sql);
    SqliteQuery(const SqliteQuery&) = delete;
    SqliteQuery& operator=(const SqliteQuery&) = delete;
    ~SqliteQuery();

    // Binds the parameter `name` (colon included). False when the statement has no such
    // parameter, which does no harm.
    bool bindParameter(const std::string& name, std::int32_t value);
    bool bindParameter(const std::string& name, std::int64_t value);
    bool bindParameter(const std::string& name, double value);
    bool bindParameter(const std::string& name, const std::string& value, BindMode mode);
    // An empty array binds as an empty blob, never as NULL.
    bool bindParameter(const std::string& name, const ByteArray& value, BindMode mode);

    // The position of the parameter `name` (colon included), from 1; 0 when the statement has no
    // such parameter. A statement that is bound many times looks its names up once.
    int parameterIndex(const std::string& name) const;
    // Bind by position, as `parameterIndex` gives it; position 0 binds nothing and gives false.
    bool bindParameterAt(int index, std::int32_t value);
    bool bindParameterAt(int index, std::int64_t value);
    bool bindParameterAt(int index, const ByteArray& value, BindMode mode);

    // Steps the statement: `Row`, `Done`, or `Error` (the code is then in `getLastErrorCode`).
    // Throws `FileIsNotDatabase`.
    QueryResult executeStep();

    // The value of `column` (from 0) of the current row; empty for NULL and when no row is current.
    std::optional<ColumnValue> getValueFromColumn(int column) const;
    // An integer column without the variant; empty when it holds no integer.
    std::optional<std::int64_t> getIntegerFromColumn(int column) const;
    // A blob column without a copy; empty when no row is current or the column holds no blob.
    std::optional<BlobView> getBlobFromColumn(int column) const;

    // Makes the statement ready to be bound and stepped again; bindings are kept.
    void resetQuery();

private:
    SqliteDatabase::Impl& database;
    sqlite3_stmt* statement = nullptr;
    int cacheSlot = -1;
    int prepareError = 0;
    bool hasRow = false;
};

// Typed read of a column: the value when the column holds that kind, else empty.
template <typename T>
std::optional<T> getValueFromColumn(const SqliteQuery& query, int column);
template <>
std::optional<int> getValueFromColumn<int>(const SqliteQuery& query, int column);
template <>
std::optional<std::int64_t> getValueFromColumn<std::int64_t>(const SqliteQuery& query, int column);
template <>
std::optional<std::string> getValueFromColumn<std::string>(const SqliteQuery& query, int column);
template <>
std::optional<ByteArray> getValueFromColumn<ByteArray>(const SqliteQuery& query, int column);

// Reduces an optional property value to a whole number: empty stays empty, an integer gives its
// number (the 64-bit alternative cut to the target width), anything else gives empty.
template <typename T>
std::optional<T> requireType(const std::optional<PropertyValue>& value);
template <>
std::optional<int> requireType<int>(const std::optional<PropertyValue>& value);

// Binds a property value to the parameter `name` by the alternative that it holds.
struct BindParameterVisitor {
    SqliteQuery& query;
    const std::string& name;
    SqliteQuery::BindMode mode = SqliteQuery::BindMode::NoCopy;

    bool operator()(std::int32_t value) const { return query.bindParameter(name, value); }
    bool operator()(std::int64_t value) const { return query.bindParameter(name, value); }
    bool operator()(double value) const { return query.bindParameter(name, value); }
    bool operator()(const std::string& value) const {
        return query.bindParameter(name, value, mode);
    }
};

// Turns a column value into a property value. A blob, which an untyped value column may hold in
// a file from elsewhere, becomes a string of the same bytes.
struct ReturnPropertyValueVisitor {
    PropertyValue operator()(std::int64_t value) const { return value; }
    PropertyValue operator()(double value) const { return value; }
    PropertyValue operator()(std::string&& value) const { return std::move(value); }
    PropertyValue operator()(const std::string& value) const { return value; }
    PropertyValue operator()(const ByteArray& value) const {
        return std::string(value.begin(), value.end());
    }
};

}  // namespace Korvane::Database
