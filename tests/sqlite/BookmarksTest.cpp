#include <gtest/gtest.h>

#include "LogFiles.h"
#include "RawDatabase.h"
#include "TempDir.h"
#include "sqlite/SqliteLogFile.h"

namespace Korvane::Logging {
namespace {

using Testing::RawDatabase;

class BookmarksTest : public Testing::TempDirTest {
protected:
    // A file of the given version and level with entries 1 to 5.
    std::unique_ptr<SqliteLogFile> fileWithEntries(int logVersion, int level) {
        const std::string file =
            path("v" + std::to_string(logVersion) + "_" + std::to_string(level) + ".log");
        Testing::writeLogFileOfVersion(file, logVersion, level);
        auto log = std::make_unique<SqliteLogFile>(std::filesystem::path{file});
        DataSource source{-1, KV_LogDataSourceType{1}, "s"};
        EXPECT_TRUE(log->addDataSource(source));
        for (int i = 0; i < 5; ++i) {
            EXPECT_TRUE(log->logData(DataEntry{0, source.id, 0, {1}, i}));
        }
        return log;
    }
};

TEST_F(BookmarksTest, AddUpdateAndRemoveSelectByEntryId) {
    auto log = fileWithEntries(4, 0);
    ASSERT_TRUE(log->addBookmark({2, "first", "a", {7}}));
    ASSERT_TRUE(log->addBookmark({2, "second", "b", {}}));
    ASSERT_TRUE(log->addBookmark({4, "other", "c", {8, 8}}));
    ASSERT_EQ(log->getBookmarks().size(), 3u);

    ASSERT_TRUE(log->updateBookmark({2, "both", "changed", {}}));
    ASSERT_TRUE(log->updateBookmark({3, "nobody", "", {}})) << "no row is no failure";
    auto bookmarks = log->getBookmarks();
    ASSERT_EQ(bookmarks.size(), 3u);
    for (int i : {0, 1}) {
        EXPECT_EQ(bookmarks[i].title, "both");
        EXPECT_EQ(bookmarks[i].comment, "changed");
        EXPECT_TRUE(bookmarks[i].payload.empty()) << "an update replaces the payload";
    }
    EXPECT_EQ(bookmarks[2].payload, (ByteArray{8, 8}));

    ASSERT_TRUE(log->removeBookmark({2, "any title", "", {}}));
    ASSERT_TRUE(log->removeBookmark({5, "", "", {}}));
    bookmarks = log->getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    EXPECT_EQ(bookmarks[0].entryId, 4);

    EXPECT_FALSE(log->addBookmark({42, "nowhere", "", {}}));
    EXPECT_EQ(log->getLastError(), "Unknown internal error");
    EXPECT_EQ(log->getBookmarks().size(), 1u);
}

TEST_F(BookmarksTest, PayloadsFollowTheLogVersionAndLevel) {
    const ByteArray payload = Testing::sensorBytes(30000);
    struct Case {
        int logVersion;
        int level;
        bool keepsPayload;
        const char* storedKind;  // typeof(payload) in the table
    };
    for (const Case& c : {Case{4, 9, true, "blob"}, Case{4, 0, true, "blob"},
                          Case{3, 5, false, "null"}, Case{2, 0, false, "null"}}) {
        SCOPED_TRACE("version " + std::to_string(c.logVersion) + " level " +
                     std::to_string(c.level));
        auto log = fileWithEntries(c.logVersion, c.level);
        ASSERT_TRUE(log->addBookmark({1, "with", "payload", payload}));
        ASSERT_TRUE(log->addBookmark({3, "without", "", {}}));
        ASSERT_TRUE(log->updateBookmark({3, "still without", "x", payload}));
        const auto bookmarks = log->getBookmarks();
        ASSERT_EQ(bookmarks.size(), 2u);
        EXPECT_EQ(bookmarks[0].payload, c.keepsPayload ? payload : ByteArray{});
        EXPECT_EQ(bookmarks[1].payload, c.keepsPayload ? payload : ByteArray{});
        EXPECT_EQ(bookmarks[1].title, "still without");

        RawDatabase raw(log->getFilePath().string());
        EXPECT_EQ(raw.value("SELECT typeof(payload) FROM bookmarks WHERE entryId = 1;"),
                  c.storedKind);
        if (c.keepsPayload) {
            const auto size = raw.value("SELECT length(payload) FROM bookmarks WHERE entryId = 1;");
            EXPECT_EQ(size == std::to_string(payload.size()), c.level == 0);
        }
    }
}

TEST_F(BookmarksTest, NullColumnsReadAsEmpty) {
    auto log = fileWithEntries(4, 3);
    {
        RawDatabase raw(log->getFilePath().string());
        raw.exec("INSERT INTO bookmarks VALUES (2, 'imported', NULL, NULL);");
    }
    const auto bookmarks = log->getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    EXPECT_EQ(bookmarks[0].title, "imported");
    EXPECT_EQ(bookmarks[0].comment, "");
    EXPECT_TRUE(bookmarks[0].payload.empty());
}

TEST_F(BookmarksTest, ChangesWorkOnFilesOpenedLater) {
    {
        auto log = fileWithEntries(4, -1);
        ASSERT_TRUE(log->addBookmark({5, "before", "", {1}}));
    }
    SqliteLogFile reopened(std::filesystem::path{path("v4_-1.log")});
    EXPECT_TRUE(reopened.addBookmark({1, "after", "", {2}}));
    EXPECT_TRUE(reopened.addMetadata("note", std::string("late")));
    const auto bookmarks = reopened.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 2u);
    EXPECT_EQ(bookmarks[0].payload, ByteArray{1});
    EXPECT_EQ(bookmarks[1].payload, ByteArray{2});
}

}  // namespace
}  // namespace Korvane::Logging
