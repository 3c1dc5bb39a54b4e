// record: a new log file from JSON lines on stdin, for scripts and tests. The lines that
// `cat --format json` prints are accepted as they are.

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <iostream>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>

#include "Commands.h"
#include "EntryBatch.h"
#include "Format.h"
#include "Terminal.h"

namespace KorvaneLog {

namespace {

using json = nlohmann::ordered_json;

constexpr std::int64_t int32Min = std::numeric_limits<std::int32_t>::min();
constexpr std::int64_t int32Max = std::numeric_limits<std::int32_t>::max();
// Source ids are 8 bits wide; ids the file assigns run from 1.
constexpr std::size_t maximumSources = 127;
// Entries are written in batches, and an entry waits at most this long for the rest of its
// batch, so that a slow producer sees each entry in the file well within 100 ms.
constexpr std::chrono::milliseconds batchDelay{50};

using Clock = std::chrono::steady_clock;

// The lines of a file descriptor as they come. It reads the descriptor itself: a stdio buffer
// could hold lines that `poll` does not see.
class LineReader {
public:
    enum class Result { Line, Timeout, End };

    explicit LineReader(int fd) : fd(fd) {}

    // The next line, without its newline; the last line of the input may lack one. Gives
    // `Timeout` when no whole line has come by `deadline`, and `End` after the last line.
    Result next(std::string& line, std::optional<Clock::time_point> deadline) {
        for (;;) {
            const std::size_t newline = buffer.find('\n', start);
            if (newline != std::string::npos || (ended && start < buffer.size())) {
                const std::size_t end = newline != std::string::npos ? newline : buffer.size();
                line.assign(buffer, start, end - start);
                start = end + 1;
                return Result::Line;
            }
            if (ended) {
                return Result::End;
            }
            buffer.erase(0, start);
            start = 0;
            if (!readable(deadline)) {
                return Result::Timeout;
            }
            char chunk[1 << 16];
            const ssize_t count = ::read(fd, chunk, sizeof chunk);
            if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
                continue;
            }
            // A read error ends the input, as it ends a stream.
            ended = count <= 0;
            buffer.append(chunk, ended ? 0 : static_cast<std::size_t>(count));
        }
    }

private:
    bool readable(std::optional<Clock::time_point> deadline) const {
        for (;;) {
            int timeoutMs = -1;
            if (deadline) {
                const auto left =
                    std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now());
                timeoutMs = static_cast<int>(std::max<std::int64_t>(left.count(), 0));
            }
            pollfd watched{fd, POLLIN, 0};
            const int ready = ::poll(&watched, 1, timeoutMs);
            if (ready >= 0 || errno != EINTR) {
                return ready != 0;  // an error of poll shows again in read
            }
        }
    }

    int fd;
    std::string buffer;
    std::size_t start = 0;
    bool ended = false;
};

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

std::int64_t recordLines(SqliteLogFile& log, int fd, std::size_t& sourceCount) {
    SourceRegistry sources(log);
    EntryBatch batch(log, [&log](std::int64_t number) {
        return ToolError("stdin line " + std::to_string(number),
                         "cannot log the entry: " + log.getLastError());
    });
    LineReader reader(fd);
    std::optional<Clock::time_point> due;  // when the entries gathered so far are written
    std::string text;
    for (std::size_t number = 1;; ++number) {
        if (due && Clock::now() >= *due) {
            batch.flush();
        }
        if (batch.empty()) {
            due.reset();
        }
        LineReader::Result result;
        while ((result = reader.next(text, due)) == LineReader::Result::Timeout) {
            batch.flush();
            due.reset();
        }
        if (result == LineReader::Result::End) {
            break;
        }
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
        batch.add(std::move(entry), static_cast<std::int64_t>(number));
        if (!due) {
            due = Clock::now() + batchDelay;
        }
    }
    batch.flush();
    sourceCount = sources.size();
    return batch.written();
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
        const std::int64_t recorded = recordLines(*log, STDIN_FILENO, sourceCount);
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
