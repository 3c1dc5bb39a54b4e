#pragma once

#include <korvane/logging/model/Records.h>

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

// How the tool shows things to people: sizes, times, values, tables and byte dumps.
namespace KorvaneLog {

using Korvane::Logging::ByteArray;

// "512 B", "1.5 KiB", "27.3 MiB", "1.20 GiB".
std::string humanSize(std::uint64_t bytes);

// A timestamp in local time to the millisecond: "2025-11-22 20:01:02.345".
std::string localDateTime(std::int64_t msSinceEpoch);

// The same in ISO 8601 with the local offset: "2025-11-22T20:01:02.345+01:00".
std::string isoDateTime(std::int64_t msSinceEpoch);

// A span for reading: "850 ms", "6.000 s", "2 min 03.250 s", "1 h 02 min 03 s".
std::string humanDuration(std::int64_t ms);

// A position on a playback clock: "00:01.235", or "1:02:03.456" past an hour.
std::string clockTime(std::int64_t ms);

// A metadata or property value as text, and the name of its kind: "int", "double", "string".
std::string valueText(const PropertyValue& value);
const char* valueKind(const PropertyValue& value);
nlohmann::ordered_json valueJson(const PropertyValue& value);

// A compression level as a reader understands it: "none", "default (-1)", "level 3".
std::string compressionText(std::int64_t level);

// Sixteen bytes a line: offset, hex and printable characters.
void hexDump(std::ostream& out, const ByteArray& bytes, const std::string& indent);

// Standard base64 with padding, the form JSON carries payloads in.
std::string base64Encode(const ByteArray& bytes);
// Empty when `text` is not base64.
std::optional<ByteArray> base64Decode(const std::string& text);

// A table with aligned columns. Either collect rows and `print`, or, for output that streams,
// fix the widths with `reserveWidth` and call `printHeader` and `printRow`.
class Table {
public:
    struct Column {
        std::string title;
        bool alignRight = false;
    };

    explicit Table(std::vector<Column> columns, std::string indent = "");

    void addRow(std::vector<std::string> cells);
    void reserveWidth(std::size_t column, std::size_t width);
    bool empty() const { return rows.empty(); }

    void print(std::ostream& out) const;
    void printHeader(std::ostream& out) const;
    void printRow(std::ostream& out, const std::vector<std::string>& cells) const;
    // One row as text, without the line end.
    std::string formatRow(const std::vector<std::string>& cells) const;

private:
    std::vector<Column> columns;
    std::vector<std::size_t> widths;
    std::vector<std::vector<std::string>> rows;
    std::string indent;
};

}  // namespace KorvaneLog
