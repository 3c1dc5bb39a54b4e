#include <gtest/gtest.h>

#include "LogFiles.h"
#include "TempDir.h"
#include "components/core/Compression.h"
#include "sqlite/SqliteLogFile.h"

namespace Korvane::Logging {
namespace {

using Testing::RawDatabase;

// Resources and bookmarks, in files of each log version.
class BookmarksTest : public Testing::TempDirTest {
protected:
    // A file of the given version and level with entries 1 to 5.
    std::unique_ptr<SqliteLogFile> fileWithEntries(int logVersion, int level) {
        const std::string file = path(std::to_string(logVersion) + "_" + std::to_string(level));
        Testing::writeLogFileOfVersion(file, logVersion, level);
        auto log = std::make_unique<SqliteLogFile>(std::filesystem::path{file});
        EXPECT_TRUE(log->addDataSource(DataSource{1, KV_LogDataSourceType{1}, "s"}));
        for (int i = 0; i < 5; ++i) {
            EXPECT_TRUE(log->logData(DataEntry{0, 1, 0, {1}, i}));
        }
        return log;
    }
};

TEST_F(BookmarksTest, ResourceNamesAreAddedOnceAndOnlyTheThumbnailIsReplaced) {
    auto log = fileWithEntries(4, 0);
    EXPECT_TRUE(log->addResource("calibration", ByteArray{1, 2, 3}));
    EXPECT_FALSE(log->addResource("calibration", ByteArray{9}));
    EXPECT_EQ(log->getLastError(), "No error");
    EXPECT_EQ(log->getResource("calibration"), (ByteArray{1, 2, 3}));
    EXPECT_TRUE(log->addResource(LogResourceEntry{"Calibration", {}})) << "names are exact";
    EXPECT_EQ(log->getResource("Calibration"), ByteArray{});
    EXPECT_EQ(log->getResource("missing"), std::nullopt);
    EXPECT_EQ(log->getThumbnail(), std::nullopt);
    EXPECT_TRUE(log->setThumbnail(ByteArray{4, 4}));
    EXPECT_TRUE(log->setThumbnail(ByteArray{5, 5, 5}));
    EXPECT_FALSE(log->addResource("thumbnail", ByteArray{6}));
    EXPECT_EQ(log->getThumbnail(), (ByteArray{5, 5, 5}));
    const auto all = log->getAllResources();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(std::tie(all[2].name, all[2].data),
              std::make_tuple(std::string("thumbnail"), ByteArray{5, 5, 5}));

    RawDatabase(log->getFilePath()).exec("INSERT INTO resources VALUES ('text', 'not a blob');");
    EXPECT_EQ(log->getResource("text"), std::nullopt) << "foreign payloads read as nothing";
}

TEST_F(BookmarksTest, AddUpdateAndRemoveSelectByEntryId) {
    auto log = fileWithEntries(4, 0);
    ASSERT_TRUE(log->addBookmark({2, "first", "a", {7}}));
    ASSERT_TRUE(log->addBookmark({2, "second", "b", {}}));
    ASSERT_TRUE(log->addBookmark({4, "other", "c", {8, 8}}));
    ASSERT_TRUE(log->updateBookmark({2, "both", "changed", {}}));
    ASSERT_TRUE(log->updateBookmark({3, "nobody", "", {}})) << "no row is no failure";
    auto bookmarks = log->getBookmarks();
    ASSERT_EQ(bookmarks.size(), 3u);
    for (int i : {0, 1}) {
        EXPECT_EQ(bookmarks[i].title + bookmarks[i].comment, "bothchanged");
        EXPECT_TRUE(bookmarks[i].payload.empty()) << "an update replaces the payload";
    }
    EXPECT_EQ(bookmarks[2].payload, (ByteArray{8, 8}));
    ASSERT_TRUE(log->removeBookmark({2, "any title", "", {}}));
    ASSERT_TRUE(log->removeBookmark({5, "", "", {}}));
    EXPECT_FALSE(log->addBookmark({42, "nowhere", "", {}}));
    EXPECT_EQ(log->getLastError(), "Unknown internal error");
    bookmarks = log->getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    EXPECT_EQ(bookmarks[0].entryId, 4);

    RawDatabase(log->getFilePath()).exec("INSERT INTO bookmarks VALUES (2, 'plain', NULL, NULL);");
    EXPECT_EQ(log->getBookmarks().at(1).comment, "") << "NULL columns read as empty";
}

// Resources are compressed from version 3 at a level other than 0; bookmarks keep payloads
// from version 4, compressed at a level other than 0. Files without a version row are version 0.
TEST_F(BookmarksTest, PayloadsFollowTheLogVersionAndLevel) {
    const ByteArray payload = Testing::sensorBytes(30000);
    for (const auto& [logVersion, level] : {std::pair{4, 9}, {4, 0}, {3, -1}, {2, 5}, {-1, 5}}) {
        SCOPED_TRACE(std::to_string(logVersion) + " " + std::to_string(level));
        auto log = fileWithEntries(logVersion, level);
        ASSERT_TRUE(log->addResource("image", payload));
        ASSERT_TRUE(log->setThumbnail(payload));
        ASSERT_TRUE(log->setThumbnail(ByteArray(payload.begin(), payload.begin() + 100)));
        ASSERT_TRUE(log->addBookmark({1, "with", "payload", payload}));
        ASSERT_TRUE(log->addBookmark({3, "without", "", {}}));
        ASSERT_TRUE(log->updateBookmark({3, "still without", "x", payload}));

        const bool compressed = logVersion >= 3 && level != 0;
        const bool keepsPayload = logVersion >= 4;
        EXPECT_EQ(log->isResourceCompressionSupported(), logVersion >= 3);
        EXPECT_EQ(log->isBookmarkPayloadsSupported(), keepsPayload);
        const SqliteLogFile reopened(log->getFilePath());
        EXPECT_EQ(reopened.getResource("image"), payload);
        EXPECT_EQ(reopened.getAllResources().at(0).data, payload);
        EXPECT_EQ(reopened.getThumbnail(), ByteArray(payload.begin(), payload.begin() + 100));
        for (const Bookmark& bookmark : reopened.getBookmarks()) {
            EXPECT_EQ(bookmark.payload, keepsPayload ? payload : ByteArray{});
        }
        RawDatabase raw(log->getFilePath());
        const ByteArray resource = raw.blob("SELECT payload FROM resources WHERE name = 'image';");
        EXPECT_EQ(compressed ? Compression::uncompress(resource) : resource, payload);
        const auto mark = raw.rows("SELECT typeof(payload), length(payload) FROM bookmarks;");
        EXPECT_EQ(mark.at(0).at(0), keepsPayload ? "blob" : "null");
        EXPECT_EQ(mark[0][1] == std::to_string(payload.size()), keepsPayload && level == 0);
    }
}

}  // namespace
}  // namespace Korvane::Logging
