#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "LogFiles.h"

// How `cat` and `tail` print entries.
namespace KorvaneLog {

using EntryPrinter = std::function<void(const DataEntry&)>;

// Prints entries to stdout in `format`: "table", "json", "hex" or "raw". Source names come from
// `sources`, which the caller owns and may refresh while the printer lives. A table streams: its
// header is printed at once, with its id column as wide as `widestId`.
EntryPrinter entryPrinter(const std::string& format, const std::vector<DataSource>& sources,
                          std::int64_t widestId);

}  // namespace KorvaneLog
