// A recorder and readers in processes of their own, on one file: the recorder loses nothing to
// the readers, and no reader fails or sees anything but whole entries.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <thread>

#include "TempDir.h"
#include "sqlite/SqliteLogFile.h"

namespace Korvane::Logging {
namespace {

constexpr std::int32_t entryCount = 3000;
constexpr std::size_t entrySize = 256;

ByteArray payloadOf(std::int32_t id) {
    ByteArray bytes(entrySize);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::uint8_t>(id * 31 + static_cast<std::int32_t>(i));
    }
    return bytes;
}

// Ends a child process: 0 when `ok`, else 1 after saying why on stderr.
[[noreturn]] void finish(bool ok, const std::string& why = "") {
    if (!ok) {
        std::fprintf(stderr, "%s\n", why.c_str());
    }
    std::fflush(stderr);
    std::_Exit(ok ? 0 : 1);
}

// Records every entry, with a bookmark on the first, at the default compression level.
[[noreturn]] void record(const std::string& file) {
    try {
        SqliteLogFile log(file, "UTC", "recorder", "1", -1, 0);
        DataSource source{-1, KV_LogDataSourceType{1}, "imu"};
        if (!log.addDataSource(source)) {
            finish(false, "addDataSource: " + log.getLastError());
        }
        for (std::int32_t id = 1; id <= entryCount; ++id) {
            if (!log.logData(DataEntry{0, source.id, 1, payloadOf(id), id})) {
                finish(false, "logData " + std::to_string(id) + ": " + log.getLastError());
            }
            if (id == 1 && !log.addBookmark(Bookmark{1, "start", "", {}})) {
                finish(false, "addBookmark: " + log.getLastError());
            }
        }
    } catch (const std::exception& failure) {
        finish(false, std::string("recorder: ") + failure.what());
    }
    finish(true);
}

// Opens the file again and again until it holds every entry, and checks each time what it
// reads: the count, the entries (all of them, or the last few) and the bookmark.
[[noreturn]] void read(const std::string& file, bool everything) {
    while (!std::filesystem::exists(file) || std::filesystem::file_size(file) == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    for (int round = 1;; ++round) {
        const std::string where = "round " + std::to_string(round) + ": ";
        try {
            const SqliteLogFile log{std::filesystem::path(file)};
            const std::int32_t count = log.getEntryCount();
            if (count < 0) {
                finish(false, where + "getEntryCount: " + log.getLastError());
            }
            const std::size_t bookmarks = log.getBookmarks().size();
            const std::int32_t first = everything ? 1 : std::max(1, count - 20);
            const std::vector<DataEntry> entries = log.readEntries(first, -1, {}, -1);
            if (static_cast<std::int32_t>(entries.size()) < count - first + 1) {
                finish(false, where + std::to_string(entries.size()) + " entries read of " +
                                  std::to_string(count));
            }
            for (std::size_t i = 0; i < entries.size(); ++i) {
                const DataEntry& entry = entries[i];
                if (entry.entryId != first + static_cast<std::int32_t>(i) ||
                    entry.data != payloadOf(entry.entryId)) {
                    finish(false, where + "entry " + std::to_string(entry.entryId) + " differs");
                }
            }
            // The recorder adds the bookmark before its second entry.
            if (count >= 2 && bookmarks != 1) {
                finish(false, where + std::to_string(bookmarks) + " bookmarks");
            }
            if (count == entryCount) {
                finish(true);
            }
        } catch (const std::exception& failure) {
            finish(false, where + failure.what());
        }
    }
}

pid_t spawn(const std::function<void()>& child) {
    const pid_t pid = fork();
    if (pid == 0) {
        child();
        std::_Exit(2);
    }
    return pid;
}

class LiveReadersTest : public Testing::TempDirTest {};

TEST_F(LiveReadersTest, ARecordingLosesNothingToReadersInOtherProcesses) {
    const std::string file = path("live.log");
    std::vector<pid_t> children = {
        spawn([&] { read(file, true); }),
        spawn([&] { read(file, false); }),
        spawn([&] { record(file); }),
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(3);
    for (const pid_t child : children) {
        int status = 0;
        while (waitpid(child, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                kill(child, SIGKILL);
                waitpid(child, &status, 0);
                ADD_FAILURE() << "a child did not finish in time";
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "child " << child << " failed (see its stderr)";
    }

    const SqliteLogFile log{std::filesystem::path(file)};
    EXPECT_EQ(log.getEntryCount(), entryCount);
    ASSERT_EQ(log.getBookmarks().size(), 1u);
    EXPECT_EQ(log.getBookmarks()[0].title, "start");
    std::int32_t id = 0;
    for (const DataEntry& entry : log.readEntries(-1, -1, {}, -1)) {
        ASSERT_EQ(entry.entryId, ++id);
        ASSERT_EQ(entry.data, payloadOf(id));
    }
}

}  // namespace
}  // namespace Korvane::Logging
