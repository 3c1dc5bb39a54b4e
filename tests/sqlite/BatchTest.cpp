#include <gtest/gtest.h>

#include "RawDatabase.h"
#include "TempDir.h"
#include "sqlite/SqliteLogFile.h"

namespace Korvane::Logging {
namespace {

using Testing::RawDatabase;

constexpr const char* missingSourceText =
    "Attempted to log data against a data source that did not exist in the file.";

class BatchTest : public Testing::TempDirTest {
protected:
    // A new file at `level` with two sources, ids 1 and 2.
    std::unique_ptr<SqliteLogFile> create(const std::string& name, std::int8_t level) {
        auto log = std::make_unique<SqliteLogFile>(path(name), "", "app", "1", level, 0);
        for (const char* source : {"imu", "camera"}) {
            DataSource added{-1, KV_LogDataSourceType{7}, source};
            EXPECT_TRUE(log->addDataSource(added));
        }
        return log;
    }

    static DataEntry entry(std::int8_t source, std::size_t size, std::uint32_t seed) {
        return DataEntry{0, source, static_cast<std::int32_t>(seed % 5),
                         Testing::sensorBytes(size, seed), 1000 - static_cast<std::int64_t>(seed)};
    }
};

// Two batches: small entries, then entries large enough to be compressed on two threads and
// more than one window of them.
TEST_F(BatchTest, ABatchIsStoredAsTheSameEntriesLoggedOneByOne) {
    std::vector<DataEntry> small;
    for (std::uint32_t i = 0; i < 40; ++i) {
        small.push_back(entry(static_cast<std::int8_t>(1 + i % 2), i == 3 ? 0 : 64 + i, i));
    }
    std::vector<DataEntry> large;
    for (std::uint32_t i = 0; i < 17; ++i) {
        large.push_back(entry(static_cast<std::int8_t>(2 - i % 2), (1 << 20) + i, 100 + i));
    }
    for (std::int8_t level : {std::int8_t{0}, std::int8_t{-1}}) {
        SCOPED_TRACE("level " + std::to_string(level));
        const std::string tag = std::to_string(level);
        auto single = create("single" + tag + ".log", level);
        auto batched = create("batched" + tag + ".log", level);
        for (const auto* batch : {&small, &large}) {
            for (const DataEntry& each : *batch) {
                ASSERT_TRUE(single->logData(each)) << single->getLastError();
            }
            ASSERT_TRUE(batched->logEntries(*batch)) << batched->getLastError();
        }

        RawDatabase one(path("single" + tag + ".log"));
        RawDatabase other(path("batched" + tag + ".log"));
        const std::string columns =
            "SELECT entryId, timestamp, type, dataSourceId, length FROM data";
        const auto rows = other.rows(columns);
        ASSERT_EQ(rows.size(), small.size() + large.size());
        EXPECT_EQ(rows, one.rows(columns));
        for (const auto& row : rows) {
            const std::string payload = "SELECT payload FROM data WHERE entryId = " + row[0];
            ASSERT_EQ(other.blob(payload), one.blob(payload)) << "entry " << row[0];
        }
        EXPECT_EQ(batched->readEntry(45)->data, large[4].data);
    }
}

TEST_F(BatchTest, AFailedBatchWritesNothingAndTheIdsRunOnWithoutAGap) {
    for (std::int8_t level : {std::int8_t{0}, std::int8_t{-1}}) {
        SCOPED_TRACE("level " + std::to_string(level));
        const std::string name = "failed" + std::to_string(level) + ".log";
        auto log = create(name, level);
        ASSERT_TRUE(log->logData(entry(1, 10, 1)));
        // Large enough that the payloads are compressed ahead of the inserts on two threads.
        std::vector<DataEntry> batch;
        for (std::int8_t source : {1, 2, -7, 1}) {
            batch.push_back(entry(source, 512 << 10, 2));
        }
        EXPECT_FALSE(log->logEntries(batch));
        EXPECT_EQ(log->getLastError(), missingSourceText);
        RawDatabase raw(path(name));
        EXPECT_EQ(raw.value("SELECT COUNT(*) FROM data;"), "1");

        ASSERT_TRUE(log->logEntries({entry(2, 5, 3), entry(1, 6, 4)}));
        ASSERT_TRUE(log->logData(entry(2, 7, 5)));
        EXPECT_EQ(log->getEntryIndex({}), (std::vector<std::int32_t>{1, 2, 3, 4}));
        EXPECT_EQ(log->readEntry(3)->data, entry(1, 6, 4).data);
        EXPECT_EQ(log->getLastError(), missingSourceText) << "success keeps the last failure";
    }
}

// An empty batch does not even ask for the write lock: it succeeds while another connection
// holds it.
TEST_F(BatchTest, AnEmptyBatchWritesNothing) {
    auto log = create("empty.log", -1);
    RawDatabase other(path("empty.log"));
    other.exec("BEGIN IMMEDIATE;");
    EXPECT_TRUE(log->logEntries({}));
    other.exec("COMMIT;");
    EXPECT_EQ(log->getEntryCount(), 0);
    EXPECT_EQ(log->getLastError(), "No error");
}

}  // namespace
}  // namespace Korvane::Logging
