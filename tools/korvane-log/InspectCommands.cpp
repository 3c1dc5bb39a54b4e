// info and cat: what a log file holds.

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iostream>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "Commands.h"
#include "EntryOutput.h"
#include "Format.h"
#include "RawLogReader.h"

namespace KorvaneLog {

namespace {

using json = nlohmann::ordered_json;

// The metadata that `info` shows in its header rather than among the other keys.
const std::set<std::string> identityKeys{
    "createdDateTime", "applicationName", "applicationVersion",
    "currentTimeZone", "logVersion",      "compressionLevel",
};

// Counts and extent of a set of entries.
struct EntryStats {
    std::int64_t count = 0;
    std::uint64_t payloadBytes = 0;
    std::int64_t firstTimestamp = std::numeric_limits<std::int64_t>::max();
    std::int64_t lastTimestamp = std::numeric_limits<std::int64_t>::min();

    void add(const DataEntry& entry) {
        ++count;
        payloadBytes += entry.data.size();
        firstTimestamp = std::min(firstTimestamp, entry.timestamp);
        lastTimestamp = std::max(lastTimestamp, entry.timestamp);
    }
    std::int64_t spanMs() const { return count > 0 ? lastTimestamp - firstTimestamp : 0; }
};

// Everything `info` reports, gathered in one walk over the entries.
struct Summary {
    fs::path file;
    std::uint64_t fileSize = 0;       // the pages, as the file is once cleanly closed
    std::uint64_t reservedBytes = 0;  // beyond the pages: room a writer grew ahead of them
    std::int32_t entryCount = 0;
    std::int32_t firstId = -1;
    std::int32_t lastId = -1;
    EntryStats entries;
    std::vector<DataSource> sources;
    std::map<std::int8_t, EntryStats> bySource;
    std::map<std::int8_t, std::vector<Korvane::Logging::DataSourceProperty>> properties;
    std::vector<LogMetadataEntry> metadata;
    std::vector<LogResourceEntry> resources;
    std::size_t bookmarkCount = 0;
};

Summary summarise(const LogFileInterface& log) {
    Summary summary;
    summary.file = log.getFilePath();
    summary.entryCount = std::max(log.getEntryCount(), 0);
    if (summary.entryCount > 0) {
        summary.firstId = log.getFirstEntryId();
        summary.lastId = log.getLastEntryId();
    }
    forEachEntry(log, EntryRange{}, [&summary](const DataEntry& entry) {
        summary.entries.add(entry);
        summary.bySource[entry.dataSourceId].add(entry);
        return true;
    });
    summary.sources = log.getDataSources();
    for (auto& property : log.getAllDataSourceProperties()) {
        summary.properties[property.dataSourceId].push_back(std::move(property));
    }
    summary.metadata = log.getAllMetadata();
    summary.resources = log.getAllResources();
    summary.bookmarkCount = log.getBookmarks().size();
    // A live or killed writer leaves the file longer than its pages; a clean close cuts it.
    const std::uint64_t length = fs::file_size(summary.file);
    summary.fileSize = bytesOfPages(summary.file).value_or(length);
    summary.reservedBytes = length > summary.fileSize ? length - summary.fileSize : 0;
    return summary;
}

EntryStats statsOf(const Summary& summary, std::int8_t sourceId) {
    const auto found = summary.bySource.find(sourceId);
    return found == summary.bySource.end() ? EntryStats{} : found->second;
}

std::optional<std::int64_t> metadataInteger(const Summary& summary, const std::string& key) {
    for (const LogMetadataEntry& entry : summary.metadata) {
        if (entry.key == key && std::holds_alternative<std::int64_t>(entry.value)) {
            return std::get<std::int64_t>(entry.value);
        }
    }
    return std::nullopt;
}

std::string metadataText(const Summary& summary, const std::string& key) {
    for (const LogMetadataEntry& entry : summary.metadata) {
        if (entry.key == key) {
            return valueText(entry.value);
        }
    }
    return "(none)";
}

std::string rateText(const EntryStats& stats) {
    if (stats.count < 2 || stats.spanMs() <= 0) {
        return "";
    }
    char text[32];
    std::snprintf(
        text, sizeof text, "%.1f Hz",
        static_cast<double>(stats.count - 1) * 1000.0 / static_cast<double>(stats.spanMs()));
    return text;
}

std::string propertiesText(const Summary& summary, std::int8_t sourceId) {
    std::string text;
    const auto found = summary.properties.find(sourceId);
    if (found != summary.properties.end()) {
        for (const auto& property : found->second) {
            text += (text.empty() ? "" : ", ") + property.name + "=" + valueText(property.value);
        }
    }
    return text;
}

void printSummary(const Summary& summary) {
    const auto field = [](const std::string& label, const std::string& value) {
        std::cout << label << std::string(13 - label.size(), ' ') << value << '\n';
    };
    const std::optional<std::int64_t> created = metadataInteger(summary, "createdDateTime");
    const std::optional<std::int64_t> level = metadataInteger(summary, "compressionLevel");
    field("File", summary.file.string() + " (" + humanSize(summary.fileSize) +
                      (summary.reservedBytes > 0
                           ? ", and " + humanSize(summary.reservedBytes) + " reserved for writing"
                           : std::string()) +
                      ")");
    field("Log version", metadataText(summary, "logVersion") + ", compression " +
                             compressionText(level.value_or(0)));
    field("Created", created ? isoDateTime(*created) : "(unknown)");
    field("Application", metadataText(summary, "applicationName") + " " +
                             metadataText(summary, "applicationVersion"));
    field("Time zone", metadataText(summary, "currentTimeZone"));
    if (summary.entryCount == 0) {
        field("Entries", "none");
    } else {
        field("Entries", std::to_string(summary.entryCount) + ", ids " +
                             std::to_string(summary.firstId) + " to " +
                             std::to_string(summary.lastId));
        field("Time", isoDateTime(summary.entries.firstTimestamp) + " to " +
                          isoDateTime(summary.entries.lastTimestamp) + " (" +
                          humanDuration(summary.entries.spanMs()) + ")");
        field("Payload", humanSize(summary.entries.payloadBytes) + " as logged");
    }
    field("Bookmarks", std::to_string(summary.bookmarkCount));

    Table sources({{"ID", true},
                   {"NAME"},
                   {"TYPE", true},
                   {"ENTRIES", true},
                   {"RATE", true},
                   {"PAYLOAD", true},
                   {"PROPERTIES"}},
                  "  ");
    for (const DataSource& source : summary.sources) {
        const EntryStats stats = statsOf(summary, source.id);
        const std::string payload = humanSize(stats.payloadBytes);
        sources.addRow({std::to_string(source.id), source.name, std::to_string(source.type),
                        std::to_string(stats.count), rateText(stats), payload,
                        propertiesText(summary, source.id)});
    }
    std::cout << "\nData sources\n";
    if (sources.empty()) {
        std::cout << "  (none)\n";
    } else {
        sources.print(std::cout);
    }

    if (!summary.resources.empty()) {
        Table resources({{"NAME"}, {"SIZE", true}}, "  ");
        for (const LogResourceEntry& resource : summary.resources) {
            resources.addRow({resource.name, humanSize(resource.data.size())});
        }
        std::cout << "\nResources\n";
        resources.print(std::cout);
    }

    Table others({{"KEY"}, {"KIND"}, {"VALUE"}}, "  ");
    for (const LogMetadataEntry& entry : summary.metadata) {
        if (identityKeys.count(entry.key) == 0) {
            others.addRow({entry.key, valueKind(entry.value), valueText(entry.value)});
        }
    }
    if (!others.empty()) {
        std::cout << "\nMetadata\n";
        others.print(std::cout);
    }
}

json summaryJson(const Summary& summary) {
    json out;
    out["file"] = summary.file.string();
    out["fileSize"] = summary.fileSize;
    out["reservedBytes"] = summary.reservedBytes;
    out["logVersion"] = metadataInteger(summary, "logVersion").value_or(0);
    out["compressionLevel"] = metadataInteger(summary, "compressionLevel").value_or(0);
    if (const auto created = metadataInteger(summary, "createdDateTime")) {
        out["createdDateTime"] = *created;
        out["created"] = isoDateTime(*created);
    }
    out["entryCount"] = summary.entryCount;
    out["firstEntryId"] = summary.firstId;
    out["lastEntryId"] = summary.lastId;
    if (summary.entries.count > 0) {
        out["firstTimestamp"] = summary.entries.firstTimestamp;
        out["lastTimestamp"] = summary.entries.lastTimestamp;
    }
    out["spanMs"] = summary.entries.spanMs();
    out["payloadBytes"] = summary.entries.payloadBytes;
    out["bookmarkCount"] = summary.bookmarkCount;
    out["dataSources"] = json::array();
    for (const DataSource& source : summary.sources) {
        const EntryStats stats = statsOf(summary, source.id);
        json properties = json::object();
        const auto owned = summary.properties.find(source.id);
        if (owned != summary.properties.end()) {
            for (const auto& property : owned->second) {
                properties[property.name] = valueJson(property.value);
            }
        }
        out["dataSources"].push_back({{"id", source.id},
                                      {"name", source.name},
                                      {"type", static_cast<std::int32_t>(source.type)},
                                      {"entryCount", stats.count},
                                      {"payloadBytes", stats.payloadBytes},
                                      {"properties", properties}});
    }
    out["resources"] = json::array();
    for (const LogResourceEntry& resource : summary.resources) {
        out["resources"].push_back({{"name", resource.name}, {"size", resource.data.size()}});
    }
    out["metadata"] = json::object();
    for (const LogMetadataEntry& entry : summary.metadata) {
        out["metadata"][entry.key] = valueJson(entry.value);
    }
    return out;
}

}  // namespace

int runInfo(const InfoOptions& options) {
    const Summary summary = summarise(*openLog(options.file));
    if (options.json) {
        std::cout << summaryJson(summary).dump(2) << '\n';
    } else {
        printSummary(summary);
    }
    return 0;
}

int runCat(const CatOptions& options) {
    const std::unique_ptr<SqliteLogFile> log = openLog(options.file);
    EntryRange range;
    range.first = options.from;
    range.last = options.to;
    range.limit = options.limit;
    range.filter.dataTypes = options.types;
    range.filter.dataSources = resolveSources(*log, options.sources);
    for (const std::int32_t type : options.sourceTypes) {
        range.filter.dataSourceTypes.push_back(static_cast<KV_LogDataSourceType>(type));
    }
    if (options.format == "raw") {
        refuseTerminalStdout();
    }
    const std::vector<DataSource> sources = log->getDataSources();
    const EntryPrinter print =
        entryPrinter(options.format, sources, std::max(log->getLastEntryId(), 0));
    forEachEntry(*log, range, [&print](const DataEntry& entry) {
        print(entry);
        return static_cast<bool>(std::cout);
    });
    std::cout.flush();
    return 0;
}

}  // namespace KorvaneLog
