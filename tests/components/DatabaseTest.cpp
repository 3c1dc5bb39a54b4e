#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "RawDatabase.h"
#include "TempDir.h"
#include "components/database/SqliteDatabase.h"
#include "components/database/SqliteQuery.h"

namespace Korvane::Database {
namespace {

using Testing::RawDatabase;

class DatabaseTest : public Testing::TempDirTest {
protected:
    void SetUp() override {
        TempDirTest::SetUp();
        db = std::make_unique<SqliteDatabase>(path("test.db"),
                                              SqliteDatabase::OpenMode::ReadWriteCreate);
        ASSERT_TRUE(db->executeSimpleQuery(
            "PRAGMA foreign_keys = on; CREATE TABLE parent(id INTEGER PRIMARY KEY);"
            "CREATE TABLE item(parentId INT NOT NULL REFERENCES parent(id), value NOT NULL);"
            "INSERT INTO parent VALUES (1), (2), (3);"));
    }
    std::string outside(const std::string& sql) { return RawDatabase(path("test.db")).value(sql); }

    std::unique_ptr<SqliteDatabase> db;
};

TEST_F(DatabaseTest, ValuesKeepTheirKindThroughBindAndRead) {
    const std::string text("it's; \"quoted\"\0and more", 23);
    const ByteArray bytes = {0, 1, 2, 255};
    SqliteQuery insert(*db, "INSERT INTO item VALUES (1, :a), (1, :b), (1, :c), (1, :d);");
    insert.bindParameter(":a", std::int64_t{1} << 40);
    insert.bindParameter(":b", text, SqliteQuery::BindMode::NoCopy);
    insert.bindParameter(":c", bytes, SqliteQuery::BindMode::Copy);
    insert.bindParameter(":d", ByteArray{}, SqliteQuery::BindMode::Copy);
    ASSERT_EQ(insert.executeStep(), SqliteQuery::Done) << db->getLastErrorCode();
    SqliteQuery select(*db, "SELECT value FROM item ORDER BY rowid;");
    EXPECT_FALSE(select.getValueFromColumn(0).has_value()) << "no row is current yet";
    for (const ColumnValue& expected : {ColumnValue{std::int64_t{1} << 40}, ColumnValue{text},
                                        ColumnValue{bytes}, ColumnValue{ByteArray{}}}) {
        ASSERT_EQ(select.executeStep(), SqliteQuery::Row);
        EXPECT_EQ(select.getValueFromColumn(0), std::optional<ColumnValue>(expected));
    }
    EXPECT_EQ(select.executeStep(), SqliteQuery::Done);
    EXPECT_FALSE(select.getValueFromColumn(0).has_value());
    EXPECT_FALSE(select.bindParameter(":limit", 5)) << "a name the statement lacks";
}

// A file opened for writing grows in whole MiB ahead of its pages, so a killed commit never
// leaves a header that counts pages past the end of the file. The last connection to close cuts
// the room off again; while another connection reads, it stays.
TEST_F(DatabaseTest, FilesOpenedForWritingGrowAheadOfTheirPages) {
    for (const std::size_t bytes : {100u, 300'000u, 1'500'000u}) {
        SqliteQuery insert(*db, "INSERT INTO item VALUES (1, :value);");
        insert.bindParameter(":value", ByteArray(bytes, 7), SqliteQuery::BindMode::Copy);
        ASSERT_EQ(insert.executeStep(), SqliteQuery::Done);
        const std::uintmax_t size = std::filesystem::file_size(path("test.db"));
        EXPECT_GE(size, std::stoull(outside("PRAGMA page_count;")) *
                            std::stoull(outside("PRAGMA page_size;")));
        EXPECT_EQ(size % (1 << 20), 0u) << size;
    }
    const auto pagesSize = [&] {
        return std::stoull(outside("PRAGMA page_count;")) * std::stoull(outside("PRAGMA page_size;"));
    };
    {
        RawDatabase reader(path("test.db"));
        reader.exec("BEGIN; SELECT COUNT(*) FROM item;");
        db.reset();
        EXPECT_EQ(std::filesystem::file_size(path("test.db")) % (1 << 20), 0u);
        reader.exec("COMMIT;");
    }
    db = std::make_unique<SqliteDatabase>(path("test.db"), SqliteDatabase::OpenMode::ReadWrite);
    db.reset();
    EXPECT_EQ(std::filesystem::file_size(path("test.db")) % (1 << 20), 0u)
        << "a connection that grew nothing leaves the file as it is";
    db = std::make_unique<SqliteDatabase>(path("test.db"), SqliteDatabase::OpenMode::ReadWrite);
    ASSERT_TRUE(db->executeSimpleQuery("INSERT INTO item VALUES (2, zeroblob(2000000));"));
    db.reset();
    EXPECT_EQ(std::filesystem::file_size(path("test.db")), pagesSize());
}

TEST_F(DatabaseTest, CachedStatementsServeOneQueryAtATime) {
    const std::string sql = "SELECT id FROM parent WHERE id >= :min ORDER BY id;";
    for (int round = 0; round < 3; ++round) {  // later rounds reuse cached statements
        SqliteQuery first(*db, sql);
        first.bindParameter(":min", 1);
        ASSERT_EQ(first.executeStep(), SqliteQuery::Row);
        std::thread([&] {
            SqliteQuery second(*db, sql);
            second.bindParameter(":min", 3);
            ASSERT_EQ(second.executeStep(), SqliteQuery::Row);
            EXPECT_EQ(getValueFromColumn<int>(second, 0), 3);
        }).join();
        EXPECT_EQ(first.executeStep(), SqliteQuery::Row);
        EXPECT_EQ(getValueFromColumn<int>(first, 0), 2);
    }
    SqliteQuery reused(*db, sql);
    EXPECT_EQ(reused.executeStep(), SqliteQuery::Done) << "bindings of a past use stay behind";
    {
        SqliteQuery reading(*db, "SELECT id FROM parent;");
        ASSERT_EQ(reading.executeStep(), SqliteQuery::Row);
        ASSERT_TRUE(db->executeSimpleQuery("INSERT INTO item VALUES (1, 'x');"));
    }  // the read is reset here, and the write commits
    EXPECT_EQ(outside("SELECT COUNT(*) FROM item;"), "1");
}

TEST_F(DatabaseTest, CodeInTheFileDoesNotRunAndForeignFilesAreNoDatabase) {
    ASSERT_TRUE(db->executeSimpleQuery(
        "CREATE TRIGGER wipe AFTER INSERT ON item BEGIN DELETE FROM parent; END;"
        "CREATE VIEW everything AS SELECT * FROM parent;"));
    ASSERT_TRUE(db->executeSimpleQuery("INSERT INTO item VALUES (1, 'x');"));
    EXPECT_EQ(outside("SELECT COUNT(*) FROM parent;"), "3");
    EXPECT_EQ(SqliteQuery(*db, "SELECT * FROM everything;").executeStep(), SqliteQuery::Error);
    EXPECT_FALSE(db->executeSimpleQuery(
        "PRAGMA writable_schema = ON; DELETE FROM sqlite_master WHERE name = 'item';"));

    Testing::writeFileBytes(path("text.db"), Testing::sensorBytes(5000));
    SqliteDatabase foreign(path("text.db"), SqliteDatabase::OpenMode::ReadWriteCreate);
    EXPECT_THROW(foreign.executeSimpleQuery("SELECT * FROM sqlite_master;"), FileIsNotDatabase);
    EXPECT_THROW(SqliteQuery(foreign, "SELECT 1 FROM sqlite_master;"), FileIsNotDatabase);
    EXPECT_THROW(SqliteDatabase(dir.string(), SqliteDatabase::OpenMode::ReadWriteCreate),
                 std::runtime_error);
}

}  // namespace
}  // namespace Korvane::Database
