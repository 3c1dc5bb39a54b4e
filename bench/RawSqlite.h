#pragma once

#include <sqlite3.h>
#include <zstd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "model/Records.h"

namespace Korvane::Bench {

using Logging::ByteArray;
using Logging::DataEntry;

// The yardstick: the log file's statements on the plain SQLite C API, each prepared once, on a
// serialised connection with the log file's pragmas; zstd with one reused context.
class RawLog {
public:
    // Opens `path`; `create` gives it the log file's schema.
    RawLog(const std::string& path, bool create);
    RawLog(const RawLog&) = delete;
    RawLog& operator=(const RawLog&) = delete;
    ~RawLog();

    void exec(const char* sql);
    std::int64_t addSource(int type, const std::string& name);
    // One autocommit insert; compresses at `level` unless it is 0.
    void log(std::int64_t timestamp, std::int32_t type, std::int64_t source, const ByteArray& data,
             int level);

    std::vector<DataEntry> readEntries(bool compressed);
    DataEntry readEntry(std::int32_t id, bool compressed);
    std::vector<std::int32_t> entryIndexOfSource(std::int64_t source);

private:
    sqlite3_stmt* prepare(const char* sql);
    ByteArray payloadOf(sqlite3_stmt* statement, int column, bool compressed);

    sqlite3* connection = nullptr;
    sqlite3_stmt* insert = nullptr;
    sqlite3_stmt* selectOne = nullptr;
    ZSTD_CCtx* compressor = nullptr;
    ZSTD_DCtx* decompressor = nullptr;
    ByteArray buffer;
};

}  // namespace Korvane::Bench
