// slice and clone: a new log file from a range of another one, or from all of it.

#include <korvane/logging/algorithms/Algorithms.h>

#include <iostream>

#include "Commands.h"
#include "Format.h"
#include "Terminal.h"

namespace KorvaneLog {

namespace {

namespace Algorithms = Korvane::Logging::Algorithms;

// "drive.kvlog" gives "drive_100-250.kvlog" for a slice and "drive_clone.kvlog" for a clone.
fs::path defaultOutput(const DeriveOptions& options) {
    const fs::path source = options.file;
    const std::string tag =
        options.wholeFile ? "clone"
                          : std::to_string(options.first) + "-" + std::to_string(options.last);
    return source.parent_path() /
           (source.stem().string() + "_" + tag + source.extension().string());
}

// The library refuses a range that does not fit with a null result and no reason; find the
// reason first.
void checkRange(const LogFileInterface& log, const DeriveOptions& options) {
    if (options.first > options.last) {
        throw UsageError("FIRST " + std::to_string(options.first) + " comes after LAST " +
                         std::to_string(options.last));
    }
    const std::int32_t count = log.getEntryCount();
    if (count <= 0) {
        throw ToolError(options.file, "has no entries to slice");
    }
    const std::string idRange =
        std::to_string(log.getFirstEntryId()) + " to " + std::to_string(log.getLastEntryId());
    for (const std::int32_t id : {options.first, options.last}) {
        if (!log.readEntry(id)) {
            throw ToolError(options.file, "no entry with id " + std::to_string(id) +
                                              " (its ids run from " + idRange + ")");
        }
    }
}

std::string progressText(const char* verb, const fs::path& output) {
    std::error_code error;
    const std::uintmax_t written = fs::file_size(output, error);
    return std::string(verb) + ": writing " + output.string() + ", " +
           humanSize(error ? 0 : written) + " so far";
}

}  // namespace

int runDerive(const DeriveOptions& options) {
    const std::unique_ptr<SqliteLogFile> source = openLog(options.file);
    const fs::path output =
        options.output.empty() ? defaultOutput(options) : fs::path(options.output);
    requireAbsent(output);
    if (!options.wholeFile) {
        checkRange(*source, options);
    }
    const std::string name =
        options.applicationName.value_or(textMetadata(*source, "applicationName"));
    const std::string version =
        options.applicationVersion.value_or(textMetadata(*source, "applicationVersion"));
    const auto level = static_cast<std::int8_t>(options.compressionLevel.value_or(
        static_cast<int>(integerMetadata(*source, "compressionLevel").value_or(0))));

    std::unique_ptr<LogFileInterface> result;
    {
        const char* verb = options.wholeFile ? "clone" : "slice";
        ProgressTicker ticker([verb, &output] { return progressText(verb, output); });
        result = options.wholeFile
                     ? Algorithms::clone(*source, output.string(), name, version, level)
                     : Algorithms::slice(*source, options.first, options.last, output.string(),
                                         name, version, level);
    }
    if (!result) {
        throw ToolError(output, "could not be written");
    }
    std::cout << output.string() << '\n';
    return 0;
}

}  // namespace KorvaneLog
