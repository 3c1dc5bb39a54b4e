#include "FollowedFile.h"

#include <sys/stat.h>

#include "RawLogReader.h"

namespace KorvaneLog {

namespace {

// A copy over the file cannot be read while it is written. A file that stays unreadable this long
// without a change of length is taken for damaged rather than replaced.
constexpr auto unreadablePatience = std::chrono::seconds(1);

constexpr const char* creationKey = "createdDateTime";

}  // namespace

bool FollowedFile::Row::operator==(const Row& other) const {
    return entryId == other.entryId && timestamp == other.timestamp &&
           dataSourceId == other.dataSourceId && type == other.type && size == other.size;
}

FollowedFile::FollowedFile(fs::path followed) : path(std::move(followed)) {
    // The inode is taken before the file is opened: should another file take the path between
    // the two, the first poll finds the file replaced, instead of following the other for good.
    struct stat status {};
    const bool found = stat(path.c_str(), &status) == 0;
    file = openLog(path);
    if (!found) {
        throw ToolError(path, "was removed while it was opened");
    }
    device = status.st_dev;
    inode = status.st_ino;
    modified = status.st_mtim;
    created = file->getMetadataValue(creationKey);
    last = file->getLastEntryId();
    notePages();
}

std::int64_t FollowedFile::lastEntryId() {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        throw ToolError(path, "was removed while it was followed");
    }
    // A log file is never empty: one that became so was truncated.
    if (status.st_dev != device || status.st_ino != inode || status.st_size == 0) {
        throw replaced();
    }
    if (status.st_mtim.tv_sec != modified.tv_sec || status.st_mtim.tv_nsec != modified.tv_nsec) {
        modified = status.st_mtim;
        written = true;
    }
    std::optional<std::int64_t> newest = read();
    if (newest && *newest == last && written) {
        // Something wrote the file, and the connection sees nothing new. SQLite keeps the pages
        // it read for as long as the change counter in the file's header stays the same, which
        // a copy of a file with the same counter leaves: a new connection reads it afresh.
        try {
            file = openLog(path);
            newest = read();
        } catch (const ToolError&) {
            newest.reset();
        }
        if (newest && printed) {
            const std::optional<DataEntry> entry = file->readEntry(printed->entryId);
            requirePrinted(entry ? &*entry : nullptr);
        }
    }
    if (!newest) {
        unreadable(status.st_size);
        return last;
    }
    unreadableSince.reset();
    written = false;
    if (*newest > last) {
        notePages();
    }
    last = *newest;
    return last;
}

std::optional<std::int64_t> FollowedFile::read() const {
    const std::optional<PropertyValue> createdNow = file->getMetadataValue(creationKey);
    if (createdNow != created) {
        if (createdNow) {
            throw replaced();
        }
        return std::nullopt;
    }
    const std::int64_t newest = file->getLastEntryId();
    // Entries are never taken out of a log file.
    if (newest < last) {
        throw replaced();
    }
    return newest;
}

void FollowedFile::notePrinted(const DataEntry& entry) {
    printed =
        Row{entry.entryId, entry.timestamp, entry.dataSourceId, entry.type, entry.data.size()};
}

void FollowedFile::requirePrinted(const DataEntry* entry) const {
    if (entry == nullptr || !printed ||
        !(*printed == Row{entry->entryId, entry->timestamp, entry->dataSourceId, entry->type,
                          entry->data.size()})) {
        throw replaced();
    }
}

ToolError FollowedFile::replaced() const {
    return ToolError(path, "was replaced by another file while it was followed");
}

void FollowedFile::unreadable(off_t length) {
    // Pages only ever grow; a writer's clean close cuts only the room grown ahead of them.
    if (static_cast<std::uint64_t>(length) < pageBytes) {
        throw replaced();
    }
    const auto now = std::chrono::steady_clock::now();
    if (!unreadableSince || length != unreadableLength) {
        unreadableSince = now;
        unreadableLength = length;
    } else if (now - *unreadableSince >= unreadablePatience) {
        throw ToolError(path, "cannot be read any more; 'korvane-log check' tells what it holds");
    }
}

void FollowedFile::notePages() {
    try {
        const DatabaseHeader header = readDatabaseHeader(path);
        pageBytes = std::uint64_t{header.pageCount} * header.pageSize;
    } catch (const ToolError&) {
        // The next poll tells what became of the file.
    }
}

}  // namespace KorvaneLog
