#include "Format.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>
#include <sstream>
#include <type_traits>
#include <variant>

namespace KorvaneLog {

namespace {

constexpr char base64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Splits milliseconds since the epoch into local calendar time and the milliseconds left.
std::tm localTime(std::int64_t msSinceEpoch, int& milliseconds) {
    std::int64_t seconds = msSinceEpoch / 1000;
    milliseconds = static_cast<int>(msSinceEpoch % 1000);
    if (milliseconds < 0) {
        milliseconds += 1000;
        --seconds;
    }
    const auto time = static_cast<std::time_t>(seconds);
    std::tm local{};
    localtime_r(&time, &local);
    return local;
}

std::string formatTime(std::int64_t msSinceEpoch, const char* dateTimeFormat, bool withOffset) {
    int milliseconds = 0;
    const std::tm local = localTime(msSinceEpoch, milliseconds);
    char text[64];
    std::size_t length = std::strftime(text, sizeof text, dateTimeFormat, &local);
    length += std::snprintf(text + length, sizeof text - length, ".%03d", milliseconds);
    if (withOffset) {
        // strftime gives "+0100"; ISO 8601 readers prefer "+01:00".
        char offset[8];
        std::strftime(offset, sizeof offset, "%z", &local);
        std::snprintf(text + length, sizeof text - length, "%.3s:%.2s", offset, offset + 3);
    }
    return text;
}

// Columns count characters, not bytes: UTF-8 continuation bytes take no room.
std::size_t displayWidth(const std::string& text) {
    std::size_t width = 0;
    for (const char c : text) {
        width += (static_cast<unsigned char>(c) & 0xC0) != 0x80 ? 1 : 0;
    }
    return width;
}

}  // namespace

std::string humanSize(std::uint64_t bytes) {
    if (bytes < 1024) {
        return std::to_string(bytes) + " B";
    }
    static constexpr std::array<const char*, 4> units{"KiB", "MiB", "GiB", "TiB"};
    double value = static_cast<double>(bytes) / 1024.0;
    std::size_t unit = 0;
    while (value >= 1024.0 && unit + 1 < units.size()) {
        value /= 1024.0;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, value < 10.0 ? "%.2f %s" : "%.1f %s", value, units[unit]);
    return text;
}

std::string localDateTime(std::int64_t msSinceEpoch) {
    return formatTime(msSinceEpoch, "%Y-%m-%d %H:%M:%S", false);
}

std::string isoDateTime(std::int64_t msSinceEpoch) {
    return formatTime(msSinceEpoch, "%Y-%m-%dT%H:%M:%S", true);
}

std::string humanDuration(std::int64_t ms) {
    const char* sign = ms < 0 ? "-" : "";
    const std::int64_t total = std::llabs(ms);
    const std::int64_t hours = total / 3'600'000;
    const std::int64_t minutes = total / 60'000 % 60;
    const double seconds = static_cast<double>(total % 60'000) / 1000.0;
    char text[64];
    if (total < 1000) {
        std::snprintf(text, sizeof text, "%s%lld ms", sign, static_cast<long long>(total));
    } else if (total < 60'000) {
        std::snprintf(text, sizeof text, "%s%.3f s", sign, seconds);
    } else if (hours == 0) {
        std::snprintf(text, sizeof text, "%s%lld min %06.3f s", sign,
                      static_cast<long long>(minutes), seconds);
    } else {
        std::snprintf(text, sizeof text, "%s%lld h %02lld min %02d s", sign,
                      static_cast<long long>(hours), static_cast<long long>(minutes),
                      static_cast<int>(seconds));
    }
    return text;
}

std::string clockTime(std::int64_t ms) {
    const std::int64_t total = std::llabs(ms);
    const auto hours = static_cast<long long>(total / 3'600'000);
    const auto minutes = static_cast<long long>(total / 60'000 % 60);
    const auto seconds = static_cast<long long>(total / 1000 % 60);
    const auto milliseconds = static_cast<long long>(total % 1000);
    char text[48];
    if (hours > 0) {
        std::snprintf(text, sizeof text, "%s%lld:%02lld:%02lld.%03lld", ms < 0 ? "-" : "", hours,
                      minutes, seconds, milliseconds);
    } else {
        std::snprintf(text, sizeof text, "%s%02lld:%02lld.%03lld", ms < 0 ? "-" : "", minutes,
                      seconds, milliseconds);
    }
    return text;
}

std::string valueText(const PropertyValue& value) {
    return std::visit(
        [](const auto& held) -> std::string {
            using Held = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<Held, std::string>) {
                return held;
            } else if constexpr (std::is_same_v<Held, double>) {
                std::ostringstream text;
                text.precision(15);
                text << held;
                // Keep a whole double recognisable as one: "3.0", not "3".
                const std::string digits = text.str();
                return std::isfinite(held) && digits.find_first_of(".e") == std::string::npos
                           ? digits + ".0"
                           : digits;
            } else {
                return std::to_string(held);
            }
        },
        value);
}

const char* valueKind(const PropertyValue& value) {
    static constexpr std::array<const char*, 4> kinds{"int", "int", "double", "string"};
    return value.valueless_by_exception() ? "none" : kinds[value.index()];
}

nlohmann::ordered_json valueJson(const PropertyValue& value) {
    return std::visit([](const auto& held) { return nlohmann::ordered_json(held); }, value);
}

std::string compressionText(std::int64_t level) {
    if (level == 0) {
        return "none";
    }
    const std::string number = std::to_string(level);
    return level < 0 ? "default (" + number + ")" : "level " + number;
}

void hexDump(std::ostream& out, const ByteArray& bytes, const std::string& indent) {
    for (std::size_t offset = 0; offset < bytes.size(); offset += 16) {
        char line[96];
        int used = std::snprintf(line, sizeof line, "%08zx", offset);
        std::string printable;
        for (std::size_t i = offset; i < offset + 16; ++i) {
            const char* gap = (i - offset) % 8 == 0 ? "  " : " ";
            if (i < bytes.size()) {
                used += std::snprintf(line + used, sizeof line - used, "%s%02x", gap, bytes[i]);
                printable +=
                    bytes[i] >= 0x20 && bytes[i] < 0x7f ? static_cast<char>(bytes[i]) : '.';
            } else {
                used += std::snprintf(line + used, sizeof line - used, "%s  ", gap);
            }
        }
        out << indent << line << "  |" << printable << "|\n";
    }
}

std::string base64Encode(const ByteArray& bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t left = bytes.size() - i;
        const std::uint32_t group =
            bytes[i] << 16 | (left > 1 ? bytes[i + 1] << 8 : 0) | (left > 2 ? bytes[i + 2] : 0);
        text += base64Alphabet[group >> 18 & 63];
        text += base64Alphabet[group >> 12 & 63];
        text += left > 1 ? base64Alphabet[group >> 6 & 63] : '=';
        text += left > 2 ? base64Alphabet[group & 63] : '=';
    }
    return text;
}

std::optional<ByteArray> base64Decode(const std::string& text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    ByteArray bytes;
    bytes.reserve(text.size() / 4 * 3);
    std::uint32_t group = 0;
    int bits = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '=') {
            // Padding only at the very end: "x=" or "xx==" of the last group.
            const std::size_t padding = text.size() - i;
            if (padding > 2 || text.find_first_not_of('=', i) != std::string::npos) {
                return std::nullopt;
            }
            break;
        }
        const char* found = std::strchr(base64Alphabet, text[i]);
        if (found == nullptr || text[i] == '\0') {
            return std::nullopt;
        }
        group = group << 6 | static_cast<std::uint32_t>(found - base64Alphabet);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes.push_back(static_cast<std::uint8_t>(group >> bits & 0xFF));
        }
    }
    return bytes;
}

Table::Table(std::vector<Column> columns, std::string indent)
    : columns(std::move(columns)), indent(std::move(indent)) {
    for (const Column& column : this->columns) {
        widths.push_back(displayWidth(column.title));
    }
}

void Table::addRow(std::vector<std::string> cells) {
    for (std::size_t i = 0; i < cells.size() && i < widths.size(); ++i) {
        reserveWidth(i, displayWidth(cells[i]));
    }
    rows.push_back(std::move(cells));
}

void Table::reserveWidth(std::size_t column, std::size_t width) {
    widths[column] = std::max(widths[column], width);
}

void Table::print(std::ostream& out) const {
    printHeader(out);
    for (const auto& row : rows) {
        printRow(out, row);
    }
}

void Table::printHeader(std::ostream& out) const {
    std::vector<std::string> titles;
    for (const Column& column : columns) {
        titles.push_back(column.title);
    }
    printRow(out, titles);
}

void Table::printRow(std::ostream& out, const std::vector<std::string>& cells) const {
    out << formatRow(cells) << '\n';
}

std::string Table::formatRow(const std::vector<std::string>& cells) const {
    std::string line = indent;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        const std::string& cell = i < cells.size() ? cells[i] : std::string();
        const std::size_t width = displayWidth(cell);
        const std::string padding(widths[i] > width ? widths[i] - width : 0, ' ');
        const bool last = i + 1 == columns.size();
        line += columns[i].alignRight ? padding + cell : cell + (last ? "" : padding);
        line += last ? "" : "  ";
    }
    // An empty last cell would leave the padding of the others behind.
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

}  // namespace KorvaneLog
