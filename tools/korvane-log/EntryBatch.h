#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "LogFiles.h"

namespace KorvaneLog {

// Entries gathered for one `SqliteLogFile::logEntries` call: a batch is written in one
// transaction, many times faster than one entry at a time for small entries.
class EntryBatch {
public:
    // Makes the failure for the entry added with `tag` that `log` refused; the reason is in the
    // log's `getLastError`.
    using Refusal = std::function<ToolError(std::int64_t tag)>;

    EntryBatch(SqliteLogFile& log, Refusal refusal) : log(log), refusal(std::move(refusal)) {}

    // Adds `entry`, and writes the batch when it is full.
    void add(DataEntry&& entry, std::int64_t tag);
    // Writes the entries gathered so far. When the file refuses the batch, writes its entries
    // one at a time and throws the refusal of the first that the file refuses, after the
    // entries before it were written.
    void flush();

    bool empty() const { return entries.empty(); }
    // The entries written so far; may be read from another thread.
    std::int64_t written() const { return writtenCount.load(); }

private:
    // A full batch: 1,000 entries, or fewer that hold 16 MiB of payload.
    static constexpr std::size_t maximumEntries = 1000;
    static constexpr std::size_t maximumBytes = std::size_t{16} << 20;

    SqliteLogFile& log;
    Refusal refusal;
    std::vector<DataEntry> entries;
    std::vector<std::int64_t> tags;
    std::size_t bytes = 0;
    std::atomic<std::int64_t> writtenCount{0};
};

}  // namespace KorvaneLog
