// record: a new log file from JSON lines on stdin, for scripts and tests. The lines that
// `cat --format json` prints are accepted as they are.

#include <unistd.h>

#include <iostream>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>

#include "Commands.h"
#include "Format.h"
#include "Terminal.h"

namespace KorvaneLog {

namespace {

using json = nlohmann::ordered_json;

constexpr std::int64_t int32Min = std::numeric_limits<std::int32_t>::min();
constexpr std::int64_t int32Max = std::numeric_limits<std::int32_t>::max();
// Source ids are 8 bits wide; ids the file assigns run from 1.
constexpr std::size_t maximumSources = 127;

// One input line being taken apart; failures name the line.
class InputLine {
public:
    InputLine(const std::string& text, std::size_t number)
        : where("stdin line " + std::to_string(number)) {
        try {
            object = json::parse(text);
        } catch (const json::parse_error&) {
            fail("not valid JSON");
        }
        if (!object.is_object()) {
            fail("not a JSON object");
        }
    }

    [[noreturn]] void fail(const std::string& reason) const { throw ToolError(where, reason); }

    std::int64_t integer(const char* key, std::optional<std::int64_t> fallback,
                         std::int64_t minimum = std::numeric_limits<std::int64_t>::min(),
                         std::int64_t maximum = std::numeric_limits<std::int64_t>::max()) const {
        const auto found = object.find(key);
        if (found == object.end() && fallback) {
            return *fallback;
        }
        if (found == object.end() || !found->is_number_integer()) {
            fail(std::string("\"") + key + "\" must be a whole number");
        }
        const bool tooLarge = found->is_number_unsigned() &&
                              found->get<std::uint64_t>() > static_cast<std::uint64_t>(maximum);
        const std::int64_t value = tooLarge ? maximum : found->get<std::int64_t>();
        if (tooLarge || value < minimum || value > maximum) {
            fail(std::string("\"") + key + "\" is out of range");
        }
        return value;
    }

    std::string text(const char* key) const {
        const auto found = object.find(key);
        if (found == object.end() || !found->is_string()) {
            fail(std::string("\"") + key + "\" must be a string");
        }
        return found->get<std::string>();
    }

private:
    std::string where;
    json object;
};

// Registers sources on first sight and hands out their ids.
class SourceRegistry {
public:
    explicit SourceRegistry(LogFileInterface& log) : log(log) {}

    std::int8_t idOf(const InputLine& line, const std::string& name, std::int32_t type) {
        const auto found = sources.find(name);
        if (found != sources.end()) {
            if (found->second.type != type) {
                line.fail("source '" + name + "' was first seen with sourceType " +
                          std::to_string(found->second.type));
            }
            return found->second.id;
        }
        if (sources.size() == maximumSources) {
            line.fail("more than " + std::to_string(maximumSources) + " sources");
        }
        DataSource source{-1, static_cast<KV_LogDataSourceType>(type), name};
        requireSuccess(log.addDataSource(source), log, "add source '" + name + "'");
        sources.emplace(name, source);
        return source.id;
    }

    std::size_t size() const { return sources.size(); }

private:
    LogFileInterface& log;
    std::map<std::string, DataSource> sources;
};

std::int64_t recordLines(LogFileInterface& log, std::istream& in, std::size_t& sourceCount) {
    SourceRegistry sources(log);
    std::int64_t recorded = 0;
    std::string text;
    for (std::size_t number = 1; std::getline(in, text); ++number) {
        if (text.find_first_not_of(" \t\r") == std::string::npos) {
            continue;
        }
        const InputLine line(text, number);
        DataEntry entry;
        const auto sourceType =
            static_cast<std::int32_t>(line.integer("sourceType", 0, int32Min, int32Max));
        entry.dataSourceId = sources.idOf(line, line.text("source"), sourceType);
        entry.type = static_cast<std::int32_t>(line.integer("type", 0, int32Min, int32Max));
        entry.timestamp = line.integer("timestamp", std::nullopt);
        std::optional<ByteArray> data = base64Decode(line.text("data"));
        if (!data) {
            line.fail("\"data\" is not base64");
        }
        entry.data = std::move(*data);
        if (!log.logData(entry)) {
            line.fail("cannot log the entry: " + log.getLastError());
        }
        ++recorded;
    }
    sourceCount = sources.size();
    return recorded;
}

}  // namespace

int runRecord(const RecordOptions& options) {
    const fs::path output = options.output;
    std::unique_ptr<SqliteLogFile> log = createLog(output, options.identity);
    if (isTerminal(STDIN_FILENO)) {
        std::cerr << "reading JSON lines from the terminal; Ctrl-D ends the recording\n";
    }
    try {
        std::size_t sourceCount = 0;
        const std::int64_t recorded = recordLines(*log, std::cin, sourceCount);
        std::cout << "recorded " << recorded << " entries from " << sourceCount << " sources into "
                  << output.string() << '\n';
    } catch (const std::exception& failure) {
        // Half a recording is worth less than none: take the new file away again.
        log.reset();
        std::error_code ignored;
        fs::remove(output, ignored);
        throw ToolError(std::string(failure.what()) + " (" + output.string() + " not written)");
    }
    return 0;
}

}  // namespace KorvaneLog
