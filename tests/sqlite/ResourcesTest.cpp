#include <gtest/gtest.h>

#include "LogFiles.h"
#include "RawDatabase.h"
#include "TempDir.h"
#include "components/core/Compression.h"
#include "sqlite/SqliteLogFile.h"

namespace Korvane::Logging {
namespace {

using Testing::RawDatabase;

class ResourcesTest : public Testing::TempDirTest {};

TEST_F(ResourcesTest, NamesAreAddedOnceAndOnlyTheThumbnailIsReplaced) {
    SqliteLogFile log(path("resources.log"), "", "app", "1", 0, 0);
    const ByteArray calibration = {1, 2, 3};
    EXPECT_TRUE(log.addResource("calibration", calibration));
    EXPECT_FALSE(log.addResource("calibration", ByteArray{9}));
    EXPECT_EQ(log.getLastError(), "No error");
    EXPECT_EQ(log.getResource("calibration"), calibration);
    EXPECT_TRUE(log.addResource(LogResourceEntry{"Calibration", {}})) << "names are exact";
    EXPECT_EQ(log.getResource("Calibration"), ByteArray{});
    EXPECT_EQ(log.getResource("missing"), std::nullopt);

    EXPECT_EQ(log.getThumbnail(), std::nullopt);
    EXPECT_TRUE(log.setThumbnail(ByteArray{4, 4}));
    EXPECT_TRUE(log.setThumbnail(ByteArray{5, 5, 5}));
    EXPECT_FALSE(log.addResource("thumbnail", ByteArray{6}));
    EXPECT_EQ(log.getThumbnail(), (ByteArray{5, 5, 5}));

    const auto all = log.getAllResources();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[2].name, "thumbnail");
    EXPECT_EQ(all[2].data, (ByteArray{5, 5, 5}));
    RawDatabase raw(path("resources.log"));
    EXPECT_EQ(raw.value("SELECT COUNT(*) FROM resources WHERE name = 'thumbnail';"), "1");
}

TEST_F(ResourcesTest, TheLogVersionDecidesWhetherResourcesAreCompressed) {
    const ByteArray image = Testing::sensorBytes(50000);
    struct Case {
        int logVersion;
        int level;
        bool stored_compressed;
    };
    for (const Case& c :
         {Case{4, 9, true}, Case{3, -1, true}, Case{2, 5, false}, Case{4, 0, false}}) {
        SCOPED_TRACE("version " + std::to_string(c.logVersion) + " level " +
                     std::to_string(c.level));
        const std::string file =
            path("v" + std::to_string(c.logVersion) + "_" + std::to_string(c.level) + ".log");
        Testing::writeLogFileOfVersion(file, c.logVersion, c.level);
        {
            SqliteLogFile log(std::filesystem::path{file});
            ASSERT_TRUE(log.addResource("image", image));
            ASSERT_TRUE(log.setThumbnail(image));
            ASSERT_TRUE(log.setThumbnail(ByteArray(image.begin(), image.begin() + 100)));
        }
        SqliteLogFile log(std::filesystem::path{file});
        EXPECT_EQ(log.getResource("image"), image);
        EXPECT_EQ(log.getThumbnail(), ByteArray(image.begin(), image.begin() + 100));
        EXPECT_EQ(log.getAllResources()[0].data, image);

        RawDatabase raw(file);
        const ByteArray stored = raw.blob("SELECT payload FROM resources WHERE name = 'image';");
        if (c.stored_compressed) {
            EXPECT_EQ(Compression::uncompress(stored), image);
        } else {
            EXPECT_EQ(stored, image);
        }
    }
}

TEST_F(ResourcesTest, ForeignPayloadsReadAsNothing) {
    Testing::writeLogFileOfVersion(path("foreign.log"), 4, 3);
    {
        RawDatabase raw(path("foreign.log"));
        raw.exec(
            "INSERT INTO resources VALUES ('text', 'not a blob');"
            "INSERT INTO resources VALUES ('number', 42);");
    }
    SqliteLogFile log(std::filesystem::path{path("foreign.log")});
    EXPECT_EQ(log.getResource("text"), std::nullopt);
    EXPECT_EQ(log.getResource("number"), std::nullopt);
    const auto all = log.getAllResources();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_TRUE(all[0].data.empty());
}

}  // namespace
}  // namespace Korvane::Logging
