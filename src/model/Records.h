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
    // The key, unique in a file.
    std::string key;
    // The value; a whole number read from a file holds the 64-bit alternative.
    PropertyValue value;
};

// One named block of bytes of a log file; `data` is always uncompressed.
struct LogResourceEntry {
    // The name, unique in a file; "thumbnail" is the thumbnail.
    std::string name;
    // The bytes as they were added.
    std::vector<std::uint8_t> data;
};

namespace Korvane::Logging {

// Bytes owned by the record that holds them: payloads, resources and bookmark payloads.
using ByteArray = std::vector<std::uint8_t>;

// A named source of log data. `id` is -1 in a record that is not registered in a file yet.
struct DataSource {
    // The id in the file; -1 until the source is registered.
    std::int8_t id = -1;
    // The kind of source, a number of the application's.
    KV_LogDataSourceType type{};
    // The name; the file does not require it to be unique.
    std::string name;
};

// One key and value attached to a data source.
struct DataSourceProperty {
    // The id of the source the property belongs to.
    std::int8_t dataSourceId = -1;
    // The key; a source may have several properties of one key.
    std::string name;
    // The value; a whole number read from a file holds the 64-bit alternative.
    PropertyValue value;
};

// One logged item. `entryId` is assigned by the file and ignored when logging; `data` is always
// the uncompressed payload.
struct DataEntry {
    // The id in the file, from 1 in the order of logging; assigned by the file.
    std::int32_t entryId = 0;
    // The id of the source that delivered the entry.
    std::int8_t dataSourceId = -1;
    // The application's data type, which entry filters select by.
    std::int32_t type = 0;
    // The payload, uncompressed.
    ByteArray data;
    // Milliseconds since the Unix epoch.
    std::int64_t timestamp = 0;
};

// A marked entry. Bookmarks are identified by `entryId`: update and removal select by it alone.
struct Bookmark {
    // The id of the marked entry, which identifies the bookmark.
    std::int32_t entryId = 0;
    // A short title.
    std::string title;
    // A longer text.
    std::string comment;
    // Bytes of the application's; kept from log version 4 on.
    ByteArray payload;
};

// Selects entries by three independent lists; an empty list leaves its property unrestricted.
struct EntryIndexFilter {
    // Selects entries whose `type` is one of these.
    std::vector<std::int32_t> dataTypes;
    // Selects entries whose `dataSourceId` is one of these.
    std::vector<std::int8_t> dataSources;
    // Selects entries of the sources whose `type` is one of these.
    std::vector<KV_LogDataSourceType> dataSourceTypes;
};

}  // namespace Korvane::Logging
