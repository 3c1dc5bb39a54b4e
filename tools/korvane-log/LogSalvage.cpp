#include "LogSalvage.h"

#include <limits>

namespace KorvaneLog {

namespace {

template <typename T>
bool fits(std::int64_t value) {
    return value >= std::numeric_limits<T>::min() && value <= std::numeric_limits<T>::max();
}

// The bytes of a stored payload; empty when it does not decode. `packed` is empty when the
// metadata cannot say whether the file compresses this column.
std::optional<ByteArray> decode(const ByteArray& stored, std::optional<bool> packed) {
    return packed.value_or(looksCompressed(stored)) ? uncompressPayload(stored) : stored;
}

}  // namespace

std::optional<bool> LogSalvage::compressed(std::int64_t since) const {
    if (!steeringKnown) {
        return std::nullopt;
    }
    return logVersion.value_or(0) >= since && compressionLevel.value_or(0) != 0;
}

TableReport& LogSalvage::walk(const std::string& table, const std::string& columns,
                              const std::function<bool(const Row&)>& take) {
    TableReport report{table, 0, {}, {}};
    report.walk = reader.walk(table, columns, [&](const Row& row) {
        if (take(row)) {
            ++report.rows;
        } else {
            report.undecodable.add(row.id());
        }
    });
    tables.push_back(std::move(report));
    return tables.back();
}

std::vector<LogMetadataEntry> LogSalvage::metadata() {
    std::vector<LogMetadataEntry> entries;
    const TableReport& report = walk("metadata", "key, value", [&](const Row& row) {
        auto key = row.text(0);
        auto value = row.value(1);
        if (!key || !value) {
            return false;
        }
        const auto* number = std::get_if<std::int64_t>(&*value);
        if (number != nullptr && *key == "compressionLevel") {
            compressionLevel = *number;
        } else if (number != nullptr && *key == "logVersion") {
            logVersion = *number;
        }
        entries.push_back({std::move(*key), std::move(*value)});
        return true;
    });
    // A missing value means 0, as the library reads it, unless it may be among the lost rows.
    steeringKnown = (compressionLevel && logVersion) || !report.walk.damaged();
    return entries;
}

std::vector<DataSource> LogSalvage::sources() {
    std::vector<DataSource> sources;
    walk("dataSources", "dataSourceType, dataSourceName", [&](const Row& row) {
        const auto type = row.integer(0);
        auto name = row.text(1);
        if (!type || !name || !fits<std::int8_t>(row.id()) || !fits<std::int32_t>(*type)) {
            return false;
        }
        sources.push_back({static_cast<std::int8_t>(row.id()),
                           static_cast<KV_LogDataSourceType>(*type), std::move(*name)});
        return true;
    });
    return sources;
}

std::vector<DataSourceProperty> LogSalvage::properties() {
    std::vector<DataSourceProperty> properties;
    walk("dataSourceProperties", "dataSourceId, key, value", [&](const Row& row) {
        const auto source = row.integer(0);
        auto key = row.text(1);
        auto value = row.value(2);
        if (!source || !key || !value || !fits<std::int8_t>(*source)) {
            return false;
        }
        properties.push_back(
            {static_cast<std::int8_t>(*source), std::move(*key), std::move(*value)});
        return true;
    });
    return properties;
}

void LogSalvage::entries(const std::function<void(DataEntry&&)>& visit) {
    IdSet seen;
    const std::string columns = "timestamp, type, dataSourceId, length, payload";
    const TableReport& report = walk("data", columns, [&](const Row& row) {
        seen.add(row.id());
        const auto timestamp = row.integer(0);
        const auto type = row.integer(1);
        const auto source = row.integer(2);
        const auto length = row.integer(3);
        const auto stored = row.blob(4);
        // `length` is the size of the stored form: another size means a damaged row.
        if (!timestamp || !type || !source || !length || !stored ||
            *length != static_cast<std::int64_t>(stored->size()) || !fits<std::int32_t>(row.id()) ||
            !fits<std::int32_t>(*type) || !fits<std::int8_t>(*source)) {
            return false;
        }
        auto data = decode(*stored, compressed(0));
        if (!data) {
            return false;
        }
        visit(DataEntry{static_cast<std::int32_t>(row.id()), static_cast<std::int8_t>(*source),
                        static_cast<std::int32_t>(*type), std::move(*data), *timestamp});
        return true;
    });
    const auto& keys = report.walk.keys.asRuns();
    lastId = keys.empty() ? 0 : std::max<std::int64_t>(keys.back().last, 0);
    unreadable = seen.gapsBetween(1, lastId);
    endKnown = report.walk.endKnown;
}

std::vector<LogResourceEntry> LogSalvage::resources() {
    std::vector<LogResourceEntry> resources;
    walk("resources", "name, payload", [&](const Row& row) {
        auto name = row.text(0);
        const auto stored = row.blob(1);
        auto data = stored ? decode(*stored, compressed(3)) : std::nullopt;
        if (!name || !data) {
            return false;
        }
        resources.push_back({std::move(*name), std::move(*data)});
        return true;
    });
    return resources;
}

std::vector<Bookmark> LogSalvage::bookmarks() {
    std::vector<Bookmark> bookmarks;
    // Older files may lack the payload column; what it holds there means nothing.
    const bool payloads = !steeringKnown || logVersion.value_or(0) >= 4;
    const std::string columns =
        std::string("entryId, title, comments") + (payloads ? ", payload" : "");
    walk("bookmarks", columns, [&](const Row& row) {
        const auto entryId = row.integer(0);
        auto title = row.text(1);
        const auto stored = payloads ? row.blob(3, true) : ByteArray();
        auto payload = stored ? decode(*stored, compressed(4)) : std::nullopt;
        if (!entryId || !fits<std::int32_t>(*entryId) || !title || !payload) {
            return false;
        }
        bookmarks.push_back({static_cast<std::int32_t>(*entryId), std::move(*title),
                             row.text(2).value_or(""), std::move(*payload)});
        return true;
    });
    return bookmarks;
}

}  // namespace KorvaneLog
