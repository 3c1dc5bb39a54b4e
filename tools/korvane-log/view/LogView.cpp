#include "LogView.h"

#include <korvane/logging/model/LegacyLogFileError.h>
#include <korvane/logging/model/NotALogFileError.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>

#include "../Format.h"
#include "../LogFiles.h"

namespace KorvaneLog::View {

namespace {

using json = nlohmann::ordered_json;
using Korvane::Logging::SqliteLogFile;

// Rows counted between two updates of the progress that the page shows.
constexpr std::uint64_t progressStep = 4096;
// Rows of a burst of new entries added to the summary under one hold of its lock.
constexpr std::size_t rowsPerUpdate = 65'536;
// Gaps listed per source: the longest ones when there are more.
constexpr std::size_t gapsListed = 2000;
// A thumbnail larger than this is not put into a report.
constexpr std::size_t largestReportThumbnail = 4 << 20;

bool startsWith(const ByteArray& bytes, std::initializer_list<unsigned char> prefix,
                std::size_t at = 0) {
    return bytes.size() >= at + prefix.size() &&
           std::equal(prefix.begin(), prefix.end(), bytes.begin() + static_cast<long>(at));
}

std::string dumped(const json& value) {
    // Names and values from a file need not be UTF-8; they are shown, never refused.
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

json valueOf(const PropertyValue& value) {
    return {{"value", valueText(value)}, {"kind", valueKind(value)}};
}

json cellTimes(const Cell& cell) {
    if (cell.count == 0) {
        return {{"count", 0}};
    }
    return {{"count", cell.count},   {"bytes", cell.bytes},         {"firstId", cell.firstId},
            {"lastId", cell.lastId}, {"firstTime", cell.firstTime}, {"lastTime", cell.lastTime}};
}

// The row's place in time order; ids break ties, as entries logged at the same millisecond
// keep the order of their logging.
bool earlier(const EntryRow& a, const EntryRow& b) {
    return a.timestamp != b.timestamp ? a.timestamp < b.timestamp : a.id < b.id;
}

}  // namespace

std::string imageTypeOf(const ByteArray& bytes) {
    if (startsWith(bytes, {0x89, 'P', 'N', 'G', 0x0d, 0x0a, 0x1a, 0x0a})) {
        return "image/png";
    }
    if (startsWith(bytes, {0xff, 0xd8, 0xff})) {
        return "image/jpeg";
    }
    if (startsWith(bytes, {'G', 'I', 'F', '8'})) {
        return "image/gif";
    }
    if (startsWith(bytes, {'R', 'I', 'F', 'F'}) && startsWith(bytes, {'W', 'E', 'B', 'P'}, 8)) {
        return "image/webp";
    }
    if (startsWith(bytes, {'B', 'M'}) && bytes.size() > 26) {
        return "image/bmp";
    }
    if (bytes.size() > 3 && bytes[0] == 'P' && (bytes[1] == '5' || bytes[1] == '6') &&
        std::isspace(bytes[2])) {
        return "image/x-portable-anymap";
    }
    return "";
}

LogView::LogView(const std::filesystem::path& file, const Options& options)
    : file(file), options(options) {
    refuseUnusablePath(file);
    try {
        log = std::make_unique<SqliteLogFile>(file, SqliteLogFile::Access::ReadOnly);
        queries = std::make_unique<EntryTable>(file);
        follower = std::make_unique<EntryTable>(file);
    } catch (const Korvane::Logging::LegacyLogFileError&) {
        throw ToolError(file, "a legacy log file of the older format, which cannot be read");
    } catch (const Korvane::Logging::NotALogFileError&) {
        throw ToolError(file, "not a log file");
    } catch (const std::exception& failure) {
        throw ToolError(file, failure.what());
    }
    struct stat status {};
    if (stat(file.c_str(), &status) == 0) {
        device = status.st_dev;
        inode = status.st_ino;
        fileSize = static_cast<std::uintmax_t>(status.st_size);
    }
    annotationsFingerprint = follower->annotationsFingerprint();
    loadAnnotations();
    thread = std::thread([this] { run(); });
}

LogView::~LogView() {
    {
        std::lock_guard<std::mutex> lock(stopMutex);
        stopping = true;
    }
    stopSignal.notify_all();
    thread.join();
}

void LogView::run() {
    try {
        countAll();
        while (options.follow) {
            std::unique_lock<std::mutex> lock(stopMutex);
            if (stopSignal.wait_for(lock, options.pollInterval,
                                    [this] { return stopping.load(); })) {
                return;
            }
            lock.unlock();
            if (!followOnce()) {
                return;
            }
        }
    } catch (const std::exception& failure) {
        std::unique_lock<std::shared_mutex> lock(stateMutex);
        gone = std::string("cannot be read any more: ") + failure.what();
        ready = true;
        ++version;
        counted.notify_all();
    }
}

void LogView::countAll() {
    const std::int64_t first = follower->firstId();
    const std::int64_t last = follower->lastId();
    rowsToCount = last >= first && last > 0 ? last - first + 1 : 0;
    // One connection, a window of ids at a time. A second thread on a connection of its own
    // would hold the file without a break while the two took turns, since SQLite shares the
    // locks of one process, and a recorder in another process would wait for the whole count.
    TimelineSummary counting;
    std::uint64_t sinceUpdate = 0;
    if (last > 0) {
        follower->scan(first, last, [&](const EntryRow& row) {
            counting.add(row.source, row.id, row.timestamp, row.storedBytes);
            if (++sinceUpdate == progressStep) {
                rowsCounted += sinceUpdate;
                sinceUpdate = 0;
            }
            return !stopping.load(std::memory_order_relaxed);
        });
    }
    std::unique_lock<std::shared_mutex> lock(stateMutex);
    summary = std::move(counting);
    countedThrough = last;
    rowsCounted = summary.entryCount();
    ready = true;
    ++version;
    counted.notify_all();
}

bool LogView::followOnce() {
    struct stat status {};
    const bool present = stat(file.c_str(), &status) == 0;
    if (!present || status.st_dev != device || status.st_ino != inode) {
        std::unique_lock<std::shared_mutex> lock(stateMutex);
        gone = present ? "was replaced by another file" : "was removed";
        ++version;
        return false;
    }
    bool changed = false;
    const std::int64_t last = follower->lastId();
    if (last > countedThrough) {
        std::vector<EntryRow> rows;
        const auto apply = [this, &rows] {
            std::unique_lock<std::shared_mutex> lock(stateMutex);
            for (const EntryRow& row : rows) {
                summary.add(row.source, row.id, row.timestamp, row.storedBytes);
            }
            rows.clear();
        };
        follower->scan(countedThrough + 1, last, [&](const EntryRow& row) {
            rows.push_back(row);
            if (rows.size() == rowsPerUpdate) {
                apply();
            }
            return !stopping.load(std::memory_order_relaxed);
        });
        apply();
        std::unique_lock<std::shared_mutex> lock(stateMutex);
        countedThrough = last;
        rowsCounted = summary.entryCount();
        rowsToCount = summary.entryCount();
        changed = true;
    }
    if (static_cast<std::uintmax_t>(status.st_size) != fileSize) {
        std::unique_lock<std::shared_mutex> lock(stateMutex);
        fileSize = static_cast<std::uintmax_t>(status.st_size);
        changed = true;
    }
    const std::uint64_t fingerprint = follower->annotationsFingerprint();
    if (fingerprint != annotationsFingerprint) {
        annotationsFingerprint = fingerprint;
        loadAnnotations();
        changed = true;
    }
    if (changed) {
        ++version;
    }
    return true;
}

void LogView::loadAnnotations() {
    json loaded;
    std::lock_guard<std::mutex> lock(libraryMutex);
    const auto metadataValue = [this](const char* key) -> json {
        const std::optional<PropertyValue> value = log->getMetadataValue(key);
        return value ? json(valueText(*value)) : json(nullptr);
    };
    loaded["identity"] = {
        {"application", metadataValue("applicationName")},
        {"applicationVersion", metadataValue("applicationVersion")},
        {"timeZone", metadataValue("currentTimeZone")},
        {"compressionLevel", metadataValue("compressionLevel")},
        {"logVersion", metadataValue("logVersion")},
        {"created", metadataValue("createdDateTime")},
    };
    json& sources = loaded["sources"] = json::array();
    const auto properties = log->getAllDataSourceProperties();
    for (const DataSource& source : log->getDataSources()) {
        json listed = json::array();
        for (const auto& property : properties) {
            if (property.dataSourceId == source.id) {
                listed.push_back({{"key", property.name},
                                  {"value", valueText(property.value)},
                                  {"kind", valueKind(property.value)}});
            }
        }
        sources.push_back({{"id", source.id},
                           {"name", source.name},
                           {"type", static_cast<std::int64_t>(source.type)},
                           {"properties", std::move(listed)}});
    }
    json& bookmarks = loaded["bookmarks"] = json::array();
    for (const Korvane::Logging::Bookmark& bookmark : log->getBookmarks()) {
        bool found = false;
        const std::int64_t time = follower->timestampOf(bookmark.entryId, found);
        bookmarks.push_back({{"entryId", bookmark.entryId},
                             {"title", bookmark.title},
                             {"comment", bookmark.comment},
                             {"time", found ? json(time) : json(nullptr)},
                             {"payloadSize", bookmark.payload.size()}});
    }
    json& metadata = loaded["metadata"] = json::array();
    for (const LogMetadataEntry& entry : log->getAllMetadata()) {
        json row = valueOf(entry.value);
        row["key"] = entry.key;
        metadata.push_back(std::move(row));
    }
    json& resources = loaded["resources"] = json::array();
    for (const LogResourceEntry& resource : log->getAllResources()) {
        resources.push_back({{"name", resource.name}, {"size", resource.data.size()}});
    }
    const std::optional<ByteArray> thumbnail = log->getThumbnail();
    loaded["thumbnail"] = thumbnail
                              ? json{{"size", thumbnail->size()}, {"type", imageTypeOf(*thumbnail)}}
                              : json(nullptr);
    std::unique_lock<std::shared_mutex> state(stateMutex);
    annotations = std::move(loaded);
}

void LogView::waitUntilCounted() const {
    std::shared_lock<std::shared_mutex> lock(stateMutex);
    counted.wait(lock, [this] { return ready; });
    if (!gone.empty()) {
        throw ToolError(file, gone);
    }
}

std::string LogView::liveJson() const {
    std::shared_lock<std::shared_mutex> lock(stateMutex);
    return dumped({{"version", version.load()},
                   {"state", !gone.empty() ? "gone"
                             : ready       ? "ready"
                                           : "counting"},
                   {"reason", gone},
                   {"counted", rowsCounted.load()},
                   {"total", rowsToCount.load()}});
}

json LogView::summaryLocked() const {
    json out = annotations;
    out["version"] = version.load();
    out["state"] = !gone.empty() ? "gone" : ready ? "ready" : "counting";
    out["reason"] = gone;
    out["file"] = {{"path", file.string()}, {"size", fileSize}};
    json entries = cellTimes(summary.total());
    out["entries"] = std::move(entries);
    out["cellWidth"] = summary.widthMs();
    // Sources without entries get a lane too, and entries of a source that the file does not
    // list (a file from elsewhere) are not left out.
    json& sources = out["sources"];
    for (const std::int8_t id : summary.sources()) {
        const bool listed = std::any_of(sources.begin(), sources.end(),
                                        [id](const json& source) { return source["id"] == id; });
        if (!listed) {
            sources.push_back({{"id", id},
                               {"name", "#" + std::to_string(id)},
                               {"type", nullptr},
                               {"properties", json::array()}});
        }
    }
    for (json& source : sources) {
        const auto id = source["id"].get<std::int8_t>();
        const Cell total = summary.total(id);
        source.update(cellTimes(total));
        Rhythm rhythm = rhythmOf(id);
        source["usualInterval"] = rhythm.usualIntervalMs;
        source["gapThreshold"] = rhythm.gapThresholdMs;
        source["gapsExact"] = rhythm.exact;
        source["gapCount"] = rhythm.gaps.size();
        if (rhythm.gaps.size() > gapsListed) {
            std::partial_sort(
                rhythm.gaps.begin(), rhythm.gaps.begin() + gapsListed, rhythm.gaps.end(),
                [](const Gap& a, const Gap& b) { return a.to - a.from > b.to - b.from; });
            rhythm.gaps.resize(gapsListed);
            std::sort(rhythm.gaps.begin(), rhythm.gaps.end(),
                      [](const Gap& a, const Gap& b) { return a.from < b.from; });
        }
        json gaps = json::array();
        for (const Gap& gap : rhythm.gaps) {
            gaps.push_back({gap.from, gap.to});
        }
        source["gaps"] = std::move(gaps);
    }
    return out;
}

Rhythm LogView::rhythmOf(std::int8_t source) const {
    // Gaps take a pass over all cells of the source; the page asks again only for a new version.
    std::lock_guard<std::mutex> lock(rhythmMutex);
    if (rhythmsVersion != version.load()) {
        rhythms.clear();
        rhythmsVersion = version.load();
    }
    auto found = rhythms.find(source);
    if (found == rhythms.end()) {
        found = rhythms.emplace(source, summary.rhythm(source)).first;
    }
    return found->second;
}

std::string LogView::summaryJson() const {
    std::shared_lock<std::shared_mutex> lock(stateMutex);
    return dumped(summaryLocked());
}

std::string LogView::binsJson(std::int64_t from, std::int64_t to, std::size_t maxBins) const {
    Bins bins;
    std::uint64_t shownVersion = 0;
    {
        std::shared_lock<std::shared_mutex> lock(stateMutex);
        shownVersion = version.load();
        const bool cellsSuffice = to <= from || maxBins == 0 ||
                                  static_cast<double>(to - from) / static_cast<double>(maxBins) >=
                                      static_cast<double>(summary.widthMs());
        if (cellsSuffice) {
            bins = summary.bins(from, to, maxBins);
        } else {
            const Cell rows = summary.overlapping(from, to);
            lock.unlock();
            // Narrower than a cell: count the rows of the stretch again, at the width asked.
            const auto width = static_cast<std::int64_t>(
                std::ceil(static_cast<double>(to - from) / static_cast<double>(maxBins)));
            TimelineSummary fine(std::max<std::int64_t>(width, 1),
                                 TimelineSummary::defaultCellBudget, true);
            if (rows.count > 0) {
                std::lock_guard<std::mutex> query(queryMutex);
                queries->scan(rows.firstId, rows.lastId, [&](const EntryRow& row) {
                    if (row.timestamp >= from && row.timestamp < to) {
                        fine.add(row.source, row.id, row.timestamp, row.storedBytes);
                    }
                    return true;
                });
            }
            bins = fine.bins(from, to, maxBins);
        }
    }
    json sources = json::array();
    for (std::size_t i = 0; i < bins.sources.size(); ++i) {
        sources.push_back(
            {{"id", bins.sources[i]}, {"counts", bins.counts[i]}, {"bytes", bins.bytes[i]}});
    }
    return dumped({{"version", shownVersion},
                   {"from", bins.from},
                   {"width", bins.width},
                   {"count", bins.count},
                   {"sources", std::move(sources)}});
}

std::string LogView::entriesJson(std::optional<std::int8_t> source, std::int64_t at,
                                 std::size_t count) const {
    const std::uint64_t half = std::max<std::size_t>(count / 2, 1);
    std::vector<std::pair<std::int8_t, Stretch>> stretches;
    {
        std::shared_lock<std::shared_mutex> lock(stateMutex);
        for (const std::int8_t id :
             source ? std::vector<std::int8_t>{*source} : summary.sources()) {
            stretches.emplace_back(id, summary.around(id, at, half, half));
        }
    }
    std::vector<EntryRow> rows;
    {
        std::lock_guard<std::mutex> lock(queryMutex);
        for (const auto& [id, stretch] : stretches) {
            if (stretch.count == 0) {
                continue;
            }
            for (const EntryRow& row : queries->rowsOf(id, stretch.firstId, stretch.lastId)) {
                if (row.timestamp >= stretch.from && row.timestamp < stretch.to) {
                    rows.push_back(row);
                }
            }
        }
    }
    std::sort(rows.begin(), rows.end(), earlier);
    const auto firstAfter = std::partition_point(
        rows.begin(), rows.end(), [at](const EntryRow& row) { return row.timestamp < at; });
    const auto begin = firstAfter - std::min<std::ptrdiff_t>(half, firstAfter - rows.begin());
    const auto end = firstAfter + std::min<std::ptrdiff_t>(half, rows.end() - firstAfter);
    json listed = json::array();
    std::lock_guard<std::mutex> lock(libraryMutex);
    for (auto row = begin; row != end; ++row) {
        const std::optional<Korvane::Logging::DataEntry> entry = log->readEntry(row->id);
        listed.push_back({{"id", row->id},
                          {"time", row->timestamp},
                          {"source", row->source},
                          {"type", row->type},
                          {"size", entry ? json(entry->data.size()) : json(nullptr)},
                          {"stored", row->storedBytes}});
    }
    return dumped({{"at", at}, {"entries", std::move(listed)}});
}

std::optional<ByteArray> LogView::payload(std::int32_t id) const {
    std::lock_guard<std::mutex> lock(libraryMutex);
    std::optional<Korvane::Logging::DataEntry> entry = log->readEntry(id);
    if (!entry) {
        return std::nullopt;
    }
    return std::move(entry->data);
}

std::optional<ByteArray> LogView::resource(const std::string& name) const {
    std::lock_guard<std::mutex> lock(libraryMutex);
    return log->getResource(name);
}

std::optional<ByteArray> LogView::thumbnail() const {
    std::lock_guard<std::mutex> lock(libraryMutex);
    return log->getThumbnail();
}

std::string LogView::reportJson(std::size_t maxCellsPerSource) const {
    std::optional<ByteArray> image = thumbnail();
    std::shared_lock<std::shared_mutex> lock(stateMutex);
    json out = summaryLocked();
    const TimelineSummary coarse = summary.coarsened(maxCellsPerSource);
    json sources = json::array();
    for (const std::int8_t id : coarse.sources()) {
        // Cell starts as differences from the previous one, in cells: short numbers.
        json starts = json::array();
        json counts = json::array();
        json bytes = json::array();
        std::int64_t previous = 0;
        coarse.forEachCell(id, [&](std::int64_t start, const Cell& cell) {
            const std::int64_t index = start / coarse.widthMs();
            starts.push_back(index - previous);
            previous = index;
            counts.push_back(cell.count);
            bytes.push_back(cell.bytes);
        });
        sources.push_back({{"id", id},
                           {"starts", std::move(starts)},
                           {"counts", std::move(counts)},
                           {"bytes", std::move(bytes)}});
    }
    out["cells"] = {{"width", coarse.widthMs()}, {"sources", std::move(sources)}};
    if (image && image->size() <= largestReportThumbnail && !imageTypeOf(*image).empty()) {
        out["thumbnail"]["data"] = base64Encode(*image);
    }
    return dumped(out);
}

}  // namespace KorvaneLog::View
