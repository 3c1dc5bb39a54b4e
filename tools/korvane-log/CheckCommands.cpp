// check and recover: what a damaged log file still holds, and a new log file with all of it.
//
// Both read below the library, through `LogSalvage`: the library refuses a file that SQLite
// calls malformed, and opening a file may drop a bookmarks table whose references cannot be
// checked. `check` reads the file itself, read-only; `recover` reads a copy and writes what it
// finds into a new file through the library.

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <set>

#include "Commands.h"
#include "EntryBatch.h"
#include "LogSalvage.h"
#include "Terminal.h"

namespace KorvaneLog {

namespace {

// The metadata that a new log file writes itself.
const std::set<std::string> identityKeys{
    "createdDateTime", "applicationName", "applicationVersion",
    "currentTimeZone", "logVersion",      "compressionLevel",
};

constexpr std::size_t problemsShown = 5;

// "1 entry", "2 entries".
std::string counted(std::int64_t count, const std::string& one, const std::string& many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

// What could not be read or decoded of a table. Entries that cannot be read are told by
// `entryLosses`, from the ids that they leave out.
std::vector<std::string> lossLines(const TableReport& report) {
    std::vector<std::string> lines;
    const bool entries = report.table == "data";
    if (report.walk.unreadablePages && !entries) {
        lines.push_back(report.table + ": some of its pages cannot be read");
    }
    const IdSet& unreadable = report.walk.unreadableRows;
    if (!unreadable.empty() && !entries) {
        lines.push_back(report.table + ": " + counted(unreadable.size(), "row", "rows") +
                        " cannot be read (row ids " + unreadable.text() + ")");
    }
    if (const std::int64_t count = report.undecodable.size(); count > 0) {
        lines.push_back(
            report.table + ": " +
            (entries ? counted(count, "entry", "entries") : counted(count, "row", "rows")) +
            (count == 1 ? " does" : " do") + " not decode (" + (entries ? "ids " : "row ids ") +
            report.undecodable.text() + ")");
    }
    return lines;
}

// The entries lost: the ids in `lost`, and those past the last id read when the last pages of
// the table cannot be read.
std::vector<std::string> entryLosses(const LogSalvage& salvage, const IdSet& lost) {
    std::vector<std::string> lines;
    const std::string last = std::to_string(salvage.lastEntryId());
    if (!lost.empty()) {
        lines.push_back("data: " + counted(lost.size(), "id", "ids") + " of 1 to " + last +
                        " cannot be read: " + lost.text());
    }
    if (!salvage.entriesEndKnown()) {
        lines.push_back(salvage.lastEntryId() == 0
                            ? "data: its pages cannot be read"
                            : "data: its last pages cannot be read; entries after id " + last +
                                  " are lost");
    }
    return lines;
}

// A count of problems and the first few of them, indented below a heading.
void listProblems(std::vector<std::string>& findings, const std::string& heading,
                  const std::vector<std::string>& problems) {
    if (problems.empty()) {
        return;
    }
    findings.push_back(heading + ": " +
                       counted(static_cast<std::int64_t>(problems.size()), "problem", "problems"));
    for (std::size_t i = 0; i < problems.size() && i < problemsShown; ++i) {
        findings.push_back("  " + problems[i]);
    }
    if (problems.size() > problemsShown) {
        findings.push_back("  ...");
    }
}

// A folder of its own under the system's temporary folder, removed with what it holds.
class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string pattern = (fs::temp_directory_path() / "korvane-recover-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw ToolError(pattern, "cannot make a temporary folder");
        }
        path = pattern;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    fs::path path;
};

// Removes a file that was made by a command that then failed, unless told it is complete.
class RemoveUnlessKept {
public:
    explicit RemoveUnlessKept(fs::path file) : file(std::move(file)) {}
    ~RemoveUnlessKept() {
        if (!kept) {
            std::error_code ignored;
            fs::remove(file, ignored);
        }
    }
    RemoveUnlessKept(const RemoveUnlessKept&) = delete;
    RemoveUnlessKept& operator=(const RemoveUnlessKept&) = delete;

    void keep() { kept = true; }

private:
    fs::path file;
    bool kept = false;
};

const PropertyValue* findValue(const std::vector<LogMetadataEntry>& metadata,
                               const std::string& key) {
    for (const LogMetadataEntry& entry : metadata) {
        if (entry.key == key) {
            return &entry.value;
        }
    }
    return nullptr;
}

std::optional<std::string> textValue(const std::vector<LogMetadataEntry>& metadata,
                                     const std::string& key) {
    const PropertyValue* value = findValue(metadata, key);
    if (value == nullptr || !std::holds_alternative<std::string>(*value)) {
        return std::nullopt;
    }
    return std::get<std::string>(*value);
}

std::int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// The new file of `recover`: the identity of the damaged one, unless the options replace it;
// a replaced name and version are kept as "oldApplicationName" and "oldApplicationVersion".
std::unique_ptr<SqliteLogFile> createRecoveredLog(const RecoverOptions& options,
                                                  const LogSalvage& salvage,
                                                  const std::vector<LogMetadataEntry>& metadata) {
    const NewFileIdentity defaults;
    const std::string name =
        textValue(metadata, "applicationName").value_or(defaults.applicationName);
    const std::string version =
        textValue(metadata, "applicationVersion").value_or(defaults.applicationVersion);
    const PropertyValue* created = findValue(metadata, "createdDateTime");
    const auto level = static_cast<std::int8_t>(options.compressionLevel.value_or(
        static_cast<int>(salvage.level().value_or(defaults.compressionLevel))));
    std::unique_ptr<SqliteLogFile> log;
    try {
        log = std::make_unique<SqliteLogFile>(
            options.output, textValue(metadata, "currentTimeZone").value_or(localTimeZoneName()),
            options.applicationName.value_or(name), options.applicationVersion.value_or(version),
            level,
            created != nullptr && std::holds_alternative<std::int64_t>(*created)
                ? std::get<std::int64_t>(*created)
                : nowMs());
    } catch (const std::exception& failure) {
        throw ToolError(options.output, failure.what());
    }
    if (options.applicationName && *options.applicationName != name) {
        log->addMetadata("oldApplicationName", name);
    }
    if (options.applicationVersion && *options.applicationVersion != version) {
        log->addMetadata("oldApplicationVersion", version);
    }
    for (const LogMetadataEntry& entry : metadata) {
        if (identityKeys.count(entry.key) == 0) {
            log->addMetadata(entry);  // false for a key that came twice: the first one stays
        }
    }
    return log;
}

// Entries whose source was lost go under a stand-in source of the same id.
class SourceKeeper {
public:
    explicit SourceKeeper(LogFileInterface& log) : log(log) {}

    void add(const DataSource& source) {
        requireSuccess(log.addDataSource(source), log, "add data source " + source.name);
        known.insert(source.id);
    }

    void require(std::int8_t id) {
        if (known.count(id) == 0) {
            add(DataSource{id, KV_LogDataSourceType{}, standInName(id)});
            standIns.push_back(id);
        }
    }

    static std::string standInName(std::int8_t id) { return "recovered #" + std::to_string(id); }

    std::vector<std::int8_t> standIns;

private:
    LogFileInterface& log;
    std::set<std::int8_t> known;
};

}  // namespace

int runCheck(const CheckOptions& options) {
    const fs::path file = options.file;
    const DatabaseHeader header = readDatabaseHeader(file);
    // With the journal of an unfinished write beside it, SQLite would have to undo that write
    // before it reads the file: it is read as it stands instead, and the journal is reported.
    const std::optional<fs::path> journal = unfinishedWrite(file);
    LogSalvage salvage(
        file, file, journal ? RawLogReader::Opening::AsItStands : RawLogReader::Opening::ReadOnly);

    std::vector<std::string> findings;
    if (journal) {
        findings.push_back("journal: " + journal->string() +
                           " holds an unfinished write, which opening undoes (recover on a copy)");
    }
    if (const std::string disagreement = header.disagreement(); !disagreement.empty()) {
        findings.push_back("header: " + disagreement);
    }
    listProblems(findings, "integrity_check", salvage.raw().integrityProblems());
    listProblems(findings, "foreign_key_check", salvage.raw().foreignKeyProblems());

    salvage.metadata();
    const auto sourceCount = static_cast<std::int64_t>(salvage.sources().size());
    salvage.properties();
    std::int64_t entryCount = 0;
    salvage.entries([&entryCount](DataEntry&&) { ++entryCount; });
    const auto resourceCount = static_cast<std::int64_t>(salvage.resources().size());
    const auto bookmarkCount = static_cast<std::int64_t>(salvage.bookmarks().size());
    for (const std::string& line : entryLosses(salvage, salvage.unreadableEntries())) {
        findings.push_back(line);
    }
    for (const TableReport& report : salvage.reports()) {
        for (const std::string& line : lossLines(report)) {
            findings.push_back(line);
        }
    }

    if (findings.empty()) {
        std::cout << file.string() << ": ok, " << counted(entryCount, "entry", "entries") << ", "
                  << counted(sourceCount, "data source", "data sources") << ", "
                  << counted(resourceCount, "resource", "resources") << ", "
                  << counted(bookmarkCount, "bookmark", "bookmarks") << '\n';
        return 0;
    }
    std::cout << file.string() << ": damaged; " << counted(entryCount, "entry", "entries")
              << " can be read\n";
    for (const std::string& line : findings) {
        std::cout << "  " << line << '\n';
    }
    std::cout << "'korvane-log recover " << file.string()
              << " OUT' saves what can be read into a new file\n";
    return 1;
}

int runRecover(const RecoverOptions& options) {
    const fs::path damaged = options.file;
    const fs::path output = options.output;
    readDatabaseHeader(damaged);
    requireAbsent(output);

    // The damaged file is only read, to copy it; the copy gets a header that SQLite will open.
    const TemporaryFolder folder;
    const fs::path copy = folder.path / damaged.filename();
    copyWithRepairedHeader(damaged, copy);
    LogSalvage salvage(copy, damaged, RawLogReader::Opening::RollingBack);
    const std::vector<LogMetadataEntry> metadata = salvage.metadata();
    const std::vector<DataSource> sources = salvage.sources();
    const std::vector<DataSourceProperty> properties = salvage.properties();

    RemoveUnlessKept unfinished(output);
    const std::unique_ptr<SqliteLogFile> log = createRecoveredLog(options, salvage, metadata);
    SourceKeeper keeper(*log);
    for (const DataSource& source : sources) {
        keeper.add(source);
    }
    for (const DataSourceProperty& property : properties) {
        keeper.require(property.dataSourceId);
        requireSuccess(log->addDataSourceProperty(property), *log, "add a property");
    }

    // The new file numbers the entries from 1 again; bookmarks follow their entries.
    std::vector<std::pair<std::int32_t, std::int32_t>> newIds;
    IdSet saved;
    {
        EntryBatch batch(*log, [&log](std::int64_t id) {
            return refusal(*log, "log entry " + std::to_string(id));
        });
        ProgressTicker ticker([&batch, &output] {
            return "recover: " + std::to_string(batch.written()) + " entries saved into " +
                   output.string();
        });
        salvage.entries([&](DataEntry&& entry) {
            keeper.require(entry.dataSourceId);
            const std::int32_t id = entry.entryId;
            newIds.emplace_back(id, static_cast<std::int32_t>(newIds.size() + 1));
            saved.add(id);
            batch.add(std::move(entry), id);
        });
        batch.flush();
    }
    std::int64_t resourcesDropped = 0;
    for (const LogResourceEntry& resource : salvage.resources()) {
        resourcesDropped += log->addResource(resource) ? 0 : 1;
    }
    std::int64_t bookmarksDropped = 0;
    for (Bookmark bookmark : salvage.bookmarks()) {
        const auto found =
            std::lower_bound(newIds.begin(), newIds.end(), std::make_pair(bookmark.entryId, 0));
        const bool kept = found != newIds.end() && found->first == bookmark.entryId;
        bookmark.entryId = kept ? found->second : 0;
        bookmarksDropped += kept && log->addBookmark(bookmark) ? 0 : 1;
    }
    unfinished.keep();

    std::cout << "saved " << counted(saved.size(), "entry", "entries") << " into "
              << output.string() << '\n';
    std::vector<std::string> losses =
        entryLosses(salvage, saved.gapsBetween(1, salvage.lastEntryId()));
    for (const TableReport& report : salvage.reports()) {
        if (report.table != "data") {
            const std::vector<std::string> lines = lossLines(report);
            losses.insert(losses.end(), lines.begin(), lines.end());
        }
    }
    for (const std::int8_t id : keeper.standIns) {
        losses.push_back("dataSources: source " + std::to_string(id) +
                         " was lost; its entries are under the stand-in \"" +
                         SourceKeeper::standInName(id) + "\"");
    }
    if (bookmarksDropped > 0) {
        losses.push_back("bookmarks: " + counted(bookmarksDropped, "bookmark", "bookmarks") +
                         " dropped with the entries they marked");
    }
    if (resourcesDropped > 0) {
        losses.push_back("resources: " + counted(resourcesDropped, "resource", "resources") +
                         " dropped: the name came twice");
    }
    for (const std::string& line : losses) {
        std::cout << "  " << line << '\n';
    }
    return 0;
}

}  // namespace KorvaneLog
