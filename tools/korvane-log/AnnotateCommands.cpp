// meta, bookmarks, resources and thumbnail: what is added to a file around its entries. Each
// lists without an action and changes the file with one, after checking what the library would
// accept silently or refuse without a reason. Listing and getting open the file read-only.

#include <algorithm>
#include <iostream>
#include <sstream>

#include "Commands.h"
#include "Format.h"

namespace KorvaneLog {

namespace {

using Korvane::Logging::Bookmark;

PropertyValue parseValue(const MetaOptions& options) {
    const std::string& text = options.value;
    std::size_t used = 0;
    try {
        if (options.kind == "int") {
            const std::int64_t number = std::stoll(text, &used);
            if (used == text.size()) {
                return PropertyValue{number};
            }
        } else if (options.kind == "double") {
            const double number = std::stod(text, &used);
            if (used == text.size()) {
                return PropertyValue{number};
            }
        } else {
            return PropertyValue{text};
        }
    } catch (const std::logic_error&) {
        // Reported below, like trailing characters.
    }
    throw UsageError("VALUE", "'" + text + "' is not a valid " + options.kind);
}

// The kind of image in `bytes`, with its size where the header tells it cheaply.
std::string describeImage(const ByteArray& bytes) {
    const auto startsWith = [&bytes](std::initializer_list<std::uint8_t> magic) {
        return bytes.size() >= magic.size() &&
               std::equal(magic.begin(), magic.end(), bytes.begin());
    };
    const auto bigEndian32 = [&bytes](std::size_t at) {
        return static_cast<std::uint32_t>(bytes[at]) << 24 | bytes[at + 1] << 16 |
               bytes[at + 2] << 8 | bytes[at + 3];
    };
    if (startsWith({0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'}) && bytes.size() >= 24) {
        return "PNG image, " + std::to_string(bigEndian32(16)) + "x" +
               std::to_string(bigEndian32(20));
    }
    if (startsWith({0xFF, 0xD8, 0xFF})) {
        return "JPEG image";
    }
    if (startsWith({'P', '5'}) || startsWith({'P', '6'})) {
        std::istringstream header(std::string(
            bytes.begin() + 2, bytes.begin() + std::min<std::size_t>(64, bytes.size())));
        unsigned width = 0;
        unsigned height = 0;
        if (header >> width >> height) {
            const std::string kind = bytes[1] == '5' ? "PGM" : "PPM";
            return kind + " image, " + std::to_string(width) + "x" + std::to_string(height);
        }
    }
    return "unknown format";
}

std::optional<Bookmark> findBookmark(const LogFileInterface& log, std::int32_t entryId) {
    for (Bookmark& bookmark : log.getBookmarks()) {
        if (bookmark.entryId == entryId) {
            return std::move(bookmark);
        }
    }
    return std::nullopt;
}

void listBookmarks(const LogFileInterface& log) {
    std::vector<Bookmark> bookmarks = log.getBookmarks();
    std::stable_sort(bookmarks.begin(), bookmarks.end(),
                     [](const Bookmark& a, const Bookmark& b) { return a.entryId < b.entryId; });
    const std::vector<DataSource> sources = log.getDataSources();
    Table table({{"ENTRY", true}, {"TIME"}, {"SOURCE"}, {"TITLE"}, {"COMMENT"}});
    for (const Bookmark& bookmark : bookmarks) {
        const std::optional<DataEntry> entry = log.readEntry(bookmark.entryId);
        const DataSource* source = entry ? findSource(sources, entry->dataSourceId) : nullptr;
        table.addRow({std::to_string(bookmark.entryId),
                      entry ? localDateTime(entry->timestamp) : "(no entry)",
                      source != nullptr ? source->name : "", bookmark.title, bookmark.comment});
    }
    if (table.empty()) {
        std::cout << "no bookmarks\n";
    } else {
        table.print(std::cout);
    }
}

}  // namespace

int runMeta(const MetaOptions& options) {
    const std::unique_ptr<SqliteLogFile> log =
        options.action.empty() ? openLog(options.file) : openLogToChange(options.file);
    if (options.action == "set") {
        const PropertyValue value = parseValue(options);
        if (log->getMetadataValue(options.key)) {
            throw ToolError(options.file, "metadata key '" + options.key +
                                              "' exists already, and keys cannot be changed");
        }
        requireSuccess(log->addMetadata(options.key, value), *log, "add metadata");
        std::cout << "added " << options.key << " = " << valueText(value) << " ("
                  << valueKind(value) << ")\n";
        return 0;
    }
    Table table({{"KEY"}, {"KIND"}, {"VALUE"}});
    for (const LogMetadataEntry& entry : log->getAllMetadata()) {
        std::string text = valueText(entry.value);
        if (entry.key == "createdDateTime" && std::holds_alternative<std::int64_t>(entry.value)) {
            text += " (" + isoDateTime(std::get<std::int64_t>(entry.value)) + ")";
        }
        table.addRow({entry.key, valueKind(entry.value), text});
    }
    table.print(std::cout);
    return 0;
}

int runBookmarks(const BookmarkOptions& options) {
    const std::unique_ptr<SqliteLogFile> log =
        options.action.empty() ? openLog(options.file) : openLogToChange(options.file);
    const std::string entry = "entry " + std::to_string(options.entryId);
    Bookmark bookmark{options.entryId, options.title, options.comment, {}};
    if (options.action == "add") {
        if (!log->readEntry(options.entryId)) {
            throw ToolError(options.file, "no " + entry + " to bookmark");
        }
        requireSuccess(log->addBookmark(bookmark), *log, "add a bookmark");
        std::cout << "added bookmark on " << entry << ": " << options.title << '\n';
    } else if (options.action == "update" || options.action == "remove") {
        std::optional<Bookmark> existing = findBookmark(*log, options.entryId);
        if (!existing) {
            throw ToolError(options.file, "no bookmark on " + entry);
        }
        if (options.action == "update") {
            // The payload is replaced along with title and comment: keep what was there.
            bookmark.payload = std::move(existing->payload);
            requireSuccess(log->updateBookmark(bookmark), *log, "update the bookmark");
            std::cout << "updated bookmark on " << entry << ": " << options.title << '\n';
        } else {
            requireSuccess(log->removeBookmark(bookmark), *log, "remove the bookmark");
            std::cout << "removed bookmark on " << entry << '\n';
        }
    } else {
        listBookmarks(*log);
    }
    return 0;
}

int runResources(const ResourceOptions& options) {
    const std::unique_ptr<SqliteLogFile> log =
        options.action == "add" ? openLogToChange(options.file) : openLog(options.file);
    if (options.action == "get") {
        const std::optional<ByteArray> bytes = log->getResource(options.name);
        if (!bytes) {
            throw ToolError(options.file, "no resource named '" + options.name + "'");
        }
        writeBytes(options.output, *bytes);
    } else if (options.action == "add") {
        const ByteArray bytes = readBytes(options.path);
        if (log->getResource(options.name)) {
            throw ToolError(options.file, "resource '" + options.name + "' exists already, " +
                                              "and resources cannot be replaced");
        }
        requireSuccess(log->addResource(options.name, bytes), *log, "add the resource");
        std::cout << "added resource " << options.name << " (" << humanSize(bytes.size()) << ")\n";
    } else {
        Table table({{"NAME"}, {"SIZE", true}});
        for (const LogResourceEntry& resource : log->getAllResources()) {
            table.addRow({resource.name, humanSize(resource.data.size())});
        }
        if (table.empty()) {
            std::cout << "no resources\n";
        } else {
            table.print(std::cout);
        }
    }
    return 0;
}

int runThumbnail(const ThumbnailOptions& options) {
    const std::unique_ptr<SqliteLogFile> log =
        options.action == "set" ? openLogToChange(options.file) : openLog(options.file);
    if (options.action == "set") {
        const ByteArray bytes = readBytes(options.path);
        requireSuccess(log->setThumbnail(bytes), *log, "set the thumbnail");
        std::cout << "thumbnail set: " << describeImage(bytes) << ", " << humanSize(bytes.size())
                  << '\n';
        return 0;
    }
    const std::optional<ByteArray> thumbnail = log->getThumbnail();
    if (options.action == "get") {
        if (!thumbnail) {
            throw ToolError(options.file, "has no thumbnail");
        }
        writeBytes(options.output, *thumbnail);
    } else if (thumbnail) {
        std::cout << "thumbnail: " << describeImage(*thumbnail) << ", "
                  << humanSize(thumbnail->size()) << '\n';
    } else {
        std::cout << "no thumbnail\n";
    }
    return 0;
}

}  // namespace KorvaneLog
