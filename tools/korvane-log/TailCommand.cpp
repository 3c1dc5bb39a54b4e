// tail: the entries of a file as another process records them.
//
// Every write to a log file is complete when its call returns, so a reader sees each entry as
// soon as it is recorded. `tail` asks the file for its last entry id every few milliseconds and
// prints what is new; each query holds the file for microseconds, so the recorder barely waits.
// Each poll also proves that the file at the path is still the one followed (`FollowedFile`).

#include <algorithm>
#include <chrono>
#include <iostream>
#include <thread>

#include "Commands.h"
#include "EntryOutput.h"
#include "FollowedFile.h"
#include "Terminal.h"

namespace KorvaneLog {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto pollInterval = std::chrono::milliseconds(10);
// After this long without a new entry, tail says once that it is still waiting.
constexpr auto quietNotice = std::chrono::seconds(5);

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
    FollowedFile followed(options.file);
    EntryRange range;
    range.filter.dataSources = resolveSources(followed.log(), options.sources);
    std::vector<DataSource> sources = followed.log().getDataSources();
    // Ids up to ten digits keep the table's columns in place as the file grows.
    const EntryPrinter print = entryPrinter(options.format, sources, 1'000'000'000);

    std::int64_t last = followed.lastEntryId();
    range.first = options.lines < 0
                      ? followed.log().getFirstEntryId()
                      : startOfLast(followed.log(), range.filter, options.lines, last);
    const auto printNew = [&] {
        range.last = static_cast<std::int32_t>(last);
        // The read starts again at the entry printed last, which proves that the file still
        // holds it: a copy of another recording over the file would not.
        bool again = followed.lastPrintedId() >= 0;
        if (again) {
            range.first = followed.lastPrintedId();
        }
        if (range.first >= 0 && range.first <= range.last) {
            const SqliteLogFile& log = followed.log();
            forEachEntry(log, range, [&](const DataEntry& entry) {
                if (again) {
                    followed.requirePrinted(&entry);
                    again = false;
                    return true;
                }
                if (findSource(sources, entry.dataSourceId) == nullptr) {
                    sources = log.getDataSources();  // registered since the last look
                }
                print(entry);
                followed.notePrinted(entry);
                return true;
            });
        }
        if (again) {
            followed.requirePrinted(nullptr);
        }
        range.first = static_cast<std::int32_t>(last + 1);
        std::cout.flush();
    };
    printNew();

    Clock::time_point lastGrowth = Clock::now();
    bool quietSaid = false;
    while (!InterruptGuard::raised() && std::cout) {
        std::this_thread::sleep_for(pollInterval);
        const std::int64_t newest = followed.lastEntryId();
        if (newest <= last) {
            if (!quietSaid && Clock::now() - lastGrowth >= quietNotice) {
                std::cerr << options.file << ": no new entry for "
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
