// tail: the entries of a file as another process records them.
//
// Every write to a log file is complete when its call returns, so a reader sees each entry as
// soon as it is recorded. `tail` asks the file for its last entry id every few milliseconds and
// prints what is new; each query holds the file for microseconds, so the recorder barely waits.

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <thread>

#include "Commands.h"
#include "EntryOutput.h"
#include "Terminal.h"

namespace KorvaneLog {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto pollInterval = std::chrono::milliseconds(10);
// After this long without a new entry, tail says once that it is still waiting.
constexpr auto quietNotice = std::chrono::seconds(5);

// Which file a path names: another file at the path means the followed one was replaced.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const FileIdentity& other) const {
        return device == other.device && inode == other.inode;
    }
};

std::optional<FileIdentity> identityOf(const fs::path& file) {
    struct stat status {};
    if (stat(file.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return FileIdentity{status.st_dev, status.st_ino};
}

// Throws when the file at `path` is no longer the one being followed.
void requireSameFile(const fs::path& path, const FileIdentity& followed) {
    const std::optional<FileIdentity> now = identityOf(path);
    if (!now) {
        throw ToolError(path, "was removed while it was followed");
    }
    if (!(*now == followed)) {
        throw ToolError(path, "was replaced by another file while it was followed");
    }
}

// The first id of the last `count` entries that `filter` selects, reading back from `last` a
// window at a time; -1 when the file holds none.
std::int64_t startOfLast(const LogFileInterface& log, const EntryIndexFilter& filter,
                         std::int64_t count, std::int64_t last) {
    const std::int64_t first = log.getFirstEntryId();
    std::int64_t start = -1;
    std::int64_t found = 0;
    for (std::int64_t to = last, window = 64; first >= 0 && to >= first && found < count;
         window = std::min<std::int64_t>(window * 2, 4096)) {
        const std::int64_t from = std::max(first, to - window + 1);
        const std::vector<DataEntry> entries = log.readEntries(
            static_cast<std::int32_t>(from), static_cast<std::int32_t>(to), filter, -1);
        for (auto entry = entries.rbegin(); entry != entries.rend() && found < count; ++entry) {
            start = entry->entryId;
            ++found;
        }
        to = from - 1;
    }
    return start;
}

}  // namespace

int runTail(const TailOptions& options) {
    const InterruptGuard interrupt;
    const fs::path path = options.file;
    const std::unique_ptr<SqliteLogFile> log = openLog(path);
    const std::optional<FileIdentity> followed = identityOf(path);
    if (!followed) {
        throw ToolError(path, "was removed while it was opened");
    }
    EntryRange range;
    range.filter.dataSources = resolveSources(*log, options.sources);
    std::vector<DataSource> sources = log->getDataSources();
    // Ids up to ten digits keep the table's columns in place as the file grows.
    const EntryPrinter print = entryPrinter(options.format, sources, 1'000'000'000);

    std::int64_t last = log->getLastEntryId();
    range.first = options.lines < 0 ? log->getFirstEntryId()
                                    : startOfLast(*log, range.filter, options.lines, last);
    const auto printNew = [&] {
        range.last = static_cast<std::int32_t>(last);
        if (range.first >= 0 && range.first <= range.last) {
            forEachEntry(*log, range, [&](const DataEntry& entry) {
                if (findSource(sources, entry.dataSourceId) == nullptr) {
                    sources = log->getDataSources();  // registered since the last look
                }
                print(entry);
                return true;
            });
        }
        range.first = static_cast<std::int32_t>(last + 1);
        std::cout.flush();
    };
    printNew();

    Clock::time_point lastGrowth = Clock::now();
    bool quietSaid = false;
    while (!InterruptGuard::raised() && std::cout) {
        std::this_thread::sleep_for(pollInterval);
        requireSameFile(path, *followed);
        const std::int64_t newest = log->getLastEntryId();
        if (newest <= last) {
            if (!quietSaid && Clock::now() - lastGrowth >= quietNotice) {
                std::cerr << path.string() << ": no new entry for "
                          << std::chrono::duration_cast<std::chrono::seconds>(quietNotice).count()
                          << " s; still following (Ctrl-C ends)" << std::endl;
                quietSaid = true;
            }
            continue;
        }
        last = newest;
        printNew();
        lastGrowth = Clock::now();
        quietSaid = false;
    }
    return 0;
}

}  // namespace KorvaneLog
