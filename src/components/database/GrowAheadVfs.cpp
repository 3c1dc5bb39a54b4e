#include "GrowAheadVfs.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <mutex>

namespace Korvane::Database {

namespace {

constexpr const char* vfsName = "korvane-grow-ahead";
// The step by which a file grows. A commit then rarely needs to extend the file, and the file is
// never more than this much longer than its pages.
constexpr sqlite3_int64 growthStep = 1 << 20;

sqlite3_vfs* base = nullptr;

// A main database file: our methods in front, the base layer's file behind.
struct GrowingFile {
    sqlite3_file file;
    sqlite3_file* real;
};

sqlite3_file* realOf(sqlite3_file* file) {
    return reinterpret_cast<GrowingFile*>(file)->real;
}

// Extends the file, without writing, to cover `hint` bytes rounded up to a whole step. A failure
// changes nothing: the pages are then appended as they would be without this layer.
void growAhead(sqlite3_file* real, sqlite3_int64 hint) {
    sqlite3_int64 size = 0;
    if (real->pMethods->xFileSize(real, &size) != SQLITE_OK || size >= hint) {
        return;
    }
    const sqlite3_int64 target = (hint + growthStep - 1) / growthStep * growthStep;
    real->pMethods->xTruncate(real, target);
}

int fileControl(sqlite3_file* file, int op, void* argument) {
    sqlite3_file* real = realOf(file);
    const int code = real->pMethods->xFileControl(real, op, argument);
    if (op == SQLITE_FCNTL_SIZE_HINT) {
        growAhead(real, *static_cast<sqlite3_int64*>(argument));
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

// Every method but the file control passes straight to the base layer's file.
using Io = sqlite3_io_methods;
const Io growingMethods = {
    3,
    toReal<&Io::xClose>,
    toReal<&Io::xRead>,
    toReal<&Io::xWrite>,
    toReal<&Io::xTruncate>,
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

// Main database files get the growing methods; journals and temporary files are the base
// layer's own, opened in place.
int open(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* outFlags) {
    if ((flags & SQLITE_OPEN_MAIN_DB) == 0) {
        return base->xOpen(base, name, file, flags, outFlags);
    }
    auto* growing = reinterpret_cast<GrowingFile*>(file);
    growing->real = reinterpret_cast<sqlite3_file*>(growing + 1);
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
