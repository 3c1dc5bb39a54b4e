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

// Waits a little before the next attempt to get a lock that another connection holds: pauses of
// 50 us that double up to 1 ms. False, without waiting, once the wait that began at `since` has
// reached the limit of a minute.
bool pauseForLock(int attempt, std::chrono::steady_clock::time_point since);

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

    // Runs `attempt`, a write that starts no transaction of its own making, and runs it again
    // while it fails with SQLITE_BUSY, up to the wait for a lock that the busy handler makes.
    //
    // The busy handler waits for another connection's lock in every case but one: a connection
    // that holds a read transaction open and asks to write gets SQLITE_BUSY at once while
    // another connection holds the write lock, since waiting there could deadlock. The read is
    // another thread's statement on this connection (the player's, reading entries), which ends
    // by itself: waiting for it is safe. `again` prepares the next attempt.
    template <typename Attempt, typename Again>
    int writeWaitingForLocks(Attempt&& attempt, Again&& again) {
        const auto since = std::chrono::steady_clock::now();
        if (sqlite3_get_autocommit(connection) == 0) {
            return attempt();  // inside a transaction: a retry could repeat part of it
        }
        int code = attempt();
        for (int pause = 0; (code & 0xff) == SQLITE_BUSY && pauseForLock(pause, since); ++pause) {
            again();
            code = attempt();
        }
        return code;
    }
};

}  // namespace Korvane::Database
