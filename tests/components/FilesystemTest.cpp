#include <gtest/gtest.h>

#include <fstream>

#include "TempDir.h"
#include "components/core/Chrono.h"
#include "components/core/Filesystem.h"

namespace Korvane::Filesystem {
namespace {

class FilesystemTest : public Testing::TempDirTest {};

TEST_F(FilesystemTest, AppendsTextBeforeTheExtension) {
    const std::pair<std::string, std::string> cases[] = {
        {"a/log.db", "a/log_exported.db"},
        {"a/log", "a/log_exported"},
        {"a/log.tar.db", "a/log.tar_exported.db"},
        {"log.db", "log_exported.db"},
    };
    for (const auto& [input, expected] : cases) {
        EXPECT_EQ(appendTextToFilename(input, "_exported"), std::filesystem::path(expected));
    }
}

TEST_F(FilesystemTest, UniquePathsStepOverEverythingThatExists) {
    const auto base = dir / "log.db";
    EXPECT_EQ(makeUniqueFilePath(base), base);
    std::ofstream(base).put('x');
    std::filesystem::create_directory(dir / "log_1.db");
    std::filesystem::create_symlink(dir / "nowhere", dir / "log_2.db");  // dangling
    EXPECT_EQ(makeUniqueFilePath(base), dir / "log_3.db");
}

TEST(ChronoTest, TellsThePresentInMilliseconds) {
    const auto before = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::system_clock::now().time_since_epoch())
                            .count();
    const std::int64_t now = Chrono::msSinceUnixEpoch();
    EXPECT_GE(now, before);
    EXPECT_LT(now - before, 60'000);
}

}  // namespace
}  // namespace Korvane::Filesystem
