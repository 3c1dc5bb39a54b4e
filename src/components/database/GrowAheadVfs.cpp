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

int close(sqlite3_file* file) {
    sqlite3_file* real = realOf(file);
    return real->pMethods->xClose(real);
}

// Every other method passes straight to the base layer's file.
const sqlite3_io_methods growingMethods = {
    3,
    close,
    [](sqlite3_file* f, void* buffer, int amount, sqlite3_int64 offset) {
        sqlite3_file* real = realOf(f);
        return real->pMethods->xRead(real, buffer, amount, offset);
    },
    [](sqlite3_file* f, const void* buffer, int amount, sqlite3_int64 offset) {
        sqlite3_file* real = realOf(f);
        return real->pMethods->xWrite(real, buffer, amount, offset);
    },
    [](sqlite3_file* f, sqlite3_int64 size) {
        sqlite3_file* real = realOf(f);
        return real->pMethods->xTruncate(real, size);
    },
    [](sqlite3_file* f, int flags) {
        sqlite3_file* real = realOf(f);
        return real->pMethods->xSync(real, flags);
    },
    [](sqlite3_file* f, sqlite3_int64* size) {
        sqlite3_file* real = realOf(f);
        return real->pMethods->xFileSize(real, size);
    },
    [](sqlite3_file* f, int level) {
        sqlite3_file* real = realOf(f);
        return real->pMethods->xLock(real, level);
    },
    [](sqlite3_file* f, int level) {
        sqlite3_file* real = realOf(f);
        return real->pMethods->xUnlock(real, level);
    },
    [](sqlite3_file* f, int* reserved) {
        sqlite3_file* real = realOf(f);
        return real->pMethods->xCheckReservedLock(real, reserved);
    },
    fileControl,
    [](sqlite3_file* f) {
        sqlite3_file* real = realOf(f);
        return real->pMethods->xSectorSize(real);
    },
    [](sqlite3_file* f) {
        sqlite3_file* real = realOf(f);
        return real->pMethods->xDeviceCharacteristics(real);
    },
    [](sqlite3_file* f, int region, int size, int extend, void volatile** mapped) {
        sqlite3_file* real = realOf(f);
        return real->pMethods->xShmMap(real, region, size, extend, mapped);
    },
    [](sqlite3_file* f, int offset, int count, int flags) {
        sqlite3_file* real = realOf(f);
        return real->pMethods->xShmLock(real, offset, count, flags);
    },
    [](sqlite3_file* f) {
        sqlite3_file* real = realOf(f);
        real->pMethods->xShmBarrier(real);
    },
    [](sqlite3_file* f, int deleteFlag) {
        sqlite3_file* real = realOf(f);
        return real->pMethods->xShmUnmap(real, deleteFlag);
    },
    [](sqlite3_file* f, sqlite3_int64 offset, int amount, void** pages) {
        sqlite3_file* real = realOf(f);
        return real->pMethods->xFetch(real, offset, amount, pages);
    },
    [](sqlite3_file* f, sqlite3_int64 offset, void* pages) {
        sqlite3_file* real = realOf(f);
        return real->pMethods->xUnfetch(real, offset, pages);
    },
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
    growAheadVfs.xDelete = [](sqlite3_vfs*, const char* name, int syncDir) {
        return base->xDelete(base, name, syncDir);
    };
    growAheadVfs.xAccess = [](sqlite3_vfs*, const char* name, int flags, int* result) {
        return base->xAccess(base, name, flags, result);
    };
    growAheadVfs.xFullPathname = [](sqlite3_vfs*, const char* name, int size, char* out) {
        return base->xFullPathname(base, name, size, out);
    };
    growAheadVfs.xDlOpen = [](sqlite3_vfs*, const char* name) { return base->xDlOpen(base, name); };
    growAheadVfs.xDlError = [](sqlite3_vfs*, int size, char* message) {
        base->xDlError(base, size, message);
    };
    growAheadVfs.xDlSym = [](sqlite3_vfs*, void* handle, const char* symbol) {
        return base->xDlSym(base, handle, symbol);
    };
    growAheadVfs.xDlClose = [](sqlite3_vfs*, void* handle) { base->xDlClose(base, handle); };
    growAheadVfs.xRandomness = [](sqlite3_vfs*, int size, char* out) {
        return base->xRandomness(base, size, out);
    };
    growAheadVfs.xSleep = [](sqlite3_vfs*, int microseconds) {
        return base->xSleep(base, microseconds);
    };
    growAheadVfs.xCurrentTime = [](sqlite3_vfs*, double* now) {
        return base->xCurrentTime(base, now);
    };
    growAheadVfs.xGetLastError = [](sqlite3_vfs*, int size, char* out) {
        return base->xGetLastError(base, size, out);
    };
    growAheadVfs.xCurrentTimeInt64 = [](sqlite3_vfs*, sqlite3_int64* now) {
        return base->xCurrentTimeInt64(base, now);
    };
    if (base->iVersion >= 3) {
        growAheadVfs.xSetSystemCall = [](sqlite3_vfs*, const char* name, sqlite3_syscall_ptr call) {
            return base->xSetSystemCall(base, name, call);
        };
        growAheadVfs.xGetSystemCall = [](sqlite3_vfs*, const char* name) {
            return base->xGetSystemCall(base, name);
        };
        growAheadVfs.xNextSystemCall = [](sqlite3_vfs*, const char* name) {
            return base->xNextSystemCall(base, name);
        };
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
