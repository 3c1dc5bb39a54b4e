#include "GrowAheadVfs.h"

#include <sqlite3.h>

#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <limits>
#include <mutex>
#include <thread>

namespace Korvane::Database {

namespace {

constexpr const char* vfsName = "korvane-grow-ahead";
// The step by which a file grows. A commit then rarely needs to extend the file, and the file is
// never more than this much longer than its pages.
constexpr sqlite3_int64 growthStep = 1 << 20;
// How long a closing connection tries to get the file alone to cut the room it grew ahead.
constexpr int closingAttempts = 20;
constexpr int closingPauseMicroseconds = 500;

sqlite3_vfs* base = nullptr;

// A file of ours: our methods in front, the base layer's file behind.
struct GrowingFile {
    sqlite3_file file;
    sqlite3_file* real;
    // The size that this process may write to (RLIMIT_FSIZE, read when the file is opened). A
    // write past it would raise SIGXFSZ, which kills a process that does not ignore it; such a
    // write fails with SQLITE_FULL instead, and the file stays as it was.
    sqlite3_int64 sizeLimit;
    // Only a main database file grows ahead of its pages; journals and the like are written as
    // the base layer writes them.
    bool growsAhead;
    // Set once this connection has extended the file.
    bool grew;
};

GrowingFile& ours(sqlite3_file* file) {
    return *reinterpret_cast<GrowingFile*>(file);
}

sqlite3_file* realOf(sqlite3_file* file) {
    return ours(file).real;
}

sqlite3_int64 processSizeLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY ||
        limit.rlim_cur > static_cast<rlim_t>(std::numeric_limits<sqlite3_int64>::max())) {
        return std::numeric_limits<sqlite3_int64>::max();
    }
    return static_cast<sqlite3_int64>(limit.rlim_cur);
}

// Extends the file, without writing, to cover `hint` bytes rounded up to a whole step, but never
// past the size limit. A failure changes nothing: the pages are then appended as they would be
// without this layer.
void growAhead(GrowingFile& file, sqlite3_int64 hint) {
    sqlite3_file* real = file.real;
    sqlite3_int64 size = 0;
    if (hint > file.sizeLimit || real->pMethods->xFileSize(real, &size) != SQLITE_OK ||
        size >= hint) {
        return;
    }
    const sqlite3_int64 step = (hint + growthStep - 1) / growthStep * growthStep;
    if (real->pMethods->xTruncate(real, std::min(step, file.sizeLimit)) == SQLITE_OK) {
        file.grew = true;
    }
}

std::uint32_t bigEndian(const unsigned char* bytes, int count) {
    std::uint32_t value = 0;
    for (int i = 0; i < count; ++i) {
        value = value << 8 | bytes[i];
    }
    return value;
}

// The size of the pages that the header of a rollback-journal database counts, or 0 when its
// count cannot be trusted: SQLite then takes the size of the file instead, as it does for a file
// in WAL mode, and no room may be cut.
sqlite3_int64 pagesSize(sqlite3_file* real) {
    unsigned char header[100];
    if (real->pMethods->xRead(real, header, sizeof header, 0) != SQLITE_OK) {
        return 0;
    }
    const std::uint32_t pageSize = bigEndian(header + 16, 2) == 1 ? 65536 : bigEndian(header + 16, 2);
    const bool wal = header[18] == 2 || header[19] == 2;
    const bool countValid = bigEndian(header + 24, 4) == bigEndian(header + 92, 4);
    if (wal || !countValid || pageSize < 512 || (pageSize & (pageSize - 1)) != 0) {
        return 0;
    }
    return sqlite3_int64{pageSize} * bigEndian(header + 28, 4);
}

// Cuts the room that this connection grew ahead, so that a file closed cleanly is exactly its
// pages. Only while no other connection uses the file: one that is writing may have pages in the
// room, and one that reads must not see the file change under it. When the file cannot be had
// alone within a few milliseconds, the room stays, as after a kill, and the connection that
// closes last cuts it.
void cutRoomGrownAhead(sqlite3_file* real) {
    const sqlite3_io_methods& io = *real->pMethods;
    for (int attempt = 0; attempt < closingAttempts; ++attempt) {
        if (io.xLock(real, SQLITE_LOCK_SHARED) == SQLITE_OK &&
            io.xLock(real, SQLITE_LOCK_EXCLUSIVE) == SQLITE_OK) {
            sqlite3_int64 size = 0;
            const sqlite3_int64 pages = pagesSize(real);
            if (pages > 0 && io.xFileSize(real, &size) == SQLITE_OK && size > pages) {
                io.xTruncate(real, pages);
            }
            io.xUnlock(real, SQLITE_LOCK_NONE);
            return;
        }
        io.xUnlock(real, SQLITE_LOCK_NONE);
        std::this_thread::sleep_for(std::chrono::microseconds(closingPauseMicroseconds));
    }
}

int close(sqlite3_file* file) {
    sqlite3_file* real = realOf(file);
    if (ours(file).grew) {
        cutRoomGrownAhead(real);
    }
    return real->pMethods->xClose(real);
}

int write(sqlite3_file* file, const void* data, int amount, sqlite3_int64 offset) {
    if (offset + amount > ours(file).sizeLimit) {
        return SQLITE_FULL;
    }
    sqlite3_file* real = realOf(file);
    return real->pMethods->xWrite(real, data, amount, offset);
}

int truncate(sqlite3_file* file, sqlite3_int64 size) {
    if (size > ours(file).sizeLimit) {
        return SQLITE_FULL;
    }
    sqlite3_file* real = realOf(file);
    return real->pMethods->xTruncate(real, size);
}

int fileControl(sqlite3_file* file, int op, void* argument) {
    sqlite3_file* real = realOf(file);
    const int code = real->pMethods->xFileControl(real, op, argument);
    if (op == SQLITE_FCNTL_SIZE_HINT && ours(file).growsAhead) {
        growAhead(ours(file), *static_cast<sqlite3_int64*>(argument));
        return SQLITE_OK;
    }
    return code;
}

// Calls the base layer's method on the file behind ours.
template <auto method, typename Result, typename... Args>
Result toReal(sqlite3_file* file, Args... args) {
    sqlite3_file* real = realOf(file);
    return (real->pMethods->*method)(real, args...);
}

// The methods that do not grow, bound or cut the file pass straight to the base layer's file.
using Io = sqlite3_io_methods;
const Io growingMethods = {
    3,
    close,
    toReal<&Io::xRead>,
    write,
    truncate,
    toReal<&Io::xSync>,
    toReal<&Io::xFileSize>,
    toReal<&Io::xLock>,
    toReal<&Io::xUnlock>,
    toReal<&Io::xCheckReservedLock>,
    fileControl,
    toReal<&Io::xSectorSize>,
    toReal<&Io::xDeviceCharacteristics>,
    toReal<&Io::xShmMap>,
    toReal<&Io::xShmLock>,
    toReal<&Io::xShmBarrier>,
    toReal<&Io::xShmUnmap>,
    toReal<&Io::xFetch>,
    toReal<&Io::xUnfetch>,
};

// The growing methods at the version of the base layer's file, so that SQLite calls no method
// that the file behind them lacks.
const sqlite3_io_methods* growingMethodsFor(const sqlite3_io_methods* real) {
    static const std::array<sqlite3_io_methods, 3> versions = [] {
        std::array<sqlite3_io_methods, 3> table{growingMethods, growingMethods, growingMethods};
        table[0].iVersion = 1;
        table[1].iVersion = 2;
        return table;
    }();
    return &versions[static_cast<std::size_t>(std::clamp(real->iVersion, 1, 3) - 1)];
}

// Every file is opened behind our methods, which keep writes within the size limit; main
// database files also grow ahead of their pages.
int open(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* outFlags) {
    auto* growing = reinterpret_cast<GrowingFile*>(file);
    growing->real = reinterpret_cast<sqlite3_file*>(growing + 1);
    growing->sizeLimit = processSizeLimit();
    growing->growsAhead = (flags & SQLITE_OPEN_MAIN_DB) != 0;
    growing->grew = false;
    const int code = base->xOpen(base, name, growing->real, flags, outFlags);
    // The base layer leaves its methods null when the open failed; so must we, so that SQLite
    // does not close what was never opened.
    const sqlite3_io_methods* realMethods = growing->real->pMethods;
    growing->file.pMethods = realMethods != nullptr ? growingMethodsFor(realMethods) : nullptr;
    return code;
}

sqlite3_vfs growAheadVfs;

// Calls the base layer's own method with its own object.
template <auto method, typename Result, typename... Args>
Result toBase(sqlite3_vfs*, Args... args) {
    return (base->*method)(base, args...);
}

void registerVfs() {
    base = sqlite3_vfs_find(nullptr);
    if (base == nullptr || base->iVersion < 2 || base->szOsFile < 0) {
        return;
    }
    growAheadVfs = *base;
    growAheadVfs.zName = vfsName;
    growAheadVfs.szOsFile = static_cast<int>(sizeof(GrowingFile)) + base->szOsFile;
    growAheadVfs.pNext = nullptr;
    growAheadVfs.xOpen = open;
    // The base layer's other methods are reached with its own object, whatever they keep in it.
    growAheadVfs.xDelete = toBase<&sqlite3_vfs::xDelete>;
    growAheadVfs.xAccess = toBase<&sqlite3_vfs::xAccess>;
    growAheadVfs.xFullPathname = toBase<&sqlite3_vfs::xFullPathname>;
    growAheadVfs.xDlOpen = toBase<&sqlite3_vfs::xDlOpen>;
    growAheadVfs.xDlError = toBase<&sqlite3_vfs::xDlError>;
    growAheadVfs.xDlSym = toBase<&sqlite3_vfs::xDlSym>;
    growAheadVfs.xDlClose = toBase<&sqlite3_vfs::xDlClose>;
    growAheadVfs.xRandomness = toBase<&sqlite3_vfs::xRandomness>;
    growAheadVfs.xSleep = toBase<&sqlite3_vfs::xSleep>;
    growAheadVfs.xCurrentTime = toBase<&sqlite3_vfs::xCurrentTime>;
    growAheadVfs.xGetLastError = toBase<&sqlite3_vfs::xGetLastError>;
    growAheadVfs.xCurrentTimeInt64 = toBase<&sqlite3_vfs::xCurrentTimeInt64>;
    if (base->iVersion >= 3) {
        growAheadVfs.xSetSystemCall = toBase<&sqlite3_vfs::xSetSystemCall>;
        growAheadVfs.xGetSystemCall = toBase<&sqlite3_vfs::xGetSystemCall>;
        growAheadVfs.xNextSystemCall = toBase<&sqlite3_vfs::xNextSystemCall>;
    }
    if (sqlite3_vfs_register(&growAheadVfs, 0) != SQLITE_OK) {
        base = nullptr;
    }
}

}  // namespace

const char* growAheadVfsName() {
    static std::once_flag registered;
    std::call_once(registered, registerVfs);
    return base != nullptr ? vfsName : nullptr;
}

}  // namespace Korvane::Database
