#include "EntryOutput.h"

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

#include "Format.h"

namespace KorvaneLog {

namespace {

using json = nlohmann::ordered_json;

// The type of the source with `id` as a number; -1 when there is no such source.
std::int32_t sourceType(const std::vector<DataSource>& sources, std::int8_t id) {
    const DataSource* source = findSource(sources, id);
    return source != nullptr ? static_cast<std::int32_t>(source->type) : -1;
}

// The longest source name, for the width of a column that streams.
std::size_t longestName(const std::vector<DataSource>& sources) {
    std::size_t longest = 0;
    for (const DataSource& source : sources) {
        longest = std::max(longest, source.name.size());
    }
    return longest;
}

}  // namespace

EntryPrinter entryPrinter(const std::string& format, const std::vector<DataSource>& sources,
                          std::int64_t widestId) {
    if (format == "json") {
        return [&sources](const DataEntry& entry) {
            const json line{{"id", entry.entryId},
                            {"timestamp", entry.timestamp},
                            {"time", isoDateTime(entry.timestamp)},
                            {"source", sourceName(sources, entry.dataSourceId)},
                            {"sourceId", entry.dataSourceId},
                            {"sourceType", sourceType(sources, entry.dataSourceId)},
                            {"type", entry.type},
                            {"size", entry.data.size()},
                            {"data", base64Encode(entry.data)}};
            std::cout << line.dump() << '\n';
        };
    }
    if (format == "hex") {
        return [&sources](const DataEntry& entry) {
            const std::string when = localDateTime(entry.timestamp);
            const std::string source = sourceName(sources, entry.dataSourceId);
            std::cout << "entry " << entry.entryId << "  " << when << "  " << source << "  type "
                      << entry.type << "  " << humanSize(entry.data.size()) << '\n';
            hexDump(std::cout, entry.data, "  ");
        };
    }
    if (format == "raw") {
        return [](const DataEntry& entry) {
            std::cout.write(reinterpret_cast<const char*>(entry.data.data()),
                            static_cast<std::streamsize>(entry.data.size()));
        };
    }
    // The table streams: its widths are fixed before the first row.
    Table table({{"ID", true}, {"TIME"}, {"SOURCE"}, {"TYPE", true}, {"SIZE", true}});
    table.reserveWidth(0, std::to_string(widestId).size());
    table.reserveWidth(1, localDateTime(0).size());
    table.reserveWidth(2, longestName(sources));
    table.reserveWidth(4, 9);
    table.printHeader(std::cout);
    return [&sources, table](const DataEntry& entry) {
        table.printRow(std::cout, {std::to_string(entry.entryId), localDateTime(entry.timestamp),
                                   sourceName(sources, entry.dataSourceId),
                                   std::to_string(entry.type), humanSize(entry.data.size())});
    };
}

}  // namespace KorvaneLog
