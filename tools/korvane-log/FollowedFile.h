#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

#include "LogFiles.h"

namespace KorvaneLog {

// The log file that `tail` follows, open for reading, and the proof at each poll that the file at
// its path is still that one. Another file can take its place in many ways: renamed over it (a
// new inode), copied over it (the same inode, other bytes), truncated, or restored from an older
// copy (ids that go back). Each poll costs a `stat` and two small queries; a write that brings no
// new entry costs a new connection once.
class FollowedFile {
public:
    // Opens the log file at `path` for reading. Throws `ToolError` as `openLog` does.
    explicit FollowedFile(fs::path path);

    // The open file. A poll may open it afresh: take it anew after each `lastEntryId`.
    const SqliteLogFile& log() const { return *file; }

    // The last entry id that the file holds now; -1 when it holds none. Throws `ToolError` when
    // the file at the path was removed or replaced, or when it stayed unreadable for a second,
    // its length unchanged and its pages all there (as a writer that died in the middle of a
    // write can leave it). While the file cannot be read, gives the id of the last poll.
    std::int64_t lastEntryId();

    // Notes `entry` as the last one printed. Its row is what a later read must find again.
    void notePrinted(const DataEntry& entry);
    // The id of the entry noted last; -1 when none was.
    std::int32_t lastPrintedId() const { return printed ? printed->entryId : -1; }
    // Throws `ToolError` unless `entry` is the row noted last, read again.
    void requirePrinted(const DataEntry* entry) const;

private:
    // What identifies an entry without its payload.
    struct Row {
        std::int32_t entryId;
        std::int64_t timestamp;
        std::int8_t dataSourceId;
        std::int32_t type;
        std::size_t size;
        bool operator==(const Row& other) const;
    };

    // The last entry id, after the checks that the connection can make; empty when the file
    // cannot be read.
    std::optional<std::int64_t> read() const;
    // Decides about a file that cannot be read just now, `length` bytes long.
    void unreadable(off_t length);
    // Notes how many bytes of pages the file's header counts.
    void notePages();
    // The failure for a file that another one replaced.
    ToolError replaced() const;

    fs::path path;
    dev_t device = 0;
    ino_t inode = 0;
    timespec modified{};
    // The file was written since the connection last saw it change.
    bool written = false;
    std::unique_ptr<SqliteLogFile> file;
    // Its creation time: another recording copied over the file has another one.
    std::optional<PropertyValue> created;
    std::int64_t last = -1;
    std::uint64_t pageBytes = 0;
    std::optional<Row> printed;
    std::optional<std::chrono::steady_clock::time_point> unreadableSince;
    off_t unreadableLength = 0;
};

}  // namespace KorvaneLog
