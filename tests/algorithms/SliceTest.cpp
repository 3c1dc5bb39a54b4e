#include <gtest/gtest.h>

#include "RawDatabase.h"
#include "TempDir.h"
#include "algorithms/Algorithms.h"
#include "sqlite/SqliteLogFile.h"

namespace Korvane::Logging::Algorithms {
namespace {

// Two sources (one without entries), entries 5, 6 and 9 of type 10 * id, and bookmarks on 4 to
// 10 where 4, 7 and 10 have no entry.
class SliceTest : public Testing::TempDirTest {
protected:
    void SetUp() override {
        TempDirTest::SetUp();
        source = std::make_unique<SqliteLogFile>(path("source.log"), "Europe/Oslo", "recorder",
                                                 "1.0", 0, 1000);
        for (std::int8_t i = 1; i <= 2; ++i) {
            ASSERT_TRUE(source->addDataSource(DataSource{i, KV_LogDataSourceType{i}, "s"}));
            ASSERT_TRUE(source->addDataSourceProperty({i, "rate", std::int32_t{100 * i}}));
        }
        ASSERT_TRUE(source->addMetadata("speedLimit", 27.5));
        ASSERT_TRUE(source->addResource("calibration", ByteArray{1, 2, 3}));
        ASSERT_TRUE(source->setThumbnail(ByteArray{9, 9}));
        for (int id = 1; id <= 10; ++id) {
            ASSERT_TRUE(source->logData(DataEntry{0, 1, id * 10, bytesOf(id), 5000 + id}));
        }
        Testing::RawDatabase(path("source.log"))
            .exec(
                "DELETE FROM data WHERE entryId NOT IN (5, 6, 9); INSERT INTO bookmarks VALUES "
                "(5, 'on 5', '', NULL), (6, 'on 6', '', NULL), (9, 'on 9', '', NULL), (4, "
                "'on 4', '', NULL), (7, 'on 7', '', x'07'), (10, 'on 10', '', NULL);");
    }
    static ByteArray bytesOf(int id) { return Testing::sensorBytes(200, unsigned(id)); }
    // The type of each entry, which tells which source entry it was, and the bookmarks.
    static std::string contentsOf(const LogFileInterface& log) {
        std::string contents;
        for (const DataEntry& entry : log.readEntries(-1, -1, {}, -1)) {
            contents += std::to_string(entry.entryId) + ":" + std::to_string(entry.type) + " ";
        }
        for (const Bookmark& bookmark : log.getBookmarks()) {
            contents += std::to_string(bookmark.entryId) + ":" + bookmark.title + " ";
        }
        return contents;
    }

    std::unique_ptr<SqliteLogFile> source;
};

TEST_F(SliceTest, EntriesAreRenumberedAndEverythingAroundThemIsCopied) {
    auto sliced = slice(*source, 5, 9, path("slice.log"), "recorder", "1.0", 9);
    ASSERT_NE(sliced, nullptr);
    EXPECT_EQ(contentsOf(*sliced), "1:50 2:60 3:90 1:on 5 2:on 6 3:on 9 3:on 7 ");
    EXPECT_EQ(sliced->readEntry(3)->data, bytesOf(9)) << "read back through the new level";
    EXPECT_EQ(sliced->readEntry(3)->timestamp, 5009);
    EXPECT_EQ(sliced->getBookmarks()[3].payload, ByteArray{7});
    EXPECT_EQ(sliced->getDataSources().size(), 2u) << "sources without entries stay";
    EXPECT_EQ(sliced->getDataSourceProperty(2, "rate"), PropertyValue{std::int64_t{200}});
    const auto metadata = sliced->getAllMetadata();
    ASSERT_EQ(metadata.size(), 7u) << "an unchanged identity is not archived";
    EXPECT_EQ(metadata[3].value, PropertyValue{std::string("Europe/Oslo")});
    EXPECT_EQ(metadata[5].value, PropertyValue{std::int64_t{9}});
    EXPECT_EQ(metadata[6].value, PropertyValue{27.5});
    EXPECT_GT(std::get<std::int64_t>(metadata[0].value), 1000);
    EXPECT_EQ(sliced->getResource("calibration"), (ByteArray{1, 2, 3}));
    EXPECT_EQ(sliced->getThumbnail(), (ByteArray{9, 9}));

    auto cloned = clone(*source, path("clone.log"), "a", "b", -1);
    EXPECT_EQ(contentsOf(*cloned), contentsOf(*sliced));
    auto one = slice(*source, 6, 6, path("one.log"), "a", "b", 0);
    EXPECT_EQ(contentsOf(*one), "1:60 1:on 6 ");
}

TEST_F(SliceTest, AReplacedIdentityIsArchivedOnce) {
    auto first = slice(*source, 5, 9, path("first.log"), "editor", "2.0", 0);
    auto second = clone(*first, path("second.log"), "viewer", "3.0", 0);
    ASSERT_NE(second, nullptr);
    for (const auto* log : {first.get(), second.get()}) {
        EXPECT_EQ(log->getMetadataValue("oldApplicationName"),
                  PropertyValue{std::string("recorder")});
        EXPECT_EQ(log->getMetadataValue("oldApplicationVersion"),
                  PropertyValue{std::string("1.0")});
    }
    EXPECT_EQ(second->getMetadataValue("applicationName"), PropertyValue{std::string("viewer")});
    EXPECT_EQ(second->getAllMetadata().size(), 9u);
    // A source without a name gets an empty archived name.
    auto named = clone(SqliteLogFile(std::filesystem::path{path("bare.log")}), path("named.log"),
                       "tool", "", 0);
    EXPECT_EQ(named->getMetadataValue("oldApplicationName"), PropertyValue{std::string()});
    EXPECT_EQ(named->getMetadataValue("oldApplicationVersion"), std::nullopt);
}

TEST_F(SliceTest, RangesAndPathsThatDoNotFitGiveNothing) {
    for (const auto& [first, last] : {std::pair{6, 5}, {-1, 9}, {0, 6}, {4, 6}, {5, 7}, {10, 12}}) {
        EXPECT_EQ(slice(*source, first, last, path("out.log"), "a", "b", 0), nullptr)
            << first << ".." << last;
        EXPECT_FALSE(std::filesystem::exists(path("out.log")));
    }
    auto none = slice(*source, -1, -1, path("none.log"), "a", "b", 0);
    EXPECT_EQ(none->getEntryCount(), 0);
    EXPECT_EQ(none->getDataSources().size(), 2u);
    std::filesystem::create_directory(path("taken"));
    EXPECT_EQ(slice(*source, 5, 6, path("taken"), "a", "b", 0), nullptr);
    EXPECT_EQ(clone(*source, path("source.log"), "a", "b", 0), nullptr);
    EXPECT_EQ(clone(*source, path("missing/dir/x.log"), "a", "b", 0), nullptr);
    EXPECT_EQ(source->getEntryCount(), 3) << "an existing file is never touched";
    // Without a path: next to the source, stepping over anything there, even a dangling link.
    EXPECT_EQ(clone(*source, "", "a", "b", 0)->getFilePath(), dir / "source_exported.log");
    std::filesystem::create_symlink(dir / "nowhere", dir / "source_exported_1.log");
    EXPECT_EQ(clone(*source, "", "a", "b", 0)->getFilePath(), dir / "source_exported_2.log");
}

}  // namespace
}  // namespace Korvane::Logging::Algorithms
