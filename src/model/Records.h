#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "DataSourceType.h"

// The value of a metadata entry or of a data source property. A whole number read back from a
// log file always holds the 64-bit alternative, whatever width it was written with.
using PropertyValue = std::variant<std::int32_t, std::int64_t, double, std::string>;

// One metadata item of a log file.
struct LogMetadataEntry {
    std::string key;
    PropertyValue value;
};

// One named block of bytes of a log file; `data` is always uncompressed.
struct LogResourceEntry {
    std::string name;
    std::vector<std::uint8_t> data;
};

namespace Korvane::Logging {

using ByteArray = std::vector<std::uint8_t>;

// A named source of log data. `id` is -1 in a record that is not registered in a file yet.
struct DataSource {
    std::int8_t id = -1;
    KV_LogDataSourceType type{};
    std::string name;
};

// One key and value attached to a data source.
struct DataSourceProperty {
    std::int8_t dataSourceId = -1;
    std::string name;
    PropertyValue value;
};

// One logged item. `entryId` is assigned by the file and ignored when logging; `data` is always
// the uncompressed payload.
struct DataEntry {
    std::int32_t entryId = 0;
    std::int8_t dataSourceId = -1;
    std::int32_t type = 0;
    ByteArray data;
    std::int64_t timestamp = 0;
};

// A marked entry. Bookmarks are identified by `entryId`: update and removal select by it alone.
struct Bookmark {
    std::int32_t entryId = 0;
    std::string title;
    std::string comment;
    ByteArray payload;
};

// Selects entries by three independent lists; an empty list leaves its property unrestricted.
struct EntryIndexFilter {
    std::vector<std::int32_t> dataTypes;
    std::vector<std::int8_t> dataSources;
    std::vector<KV_LogDataSourceType> dataSourceTypes;
};

}  // namespace Korvane::Logging
