// A recorder under a file size limit (RLIMIT_FSIZE) meets a failed write, never SIGXFSZ, and its
// file keeps every entry that it acknowledged.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "TempDir.h"
#include "sqlite/SqliteLogFile.h"

namespace Korvane::Logging {
namespace {

constexpr rlim_t sizeLimit = 512 << 10;

class FileSizeLimitTest : public Testing::TempDirTest {};

TEST_F(FileSizeLimitTest, AWritePastTheLimitFailsAndTheFileKeepsWhatWasAcknowledged) {
    const std::string file = path("limited.kvlog");
    const std::string report = path("report.txt");
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        // Records entries of 16 KiB until a write fails, then reports how many and why.
        const rlimit limit{sizeLimit, sizeLimit};
        setrlimit(RLIMIT_FSIZE, &limit);
        int acknowledged = 0;
        std::string why = "no failure";
        {
            SqliteLogFile log(file, "UTC", "recorder", "1", 0, 0);
            DataSource source{-1, KV_LogDataSourceType{1}, "camera"};
            log.addDataSource(source);
            while (log.logData({0, source.id, 1, Testing::sensorBytes(16 << 10, acknowledged), 0})) {
                ++acknowledged;
            }
            why = log.getLastError();
        }
        if (FILE* out = std::fopen(report.c_str(), "w")) {
            std::fprintf(out, "%d %s", acknowledged, why.c_str());
            std::fclose(out);
        }
        std::_Exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "the recorder was ended by signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);

    const auto bytes = Testing::readFileBytes(report);
    const std::string text(bytes.begin(), bytes.end());
    const int acknowledged = std::stoi(text);
    EXPECT_EQ(text.substr(text.find(' ') + 1), "Filesystem full.");
    EXPECT_GT(acknowledged, 10);
    EXPECT_LE(std::filesystem::file_size(file), sizeLimit);
    SqliteLogFile log{std::filesystem::path(file)};
    ASSERT_EQ(log.getEntryCount(), acknowledged);
    for (int id = 1; id <= acknowledged; ++id) {
        ASSERT_EQ(log.readEntry(id).value_or(DataEntry{}).data,
                  Testing::sensorBytes(16 << 10, id - 1))
            << id;
    }
}

}  // namespace
}  // namespace Korvane::Logging
