#include <gtest/gtest.h>

#include "RawDatabase.h"
#include "TempDir.h"
#include "algorithms/Algorithms.h"
#include "components/core/Chrono.h"
#include "sqlite/SqliteLogFile.h"

namespace Korvane::Logging::Algorithms {
namespace {

using Testing::RawDatabase;

class SliceTest : public Testing::TempDirTest {
protected:
    // A source file with two data sources (one without entries), properties, metadata, resources
    // and `count` entries whose payload is their id.
    std::unique_ptr<SqliteLogFile> makeSource(int count, std::int8_t level = 0) {
        auto log = std::make_unique<SqliteLogFile>(path("source.log"), "Europe/Oslo", "recorder",
                                                   "1.0", level, 1000);
        DataSource used{-1, KV_LogDataSourceType{1}, "used"};
        DataSource idle{-1, KV_LogDataSourceType{2}, "idle"};
        EXPECT_TRUE(log->addDataSource(used));
        EXPECT_TRUE(log->addDataSource(idle));
        EXPECT_TRUE(log->addDataSourceProperty({used.id, "rate", std::int32_t{100}}));
        EXPECT_TRUE(log->addDataSourceProperty({idle.id, "model", std::string("X")}));
        EXPECT_TRUE(log->addMetadata("vehicle", std::string("truck 7")));
        EXPECT_TRUE(log->addMetadata("speedLimit", 27.5));
        EXPECT_TRUE(log->addResource("calibration", ByteArray{1, 2, 3}));
        EXPECT_TRUE(log->setThumbnail(ByteArray{9, 9}));
        for (int id = 1; id <= count; ++id) {
            EXPECT_TRUE(log->logData(DataEntry{0, used.id, id * 10, idBytes(id), 5000 + id}));
        }
        return log;
    }

    static ByteArray idBytes(int id) {
        return Testing::sensorBytes(200, static_cast<unsigned>(id));
    }

    static std::vector<std::int64_t> timestampsOf(const LogFileInterface& log) {
        std::vector<std::int64_t> timestamps;
        for (const DataEntry& entry : log.readEntries(-1, -1, {}, -1)) {
            timestamps.push_back(entry.timestamp);
        }
        return timestamps;
    }
};

TEST_F(SliceTest, EntriesAreRenumberedAndBookmarksFollowThem) {
    auto source = makeSource(10);
    {
        RawDatabase raw(path("source.log"));
        raw.exec("DELETE FROM data WHERE entryId NOT IN (5, 6, 9);");
    }
    for (int entry : {5, 6, 9}) {
        ASSERT_TRUE(source->addBookmark({entry, "on " + std::to_string(entry), "", {}}));
    }
    {
        // Bookmarks on ids without entries, as a file from elsewhere may have them.
        RawDatabase raw(path("source.log"));
        raw.exec(
            "PRAGMA foreign_keys = off;"
            "INSERT INTO bookmarks VALUES (4, 'on 4', '', NULL), (7, 'on 7', '', x'07'),"
            "(10, 'on 10', '', NULL);");
    }
    auto sliced = slice(*source, 5, 9, path("slice.log"), "recorder", "1.0", 0);
    ASSERT_NE(sliced, nullptr);
    EXPECT_EQ(sliced->getEntryIndex({}), (std::vector<std::int32_t>{1, 2, 3}));
    EXPECT_EQ(timestampsOf(*sliced), (std::vector<std::int64_t>{5005, 5006, 5009}));
    EXPECT_EQ(sliced->readEntry(3)->data, idBytes(9));

    std::vector<std::pair<std::int32_t, std::string>> marks;
    for (const Bookmark& bookmark : sliced->getBookmarks()) {
        marks.emplace_back(bookmark.entryId, bookmark.title);
    }
    const std::vector<std::pair<std::int32_t, std::string>> expected = {
        {1, "on 5"}, {2, "on 6"}, {3, "on 9"}, {3, "on 7"}};
    EXPECT_EQ(marks, expected);
    EXPECT_EQ(sliced->getBookmarks()[3].payload, ByteArray{7});
}

TEST_F(SliceTest, EverythingAroundTheEntriesIsCopied) {
    auto source = makeSource(6, 0);
    const std::int64_t before = Chrono::msSinceUnixEpoch();
    auto sliced = slice(*source, 2, 4, path("slice.log"), "recorder", "1.0", 9);
    ASSERT_NE(sliced, nullptr);
    EXPECT_EQ(sliced->getDataSources().size(), 2u) << "sources without entries stay";
    EXPECT_EQ(sliced->getAllDataSourceProperties().size(), 2u);
    EXPECT_EQ(sliced->getDataSourceProperty(1, "rate"), PropertyValue{std::int64_t{100}});
    EXPECT_EQ(sliced->getMetadataValue("vehicle"), PropertyValue{std::string("truck 7")});
    EXPECT_EQ(sliced->getMetadataValue("speedLimit"), PropertyValue{27.5});
    EXPECT_EQ(sliced->getMetadataValue("currentTimeZone"),
              PropertyValue{std::string("Europe/Oslo")});
    EXPECT_EQ(sliced->getMetadataValue("compressionLevel"), PropertyValue{std::int64_t{9}});
    const auto created = std::get<std::int64_t>(*sliced->getMetadataValue("createdDateTime"));
    EXPECT_GE(created, before);
    EXPECT_EQ(sliced->getMetadataValue("oldApplicationName"), std::nullopt)
        << "an unchanged identity is not archived";
    EXPECT_EQ(sliced->getResource("calibration"), (ByteArray{1, 2, 3}));
    EXPECT_EQ(sliced->getThumbnail(), (ByteArray{9, 9}));
    EXPECT_EQ(sliced->getAllMetadata().size(), 8u);
    EXPECT_EQ(sliced->readEntry(1)->data, idBytes(2)) << "read back through the new level";
    RawDatabase raw(path("slice.log"));
    EXPECT_LT(std::stoi(raw.value("SELECT length FROM data WHERE entryId = 1;")), 200);
}

TEST_F(SliceTest, AReplacedIdentityIsArchivedOnce) {
    auto source = makeSource(3);
    auto first = slice(*source, 1, 3, path("first.log"), "editor", "2.0", 0);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->getMetadataValue("oldApplicationName"),
              PropertyValue{std::string("recorder")});
    EXPECT_EQ(first->getMetadataValue("oldApplicationVersion"), PropertyValue{std::string("1.0")});
    EXPECT_EQ(first->getMetadataValue("applicationName"), PropertyValue{std::string("editor")});

    auto second = clone(*first, path("second.log"), "viewer", "3.0", 0);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->getMetadataValue("oldApplicationName"),
              PropertyValue{std::string("recorder")})
        << "the first identity survives";
    std::size_t archived = 0;
    for (const LogMetadataEntry& entry : second->getAllMetadata()) {
        archived += entry.key == "oldApplicationName" ? 1 : 0;
    }
    EXPECT_EQ(archived, 1u);

    // A source without a name gets an empty archived name.
    SqliteLogFile bare(std::filesystem::path{path("bare.log")});
    auto named = clone(bare, path("named.log"), "tool", "", 0);
    ASSERT_NE(named, nullptr);
    EXPECT_EQ(named->getMetadataValue("oldApplicationName"), PropertyValue{std::string()});
    EXPECT_EQ(named->getMetadataValue("oldApplicationVersion"), std::nullopt);
}

TEST_F(SliceTest, RangesThatDoNotFitGiveNothing) {
    auto source = makeSource(5);
    {
        RawDatabase raw(path("source.log"));
        raw.exec("DELETE FROM data WHERE entryId = 3;");
    }
    const std::pair<std::int32_t, std::int32_t> refused[] = {
        {4, 2}, {-1, 5}, {0, 2}, {3, 5}, {2, 3}, {6, 9}, {-9, -7},
    };
    for (const auto& [first, last] : refused) {
        EXPECT_EQ(slice(*source, first, last, path("out.log"), "a", "b", 0), nullptr)
            << first << ".." << last;
        EXPECT_FALSE(std::filesystem::exists(path("out.log")));
    }
    auto one = slice(*source, 4, 4, path("one.log"), "a", "b", 0);
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(one->getEntryIndex({}), std::vector<std::int32_t>{1});

    auto none = slice(*source, -1, -1, path("none.log"), "a", "b", 0);
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none->getEntryCount(), 0);
    EXPECT_EQ(none->getDataSources().size(), 2u);
}

TEST_F(SliceTest, OutputPaths) {
    auto source = makeSource(2);
    std::filesystem::create_directory(path("taken"));
    EXPECT_EQ(slice(*source, 1, 2, path("taken"), "a", "b", 0), nullptr);
    EXPECT_EQ(clone(*source, path("source.log"), "a", "b", 0), nullptr);
    EXPECT_EQ(source->getEntryCount(), 2) << "an existing file is never touched";

    auto first = clone(*source, "", "a", "b", 0);
    auto second = clone(*source, "", "a", "b", 0);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(first->getFilePath(), dir / "source_exported.log");
    EXPECT_EQ(second->getFilePath(), dir / "source_exported_1.log");
    EXPECT_EQ(second->getEntryCount(), 2);

    // A file the constructor cannot make gives nothing, and nothing escapes.
    EXPECT_EQ(clone(*source, path("missing/dir/x.log"), "a", "b", 0), nullptr);
}

TEST_F(SliceTest, CloneCopiesAllEntriesOrNone) {
    auto source = makeSource(7);
    {
        RawDatabase raw(path("source.log"));
        raw.exec("DELETE FROM data WHERE entryId < 3;");
    }
    ASSERT_TRUE(source->addBookmark({7, "last", "", {}}));
    auto cloned = clone(*source, path("clone.log"), "a", "b", -1);
    ASSERT_NE(cloned, nullptr);
    EXPECT_EQ(cloned->getEntryIndex({}), (std::vector<std::int32_t>{1, 2, 3, 4, 5}));
    EXPECT_EQ(cloned->getBookmarks().at(0).entryId, 5);
    EXPECT_EQ(timestampsOf(*cloned), timestampsOf(*source));

    SqliteLogFile empty(path("empty.log"), "", "x", "y", 0, 0);
    auto emptyClone = clone(empty, path("empty-clone.log"), "x", "y", 0);
    ASSERT_NE(emptyClone, nullptr);
    EXPECT_EQ(emptyClone->getEntryCount(), 0);
}

}  // namespace
}  // namespace Korvane::Logging::Algorithms
