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
        // Like the library's connections, wait for a lock that another one holds for a moment.
        sqlite3_busy_timeout(connection, 60'000);
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

    // The rows of a query, each column as its bytes in text form, or "NULL".
    std::vector<std::vector<std::string>> rows(const std::string& sql) {
        std::vector<std::vector<std::string>> result;
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(connection, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
            ADD_FAILURE() << sql << ": " << sqlite3_errmsg(connection);
        }
        while (statement && sqlite3_step(statement) == SQLITE_ROW) {
            auto& row = result.emplace_back();
            for (int i = 0; i < sqlite3_column_count(statement); ++i) {
                const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement, i));
                row.push_back(bytes ? std::string(bytes, sqlite3_column_bytes(statement, i))
                              : sqlite3_column_type(statement, i) == SQLITE_NULL ? "NULL"
                                                                                 : "");
            }
        }
        sqlite3_finalize(statement);
        return result;
    }

    // The first value of a query, or "<none>".
    std::string value(const std::string& sql) {
        const auto result = rows(sql);
        return result.empty() || result[0].empty() ? std::string("<none>") : result[0][0];
    }
    std::vector<std::uint8_t> blob(const std::string& sql) {
        const std::string bytes = value(sql);
        return {bytes.begin(), bytes.end()};
    }

private:
    sqlite3* connection = nullptr;
};

}  // namespace Korvane::Testing
