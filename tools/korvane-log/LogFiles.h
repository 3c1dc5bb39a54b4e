#pragma once

#include <korvane/logging/model/LogFileInterface.h>
#include <korvane/logging/model/Records.h>
#include <korvane/logging/sqlite/SqliteLogFile.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace KorvaneLog {

namespace fs = std::filesystem;
using Korvane::Logging::ByteArray;
using Korvane::Logging::DataEntry;
using Korvane::Logging::DataSource;
using Korvane::Logging::EntryIndexFilter;
using Korvane::Logging::LogFileInterface;
using Korvane::Logging::SqliteLogFile;

// A failure that ends the command. The text is the whole message: "FILE: reason".
class ToolError : public std::runtime_error {
public:
    ToolError(const fs::path& file, const std::string& reason);
    explicit ToolError(const std::string& message) : std::runtime_error(message) {}
};

// A failure caused by the command line rather than by a file; the exit code tells them apart.
class UsageError : public ToolError {
public:
    using ToolError::ToolError;
};

// Throws `ToolError` unless `file` is a non-empty regular file: a missing path, a directory or an
// empty file is refused before anything opens it.
void refuseUnusablePath(const fs::path& file);

// Opens an existing log file for reading only: nothing is ever written to it, not even by the
// library's checks of an opened file. Refuses a missing path, a directory, an empty file, a
// legacy file, a foreign file and a file whose unfinished write would have to be undone first,
// each with its own reason.
std::unique_ptr<SqliteLogFile> openLog(const fs::path& file);

// Opens an existing log file for the verbs that change it, refusing what `openLog` refuses.
std::unique_ptr<SqliteLogFile> openLogToChange(const fs::path& file);

// The rollback journal beside `file` when a write to it did not finish: a process that died
// while it changed the file in SQLite's default journal mode leaves one behind. Empty when there
// is none.
std::optional<fs::path> unfinishedWrite(const fs::path& file);

// What a new log file says about itself.
struct NewFileIdentity {
    std::string applicationName = "korvane-log";
    std::string applicationVersion = KORVANE_LOG_VERSION;
    int compressionLevel = -1;
};

// Creates a new log file stamped with the current time and time zone; refuses an existing path.
std::unique_ptr<SqliteLogFile> createLog(const fs::path& file, const NewFileIdentity& identity);

// The failure of a change that `log` refused: what was refused, and why.
ToolError refusal(const LogFileInterface& log, const std::string& action);
// Throws the refusal of `action` unless it was `done`.
void requireSuccess(bool done, const LogFileInterface& log, const std::string& action);

// Throws unless nothing at all stands at `output`.
void requireAbsent(const fs::path& output);

// The whole content of a file.
ByteArray readBytes(const fs::path& file);

// Throws when stdout is a terminal, which raw bytes would only garble.
void refuseTerminalStdout();

// Writes `bytes` to a new file at `output`, or to stdout when `output` is empty. Refuses an
// existing file, and a terminal as stdout.
void writeBytes(const fs::path& output, const ByteArray& bytes);

// The name of this machine's time zone ("Europe/Berlin"), or its abbreviation when no name is
// known.
std::string localTimeZoneName();

// A whole number from metadata, whichever width it was stored with.
std::optional<std::int64_t> integerMetadata(const LogFileInterface& log, const std::string& key);
// A text from metadata; empty when the key is missing or holds no text.
std::string textMetadata(const LogFileInterface& log, const std::string& key);

// The source with `id`, or null.
const DataSource* findSource(const std::vector<DataSource>& sources, std::int8_t id);
// The name of the source with `id`, or "#id" when there is none.
std::string sourceName(const std::vector<DataSource>& sources, std::int8_t id);

// The ids of the sources named by `names`, each a source name or a numeric id.
std::vector<std::int8_t> resolveSources(const LogFileInterface& log,
                                        const std::vector<std::string>& names);

// Which entries to visit: ids from `first` to `last` (-1 meaning the file's first or last), of
// those that `filter` selects, at most `limit` of them (-1 meaning all).
struct EntryRange {
    std::int32_t first = -1;
    std::int32_t last = -1;
    std::int64_t limit = -1;
    EntryIndexFilter filter;
};

// Calls `visit` with each selected entry in id order, reading a small window of ids per query, so
// that files larger than memory can be walked and a process recording into the file waits for
// no more than one short query; `visit` may take the entry over. The ends of the range are read
// when the walk starts: entries recorded meanwhile past its end are not visited. Stops early
// when `visit` returns false.
void forEachEntry(const LogFileInterface& log, const EntryRange& range,
                  const std::function<bool(DataEntry&&)>& visit);

}  // namespace KorvaneLog
