#include <gtest/gtest.h>

#include <algorithm>

#include "RawDatabase.h"
#include "TempDir.h"
#include "components/core/Compression.h"
#include "sqlite/EntryFilterSql.h"
#include "sqlite/SqliteLogFile.h"

namespace Korvane::Logging {
namespace {

using Testing::RawDatabase;

constexpr const char* missingSource =
    "Attempted to log data against a data source that did not exist in the file.";

class EntriesTest : public Testing::TempDirTest {
protected:
    // A new file at `level` with sources 1 and 2, of types 100 and 200.
    std::unique_ptr<SqliteLogFile> create(const std::string& name, std::int8_t level = 0) {
        auto log = std::make_unique<SqliteLogFile>(path(name), "", "app", "1", level, 0);
        for (int type : {100, 200}) {
            DataSource source{-1, KV_LogDataSourceType{type}, "s"};
            EXPECT_TRUE(log->addDataSource(source));
        }
        return log;
    }
    static DataEntry entry(std::int8_t source, std::size_t size, std::uint32_t seed) {
        return DataEntry{0, source, std::int32_t(seed % 5), Testing::sensorBytes(size, seed),
                         1000 - std::int64_t(seed)};
    }
    static std::vector<std::int32_t> idsOf(const std::vector<DataEntry>& entries) {
        std::vector<std::int32_t> ids;
        for (const DataEntry& each : entries) {
            ids.push_back(each.entryId);
        }
        return ids;
    }
};

TEST_F(EntriesTest, SourcesAndPropertiesKeepTheirIdsAndKinds) {
    auto log = create("sources.log");
    ASSERT_TRUE(log->addDataSource(DataSource{-56, KV_LogDataSourceType{30}, "chosen"}));
    DataSource gps{-1, KV_LogDataSourceType{20}, "gps"};
    ASSERT_TRUE(log->addDataSource(gps));
    EXPECT_EQ(gps.id, 3);
    EXPECT_FALSE(log->addDataSource(static_cast<const DataSource&>(gps)));
    EXPECT_EQ(log->getLastError(), "Unknown internal error");
    EXPECT_EQ(log->getDataSources().at(0).name, "chosen");

    EXPECT_FALSE(log->logData(entry(5, 1, 1)));
    EXPECT_EQ(log->getLastError(), missingSource);
    EXPECT_FALSE(log->addDataSourceProperty(DataSourceProperty{5, "gain", 1.5}));
    const std::string propertyText =
        "Attempted to add a data source property for a data source that did not exist in the file.";
    EXPECT_EQ(log->getLastError(), propertyText);
    EXPECT_TRUE(log->logData(entry(1, 1, 1)));
    EXPECT_EQ(log->getLastError(), propertyText) << "success does not clear the last failure";

    // Keys may repeat: the first row decides.
    for (const PropertyValue& value : {PropertyValue{std::int32_t{200}}, PropertyValue{0.5}}) {
        ASSERT_TRUE(log->addDataSourceProperty({1, "rate", value}));
    }
    EXPECT_EQ(log->getDataSourceProperty(1, "rate"), PropertyValue{std::int64_t{200}});
    EXPECT_EQ(log->getDataSourceProperty(2, "rate"), std::nullopt);
    EXPECT_EQ(log->getAllDataSourceProperties().at(1).value, PropertyValue{0.5});
}

TEST_F(EntriesTest, PayloadsRoundTripByteForByteAtEveryLevel) {
    const std::size_t sizes[] = {0, 1, 8 << 20};
    for (const std::int8_t level : {0, -1, 9}) {
        const std::string name = std::to_string(level) + ".log";
        auto log = create(name, level);
        for (const std::size_t size : sizes) {
            DataEntry written = entry(2, size, std::uint32_t(size));
            written.entryId = 999;  // ignored
            ASSERT_TRUE(log->logData(written)) << log->getLastError();
        }
        const auto entries = log->readEntries(-1, -1, {}, -1);
        ASSERT_EQ(entries.size(), std::size(sizes));
        RawDatabase raw(path(name));
        for (std::int32_t id = 1; id <= 3; ++id) {
            const DataEntry expected = entry(2, sizes[id - 1], std::uint32_t(sizes[id - 1]));
            SCOPED_TRACE("level " + std::to_string(level) + ", entry " + std::to_string(id));
            for (const DataEntry& read : {entries[id - 1], *log->readEntry(id)}) {
                EXPECT_EQ(std::tie(read.entryId, read.dataSourceId, read.type, read.timestamp),
                          std::tie(id, expected.dataSourceId, expected.type, expected.timestamp));
                EXPECT_EQ(read.data, expected.data);
            }
            const std::string where = " FROM data WHERE entryId = " + std::to_string(id);
            const auto stored = raw.blob("SELECT payload" + where);
            EXPECT_EQ(raw.value("SELECT length" + where), std::to_string(stored.size()));
            EXPECT_EQ(level == 0 ? stored : Compression::uncompress(stored), expected.data);
        }
    }
}

TEST(FilterClauseTest, CompilesEveryCombinationOfLists) {
    const KV_LogDataSourceType camera{3};
    const std::vector<std::int32_t> eleven = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    const std::pair<EntryIndexFilter, const char*> cases[] = {
        {{}, ""},
        {{{1}, {}, {}}, "WHERE data.type IN (:type0)"},
        {{{}, {2}, {}}, "WHERE  data.dataSourceId IN (:source0)"},
        {{{}, {}, {camera}}, "WHERE  dataSources.dataSourceType IN (:sourceType0)"},
        {{{1}, {2}, {}}, "WHERE data.type IN (:type0) AND data.dataSourceId IN (:source0)"},
        {{{1}, {}, {camera}},
         "WHERE data.type IN (:type0) AND dataSources.dataSourceType IN (:sourceType0)"},
        {{{}, {2}, {camera}},
         "WHERE  data.dataSourceId IN (:source0) AND dataSources.dataSourceType IN "
         "(:sourceType0)"},
        {{{1, 2}, {2, 3}, {camera, camera}},
         "WHERE data.type IN (:type0, :type1) AND data.dataSourceId IN (:source0, :source1) AND "
         "dataSources.dataSourceType IN (:sourceType0, :sourceType1)"},
        {{eleven, {}, {}},
         "WHERE data.type IN (:type0, :type1, :type2, :type3, :type4, :type5, :type6, :type7, "
         ":type8, :type9, :type10)"},
    };
    for (const auto& [filter, expected] : cases) {
        EXPECT_EQ(buildFilterClause(filter), expected);
    }
}

// Reads of a file of 40 entries, of types 0..4 in turn, from sources 1, 2, 3 and -56 in turn
// (types 100, 200, 100, 200), against what a filter must select, worked out without SQL.
TEST_F(EntriesTest, ReadsSelectWhatTheFilterRangeAndLimitSay) {
    auto log = create("filter.log");
    DataSource third{-1, KV_LogDataSourceType{100}, "c"};
    ASSERT_TRUE(log->addDataSource(third));
    ASSERT_TRUE(log->addDataSource(DataSource{-56, KV_LogDataSourceType{200}, "negative"}));
    const std::int8_t sources[] = {1, 2, 3, -56};
    for (int i = 0; i < 40; ++i) {
        ASSERT_TRUE(log->logData(DataEntry{0, sources[i % 4], i % 5, {std::uint8_t(i)}, -i}));
    }
    const auto model = [](const EntryIndexFilter& filter, std::int32_t min, std::int32_t max,
                          std::int32_t limit) {
        const auto has = [](const auto& list, auto value) {
            return list.empty() || std::find(list.begin(), list.end(), value) != list.end();
        };
        std::vector<std::int32_t> ids;
        for (std::int32_t id = std::max(min, 1); id <= (max == -1 ? 40 : max); ++id) {
            if (has(filter.dataTypes, (id - 1) % 5) &&
                has(filter.dataSources, std::int8_t(id % 4 == 0 ? -56 : id % 4)) &&
                has(filter.dataSourceTypes, KV_LogDataSourceType{id % 2 ? 100 : 200}) &&
                (limit == -1 || std::int32_t(ids.size()) < limit)) {
                ids.push_back(id);
            }
        }
        return ids;
    };
    const std::vector<std::vector<std::int32_t>> types = {{}, {1, 3}, {4, 100, 101}};
    const std::vector<std::vector<std::int8_t>> ids = {{}, {2, -56}, {-56, 90, 91}};
    const std::vector<std::vector<KV_LogDataSourceType>> kinds = {
        {}, {KV_LogDataSourceType{200}}, {KV_LogDataSourceType{7}, KV_LogDataSourceType{100}}};
    // -1 stands for no bound; other negative ids are bounds, and any negative limit is none.
    const std::int32_t ranges[][3] = {{-1, -1, -1}, {5, 30, -1}, {-1, -1, 3},  {38, -1, 5},
                                      {10, 10, -1}, {-5, 3, -1}, {30, 10, -1}, {-1, -1, 0},
                                      {-1, -1, -2}, {1, -2, -1}};
    for (int mask = 0; mask < 27; ++mask) {
        const EntryIndexFilter filter{types[mask % 3], ids[mask / 3 % 3], kinds[mask / 9]};
        EXPECT_EQ(log->getEntryIndex(filter), model(filter, -1, -1, -1)) << mask;
        for (const auto& [min, max, limit] : ranges) {
            const auto entries = log->readEntries(min, max, filter, limit);
            EXPECT_EQ(idsOf(entries), model(filter, min, max, limit < 0 ? -1 : limit))
                << mask << ": " << min << ".." << max << " limit " << limit;
            for (const DataEntry& read : entries) {
                EXPECT_EQ(read.data, ByteArray{std::uint8_t(read.entryId - 1)});
                EXPECT_EQ(read.timestamp, 1 - read.entryId);
            }
        }
    }
    EXPECT_EQ(std::make_tuple(log->getEntryCount(), log->getFirstEntryId(), log->getLastEntryId()),
              std::make_tuple(40, 1, 40));
    EXPECT_EQ(log->getLastError(), "No error");

    auto empty = create("empty.log");
    EXPECT_EQ(empty->getEntryCount(), 0);
    EXPECT_EQ(empty->getLastError(), "No error");
    EXPECT_EQ(std::make_pair(empty->getFirstEntryId(), empty->getLastEntryId()),
              std::make_pair(-1, -1));
    EXPECT_EQ(empty->getLastError(), "Unknown internal error");
}

// Two batches: small entries, then entries large enough to be compressed on two threads and
// more than one window of them. Both are stored as the same entries logged one by one.
TEST_F(EntriesTest, ABatchIsAllOrNothingAndStoredAsEntriesLoggedOneByOne) {
    std::vector<DataEntry> small;
    std::vector<DataEntry> large;
    for (std::uint32_t i = 0; i < 40; ++i) {
        small.push_back(entry(std::int8_t(1 + i % 2), i == 3 ? 0 : 64 + i, i));
    }
    for (std::uint32_t i = 0; i < 17; ++i) {
        large.push_back(entry(std::int8_t(2 - i % 2), (1 << 20) + i, 100 + i));
    }
    for (const std::int8_t level : {0, -1}) {
        const std::string tag = std::to_string(level);
        auto single = create("single" + tag, level);
        auto batched = create("batched" + tag, level);
        for (const auto* batch : {&small, &large}) {
            for (const DataEntry& each : *batch) {
                ASSERT_TRUE(single->logData(each));
            }
            ASSERT_TRUE(batched->logEntries(*batch)) << batched->getLastError();
        }
        const std::string rows =
            "SELECT entryId, timestamp, type, dataSourceId, length, hex(payload) FROM data";
        RawDatabase other(path("batched" + tag));
        const auto stored = other.rows(rows);
        ASSERT_EQ(stored.size(), small.size() + large.size());
        ASSERT_TRUE(stored == RawDatabase(path("single" + tag)).rows(rows));
        // A failed batch writes nothing, and the ids run on without a gap.
        std::vector<DataEntry> failing;
        for (const std::int8_t source : {1, 2, -7, 1}) {
            failing.push_back(entry(source, 512 << 10, 2));
        }
        EXPECT_FALSE(batched->logEntries(failing));
        EXPECT_EQ(batched->getLastError(), missingSource);
        EXPECT_EQ(other.value("SELECT COUNT(*) FROM data;"), std::to_string(stored.size()));
        ASSERT_TRUE(batched->logEntries({entry(2, 5, 3), entry(1, 6, 4)}));
        EXPECT_EQ(batched->getLastEntryId(), std::int32_t(stored.size() + 2));
        EXPECT_EQ(batched->readEntry(batched->getLastEntryId())->data, entry(1, 6, 4).data);
        EXPECT_EQ(batched->getLastError(), missingSource) << "success keeps the last failure";
    }
    // An empty batch does not even ask for the write lock: it succeeds while another connection
    // holds it.
    auto log = create("empty.log", -1);
    RawDatabase other(path("empty.log"));
    other.exec("BEGIN IMMEDIATE;");
    EXPECT_TRUE(log->logEntries({}));
    other.exec("COMMIT;");
    EXPECT_EQ(log->getEntryCount(), 0);
}

}  // namespace
}  // namespace Korvane::Logging
