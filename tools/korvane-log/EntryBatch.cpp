#include "EntryBatch.h"

namespace KorvaneLog {

void EntryBatch::add(DataEntry&& entry, std::int64_t tag) {
    bytes += entry.data.size();
    entries.push_back(std::move(entry));
    tags.push_back(tag);
    if (entries.size() >= maximumEntries || bytes >= maximumBytes) {
        flush();
    }
}

void EntryBatch::flush() {
    if (entries.empty()) {
        return;
    }
    if (!log.logEntries(entries)) {
        // The batch left nothing in the file and does not say which entry failed: one at a
        // time, the entry that fails tells, and a failure that was no entry's own goes away.
        for (std::size_t i = 0; i < entries.size(); ++i) {
            if (!log.logData(entries[i])) {
                throw refusal(tags[i]);
            }
        }
    }
    writtenCount += static_cast<std::int64_t>(entries.size());
    entries.clear();
    tags.clear();
    bytes = 0;
}

}  // namespace KorvaneLog
