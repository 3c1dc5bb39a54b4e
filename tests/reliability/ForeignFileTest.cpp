// Files that are not what a log file should be: foreign files, databases of other shapes, paths
// with no file, files that cannot be written and log files cut short. Each is refused with the
// exception or message the library gives such a file, a refused file keeps every byte, and
// nothing crashes or throws out of a flat call.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "RawDatabase.h"
#include "TempDir.h"
#include "flat/KV_Log.h"
#include "model/LegacyLogFileError.h"
#include "model/NotALogFileError.h"
#include "playback/LogFilePlayer.h"
#include "sqlite/SqliteLogFile.h"
#include "sqlite/Statements.h"

namespace Korvane::Logging {
namespace {

using Testing::RawDatabase;
using Testing::readFileBytes;
using Testing::writeFileBytes;
using Bytes = std::vector<std::uint8_t>;

constexpr const char* notALogFileText = "This file is not in a supported log file format.";
constexpr const char* legacyText = "Tried to open a legacy log file.";
constexpr const char* missingText = "Log file does not exist.";

// ---- Opening, through the class and through the flat interface ---------------------------------

enum class Outcome { Opened, Legacy, NotALogFile, OtherError };

struct ClassOpen {
    Outcome outcome;
    std::string what;
};

ClassOpen openWithClass(const std::string& file) {
    try {
        SqliteLogFile log{std::filesystem::path(file)};
        return {Outcome::Opened, ""};
    } catch (const LegacyLogFileError& error) {
        return {Outcome::Legacy, error.what()};
    } catch (const NotALogFileError& error) {
        return {Outcome::NotALogFile, error.what()};
    } catch (const std::exception& error) {
        return {Outcome::OtherError, error.what()};
    }
}

struct FileHandle {
    explicit FileHandle(KV_LogFile* handle) : handle(handle) {}
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;
    ~FileHandle() { KV_LogFile_Destroy(handle); }
    KV_LogFile* handle;
};

// Takes the message out of an error location and frees the error; "" when nothing was stored.
std::string takeMessage(KV_LogError*& error) {
    if (error == nullptr) {
        return "";
    }
    const char* text = nullptr;
    KV_LogError_GetErrorMessage(error, &text);
    std::string message = text;
    KV_LogError_Destroy(error);
    error = nullptr;
    return message;
}

// The message of KV_LogFile_Open, "" when it opened the file (and then closed it again).
std::string openWithFlat(const std::string& file) {
    KV_LogError* error = nullptr;
    FileHandle opened(KV_LogFile_Open(file.c_str(), &error));
    const std::string message = takeMessage(error);
    EXPECT_EQ(opened.handle == nullptr, !message.empty()) << file;
    return message;
}

std::set<std::string> namesIn(const std::filesystem::path& dir) {
    std::set<std::string> names;
    for (const auto& item : std::filesystem::directory_iterator(dir)) {
        names.insert(item.path().filename().string());
    }
    return names;
}

// ---- Files to open -----------------------------------------------------------------------------

Bytes randomBytes(std::size_t size, std::uint32_t seed) {
    std::mt19937 random(seed);
    Bytes bytes(size);
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
    }
    return bytes;
}

Bytes textBytes(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

DataEntry entryOf(int id, std::int8_t sourceId, std::size_t size) {
    // Every third entry is noise, which no level compresses, so that the file spans many pages.
    Bytes data = id % 3 == 0 ? randomBytes(size, static_cast<std::uint32_t>(id))
                             : Testing::sensorBytes(size, static_cast<std::uint32_t>(id));
    return DataEntry{id, sourceId, id % 4, std::move(data), 1700000000000 + 20 * id};
}

// A log file made by the library at `level`: three sources with properties, 40 entries from
// empty to 20 KiB, resources, a thumbnail, bookmarks and metadata of its own. Returns the
// entries with the ids the file gave them.
std::vector<DataEntry> writeGenuineLog(const std::string& file, std::int8_t level) {
    SqliteLogFile log(file, "UTC", "reliability", "1.0", level, 1700000000000);
    DataSource sources[] = {{-1, KV_LogDataSourceType{1}, "camera"},
                            {-1, KV_LogDataSourceType{2}, "lidar"},
                            {-1, KV_LogDataSourceType{2}, "radar"}};
    for (DataSource& source : sources) {
        EXPECT_TRUE(log.addDataSource(source));
    }
    EXPECT_TRUE(log.addDataSourceProperty({sources[0].id, "rate", PropertyValue{30}}));
    EXPECT_TRUE(log.addDataSourceProperty({sources[1].id, "range", PropertyValue{80.5}}));
    std::vector<DataEntry> entries;
    for (int id = 1; id <= 40; ++id) {
        const std::size_t size = id % 10 == 0 ? 20000 : static_cast<std::size_t>(id * 97 % 3000);
        entries.push_back(entryOf(id, sources[id % 3].id, size));
        EXPECT_TRUE(log.logData(entries.back()));
    }
    EXPECT_TRUE(log.addResource("calibration", randomBytes(5000, 99)));
    EXPECT_TRUE(log.setThumbnail(Testing::sensorBytes(600, 5)));
    EXPECT_TRUE(log.addBookmark({5, "start", "", Bytes{1, 2, 3}}));
    EXPECT_TRUE(log.addBookmark({30, "end", "note", {}}));
    EXPECT_TRUE(log.addMetadata("vehicle", PropertyValue{std::string("test car")}));
    return entries;
}

// ---- Reading everything through the flat interface ---------------------------------------------

struct FlatReading {
    // From KV_LogFile_ReadEntry with their ids, and from KV_LogFile_ReadEntries with id 0: a
    // listed entry carries no id.
    std::vector<DataEntry> entries;
    std::vector<std::int32_t> ids;  // from KV_LogFile_GetEntryIndex
    int handles = 0;                // every other handle that reads delivered
};

DataEntry copyOf(const KV_LogDataEntry* handle, std::int32_t entryId) {
    DataEntry entry;
    entry.entryId = entryId;
    std::uint64_t size = 0;
    const std::uint8_t* data = nullptr;
    KV_LogDataEntry_GetData(handle, &size, &data);
    entry.data = size == 0 ? Bytes() : Bytes(data, data + size);
    KV_LogDataEntry_GetTimestamp(handle, &entry.timestamp);
    KV_LogDataEntry_GetType(handle, &entry.type);
    KV_LogDataEntry_GetDataSourceId(handle, &entry.dataSourceId);
    return entry;
}

template <typename Handle, void (*Destroy)(Handle*)>
void countAndDestroy(void* reading, Handle* handle) {
    ++static_cast<FlatReading*>(reading)->handles;
    Destroy(handle);
}

// Runs every read of the flat interface, and a clone into `clonePath`. Each call must return,
// and a failed number query must give -1.
FlatReading readThroughFlat(KV_LogFile* file, const std::string& clonePath) {
    FlatReading reading;
    for (auto* query :
         {KV_LogFile_GetEntryCount, KV_LogFile_GetFirstEntryId, KV_LogFile_GetLastEntryId}) {
        std::int32_t number = 0;
        KV_LogError* error = nullptr;
        if (!query(file, &number, &error)) {
            EXPECT_EQ(number, -1);
            EXPECT_FALSE(takeMessage(error).empty());
        }
    }
    KV_LogEntryIndexFilter* filter = KV_LogEntryIndexFilter_Create();
    KV_LogFile_GetEntryIndex(
        file, filter,
        [](void* list, std::int32_t id) {
            static_cast<std::vector<std::int32_t>*>(list)->push_back(id);
        },
        &reading.ids, nullptr);
    KV_LogFile_ReadEntries(
        file, -1, -1, filter, -1,
        [](void* list, KV_LogDataEntry* entry) {
            static_cast<std::vector<DataEntry>*>(list)->push_back(copyOf(entry, 0));
            KV_LogDataEntry_Destroy(entry);
        },
        &reading.entries);
    KV_LogEntryIndexFilter_Destroy(filter);
    for (std::int32_t id = 0; id <= 41; ++id) {
        KV_LogDataEntry* entry = nullptr;
        if (KV_LogFile_ReadEntry(file, id, &entry, nullptr)) {
            reading.entries.push_back(copyOf(entry, id));
            KV_LogDataEntry_Destroy(entry);
        }
    }

    KV_LogFile_GetDataSources(file, countAndDestroy<KV_LogDataSource, KV_LogDataSource_Destroy>,
                              &reading, nullptr);
    const KV_LogDataSourcePropertyCallback onProperty =
        countAndDestroy<KV_LogDataSourceProperty, KV_LogDataSourceProperty_Destroy>;
    KV_LogFile_GetAllDataSourceProperties(file, onProperty, &reading, nullptr);
    KV_LogFile_GetAllMetadata(file, countAndDestroy<KV_LogMetadata, KV_LogMetadata_Destroy>,
                              &reading);
    KV_LogFile_GetAllResources(file, countAndDestroy<KV_LogResource, KV_LogResource_Destroy>,
                               &reading);
    KV_LogFile_GetBookmarks(file, countAndDestroy<KV_LogBookmark, KV_LogBookmark_Destroy>,
                            &reading);
    KV_LogResource* thumbnail = nullptr;
    if (KV_LogFile_GetResource(file, "thumbnail", &thumbnail, nullptr)) {
        KV_LogResource_Destroy(thumbnail);
    }
    KV_LogMetadata* version = nullptr;
    if (KV_LogFile_GetMetadata(file, "logVersion", &version, nullptr)) {
        KV_LogMetadata_Destroy(version);
    }
    KV_LogConfig* config = KV_LogConfig_Create("reader", "2.0", "UTC");
    KV_LogError* error = nullptr;
    KV_LogFile_Destroy(KV_LogAlgorithms_Clone(file, clonePath.c_str(), config, &error));
    takeMessage(error);
    KV_LogConfig_Destroy(config);
    return reading;
}

// Every entry read from a damaged copy is an entry that was written, under its own id where the
// read gives one (a listed entry is found by its timestamp, which no two entries share), and the
// index names written ids in ascending order: damage may hide entries, but must never alter one.
void expectOnlyGenuineEntries(const FlatReading& read, const std::vector<DataEntry>& written,
                              const std::string& what) {
    EXPECT_TRUE(std::is_sorted(read.ids.begin(), read.ids.end())) << what;
    for (const std::int32_t id : read.ids) {
        EXPECT_TRUE(id >= 1 && id <= static_cast<std::int32_t>(written.size()))
            << what << ": " << id;
    }
    for (const DataEntry& entry : read.entries) {
        const auto original = std::find_if(written.begin(), written.end(), [&](const auto& known) {
            return entry.entryId == 0 ? known.timestamp == entry.timestamp
                                      : known.entryId == entry.entryId;
        });
        ASSERT_NE(original, written.end()) << what << ": an entry that was never written";
        EXPECT_EQ(entry.data, original->data) << what << ", entry " << original->entryId;
        EXPECT_EQ(entry.timestamp, original->timestamp) << what << ", entry " << original->entryId;
        EXPECT_EQ(entry.type, original->type) << what << ", entry " << original->entryId;
    }
}

// Every read of the class; what a damaged file makes it throw is allowed.
void readThroughClass(const std::string& file) {
    try {
        SqliteLogFile log{std::filesystem::path(file)};
        const std::vector<std::int32_t> ids = log.getEntryIndex({});
        for (const std::int32_t id : ids) {
            try {
                log.readEntry(id);
            } catch (const std::exception&) {
            }
        }
        const auto reads = std::vector<std::function<void()>>{
            [&] { log.readEntries(-1, -1, {}, -1); },
            [&] { log.getAllMetadata(); },
            [&] { log.getAllResources(); },
            [&] { log.getBookmarks(); },
            [&] { log.getDataSources(); },
            [&] { log.getAllDataSourceProperties(); },
            [&] { log.getThumbnail(); },
            [&] { log.getEntryCount(); },
        };
        for (const auto& read : reads) {
            try {
                read();
            } catch (const std::exception&) {
            }
        }
    } catch (const std::exception&) {
    }
}

class ForeignFileTest : public Testing::TempDirTest {};

// ---- Files that are no database ----------------------------------------------------------------

TEST_F(ForeignFileTest, FilesThatAreNoDatabaseAreRefusedUnchanged) {
    const std::string genuine = path("genuine.log");
    writeGenuineLog(genuine, -1);
    const Bytes log = readFileBytes(genuine);
    std::filesystem::remove(genuine);
    Bytes legacyWithData = {0x44, 0x33, 0x22, 0x11};
    const Bytes tail = randomBytes(2000, 3);
    legacyWithData.insert(legacyWithData.end(), tail.begin(), tail.end());
    Bytes magicThenNoise = textBytes(std::string("SQLite format 3") + '\0');
    const Bytes noise = randomBytes(4080, 4);
    magicThenNoise.insert(magicThenNoise.end(), noise.begin(), noise.end());

    struct Row {
        const char* name;
        Bytes bytes;
        Outcome outcome;
    };
    const Row rows[] = {
        {"random bytes", randomBytes(8192, 1), Outcome::NotALogFile},
        {"a text file", textBytes(std::string(40, 'x') + "\nlog line 2\n\tlog line 3\n"),
         Outcome::NotALogFile},
        {"one zero byte", Bytes{0}, Outcome::NotALogFile},
        {"one byte of text", textBytes("a"), Outcome::NotALogFile},
        {"three bytes of text", textBytes("abc"), Outcome::NotALogFile},
        {"99 random bytes", randomBytes(99, 2), Outcome::NotALogFile},
        {"the first 50 bytes of a log file", Bytes(log.begin(), log.begin() + 50),
         Outcome::NotALogFile},
        {"the first 99 bytes of a log file", Bytes(log.begin(), log.begin() + 99),
         Outcome::NotALogFile},
        {"the database header followed by noise", magicThenNoise, Outcome::NotALogFile},
        {"the legacy mark alone", Bytes{0x44, 0x33, 0x22, 0x11}, Outcome::Legacy},
        {"the legacy mark and data", legacyWithData, Outcome::Legacy},
        {"the legacy mark reversed", Bytes{0x11, 0x22, 0x33, 0x44, 0, 0, 0, 0},
         Outcome::NotALogFile},
        {"the legacy mark one byte late", Bytes{0, 0x44, 0x33, 0x22, 0x11}, Outcome::NotALogFile},
        {"three bytes of the legacy mark", Bytes{0x44, 0x33, 0x22}, Outcome::NotALogFile},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string file = path("foreign.bin");
        writeFileBytes(file, row.bytes);
        const std::set<std::string> before = namesIn(dir);

        const ClassOpen opened = openWithClass(file);
        EXPECT_EQ(opened.outcome, row.outcome) << opened.what;
        const std::string message = openWithFlat(file);
        EXPECT_EQ(message, row.outcome == Outcome::Legacy ? legacyText : notALogFileText);

        EXPECT_EQ(readFileBytes(file), row.bytes) << "a refused file was changed";
        EXPECT_EQ(namesIn(dir), before) << "refusing a file left something beside it";
    }
}

// ---- Databases that are not log files ----------------------------------------------------------

TEST_F(ForeignFileTest, DatabasesWithoutAllSixTablesAreRefusedUnchanged) {
    std::vector<std::pair<std::string, std::string>> rows;
    for (const char* table : Statements::requiredTables) {
        rows.emplace_back(std::string("without ") + table,
                          std::string("DROP TABLE ") + table + ";");
        rows.emplace_back(std::string("with a view for ") + table,
                          std::string("DROP TABLE ") + table + "; CREATE VIEW " + table +
                              " AS SELECT 1 AS entryId;");
    }
    rows.emplace_back("with other tables only",
                      "DROP TABLE bookmarks; DROP TABLE resources; DROP TABLE metadata; "
                      "DROP TABLE data; DROP TABLE dataSourceProperties; DROP TABLE dataSources; "
                      "CREATE TABLE notes(text); INSERT INTO notes VALUES ('hello');");
    rows.emplace_back("with the names in other case",
                      "ALTER TABLE data RENAME TO DATA_; ALTER TABLE DATA_ RENAME TO Data;");
    for (const auto& [name, change] : rows) {
        SCOPED_TRACE(name);
        const std::string file = path("shape.db");
        {
            RawDatabase raw(file);
            for (const char* statement : Statements::schema) {
                raw.exec(statement);
            }
            raw.exec("INSERT INTO metadata VALUES ('logVersion', 4);");
            raw.exec(change);
        }
        const Bytes before = readFileBytes(file);

        EXPECT_EQ(openWithClass(file).outcome, Outcome::NotALogFile);
        EXPECT_EQ(openWithFlat(file), notALogFileText);
        EXPECT_EQ(readFileBytes(file), before) << "a refused database was changed";
        std::filesystem::remove(file);
    }
}

TEST_F(ForeignFileTest, DatabasesWithoutTablesBecomeLogFiles) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"zero bytes", ""},
        {"a database whose only table was dropped", "CREATE TABLE t(x); DROP TABLE t;"},
        {"a database with settings only", "PRAGMA user_version = 7; PRAGMA application_id = 9;"},
        {"a database with a view only", "CREATE VIEW v AS SELECT 1;"},
    };
    for (const auto& [name, setup] : rows) {
        SCOPED_TRACE(name);
        for (const bool flat : {false, true}) {
            const std::string file = path(flat ? "flat.db" : "class.db");
            writeFileBytes(file, {});
            if (!setup.empty()) {
                RawDatabase(file).exec(setup);
            }
            if (flat) {
                EXPECT_EQ(openWithFlat(file), "");
            } else {
                EXPECT_EQ(openWithClass(file).outcome, Outcome::Opened);
            }
            RawDatabase raw(file);
            EXPECT_EQ(raw.value("SELECT COUNT(*) FROM sqlite_master WHERE type IN "
                                "('table', 'index') AND name NOT LIKE 'sqlite_%';"),
                      "9");
            EXPECT_EQ(raw.value("SELECT COUNT(*) FROM metadata;"), "0");
        }
    }
}

TEST_F(ForeignFileTest, TablesOfOtherShapesOpenAndNothingIsConverted) {
    // The six names with columns of other names: every statement that names a column fails.
    const std::string otherColumns = path("other-columns.db");
    {
        RawDatabase raw(otherColumns);
        for (const char* table : Statements::requiredTables) {
            raw.exec(std::string("CREATE TABLE ") + table + "(x); INSERT INTO " + table +
                     " VALUES (1);");
        }
    }
    {
        SqliteLogFile log{std::filesystem::path(otherColumns)};
        EXPECT_EQ(log.getFirstEntryId(), -1);
        EXPECT_EQ(log.getLastError(), "Unknown internal error");
        EXPECT_TRUE(log.readEntries(-1, -1, {}, -1).empty());
        EXPECT_FALSE(log.readEntry(1).has_value());
        EXPECT_TRUE(log.getAllMetadata().empty());
        EXPECT_TRUE(log.getDataSources().empty());
        EXPECT_TRUE(log.getBookmarks().empty());
        EXPECT_FALSE(log.addMetadata("key", PropertyValue{std::string("value")}));
    }
    {
        KV_LogError* error = nullptr;
        FileHandle file(KV_LogFile_Open(otherColumns.c_str(), &error));
        ASSERT_NE(file.handle, nullptr) << takeMessage(error);
        std::int32_t first = 0;
        EXPECT_FALSE(KV_LogFile_GetFirstEntryId(file.handle, &first, &error));
        EXPECT_EQ(first, -1);
        EXPECT_EQ(takeMessage(error), "Unknown internal error");
        const FlatReading reading = readThroughFlat(file.handle, path("clone-of-other.log"));
        EXPECT_TRUE(reading.entries.empty());
    }

    // The right columns holding values of other kinds. A level or version that is no whole
    // number is no level or version, so the payload is read as it is stored; a timestamp or type
    // that is no whole number reads as 0.
    const std::string otherKinds = path("other-kinds.db");
    {
        RawDatabase raw(otherKinds);
        for (const char* statement : Statements::schema) {
            raw.exec(statement);
        }
        raw.exec(
            "INSERT INTO metadata VALUES ('compressionLevel', '9'), ('logVersion', 4.0);"
            "INSERT INTO dataSources VALUES (1, 1, 'camera');"
            "INSERT INTO data VALUES (1, 'yesterday', 2.5, 1, 3, x'616263');");
    }
    {
        SqliteLogFile log{std::filesystem::path(otherKinds)};
        EXPECT_FALSE(log.isBookmarkPayloadsSupported());
        const std::optional<DataEntry> entry = log.readEntry(1);
        ASSERT_TRUE(entry.has_value());
        EXPECT_EQ(entry->data, textBytes("abc"));
        EXPECT_EQ(entry->timestamp, 0);
        EXPECT_EQ(entry->type, 0);
    }
    KV_LogError* error = nullptr;
    FileHandle file(KV_LogFile_Open(otherKinds.c_str(), &error));
    ASSERT_NE(file.handle, nullptr) << takeMessage(error);
    KV_LogDataEntry* entry = nullptr;
    ASSERT_TRUE(KV_LogFile_ReadEntry(file.handle, 1, &entry, &error)) << takeMessage(error);
    EXPECT_EQ(copyOf(entry, 1).data, textBytes("abc"));
    KV_LogDataEntry_Destroy(entry);
}

// ---- Payloads that do not decode ---------------------------------------------------------------

// Collects what playback delivers, so that a test can wait for a frame.
struct Delivered {
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<std::int32_t> frames;

    void add(std::int32_t frame) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            frames.push_back(frame);
        }
        arrived.notify_all();
    }

    std::vector<std::int32_t> waitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        arrived.wait_for(lock, std::chrono::seconds(30), [&] { return frames.size() >= count; });
        return frames;
    }
};

TEST_F(ForeignFileTest, PayloadsThatDoNotDecodeFailTheirOwnReadsOnly) {
    // A compressed file whose entries 3 and 6 (the last), resource and bookmark payload were
    // overwritten by bytes that are no compressed frame.
    const std::string file = path("undecodable.log");
    {
        SqliteLogFile log(file, "UTC", "app", "1", -1, 0);
        DataSource source{-1, KV_LogDataSourceType{1}, "camera"};
        ASSERT_TRUE(log.addDataSource(source));
        for (int id = 1; id <= 6; ++id) {
            ASSERT_TRUE(log.logData(entryOf(id, source.id, 100)));
        }
        ASSERT_TRUE(log.addResource("calibration", Bytes(50, 7)));
        ASSERT_TRUE(log.addBookmark({2, "mark", "", Bytes{1}}));
    }
    RawDatabase(file).exec(
        "UPDATE data SET payload = x'00112233' WHERE entryId IN (3, 6);"
        "UPDATE resources SET payload = x'0102'; UPDATE bookmarks SET payload = x'05';");

    const auto messageOf = [](const std::function<void()>& call) {
        try {
            call();
        } catch (const std::runtime_error& error) {
            return std::string(error.what());
        }
        return std::string("no exception");
    };
    std::string damaged;
    {
        SqliteLogFile log{std::filesystem::path(file)};
        damaged = messageOf([&] { log.readEntry(3); });
        EXPECT_NE(damaged, "no exception") << "an undecodable payload was read";
        EXPECT_TRUE(log.readEntry(2).has_value());
        EXPECT_EQ(log.getEntryIndex({}).size(), 6u);
        EXPECT_THROW(log.getResource("calibration"), std::runtime_error);
        EXPECT_THROW(log.getBookmarks(), std::runtime_error);
    }

    // Through the flat interface each failure stays inside its call.
    KV_LogError* error = nullptr;
    FileHandle opened(KV_LogFile_Open(file.c_str(), &error));
    ASSERT_NE(opened.handle, nullptr) << takeMessage(error);
    KV_LogDataEntry* entry = nullptr;
    EXPECT_FALSE(KV_LogFile_ReadEntry(opened.handle, 3, &entry, &error));
    EXPECT_EQ(entry, nullptr);
    EXPECT_EQ(takeMessage(error), damaged);
    ASSERT_TRUE(KV_LogFile_ReadEntry(opened.handle, 2, &entry, &error)) << takeMessage(error);
    KV_LogDataEntry_Destroy(entry);
    KV_LogResource* resource = nullptr;
    EXPECT_FALSE(KV_LogFile_GetResource(opened.handle, "calibration", &resource, &error));
    EXPECT_FALSE(takeMessage(error).empty());
    FlatReading reading;
    EXPECT_FALSE(KV_LogFile_GetBookmarks(
        opened.handle, countAndDestroy<KV_LogBookmark, KV_LogBookmark_Destroy>, &reading));
    KV_LogEntryIndexFilter* filter = KV_LogEntryIndexFilter_Create();
    EXPECT_FALSE(KV_LogFile_ReadEntries(opened.handle, -1, -1, filter, -1,
                                        countAndDestroy<KV_LogDataEntry, KV_LogDataEntry_Destroy>,
                                        &reading));
    KV_LogEntryIndexFilter_Destroy(filter);
    EXPECT_EQ(reading.handles, 0);

    // Playback meets the frames on the calling thread and on its own. There, `seek` and
    // `getTotalPlayTime` pass the exception on; on the playback thread a frame that does not
    // decode ends a run as the end of the frames does. A player reads the bookmarks when it is
    // made, so the bookmark is mended first.
    RawDatabase(file).exec("UPDATE bookmarks SET payload = NULL;");
    Delivered delivered;
    Playback::LogFilePlayer player(
        std::make_unique<SqliteLogFile>(std::filesystem::path(file)), {},
        [&](std::int32_t frame, DataEntry) { delivered.add(frame); }, false, 0);
    ASSERT_EQ(player.getFrameCount(), 6);
    std::vector<std::int32_t> sought;
    const auto seekInto = [&](std::int32_t frame, DataEntry) { sought.push_back(frame); };
    EXPECT_EQ(messageOf([&] { player.seek(2, seekInto); }), damaged);
    EXPECT_TRUE(sought.empty()) << "the frame of entry 3 cannot be shown";
    EXPECT_EQ(messageOf([&] { player.getTotalPlayTime(); }), damaged) << "of the last frame";
    player.seek(1, seekInto);
    player.play();  // frame 2 does not decode: the run ends before delivering anything
    player.stop();
    EXPECT_TRUE(delivered.frames.empty());
    player.seek(3, seekInto);
    EXPECT_EQ(sought, (std::vector<std::int32_t>{1, 3}));
    player.play();  // delivers frame 4, then meets frame 5, which does not decode
    EXPECT_EQ(delivered.waitFor(1), std::vector<std::int32_t>{4});
    player.stop();
    EXPECT_EQ(delivered.frames, std::vector<std::int32_t>{4});
}

// ---- Paths without a log file ------------------------------------------------------------------

TEST_F(ForeignFileTest, PathsWithoutAFile) {
    // A directory: the database component cannot open it, and says so.
    const std::string directory = path("a-directory");
    std::filesystem::create_directory(directory);
    const ClassOpen onDirectory = openWithClass(directory);
    EXPECT_EQ(onDirectory.outcome, Outcome::OtherError);
    EXPECT_EQ(onDirectory.what.rfind("Cannot open database '" + directory + "'", 0), 0u)
        << onDirectory.what;
    EXPECT_EQ(openWithFlat(directory), onDirectory.what);
    KV_LogConfig* config = KV_LogConfig_Create("app", "1", "UTC");
    KV_LogError* error = nullptr;
    EXPECT_EQ(KV_LogFile_Create(directory.c_str(), config, &error), nullptr);
    EXPECT_EQ(takeMessage(error), "Cannot create file as file already exists.");
    KV_LogConfig_Destroy(config);
    EXPECT_TRUE(std::filesystem::is_empty(directory));

    // Nothing at the path: the flat interface opens only what exists, and creates nothing.
    const std::string missing = path("missing.log");
    const std::string underMissing = path("no-such-dir/missing.log");
    const std::string dangling = path("dangling.log");
    std::filesystem::create_symlink(path("nowhere.log"), dangling);
    for (const std::string& file : {missing, underMissing, dangling}) {
        SCOPED_TRACE(file);
        EXPECT_EQ(openWithFlat(file), missingText);
        EXPECT_FALSE(std::filesystem::exists(file));
    }
    EXPECT_FALSE(std::filesystem::exists(path("nowhere.log")));
    EXPECT_FALSE(std::filesystem::exists(path("no-such-dir")));

    // The open constructor makes a new, empty log file where none is, if it can.
    EXPECT_EQ(openWithClass(missing).outcome, Outcome::Opened);
    EXPECT_EQ(RawDatabase(missing).value("SELECT COUNT(*) FROM sqlite_master;"), "9");
    const ClassOpen underMissingOpen = openWithClass(underMissing);
    EXPECT_EQ(underMissingOpen.outcome, Outcome::OtherError);
    EXPECT_EQ(underMissingOpen.what.rfind("Cannot open database", 0), 0u) << underMissingOpen.what;
}

// ---- Files that cannot be written --------------------------------------------------------------

// Makes a file read-only: mode 0444 and, where the file system allows it, the immutable flag,
// which holds for root as well. `enforced` tells whether the file really cannot be opened for
// writing by this process; the flag is taken off again at the end of the scope.
class ReadOnlyFile {
public:
    explicit ReadOnlyFile(const std::string& file) : file(file) {
        chmod(file.c_str(), 0444);
        setImmutable(true);
        const int probe = open(file.c_str(), O_WRONLY);
        enforced = probe < 0;
        if (probe >= 0) {
            close(probe);
        }
    }
    ReadOnlyFile(const ReadOnlyFile&) = delete;
    ReadOnlyFile& operator=(const ReadOnlyFile&) = delete;
    ~ReadOnlyFile() {
        setImmutable(false);
        chmod(file.c_str(), 0644);
    }

    bool enforced = false;

private:
    void setImmutable(bool on) {
        const int descriptor = open(file.c_str(), O_RDONLY);
        if (descriptor < 0) {
            return;
        }
        int flags = 0;
        if (ioctl(descriptor, FS_IOC_GETFLAGS, &flags) == 0) {
            flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
            ioctl(descriptor, FS_IOC_SETFLAGS, &flags);
        }
        close(descriptor);
    }

    std::string file;
};

TEST_F(ForeignFileTest, ReadOnlyFiles) {
    const std::string file = path("read-only.log");
    const std::vector<DataEntry> written = writeGenuineLog(file, 3);
    const std::string foreign = path("read-only.bin");
    writeFileBytes(foreign, randomBytes(3000, 8));
    const std::string empty = path("read-only-empty.log");
    writeFileBytes(empty, {});
    const Bytes before = readFileBytes(file);

    ReadOnlyFile guard(file);
    ReadOnlyFile foreignGuard(foreign);
    ReadOnlyFile emptyGuard(empty);
    RecordProperty("read_only_enforced", guard.enforced ? "yes" : "no");

    // Opening and reading never write, whether or not the file could be written.
    {
        SqliteLogFile log{std::filesystem::path(file)};
        const std::vector<DataEntry> entries = log.readEntries(-1, -1, {}, -1);
        ASSERT_EQ(entries.size(), written.size());
        EXPECT_EQ(entries.back().data, written.back().data);
        EXPECT_EQ(log.getBookmarks().size(), 2u);
        if (guard.enforced) {
            EXPECT_FALSE(log.addMetadata("note", PropertyValue{std::string("x")}));
            EXPECT_EQ(log.getLastError(), "Unknown internal error");
            EXPECT_FALSE(log.addBookmark({7, "title", "", {}}));
        }
    }
    {
        KV_LogError* error = nullptr;
        FileHandle opened(KV_LogFile_Open(file.c_str(), &error));
        ASSERT_NE(opened.handle, nullptr) << takeMessage(error);
        std::int32_t count = 0;
        EXPECT_TRUE(KV_LogFile_GetEntryCount(opened.handle, &count, &error));
        EXPECT_EQ(count, static_cast<std::int32_t>(written.size()));
        if (guard.enforced) {
            KV_LogResource* resource = KV_LogResource_Create("extra", nullptr, 0);
            EXPECT_FALSE(KV_LogFile_AddResource(opened.handle, resource, &error));
            EXPECT_EQ(takeMessage(error), "Unknown internal error");
            KV_LogResource_Destroy(resource);
        }
    }
    EXPECT_EQ(readFileBytes(file), before);

    // A foreign file is refused as it is when it can be written.
    EXPECT_EQ(openWithClass(foreign).outcome, Outcome::NotALogFile);
    EXPECT_EQ(openWithFlat(foreign), notALogFileText);
    EXPECT_EQ(readFileBytes(foreign), randomBytes(3000, 8));

    // An empty file opens as a new log file; where it cannot be given the schema it stays empty
    // and its reads fail.
    {
        SqliteLogFile log{std::filesystem::path(empty)};
        if (emptyGuard.enforced) {
            EXPECT_EQ(log.getEntryCount(), -1);
            EXPECT_TRUE(readFileBytes(empty).empty());
        } else {
            EXPECT_EQ(log.getEntryCount(), 0);
        }
    }
}

// ---- Log files cut short -----------------------------------------------------------------------

TEST_F(ForeignFileTest, LogFilesTruncatedAtEveryPageBoundary) {
    const std::string genuine = path("genuine.log");
    const std::vector<DataEntry> written = writeGenuineLog(genuine, -1);
    const std::size_t pageSize = std::stoul(RawDatabase(genuine).value("PRAGMA page_size;"));
    const Bytes whole = readFileBytes(genuine);
    ASSERT_EQ(whole.size() % pageSize, 0u);
    // The file has grown ahead of its pages; what lies past them is never read.
    const std::size_t pages = std::stoul(RawDatabase(genuine).value("PRAGMA page_count;"));
    ASSERT_GE(whole.size(), pages * pageSize);
    ASSERT_GE(pages, 20u) << "the log file should span many pages";

    // Cut as a copy is cut, and also with the page count of the header made to match, as some
    // writers leave it; SQLite then reads up to the cut instead of refusing the file at once.
    std::map<std::string, int> outcomes;
    for (const bool headerMatches : {false, true}) {
        for (std::size_t kept = 1; kept < pages; ++kept) {
            const std::string what = std::to_string(kept) + " of " + std::to_string(pages) +
                                     " pages" + (headerMatches ? ", header matching" : "");
            SCOPED_TRACE(what);
            Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(kept * pageSize));
            if (headerMatches) {
                for (int i = 0; i < 4; ++i) {
                    cut[28 + i] = static_cast<std::uint8_t>(kept >> (8 * (3 - i)));
                }
            }

            const std::string forClass = path("cut-class.log");
            writeFileBytes(forClass, cut);
            const ClassOpen opened = openWithClass(forClass);
            if (opened.outcome == Outcome::Opened) {
                readThroughClass(forClass);
            } else {
                EXPECT_EQ(opened.outcome, Outcome::NotALogFile) << opened.what;
                EXPECT_EQ(readFileBytes(forClass), cut) << "a refused file was changed";
            }

            const std::string forFlat = path("cut-flat.log");
            writeFileBytes(forFlat, cut);
            KV_LogError* error = nullptr;
            FileHandle flat(KV_LogFile_Open(forFlat.c_str(), &error));
            const std::string message = takeMessage(error);
            if (flat.handle == nullptr) {
                EXPECT_EQ(message, notALogFileText);
                EXPECT_EQ(readFileBytes(forFlat), cut) << "a refused file was changed";
                ++outcomes["refused"];
                continue;
            }
            ++outcomes["opened"];
            const FlatReading reading = readThroughFlat(flat.handle, path("clone.log"));
            expectOnlyGenuineEntries(reading, written, what);
            std::filesystem::remove(path("clone.log"));
        }
    }
    RecordProperty("opened", outcomes["opened"]);
    RecordProperty("refused", outcomes["refused"]);
    EXPECT_GT(outcomes["opened"], 0) << "no cut file was read at all";
}

}  // namespace
}  // namespace Korvane::Logging
