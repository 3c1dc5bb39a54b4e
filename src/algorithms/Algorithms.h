#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "../model/Export.h"
#include "../model/LogFileInterface.h"

namespace Korvane::Logging::Algorithms {

// Writes a new log file with the entries of `source` from `firstEntryId` to `lastEntryId`
// (both included, both must exist; the pair -1, -1 copies no entries), renumbered from 1, and
// everything around them: metadata, resources, data sources, properties and the bookmarks of the
// range. The new file gets a new creation time, the given application identity and compression
// level, and keeps a replaced application name and version as "oldApplicationName" and
// "oldApplicationVersion". An empty `outputPath` means the source's path with "_exported" added,
// made unique. Returns null when something exists at `outputPath`, when the range does not fit,
// or when the new file cannot be created.
KORVANE_LOGGING_EXPORT std::unique_ptr<LogFileInterface> slice(
    const LogFileInterface& source, std::int32_t firstEntryId, std::int32_t lastEntryId,
    std::string outputPath, const std::string& applicationName,
    const std::string& applicationVersion, std::int8_t compressionLevel);

// `slice` over all entries of `source`. An empty source gives a file without entries.
KORVANE_LOGGING_EXPORT std::unique_ptr<LogFileInterface> clone(
    const LogFileInterface& source, const std::string& outputPath,
    const std::string& applicationName, const std::string& applicationVersion,
    std::int8_t compressionLevel);

}  // namespace Korvane::Logging::Algorithms
