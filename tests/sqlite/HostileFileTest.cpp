#include <gtest/gtest.h>

#include "RawDatabase.h"
#include "TempDir.h"
#include "algorithms/Algorithms.h"
#include "model/NotALogFileError.h"
#include "sqlite/SqliteLogFile.h"
#include "sqlite/Statements.h"

namespace Korvane::Logging {
namespace {

using Testing::RawDatabase;

// A log file is a database, and a database can carry code. Files from elsewhere must not be
// able to change what the user did not ask to change.
class HostileFileTest : public Testing::TempDirTest {
protected:
    // A genuine file with ten entries, then `extra` run on it from outside.
    std::string prepare(const std::string& name, const std::string& extra) {
        const std::string file = path(name);
        {
            SqliteLogFile log(file, "", "app", "1", 0, 0);
            DataSource source{-1, KV_LogDataSourceType{1}, "s"};
            EXPECT_TRUE(log.addDataSource(source));
            for (int i = 0; i < 10; ++i) {
                EXPECT_TRUE(log.logData(DataEntry{0, source.id, i, payload(i), 100 + i}));
            }
        }
        RawDatabase raw(file);
        raw.exec(extra);
        return file;
    }

    static ByteArray payload(int i) { return Testing::sensorBytes(100 + i, i + 1); }

    // Everything a user may do to a file that they opened.
    void useAsAUserWould(SqliteLogFile& log) {
        log.readEntries(-1, -1, {}, -1);
        log.getAllMetadata();
        log.getAllResources();
        log.addMetadata("note", std::string("hello"));
        log.addResource("calibration", ByteArray{1, 2});
        log.setThumbnail(ByteArray{3});
        log.addBookmark({3, "mark", "c", {1}});
        log.updateBookmark({3, "mark2", "d", {2}});
        log.removeBookmark({3, "", "", {}});
        log.addBookmark({4, "kept", "", {}});
        EXPECT_NE(Algorithms::slice(log, 2, 9, path("slice.log"), "a", "b", 0), nullptr);
        EXPECT_NE(Algorithms::clone(log, path("clone.log"), "a", "b", 1), nullptr);
    }

    void expectAllEntries(const std::string& file) {
        RawDatabase raw(file);
        ASSERT_EQ(raw.value("SELECT COUNT(*) FROM data;"), "10");
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(raw.blob("SELECT payload FROM data WHERE entryId = " + std::to_string(i + 1)),
                      payload(i))
                << "entry " << i + 1;
        }
    }
};

TEST_F(HostileFileTest, TriggersInTheFileNeverRun) {
    const std::vector<std::string> triggers = {
        "CREATE TRIGGER t AFTER INSERT ON bookmarks BEGIN "
        "DELETE FROM data WHERE entryId <> NEW.entryId; END;",
        "CREATE TRIGGER t AFTER UPDATE ON bookmarks BEGIN UPDATE data SET payload = x'00'; END;",
        "CREATE TRIGGER t BEFORE DELETE ON bookmarks BEGIN DELETE FROM data; END;",
        "CREATE TRIGGER t AFTER INSERT ON metadata BEGIN DELETE FROM data; END;",
        "CREATE TRIGGER t AFTER INSERT ON resources BEGIN UPDATE data SET timestamp = 0; END;",
        "CREATE TRIGGER t AFTER UPDATE ON resources BEGIN DELETE FROM data; END;",
        "CREATE TRIGGER t AFTER INSERT ON data BEGIN DELETE FROM data; END;",
    };
    for (std::size_t i = 0; i < triggers.size(); ++i) {
        SCOPED_TRACE(triggers[i]);
        const std::string file = prepare("trigger" + std::to_string(i) + ".log", triggers[i]);
        {
            SqliteLogFile log{std::filesystem::path(file)};
            useAsAUserWould(log);
            EXPECT_EQ(log.readEntries(-1, -1, {}, -1).size(), 10u);
        }
        expectAllEntries(file);
        std::filesystem::remove(path("slice.log"));
        std::filesystem::remove(path("clone.log"));
    }
}

TEST_F(HostileFileTest, ViewsAndOddTablesChangeNothing) {
    // A view where a table should be: the file lacks a table and is refused unchanged.
    const std::string viewFile =
        prepare("view.log", "DROP TABLE resources; CREATE VIEW resources AS SELECT * FROM data;");
    const auto before = Testing::readFileBytes(viewFile);
    EXPECT_THROW(SqliteLogFile{std::filesystem::path(viewFile)}, NotALogFileError);
    EXPECT_EQ(Testing::readFileBytes(viewFile), before);

    // Extra columns, other column types, a length that lies and an extra view.
    const std::string odd = prepare(
        "odd.log",
        "ALTER TABLE data ADD COLUMN extra TEXT DEFAULT 'x';"
        "ALTER TABLE bookmarks ADD COLUMN colour INTEGER;"
        "DROP TABLE metadata; CREATE TABLE metadata(key BLOB, value TEXT, more REAL);"
        "INSERT INTO metadata VALUES ('logVersion', '4', 1.0), ('compressionLevel', '0', 2.0);"
        "UPDATE data SET length = 123456789;"
        "CREATE VIEW everything AS SELECT * FROM data;");
    {
        SqliteLogFile log{std::filesystem::path(odd)};
        useAsAUserWould(log);
        const auto entries = log.readEntries(-1, -1, {}, -1);
        ASSERT_EQ(entries.size(), 10u);
        EXPECT_EQ(entries[9].data, payload(9)) << "the stored length is never trusted";
    }
    expectAllEntries(odd);
}

}  // namespace
}  // namespace Korvane::Logging
