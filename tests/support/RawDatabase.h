#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Korvane::Testing {

// A plain SQLite connection for tests that look at a file from outside the library, or build one
// that the library would never write.
class RawDatabase {
public:
    explicit RawDatabase(const std::string& path) {
        if (sqlite3_open(path.c_str(), &connection) != SQLITE_OK) {
            ADD_FAILURE() << "cannot open " << path;
        }
    }
    RawDatabase(const RawDatabase&) = delete;
    RawDatabase& operator=(const RawDatabase&) = delete;
    ~RawDatabase() { sqlite3_close(connection); }

    // Runs statements that must succeed.
    void exec(const std::string& sql) {
        char* message = nullptr;
        if (sqlite3_exec(connection, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
            ADD_FAILURE() << sql << ": " << (message ? message : "?");
        }
        sqlite3_free(message);
    }

    // The rows of a query, each column as text ("NULL" for NULL, "blob:N" for a blob of N bytes).
    std::vector<std::vector<std::string>> rows(const std::string& sql) {
        std::vector<std::vector<std::string>> result;
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(connection, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
            ADD_FAILURE() << sql << ": " << sqlite3_errmsg(connection);
            return result;
        }
        while (sqlite3_step(statement) == SQLITE_ROW) {
            auto& row = result.emplace_back();
            for (int i = 0; i < sqlite3_column_count(statement); ++i) {
                switch (sqlite3_column_type(statement, i)) {
                case SQLITE_NULL:
                    row.emplace_back("NULL");
                    break;
                case SQLITE_BLOB:
                    row.push_back("blob:" + std::to_string(sqlite3_column_bytes(statement, i)));
                    break;
                default:
                    row.emplace_back(
                        reinterpret_cast<const char*>(sqlite3_column_text(statement, i)));
                }
            }
        }
        sqlite3_finalize(statement);
        return result;
    }

    // The one value of a query, as text.
    std::string value(const std::string& sql) {
        const auto result = rows(sql);
        return result.empty() || result[0].empty() ? std::string("<none>") : result[0][0];
    }

    // The bytes of a blob column of the first row.
    std::vector<std::uint8_t> blob(const std::string& sql) {
        std::vector<std::uint8_t> bytes;
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v2(connection, sql.c_str(), -1, &statement, nullptr);
        if (statement && sqlite3_step(statement) == SQLITE_ROW) {
            const auto* data = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement, 0));
            bytes.assign(data, data + sqlite3_column_bytes(statement, 0));
        }
        sqlite3_finalize(statement);
        return bytes;
    }

    sqlite3* handle() const { return connection; }

private:
    sqlite3* connection = nullptr;
};

}  // namespace Korvane::Testing
