#pragma once

#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "SqliteDatabase.h"

namespace Korvane::Database {

// The connection and its cache of compiled statements. Shared by `SqliteDatabase` and
// `SqliteQuery`; not part of the component's interface.
struct SqliteDatabase::Impl {
    // A compiled statement kept for reuse. A slot in use belongs to exactly one live query.
    struct Slot {
        std::string sql;
        sqlite3_stmt* statement = nullptr;
        std::uint64_t lastUse = 0;
        bool inUse = false;
    };

    static constexpr std::size_t cacheCapacity = 48;
    static inline std::atomic<std::uint64_t> nextSerial{1};

    sqlite3* connection = nullptr;
    // Tells this connection apart from every other, also from one later opened at this address.
    const std::uint64_t serial = nextSerial++;
    std::mutex cacheMutex;
    std::vector<Slot> cache;
    std::uint64_t useCounter = 0;
    // When the current wait for another connection's lock began; used under the connection's
    // own mutex, by the busy handler alone.
    std::chrono::steady_clock::time_point waitingForLockSince;

    ~Impl();

    // Hands out a statement for `sql` and the slot that it came from (-1 when it is not cached).
    // Returns the compiler's result code; on failure the statement is null.
    int acquire(std::string_view sql, sqlite3_stmt*& statement, int& slot);
    // Takes a statement back: resets it, clears its bindings and returns it to its slot.
    void release(sqlite3_stmt* statement, int slot) noexcept;

    // Remembers `code` as this thread's latest failure on this connection, and raises
    // `FileIsNotDatabase` when the code says the file is no database.
    void recordFailure(int code) const;
};

}  // namespace Korvane::Database
