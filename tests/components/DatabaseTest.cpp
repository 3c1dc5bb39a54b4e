#include <gtest/gtest.h>

#include <chrono>
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
        database = std::make_unique<SqliteDatabase>(path("test.db"),
                                                    SqliteDatabase::OpenMode::ReadWriteCreate);
        ASSERT_TRUE(database->executeSimpleQuery(
            "PRAGMA foreign_keys = on;"
            "CREATE TABLE parent(id INTEGER PRIMARY KEY);"
            "CREATE TABLE item(parentId INT NOT NULL REFERENCES parent(id), value);"
            "INSERT INTO parent VALUES (1);"));
    }

    std::unique_ptr<SqliteDatabase> database;
};

TEST_F(DatabaseTest, ValuesKeepTheirKindThroughBindAndRead) {
    const ByteArray bytes = {0, 1, 2, 255};
    const std::string text("it's; \"quoted\"\0and more", 23);
    struct Row {
        std::function<void(SqliteQuery&)> bind;
        ColumnValue expected;
    };
    const std::vector<Row> rows = {
        {[](SqliteQuery& q) { q.bindParameter(":value", std::int32_t{-7}); }, std::int64_t{-7}},
        {[](SqliteQuery& q) { q.bindParameter(":value", std::int64_t{1} << 40); },
         std::int64_t{1} << 40},
        {[](SqliteQuery& q) { q.bindParameter(":value", 3.0); }, 3.0},
        {[&](SqliteQuery& q) { q.bindParameter(":value", text, SqliteQuery::BindMode::NoCopy); },
         text},
        {[&](SqliteQuery& q) { q.bindParameter(":value", bytes, SqliteQuery::BindMode::Copy); },
         bytes},
        // An empty array is an empty blob, which a NOT NULL column accepts.
        {[](SqliteQuery& q) {
             q.bindParameter(":value", ByteArray{}, SqliteQuery::BindMode::Copy);
         },
         ByteArray{}},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(i);
        ASSERT_TRUE(database->executeSimpleQuery("DELETE FROM item;"));
        {
            SqliteQuery insert(*database, "INSERT INTO item VALUES (1, :value);");
            rows[i].bind(insert);
            ASSERT_EQ(insert.executeStep(), SqliteQuery::Done);
        }
        SqliteQuery select(*database, "SELECT value FROM item;");
        EXPECT_FALSE(select.getValueFromColumn(0).has_value()) << "no row is current yet";
        ASSERT_EQ(select.executeStep(), SqliteQuery::Row);
        EXPECT_EQ(select.getValueFromColumn(0), std::optional<ColumnValue>(rows[i].expected));
        EXPECT_EQ(select.executeStep(), SqliteQuery::Done);
        EXPECT_FALSE(select.getValueFromColumn(0).has_value());
    }
}

// Another connection holds the file, as another process would: one that writes needs it alone,
// one that reads shares it but keeps a writer from committing. Both are waited for.
TEST_F(DatabaseTest, LocksOfOtherConnectionsAreWaitedFor) {
    for (const char* hold : {"BEGIN EXCLUSIVE; INSERT INTO parent VALUES (2);",
                             "BEGIN; SELECT COUNT(*) FROM parent;"}) {
        SCOPED_TRACE(hold);
        RawDatabase other(path("test.db"));
        other.exec(hold);
        std::thread release([&other] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            other.exec("COMMIT;");
        });
        SqliteQuery insert(*database, "INSERT INTO item VALUES (1, 'waited');");
        EXPECT_EQ(insert.executeStep(), SqliteQuery::Done) << database->getLastErrorCode();
        release.join();
    }
    EXPECT_EQ(RawDatabase(path("test.db")).value("SELECT COUNT(*) FROM item;"), "2");
}

// The size of a file opened for writing runs ahead of its pages, in whole MiB, so that a commit
// cut off by a kill never leaves a header that counts pages past the end of the file.
TEST_F(DatabaseTest, FilesOpenedForWritingGrowAheadOfTheirPages) {
    constexpr std::uintmax_t step = 1 << 20;
    for (const std::size_t bytes : {100u, 300'000u, 1'500'000u}) {
        SqliteQuery insert(*database, "INSERT INTO item VALUES (1, :value);");
        insert.bindParameter(":value", ByteArray(bytes, 7), SqliteQuery::BindMode::Copy);
        ASSERT_EQ(insert.executeStep(), SqliteQuery::Done);
        RawDatabase raw(path("test.db"));
        const auto pages = std::stoull(raw.value("PRAGMA page_count;")) *
                           std::stoull(raw.value("PRAGMA page_size;"));
        const std::uintmax_t size = std::filesystem::file_size(path("test.db"));
        EXPECT_GE(size, pages);
        EXPECT_EQ(size % step, 0u) << size;
        EXPECT_EQ(raw.value("PRAGMA integrity_check;"), "ok");
    }
}

TEST_F(DatabaseTest, TypedReadsAndUnknownParameters) {
    SqliteQuery query(*database, "SELECT :number, NULL, 'text', 2.5;");
    EXPECT_FALSE(query.bindParameter(":limit", 5)) << "a name the statement lacks";
    EXPECT_TRUE(query.bindParameter(":number", std::int64_t{0x1'0000'0005}));
    ASSERT_EQ(query.executeStep(), SqliteQuery::Row);
    EXPECT_EQ(getValueFromColumn<int>(query, 0), 5) << "low 32 bits";
    EXPECT_EQ(getValueFromColumn<std::int64_t>(query, 0), 0x1'0000'0005);
    EXPECT_FALSE(getValueFromColumn<int>(query, 1).has_value());
    EXPECT_FALSE(getValueFromColumn<int>(query, 2).has_value());
    EXPECT_EQ(getValueFromColumn<std::string>(query, 2), "text");
    EXPECT_FALSE(getValueFromColumn<ByteArray>(query, 3).has_value());

    EXPECT_EQ(requireType<int>(std::nullopt), std::nullopt);
    EXPECT_EQ(requireType<int>(PropertyValue{std::int64_t{-3}}), -3);
    EXPECT_EQ(requireType<int>(PropertyValue{std::int32_t{9}}), 9);
    EXPECT_EQ(requireType<int>(PropertyValue{2.0}), std::nullopt);
    EXPECT_EQ(requireType<int>(PropertyValue{std::string("4")}), std::nullopt);
    EXPECT_EQ(ReturnPropertyValueVisitor{}(ByteArray{'a', 'b'}), PropertyValue{std::string("ab")});
}

TEST_F(DatabaseTest, FailuresReportTheirExtendedCode) {
    SqliteQuery orphan(*database, "INSERT INTO item VALUES (99, 1);");
    EXPECT_EQ(orphan.executeStep(), SqliteQuery::Error);
    EXPECT_EQ(database->getLastErrorCode(), 787);  // foreign key

    EXPECT_FALSE(database->executeSimpleQuery("INSERT INTO parent VALUES (1);"));
    EXPECT_EQ(database->getLastErrorCode(), 1555);  // primary key

    // A statement that does not compile fails at its step, with the compiler's code.
    SqliteQuery broken(*database, "SELECT * FROM missing;");
    EXPECT_FALSE(broken.bindParameter(":x", 1));
    EXPECT_EQ(broken.executeStep(), SqliteQuery::Error);
    EXPECT_EQ(database->getLastErrorCode(), 1);
    EXPECT_FALSE(broken.getValueFromColumn(0).has_value());
}

TEST_F(DatabaseTest, EachThreadSeesItsOwnFailure) {
    std::int32_t otherThreadCode = 0;
    std::thread other([&] {
        EXPECT_FALSE(database->executeSimpleQuery("INSERT INTO parent VALUES (1);"));
        otherThreadCode = database->getLastErrorCode();
    });
    other.join();
    EXPECT_EQ(otherThreadCode, 1555);
    EXPECT_EQ(database->getLastErrorCode(), 0) << "this thread has not failed";
    SqliteQuery orphan(*database, "INSERT INTO item VALUES (99, 1);");
    orphan.executeStep();
    EXPECT_EQ(database->getLastErrorCode(), 787);
}

TEST_F(DatabaseTest, CachedStatementsServeOneQueryAtATime) {
    ASSERT_TRUE(database->executeSimpleQuery("INSERT INTO parent VALUES (2), (3);"));
    const std::string sql = "SELECT id FROM parent WHERE id >= :min ORDER BY id;";
    for (int round = 0; round < 3; ++round) {  // later rounds reuse cached statements
        SqliteQuery first(*database, sql);
        SqliteQuery second(*database, sql);
        first.bindParameter(":min", 1);
        second.bindParameter(":min", 3);
        ASSERT_EQ(first.executeStep(), SqliteQuery::Row);
        ASSERT_EQ(second.executeStep(), SqliteQuery::Row);
        EXPECT_EQ(getValueFromColumn<int>(first, 0), 1);
        EXPECT_EQ(getValueFromColumn<int>(second, 0), 3);
        EXPECT_EQ(first.executeStep(), SqliteQuery::Row);
        EXPECT_EQ(getValueFromColumn<int>(first, 0), 2);
    }
    // A reused statement starts without the bindings of its previous use.
    SqliteQuery reused(*database, sql);
    ASSERT_EQ(reused.executeStep(), SqliteQuery::Done) << "NULL bound: nothing is >= NULL";
}

TEST_F(DatabaseTest, AnAbandonedReadDoesNotHoldBackWrites) {
    ASSERT_TRUE(database->executeSimpleQuery("INSERT INTO parent VALUES (2), (3);"));
    {
        SqliteQuery reading(*database, "SELECT id FROM parent;");
        ASSERT_EQ(reading.executeStep(), SqliteQuery::Row);
        SqliteQuery write(*database, "INSERT INTO item VALUES (1, 'x');");
        ASSERT_EQ(write.executeStep(), SqliteQuery::Done);
    }  // the read is reset here, and the write commits
    RawDatabase outside(path("test.db"));
    EXPECT_EQ(outside.value("SELECT COUNT(*) FROM item;"), "1");
}

TEST_F(DatabaseTest, ManyDistinctStatementsStayCorrect) {
    // More texts than the cache holds: evicted statements are finalised, not reused wrongly.
    for (int i = 0; i < 200; ++i) {
        SqliteQuery query(*database, "SELECT " + std::to_string(i) + ";");
        ASSERT_EQ(query.executeStep(), SqliteQuery::Row);
        ASSERT_EQ(getValueFromColumn<int>(query, 0), i);
    }
}

TEST_F(DatabaseTest, CodeInTheFileDoesNotRun) {
    ASSERT_TRUE(database->executeSimpleQuery(
        "CREATE TABLE audit(x);"
        "CREATE TRIGGER wipe AFTER INSERT ON item BEGIN DELETE FROM parent; "
        "INSERT INTO audit VALUES (1); END;"
        "CREATE VIEW everything AS SELECT * FROM parent;"));
    ASSERT_TRUE(database->executeSimpleQuery("INSERT INTO item VALUES (1, 'x');"));
    RawDatabase outside(path("test.db"));
    EXPECT_EQ(outside.value("SELECT COUNT(*) FROM audit;"), "0");
    EXPECT_EQ(outside.value("SELECT COUNT(*) FROM parent;"), "1");
    SqliteQuery view(*database, "SELECT * FROM everything;");
    EXPECT_EQ(view.executeStep(), SqliteQuery::Error);
    EXPECT_FALSE(
        database->executeSimpleQuery("PRAGMA writable_schema = ON; "
                                     "DELETE FROM sqlite_master WHERE name = 'item';"));
}

TEST_F(DatabaseTest, ForeignFilesRaiseFileIsNotDatabase) {
    Testing::writeFileBytes(path("text.db"), {'h', 'e', 'l', 'l', 'o', '\n'});
    Testing::writeFileBytes(path("noise.db"), Testing::sensorBytes(5000));
    for (const char* name : {"text.db", "noise.db"}) {
        SCOPED_TRACE(name);
        SqliteDatabase foreign(path(name), SqliteDatabase::OpenMode::ReadWriteCreate);
        EXPECT_THROW(foreign.executeSimpleQuery("SELECT * FROM sqlite_master;"), FileIsNotDatabase);
        EXPECT_THROW(SqliteQuery(foreign, "SELECT COUNT(*) FROM sqlite_master;"),
                     FileIsNotDatabase);
    }
    EXPECT_THROW(SqliteDatabase(dir.string(), SqliteDatabase::OpenMode::ReadWriteCreate),
                 std::runtime_error);
}

}  // namespace
}  // namespace Korvane::Database
