#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "LogFiles.h"
#include "RawDatabase.h"
#include "TempDir.h"
#include "components/core/Compression.h"
#include "model/LegacyLogFileError.h"
#include "model/NotALogFileError.h"
#include "sqlite/SqliteLogFile.h"
#include "sqlite/Statements.h"

namespace Korvane::Logging {
namespace {

using Testing::RawDatabase;

class LifecycleTest : public Testing::TempDirTest {
protected:
    std::unique_ptr<SqliteLogFile> create(const std::string& name, std::int8_t level = 0) {
        return std::make_unique<SqliteLogFile>(path(name), "UTC+1", "recorder", "2.1", level,
                                               1700000000123);
    }
};

TEST_F(LifecycleTest, ANewFileHoldsTheSchemaAndSixMetadataRows) {
    create("new.log", -1);
    RawDatabase raw(path("new.log"));
    const auto objects = raw.rows("SELECT sql FROM sqlite_master ORDER BY rowid;");
    ASSERT_EQ(objects.size(), std::size(Statements::schema));
    for (std::size_t i = 0; i < objects.size(); ++i) {
        std::string expected = Statements::schema[i];
        expected.pop_back();  // the catalogue keeps the text without its semicolon
        EXPECT_EQ(objects[i][0], expected);
    }
    const std::vector<std::vector<std::string>> metadata = {
        {"createdDateTime", "1700000000123", "integer"},
        {"applicationName", "recorder", "text"},
        {"applicationVersion", "2.1", "text"},
        {"currentTimeZone", "UTC+1", "text"},
        {"logVersion", "4", "integer"},
        {"compressionLevel", "-1", "integer"},
    };
    EXPECT_EQ(raw.rows("SELECT key, value, typeof(value) FROM metadata ORDER BY rowid;"), metadata);
    for (const char* table :
         {"data", "dataSources", "dataSourceProperties", "resources", "bookmarks"}) {
        EXPECT_EQ(raw.value(std::string("SELECT COUNT(*) FROM ") + table), "0") << table;
    }
}

TEST_F(LifecycleTest, OpeningReadsLevelAndVersion) {
    struct Case {
        int logVersion;  // -1: no row
        int level;
        bool bookmarkPayloads;
        bool resourceCompression;
    };
    const Case cases[] = {{4, 0, true, true},
                          {4, 7, true, true},
                          {3, 9, false, true},
                          {2, -1, false, false},
                          {-1, 5, false, false}};
    for (const Case& c : cases) {
        const std::string file =
            path("v" + std::to_string(c.logVersion) + "l" + std::to_string(c.level) + ".log");
        Testing::writeLogFileOfVersion(file, c.logVersion, c.level);
        SqliteLogFile log(std::filesystem::path{file});
        EXPECT_EQ(log.isBookmarkPayloadsSupported(), c.bookmarkPayloads) << file;
        EXPECT_EQ(log.isResourceCompressionSupported(), c.resourceCompression) << file;
        EXPECT_EQ(log.getLastError(), "No error");
    }
    create("created.log", 3);
    SqliteLogFile reopened(std::filesystem::path{path("created.log")});
    EXPECT_TRUE(reopened.isBookmarkPayloadsSupported());
    EXPECT_EQ(reopened.getMetadataValue("compressionLevel"), PropertyValue{std::int64_t{3}});
}

TEST_F(LifecycleTest, FilesAreToldApart) {
    const std::vector<std::uint8_t> legacy = {0x44, 0x33, 0x22, 0x11, 9, 9, 9, 9};
    const std::vector<std::uint8_t> reversed = {0x11, 0x22, 0x33, 0x44, 9, 9, 9, 9};
    Testing::writeFileBytes(path("legacy.log"), legacy);
    Testing::writeFileBytes(path("reversed.log"), reversed);
    Testing::writeFileBytes(path("short.txt"), {'a', 'b', 'c'});
    Testing::writeFileBytes(path("noise.bin"), Testing::sensorBytes(3000));
    {
        RawDatabase five(path("five.db"));
        for (const char* statement : Statements::schema) {
            five.exec(statement);
        }
        five.exec("DROP TABLE resources; CREATE TABLE other(x);");
        RawDatabase extra(path("extra.db"));
        for (const char* statement : Statements::schema) {
            extra.exec(statement);
        }
        extra.exec("CREATE TABLE other(x); CREATE TABLE another(y);");
    }

    EXPECT_THROW(SqliteLogFile(std::filesystem::path{path("legacy.log")}), LegacyLogFileError);
    for (const char* name : {"reversed.log", "short.txt", "noise.bin", "five.db"}) {
        const auto before = Testing::readFileBytes(path(name));
        EXPECT_THROW(SqliteLogFile(std::filesystem::path{path(name)}), NotALogFileError) << name;
        EXPECT_EQ(Testing::readFileBytes(path(name)), before) << name << " was changed";
    }
    EXPECT_NO_THROW(SqliteLogFile(std::filesystem::path{path("extra.db")}));
    EXPECT_EQ(Testing::readFileBytes(path("legacy.log")), legacy);
}

TEST_F(LifecycleTest, AnEmptyFileBecomesALogFileWithoutMetadata) {
    Testing::writeFileBytes(path("empty.log"), {});
    SqliteLogFile log(std::filesystem::path{path("empty.log")});
    EXPECT_TRUE(log.getAllMetadata().empty());
    EXPECT_FALSE(log.isResourceCompressionSupported());
    RawDatabase raw(path("empty.log"));
    EXPECT_EQ(raw.value("SELECT COUNT(*) FROM sqlite_master;"), "9");
}

TEST_F(LifecycleTest, MetadataKeepsTheKindOfItsValue) {
    auto log = create("meta.log");
    const std::vector<std::pair<PropertyValue, PropertyValue>> cases = {
        {std::int32_t{-5}, std::int64_t{-5}},
        {std::int64_t{1} << 50, std::int64_t{1} << 50},
        {3.0, 3.0},
        {std::string("0042"), std::string("0042")},
        {std::string(), std::string()},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const std::string key = "key" + std::to_string(i);
        ASSERT_TRUE(log->addMetadata(key, cases[i].first));
        EXPECT_EQ(log->getMetadataValue(key), cases[i].second) << key;
    }
    EXPECT_TRUE(log->addMetadata(LogMetadataEntry{"Key0", std::int32_t{1}})) << "keys are exact";
    EXPECT_EQ(log->getMetadataValue("missing"), std::nullopt);

    const auto all = log->getAllMetadata();
    ASSERT_EQ(all.size(), 6 + cases.size() + 1);
    EXPECT_EQ(all[6].key, "key0");
    EXPECT_EQ(all[6].value, PropertyValue{std::int64_t{-5}});
}

TEST_F(LifecycleTest, ASecondValueForAKeyIsRefusedQuietly) {
    auto log = create("meta.log");
    ASSERT_FALSE(log->logData(DataEntry{}));  // leaves a text behind
    const std::string earlier = log->getLastError();
    ASSERT_NE(earlier, "No error");
    EXPECT_FALSE(log->addMetadata("applicationName", std::string("other")));
    EXPECT_EQ(log->getMetadataValue("applicationName"), PropertyValue{std::string("recorder")});
    EXPECT_EQ(log->getLastError(), earlier);
}

TEST_F(LifecycleTest, MovesCarryTheFile) {
    auto log = create("moved.log");
    SqliteLogFile moved(std::move(*log));
    EXPECT_EQ(moved.getFilePath(), std::filesystem::path(path("moved.log")));
    SqliteLogFile other(std::filesystem::path{path("other.log")});
    other = std::move(moved);
    EXPECT_EQ(other.getFilePath(), std::filesystem::path(path("moved.log")));
    EXPECT_EQ(other.getMetadataValue("applicationName"), PropertyValue{std::string("recorder")});
    log.reset();  // destroying a moved-from object is fine
}

TEST_F(LifecycleTest, BookmarksWhoseReferencesCannotBeCheckedAreReplaced) {
    Testing::writeLogFileOfVersion(path("odd.log"), 4, 0);
    {
        RawDatabase raw(path("odd.log"));
        // A reference to a column that is no key makes the check itself fail.
        raw.exec(
            "DROP TABLE bookmarks;"
            "CREATE TABLE bookmarks(entryId INT NOT NULL REFERENCES data(timestamp), "
            "title TEXT NOT NULL, comments TEXT, payload BLOB);"
            "INSERT INTO bookmarks VALUES (1, 'old', NULL, NULL);");
    }
    SqliteLogFile log(std::filesystem::path{path("odd.log")});
    EXPECT_TRUE(log.getBookmarks().empty());
    RawDatabase raw(path("odd.log"));
    EXPECT_EQ(raw.value("SELECT sql FROM sqlite_master WHERE name = 'bookmarks';") + ";",
              Statements::createBookmarksTable);
    EXPECT_EQ(raw.value("SELECT value FROM metadata WHERE key = 'logVersion';"), "4");

    // A bookmark on an entry that is gone is a violation, not a failed check: it stays.
    Testing::writeLogFileOfVersion(path("dangling.log"), 4, 0);
    {
        RawDatabase dangling(path("dangling.log"));
        dangling.exec("INSERT INTO bookmarks VALUES (7, 'kept', 'c', NULL);");
    }
    SqliteLogFile kept(std::filesystem::path{path("dangling.log")});
    ASSERT_EQ(kept.getBookmarks().size(), 1u);
    EXPECT_EQ(kept.getBookmarks()[0].title, "kept");
}

// Runs `hold` on another connection to `file`, as another process would, and commits it after a
// moment, while the caller opens the file.
class OtherConnection {
public:
    OtherConnection(const std::string& file, const std::string& hold) : raw(file) {
        raw.exec(hold);
        release = std::thread([this] {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            raw.exec("COMMIT;");
        });
    }
    ~OtherConnection() { release.join(); }

    RawDatabase raw;

private:
    std::thread release;
};

TEST_F(LifecycleTest, AFileThatIsBusyOrDamagedElsewhereKeepsItsBookmarks) {
    {
        auto log = create("busy.log");
        DataSource source{-1, KV_LogDataSourceType{1}, "imu"};
        ASSERT_TRUE(log->addDataSource(source));
        for (int i = 0; i < 200; ++i) {
            ASSERT_TRUE(log->logData(DataEntry{0, source.id, 1, ByteArray(500, 1), i}));
        }
        ASSERT_TRUE(log->addBookmark(Bookmark{150, "brake", "", {}}));
    }
    {
        // A writer holds the file while it is opened: the open waits, and is no refusal.
        OtherConnection writer(path("busy.log"), "BEGIN EXCLUSIVE;");
        SqliteLogFile log(std::filesystem::path{path("busy.log")});
        EXPECT_EQ(log.getBookmarks().size(), 1u);
    }
    // Pages of entries that cannot be read fail the check of the bookmarks' references, which is
    // no fault of the bookmarks table.
    {
        RawDatabase raw(path("busy.log"));
        const auto pageSize = std::stoll(raw.value("PRAGMA page_size;"));
        auto bytes = Testing::readFileBytes(path("busy.log"));
        for (const auto& leaf :
             raw.rows("SELECT pageno FROM dbstat WHERE name = 'data' AND pagetype = 'leaf';")) {
            std::fill_n(bytes.begin() + (std::stoll(leaf[0]) - 1) * pageSize, pageSize,
                        std::uint8_t{0});
        }
        Testing::writeFileBytes(path("busy.log"), bytes);
    }
    SqliteLogFile damaged(std::filesystem::path{path("busy.log")});
    ASSERT_EQ(damaged.getBookmarks().size(), 1u);
    EXPECT_EQ(damaged.getBookmarks()[0].title, "brake");
}

// A file that another process is making is opened only when it is whole: its level is read from
// the metadata that the maker writes with the schema.
TEST_F(LifecycleTest, AFileBeingMadeIsOpenedWhenItIsWhole) {
    const ByteArray bytes = Testing::sensorBytes(3000);
    const ByteArray stored = Compression::compress(bytes, Compression::CompressionLevel{3});
    std::string make = "BEGIN IMMEDIATE;";
    for (const char* statement : Statements::schema) {
        make += statement;
    }
    make +=
        "INSERT INTO metadata VALUES ('logVersion', 4), ('compressionLevel', 3);"
        "INSERT INTO dataSources VALUES (1, 1, 'imu');"
        "INSERT INTO data VALUES (1, 5, 2, 1, " +
        std::to_string(stored.size()) + ", x'";
    for (const std::uint8_t byte : stored) {
        static const char digits[] = "0123456789abcdef";
        make += {digits[byte >> 4], digits[byte & 15]};
    }
    make += "');";
    OtherConnection maker(path("made.log"), make);
    const SqliteLogFile log(std::filesystem::path{path("made.log")});
    const std::optional<DataEntry> entry = log.readEntry(1);
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->data, bytes);
}

}  // namespace
}  // namespace Korvane::Logging
