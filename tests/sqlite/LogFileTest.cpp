#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "LogFiles.h"
#include "TempDir.h"
#include "components/core/Compression.h"
#include "model/LegacyLogFileError.h"
#include "model/NotALogFileError.h"
#include "sqlite/SqliteLogFile.h"

namespace Korvane::Logging {
namespace {

using Testing::RawDatabase;

class LogFileTest : public Testing::TempDirTest {
protected:
    std::unique_ptr<SqliteLogFile> create(const std::string& name, std::int8_t level = 0) {
        return std::make_unique<SqliteLogFile>(path(name), "UTC+1", "recorder", "2.1", level,
                                               1700000000123);
    }
    SqliteLogFile open(const std::string& name) const {
        return SqliteLogFile(std::filesystem::path{path(name)});
    }
};

TEST_F(LogFileTest, ANewFileHoldsTheSchemaAndSixMetadataRows) {
    create("new.log", -1);
    RawDatabase raw(path("new.log"));
    const auto catalogue = raw.rows("SELECT sql || ';' FROM sqlite_master ORDER BY rowid;");
    ASSERT_EQ(catalogue.size(), std::size(Statements::schema));
    for (std::size_t i = 0; i < catalogue.size(); ++i) {
        EXPECT_EQ(catalogue[i][0], Statements::schema[i]);
    }
    const std::vector<std::vector<std::string>> metadata = {
        {"createdDateTime", "1700000000123", "integer"},
        {"applicationName", "recorder", "text"},
        {"applicationVersion", "2.1", "text"},
        {"currentTimeZone", "UTC+1", "text"},
        {"logVersion", "4", "integer"},
        {"compressionLevel", "-1", "integer"}};
    EXPECT_EQ(raw.rows("SELECT key, value, typeof(value) FROM metadata ORDER BY rowid;"), metadata);
}

TEST_F(LogFileTest, FilesAreToldApart) {
    const std::vector<std::uint8_t> legacy = {0x44, 0x33, 0x22, 0x11, 9, 9, 9, 9};
    Testing::writeFileBytes(path("legacy"), legacy);
    Testing::writeFileBytes(path("reversed"), {0x11, 0x22, 0x33, 0x44, 9, 9, 9, 9});
    Testing::writeFileBytes(path("short"), {'a', 'b', 'c'});
    Testing::writeFileBytes(path("noise"), Testing::sensorBytes(3000));
    Testing::writeLogFileOfVersion(path("five"), 4, 0);
    RawDatabase(path("five")).exec("DROP TABLE resources; CREATE TABLE other(x);");
    Testing::writeLogFileOfVersion(path("view"), 4, 0);  // a view where a table should be
    RawDatabase(path("view")).exec("DROP TABLE resources; CREATE VIEW resources AS SELECT 1;");
    Testing::writeLogFileOfVersion(path("extra"), 4, 0);
    RawDatabase(path("extra")).exec("CREATE TABLE other(x); CREATE TABLE another(y);");
    Testing::writeFileBytes(path("empty"), {});

    EXPECT_THROW(open("legacy"), LegacyLogFileError);
    EXPECT_EQ(Testing::readFileBytes(path("legacy")), legacy);
    for (const char* name : {"reversed", "short", "noise", "five", "view"}) {
        const auto before = Testing::readFileBytes(path(name));
        EXPECT_THROW(open(name), NotALogFileError) << name;
        EXPECT_EQ(Testing::readFileBytes(path(name)), before) << name << " was changed";
    }
    EXPECT_NO_THROW(open("extra"));
    // An empty file becomes a log file without metadata.
    EXPECT_TRUE(open("empty").getAllMetadata().empty());
    EXPECT_EQ(RawDatabase(path("empty")).value("SELECT COUNT(*) FROM sqlite_master;"), "9");
}

TEST_F(LogFileTest, MetadataKeepsTheKindOfItsValueAndItsFirstValue) {
    auto log = create("meta.log");
    ASSERT_TRUE(log->addMetadata("int", std::int32_t{-5}));
    ASSERT_TRUE(log->addMetadata(LogMetadataEntry{"text", std::string("0042")}));
    ASSERT_TRUE(log->addMetadata("Text", 3.0)) << "keys are exact";
    EXPECT_EQ(log->getMetadataValue("int"), PropertyValue{std::int64_t{-5}});
    EXPECT_EQ(log->getMetadataValue("text"), PropertyValue{std::string("0042")});
    EXPECT_EQ(log->getAllMetadata().at(8).value, PropertyValue{3.0});
    EXPECT_EQ(log->getMetadataValue("missing"), std::nullopt);
    // A second value for a key is refused quietly: the last error stays.
    ASSERT_FALSE(log->logData(DataEntry{}));
    const std::string earlier = log->getLastError();
    EXPECT_FALSE(log->addMetadata("applicationName", std::string("other")));
    EXPECT_EQ(log->getMetadataValue("applicationName"), PropertyValue{std::string("recorder")});
    EXPECT_EQ(log->getLastError(), earlier);
}

TEST_F(LogFileTest, BookmarksWhoseReferencesCannotBeCheckedAreReplaced) {
    // A reference to a column that is no key makes the check itself fail.
    Testing::writeLogFileOfVersion(path("odd.log"), 4, 0);
    RawDatabase(path("odd.log"))
        .exec(
            "DROP TABLE bookmarks; CREATE TABLE bookmarks(entryId INT NOT NULL REFERENCES "
            "data(timestamp), title TEXT NOT NULL, comments TEXT, payload BLOB);"
            "INSERT INTO bookmarks VALUES (1, 'old', NULL, NULL);");
    EXPECT_TRUE(open("odd.log").getBookmarks().empty());
    const std::string table = "SELECT sql || ';' FROM sqlite_master WHERE name = 'bookmarks';";
    EXPECT_EQ(RawDatabase(path("odd.log")).value(table), Statements::createBookmarksTable);
    // A bookmark on an entry that is gone is a violation, not a failed check: it stays.
    Testing::writeLogFileOfVersion(path("dangling.log"), 4, 0);
    RawDatabase(path("dangling.log")).exec("INSERT INTO bookmarks VALUES (7, 'kept', 'c', NULL);");
    ASSERT_EQ(open("dangling.log").getBookmarks().size(), 1u);
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

private:
    RawDatabase raw;
    std::thread release;
};

TEST_F(LogFileTest, AFileThatIsBusyOrDamagedElsewhereKeepsItsBookmarks) {
    {
        auto log = create("busy.log");
        ASSERT_TRUE(log->addDataSource(DataSource{1, KV_LogDataSourceType{1}, "imu"}));
        ASSERT_TRUE(log->logEntries(std::vector<DataEntry>(200, {0, 1, 1, ByteArray(500, 1), 0})));
        ASSERT_TRUE(log->addBookmark(Bookmark{150, "brake", "", {}}));
    }
    {
        // A writer holds the file while it is opened: the open waits, and is no refusal.
        OtherConnection writer(path("busy.log"), "BEGIN EXCLUSIVE;");
        EXPECT_EQ(open("busy.log").getBookmarks().size(), 1u);
    }
    // Pages of entries that cannot be read fail the check of the bookmarks' references, which is
    // no fault of the bookmarks table.
    RawDatabase raw(path("busy.log"));
    const auto pageSize = std::stoll(raw.value("PRAGMA page_size;"));
    auto bytes = Testing::readFileBytes(path("busy.log"));
    for (const auto& leaf :
         raw.rows("SELECT pageno FROM dbstat WHERE name = 'data' AND pagetype = 'leaf';")) {
        std::fill_n(bytes.begin() + (std::stoll(leaf[0]) - 1) * pageSize, pageSize, 0);
    }
    Testing::writeFileBytes(path("busy.log"), bytes);
    ASSERT_EQ(open("busy.log").getBookmarks().size(), 1u);
}

// A file that another process is making is opened only when it is whole: its level is read from
// the metadata that the maker writes with the schema.
TEST_F(LogFileTest, AFileBeingMadeIsOpenedWhenItIsWhole) {
    const ByteArray bytes = Testing::sensorBytes(3000);
    std::string make = "BEGIN IMMEDIATE;";
    for (const char* statement : Statements::schema) {
        make += statement;
    }
    make +=
        "INSERT INTO metadata VALUES ('logVersion', 4), ('compressionLevel', 3);"
        "INSERT INTO dataSources VALUES (1, 1, 'imu'); INSERT INTO data VALUES (1, 5, 2, 1, "
        "0, x'";
    for (const std::uint8_t byte : Compression::compress(bytes, Compression::CompressionLevel{3})) {
        make += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
    }
    OtherConnection maker(path("made.log"), make + "');");
    EXPECT_EQ(open("made.log").readEntry(1).value_or(DataEntry{}).data, bytes);
}

}  // namespace
}  // namespace Korvane::Logging
