#include "Algorithms.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <utility>
#include <vector>

#include "../sqlite/SqliteLogFile.h"
#include "components/core/Chrono.h"
#include "components/core/Filesystem.h"

namespace Korvane::Logging::Algorithms {

namespace {

// The keys that a new file's constructor writes itself; the metadata copy skips them.
constexpr std::array<const char*, 6> reservedKeys = {
    "createdDateTime", "applicationName", "applicationVersion",
    "currentTimeZone", "logVersion",      "compressionLevel",
};

bool isReserved(const std::string& key) {
    return std::any_of(reservedKeys.begin(), reservedKeys.end(),
                       [&](const char* reserved) { return key == reserved; });
}

// The text stored under `key`, or the empty text when it is missing or no text.
std::string textOf(const LogFileInterface& file, const std::string& key) {
    const std::optional<PropertyValue> value = file.getMetadataValue(key);
    const auto* text = value ? std::get_if<std::string>(&*value) : nullptr;
    return text != nullptr ? *text : std::string();
}

// "applicationName" becomes "oldApplicationName".
std::string archiveKeyOf(const std::string& key) {
    std::string archived = "old" + key;
    archived[3] = static_cast<char>(std::toupper(static_cast<unsigned char>(archived[3])));
    return archived;
}

// True when both ends of the range name entries of `source`. The pair (-1, -1) is what an empty
// file reports as its first and last id, and passes unchecked.
bool rangeFits(const LogFileInterface& source, std::int32_t first, std::int32_t last) {
    if (last < first) {
        return false;
    }
    if (first == -1 && last == -1) {
        return true;
    }
    return source.getEntryCount() != 0 && last >= source.getFirstEntryId() &&
           first <= source.getLastEntryId() && source.readEntry(first).has_value() &&
           source.readEntry(last).has_value();
}

}  // namespace

std::unique_ptr<LogFileInterface> slice(const LogFileInterface& source, std::int32_t firstEntryId,
                                        std::int32_t lastEntryId, std::string outputPath,
                                        const std::string& applicationName,
                                        const std::string& applicationVersion,
                                        std::int8_t compressionLevel) {
    if (!outputPath.empty() && std::filesystem::exists(outputPath)) {
        return nullptr;
    }
    if (!rangeFits(source, firstEntryId, lastEntryId)) {
        return nullptr;
    }
    if (outputPath.empty()) {
        outputPath = Filesystem::makeUniqueFilePath(
                         Filesystem::appendTextToFilename(source.getFilePath(), "_exported"))
                         .string();
    }

    std::unique_ptr<LogFileInterface> target;
    try {
        const std::string timeZone = textOf(source, "currentTimeZone");
        const std::int64_t now = Chrono::msSinceUnixEpoch();
        target = std::make_unique<SqliteLogFile>(outputPath, timeZone, applicationName,
                                                 applicationVersion, compressionLevel, now);
    } catch (...) {
        return nullptr;
    }

    const std::vector<LogMetadataEntry> metadata = source.getAllMetadata();

    // A replaced identity is archived once: a source that already has an archive key passes its
    // own value on below, so the first identity survives any number of slices.
    const std::pair<std::string, const std::string&> identity[] = {
        {"applicationName", applicationName},
        {"applicationVersion", applicationVersion},
    };
    for (const auto& [key, newValue] : identity) {
        std::string oldValue = textOf(source, key);
        const std::string archiveKey = archiveKeyOf(key);
        if (oldValue != newValue && !source.getMetadataValue(archiveKey)) {
            target->addMetadata(archiveKey, PropertyValue{std::move(oldValue)});
        }
    }

    for (const LogMetadataEntry& entry : metadata) {
        if (!isReserved(entry.key)) {
            target->addMetadata(entry.key, entry.value);
        }
    }
    for (const LogResourceEntry& resource : source.getAllResources()) {
        target->addResource(resource.name, resource.data);
    }
    for (const DataSource& dataSource : source.getDataSources()) {
        target->addDataSource(dataSource);  // keeps the source's id
    }
    for (const DataSourceProperty& property : source.getAllDataSourceProperties()) {
        target->addDataSourceProperty(property);
    }

    std::vector<std::int32_t> ids = source.getEntryIndex(EntryIndexFilter{});
    const auto begin = std::lower_bound(ids.begin(), ids.end(), firstEntryId);
    const auto end = std::upper_bound(begin, ids.end(), lastEntryId);
    const std::vector<std::int32_t> sliceIds(begin, end);
    ids = {};
    if (!sliceIds.empty()) {
        for (const DataEntry& entry :
             source.readEntries(sliceIds.front(), sliceIds.back(), EntryIndexFilter{}, -1)) {
            target->logData(entry);
        }
    }

    // The new file numbers its entries from 1 in id order; a bookmark on an id without an entry
    // moves to the next entry.
    for (Bookmark& bookmark : source.getBookmarks()) {
        if (sliceIds.empty() || bookmark.entryId < sliceIds.front() ||
            bookmark.entryId > sliceIds.back()) {
            continue;
        }
        const auto position =
            std::lower_bound(sliceIds.begin(), sliceIds.end(), bookmark.entryId) - sliceIds.begin();
        bookmark.entryId = static_cast<std::int32_t>(position + 1);
        target->addBookmark(bookmark);
    }
    return target;
}

std::unique_ptr<LogFileInterface> clone(const LogFileInterface& source,
                                        const std::string& outputPath,
                                        const std::string& applicationName,
                                        const std::string& applicationVersion,
                                        std::int8_t compressionLevel) {
    const std::int32_t firstEntryId = source.getFirstEntryId();
    const std::int32_t lastEntryId = source.getLastEntryId();
    return slice(source, firstEntryId, lastEntryId, outputPath, applicationName, applicationVersion,
                 compressionLevel);
}

}  // namespace Korvane::Logging::Algorithms
