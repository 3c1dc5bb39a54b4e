#include "SqliteDatabase.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "GrowAheadVfs.h"
#include "SqliteDatabaseImpl.h"

namespace Korvane::Database {

namespace {

// The latest failure of this thread, and the connection that it happened on. The connection is
// shared between threads during playback, and each must see the code of its own call.
struct ThreadFailure {
    std::uint64_t connection = 0;
    int code = 0;
};
thread_local ThreadFailure lastFailure;

std::runtime_error openError(const std::string& path, const std::string& reason) {
    return std::runtime_error("Cannot open database '" + path + "': " + reason);
}

// Refuses to run code that a file from elsewhere could carry: triggers, views and extensions,
// and keeps the schema from being written directly. Log files use none of these.
void harden(sqlite3* connection, const std::string& path) {
    struct Setting {
        int option;
        int value;
    };
    constexpr Setting settings[] = {
        {SQLITE_DBCONFIG_ENABLE_TRIGGER, 0},
        {SQLITE_DBCONFIG_ENABLE_VIEW, 0},
        {SQLITE_DBCONFIG_DEFENSIVE, 1},
        {SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0},
        {SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0},
    };
    for (const Setting& setting : settings) {
        int applied = -1;
        if (sqlite3_db_config(connection, setting.option, setting.value, &applied) != SQLITE_OK ||
            applied != setting.value) {
            throw openError(path, "the connection cannot be restricted to plain tables");
        }
    }
    // Damaged pages are then refused as corrupt instead of being read past their cells; this
    // costs 1 to 4 % of the instructions of a read.
    if (sqlite3_exec(connection, "PRAGMA cell_size_check = ON;", nullptr, nullptr, nullptr) !=
        SQLITE_OK) {
        throw openError(path, "pages cannot be checked as they are read");
    }
}

// How long a connection waits for a lock that another connection or process holds before its
// statement fails with SQLITE_BUSY. A reader holds the file for one statement and a writer for
// one commit, so a wait normally lasts microseconds to milliseconds; a read of a whole large file
// in one statement can hold it for seconds. The bound is far above any of these, so that no
// write is given up because somebody is reading, and still ends a wait behind a process that
// keeps a transaction open for good, which then shows as a failure instead of a hang.
constexpr std::chrono::seconds lockWaitLimit{60};

// SQLite's busy handler: waits a little and asks to try again, until `lockWaitLimit`.
int waitForLock(void* context, int attempt) {
    auto& waitingSince = *static_cast<std::chrono::steady_clock::time_point*>(context);
    if (attempt == 0) {
        waitingSince = std::chrono::steady_clock::now();
    }
    return pauseForLock(attempt, waitingSince) ? 1 : 0;
}

}  // namespace

// The pauses start short, since most locks are released within microseconds, and stay at a
// millisecond, so that a waiting writer starts within a millisecond of the lock's release.
bool pauseForLock(int attempt, std::chrono::steady_clock::time_point since) {
    if (std::chrono::steady_clock::now() - since >= lockWaitLimit) {
        return false;
    }
    const auto pause = std::chrono::microseconds(50 << std::min(attempt, 4));
    std::this_thread::sleep_for(
        std::min<std::chrono::microseconds>(pause, std::chrono::milliseconds(1)));
    return true;
}

std::string resultCodeText(std::int32_t code) {
    return sqlite3_errstr(code);
}

FileIsNotDatabase::FileIsNotDatabase() : std::runtime_error("File is not a database.") {}

SqliteDatabase::Impl::~Impl() {
    for (Slot& slot : cache) {
        sqlite3_finalize(slot.statement);
    }
    sqlite3_close_v2(connection);
}

int SqliteDatabase::Impl::acquire(std::string_view sql, sqlite3_stmt*& statement, int& slot) {
    {
        std::lock_guard<std::mutex> lock(cacheMutex);
        for (std::size_t i = 0; i < cache.size(); ++i) {
            Slot& candidate = cache[i];
            if (!candidate.inUse && candidate.sql == sql) {
                candidate.inUse = true;
                candidate.lastUse = ++useCounter;
                statement = candidate.statement;
                slot = static_cast<int>(i);
                return SQLITE_OK;
            }
        }
    }

    // Compile outside the cache lock: the connection has its own.
    sqlite3_stmt* compiled = nullptr;
    const int code = sqlite3_prepare_v3(connection, sql.data(), static_cast<int>(sql.size()),
                                        SQLITE_PREPARE_PERSISTENT, &compiled, nullptr);
    if (code != SQLITE_OK) {
        sqlite3_finalize(compiled);
        statement = nullptr;
        slot = -1;
        return code;
    }
    statement = compiled;
    slot = -1;

    std::lock_guard<std::mutex> lock(cacheMutex);
    if (cache.size() < cacheCapacity) {
        cache.push_back(Slot{std::string(sql), compiled, ++useCounter, true});
        slot = static_cast<int>(cache.size() - 1);
        return SQLITE_OK;
    }
    // Full: give the least recently used idle slot to the new statement. When every slot is in
    // use, the statement stays uncached and is finalised on release.
    auto victim = cache.end();
    for (auto it = cache.begin(); it != cache.end(); ++it) {
        if (!it->inUse && (victim == cache.end() || it->lastUse < victim->lastUse)) {
            victim = it;
        }
    }
    if (victim != cache.end()) {
        sqlite3_finalize(victim->statement);
        victim->sql = sql;
        victim->statement = compiled;
        victim->lastUse = ++useCounter;
        victim->inUse = true;
        slot = static_cast<int>(victim - cache.begin());
    }
    return SQLITE_OK;
}

void SqliteDatabase::Impl::release(sqlite3_stmt* statement, int slot) noexcept {
    if (statement == nullptr) {
        return;
    }
    // Reset at once: a stepped statement holds a read transaction open, and autocommit writes
    // made meanwhile on this connection would not be committed until it is reset.
    sqlite3_reset(statement);
    if (slot < 0) {
        sqlite3_finalize(statement);
        return;
    }
    sqlite3_clear_bindings(statement);
    std::lock_guard<std::mutex> lock(cacheMutex);
    cache[static_cast<std::size_t>(slot)].inUse = false;
}

void SqliteDatabase::Impl::recordFailure(int code) const {
    lastFailure = ThreadFailure{serial, code};
    if ((code & 0xff) == SQLITE_NOTADB) {
        throw FileIsNotDatabase();
    }
}

SqliteDatabase::SqliteDatabase(const std::string& path, OpenMode mode) : impl(new Impl) {
    const int flags = static_cast<int>(mode) | SQLITE_OPEN_FULLMUTEX;
    // Files opened for writing grow ahead of their pages, so that a process killed in the
    // middle of a commit leaves a file that opens.
    const char* vfs = mode == OpenMode::ReadOnly ? nullptr : growAheadVfsName();
    const int code = sqlite3_open_v2(path.c_str(), &impl->connection, flags, vfs);
    if (code != SQLITE_OK) {
        const std::string reason =
            impl->connection != nullptr ? sqlite3_errmsg(impl->connection) : sqlite3_errstr(code);
        throw openError(path, reason);
    }
    sqlite3_extended_result_codes(impl->connection, 1);
    sqlite3_busy_handler(impl->connection, waitForLock, &impl->waitingForLockSince);
    harden(impl->connection, path);
}

SqliteDatabase::SqliteDatabase(SqliteDatabase&& other) noexcept = default;
SqliteDatabase& SqliteDatabase::operator=(SqliteDatabase&& other) noexcept = default;
SqliteDatabase::~SqliteDatabase() = default;

bool SqliteDatabase::executeSimpleQuery(const std::string& sql) {
    const auto run = [&] {
        return sqlite3_exec(impl->connection, sql.c_str(), nullptr, nullptr, nullptr);
    };
    const int code = impl->writeWaitingForLocks(run, [] {});
    if (code != SQLITE_OK) {
        impl->recordFailure(code);
        return false;
    }
    return true;
}

std::int64_t SqliteDatabase::getLastInsertedRowId() const {
    return sqlite3_last_insert_rowid(impl->connection);
}

std::int32_t SqliteDatabase::getLastErrorCode() const {
    return lastFailure.connection == impl->serial ? lastFailure.code : 0;
}

}  // namespace Korvane::Database
