#include "LogFiles.h"

#include <korvane/logging/model/LegacyLogFileError.h>
#include <korvane/logging/model/NotALogFileError.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <iterator>

namespace KorvaneLog {

namespace {

// A walk reads a window of ids per query. Another process that records into the file waits
// for each query to end, so a window is kept small enough to be read in about a millisecond or
// two: it starts at a few ids, doubles while its entries come to less than a MiB, and halves when
// they pass 8 MiB, up to 4096 ids.
constexpr std::int64_t firstWindow = 16;
constexpr std::int64_t widestWindow = 4096;
constexpr std::uint64_t smallWindowBytes = 1 << 20;
constexpr std::uint64_t largeWindowBytes = 8 << 20;

std::int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::unique_ptr<SqliteLogFile> openExisting(const fs::path& file, SqliteLogFile::Access access) {
    refuseUnusablePath(file);
    try {
        return std::make_unique<SqliteLogFile>(file, access);
    } catch (const Korvane::Logging::LegacyLogFileError&) {
        throw ToolError(file, "a legacy log file of the older format, which cannot be read");
    } catch (const std::exception& failure) {
        // SQLite undoes such a write before anything else is read, which a reader must not do.
        if (const std::optional<fs::path> journal = unfinishedWrite(file)) {
            throw ToolError(file, "a write to it did not finish, and " + journal->string() +
                                      " would undo it; 'korvane-log check' reads it as it stands");
        }
        if (dynamic_cast<const Korvane::Logging::NotALogFileError*>(&failure) != nullptr) {
            throw ToolError(file, "not a log file");
        }
        throw ToolError(file, failure.what());
    }
}

std::string firstLineOf(const fs::path& file) {
    std::ifstream in(file);
    std::string line;
    std::getline(in, line);
    return line;
}

}  // namespace

ToolError::ToolError(const fs::path& file, const std::string& reason)
    : std::runtime_error(file.string() + ": " + reason) {}

void refuseUnusablePath(const fs::path& file) {
    std::error_code error;
    const fs::file_status status = fs::status(file, error);
    if (error && error != std::errc::no_such_file_or_directory) {
        throw ToolError(file, error.message());
    }
    if (!fs::exists(status)) {
        throw ToolError(file, "no such file");
    }
    if (fs::is_directory(status)) {
        throw ToolError(file, "is a directory, not a log file");
    }
    // The library would give an empty file the schema of a new log when it opens it to change
    // it: leave it untouched. A new log file appears at its path whole, never empty.
    if (!fs::is_regular_file(status) || fs::file_size(file, error) == 0 || error) {
        throw ToolError(file, "not a log file (empty or not a regular file)");
    }
}

std::unique_ptr<SqliteLogFile> openLog(const fs::path& file) {
    return openExisting(file, SqliteLogFile::Access::ReadOnly);
}

std::unique_ptr<SqliteLogFile> openLogToChange(const fs::path& file) {
    return openExisting(file, SqliteLogFile::Access::ReadWrite);
}

std::unique_ptr<SqliteLogFile> createLog(const fs::path& file, const NewFileIdentity& identity) {
    requireAbsent(file);
    try {
        return std::make_unique<SqliteLogFile>(
            file.string(), localTimeZoneName(), identity.applicationName,
            identity.applicationVersion, static_cast<std::int8_t>(identity.compressionLevel),
            nowMs());
    } catch (const std::exception& failure) {
        throw ToolError(file, failure.what());
    }
}

ToolError refusal(const LogFileInterface& log, const std::string& action) {
    return ToolError(log.getFilePath(), "cannot " + action + ": " + log.getLastError());
}

void requireSuccess(bool done, const LogFileInterface& log, const std::string& action) {
    if (!done) {
        throw refusal(log, action);
    }
}

std::optional<fs::path> unfinishedWrite(const fs::path& file) {
    fs::path journal = file;
    journal += "-journal";
    std::error_code error;
    if (fs::is_regular_file(journal, error) && fs::file_size(journal, error) > 0 && !error) {
        return journal;
    }
    return std::nullopt;
}

void requireAbsent(const fs::path& output) {
    std::error_code error;
    if (fs::exists(fs::symlink_status(output, error))) {
        throw ToolError(output, "exists already; will not overwrite it");
    }
}

ByteArray readBytes(const fs::path& file) {
    std::error_code error;
    if (!fs::is_regular_file(file, error)) {
        throw ToolError(file, fs::exists(file, error) ? "not a regular file" : "no such file");
    }
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw ToolError(file, std::strerror(errno));
    }
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void refuseTerminalStdout() {
    if (isatty(STDOUT_FILENO)) {
        throw ToolError("stdout", "is a terminal; give -o FILE or redirect the bytes");
    }
}

void writeBytes(const fs::path& output, const ByteArray& bytes) {
    const auto* data = reinterpret_cast<const char*>(bytes.data());
    const auto size = static_cast<std::streamsize>(bytes.size());
    if (output.empty()) {
        refuseTerminalStdout();
        std::cout.write(data, size).flush();
        return;
    }
    requireAbsent(output);
    std::ofstream out(output, std::ios::binary);
    if (!out.write(data, size) || !out.flush()) {
        throw ToolError(output, std::strerror(errno));
    }
}

std::string localTimeZoneName() {
    if (const char* zone = std::getenv("TZ"); zone != nullptr && *zone != '\0') {
        return zone[0] == ':' ? zone + 1 : zone;
    }
    if (std::string name = firstLineOf("/etc/timezone"); !name.empty()) {
        return name;
    }
    std::error_code error;
    const std::string target = fs::read_symlink("/etc/localtime", error).string();
    if (const auto at = target.find("zoneinfo/"); !error && at != std::string::npos) {
        return target.substr(at + 9);
    }
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char abbreviation[16] = {};
    std::strftime(abbreviation, sizeof abbreviation, "%Z", &local);
    return abbreviation;
}

std::optional<std::int64_t> integerMetadata(const LogFileInterface& log, const std::string& key) {
    const std::optional<PropertyValue> value = log.getMetadataValue(key);
    if (value && std::holds_alternative<std::int64_t>(*value)) {
        return std::get<std::int64_t>(*value);
    }
    if (value && std::holds_alternative<std::int32_t>(*value)) {
        return std::get<std::int32_t>(*value);
    }
    return std::nullopt;
}

std::string textMetadata(const LogFileInterface& log, const std::string& key) {
    const std::optional<PropertyValue> value = log.getMetadataValue(key);
    return value && std::holds_alternative<std::string>(*value) ? std::get<std::string>(*value)
                                                                : std::string();
}

const DataSource* findSource(const std::vector<DataSource>& sources, std::int8_t id) {
    const auto found = std::find_if(sources.begin(), sources.end(),
                                    [id](const DataSource& source) { return source.id == id; });
    return found == sources.end() ? nullptr : &*found;
}

std::string sourceName(const std::vector<DataSource>& sources, std::int8_t id) {
    const DataSource* source = findSource(sources, id);
    return source != nullptr ? source->name : "#" + std::to_string(id);
}

std::vector<std::int8_t> resolveSources(const LogFileInterface& log,
                                        const std::vector<std::string>& names) {
    const std::vector<DataSource> sources = log.getDataSources();
    std::vector<std::int8_t> ids;
    for (const std::string& name : names) {
        const std::size_t before = ids.size();
        for (const DataSource& source : sources) {
            if (source.name == name || std::to_string(source.id) == name) {
                ids.push_back(source.id);
            }
        }
        if (ids.size() == before) {
            throw ToolError(log.getFilePath(), "no data source named or numbered '" + name + "'");
        }
    }
    return ids;
}

void forEachEntry(const LogFileInterface& log, const EntryRange& range,
                  const std::function<bool(DataEntry&&)>& visit) {
    const std::int64_t first = range.first < 0 ? log.getFirstEntryId() : range.first;
    const std::int64_t last = range.last < 0 ? log.getLastEntryId() : range.last;
    if (first < 0 || last < first) {
        return;
    }
    std::int64_t remaining = range.limit;
    std::int64_t window = firstWindow;
    for (std::int64_t from = first; from <= last && remaining != 0;) {
        const std::int64_t to = std::min(last, from + window - 1);
        const std::int64_t limit = remaining >= 0 && remaining < window ? remaining : -1;
        std::uint64_t bytes = 0;
        for (DataEntry& entry :
             log.readEntries(static_cast<std::int32_t>(from), static_cast<std::int32_t>(to),
                             range.filter, static_cast<std::int32_t>(limit))) {
            bytes += entry.data.size();
            if (!visit(std::move(entry))) {
                return;
            }
            if (remaining > 0) {
                --remaining;
            }
        }
        if (bytes < smallWindowBytes) {
            window = std::min(window * 2, widestWindow);
        } else if (bytes > largeWindowBytes) {
            window = std::max<std::int64_t>(window / 2, 1);
        }
        from = to + 1;
    }
}

}  // namespace KorvaneLog
