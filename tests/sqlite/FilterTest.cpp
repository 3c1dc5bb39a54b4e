#include <gtest/gtest.h>

#include <algorithm>

#include "RawDatabase.h"
#include "TempDir.h"
#include "sqlite/EntryFilterSql.h"
#include "sqlite/SqliteLogFile.h"

namespace Korvane::Logging {
namespace {

using Testing::RawDatabase;

TEST(FilterClauseTest, CompilesEveryCombinationOfLists) {
    const KV_LogDataSourceType camera{3};
    const std::vector<std::pair<EntryIndexFilter, std::string>> cases = {
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
        {{{1}, {2}, {camera}},
         "WHERE data.type IN (:type0) AND data.dataSourceId IN (:source0) AND "
         "dataSources.dataSourceType IN (:sourceType0)"},
        {{{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, {}, {}},
         "WHERE data.type IN (:type0, :type1, :type2, :type3, :type4, :type5, :type6, :type7, "
         ":type8, :type9, :type10)"},
    };
    for (const auto& [filter, expected] : cases) {
        EXPECT_EQ(buildFilterClause(filter), expected);
    }
    std::string text = "x";
    EXPECT_FALSE(appendInClause(text, "column", 0, ":p"));
    EXPECT_EQ(text, "x");
}

// A file of 40 entries: types 0..4 in turn, from four sources of two types, some sources with
// ids the file assigned and one with a negative id of its own.
class FilterTest : public Testing::TempDirTest {
protected:
    void SetUp() override {
        TempDirTest::SetUp();
        log = std::make_unique<SqliteLogFile>(path("filter.log"), "", "app", "1", 0, 0);
        sources = {{-1, KV_LogDataSourceType{100}, "a"},
                   {-1, KV_LogDataSourceType{200}, "b"},
                   {-1, KV_LogDataSourceType{100}, "c"}};
        for (DataSource& source : sources) {
            ASSERT_TRUE(log->addDataSource(source));
        }
        sources.push_back({-56, KV_LogDataSourceType{200}, "negative"});
        ASSERT_TRUE(log->addDataSource(static_cast<const DataSource&>(sources.back())));
        for (int i = 0; i < 40; ++i) {
            const DataSource& source = sources[static_cast<std::size_t>(i) % sources.size()];
            // Timestamps run backwards: reads order by id, never by time.
            ASSERT_TRUE(log->logData(
                DataEntry{0, source.id, i % 5, {static_cast<std::uint8_t>(i)}, 1000 - i}));
            all.push_back(Row{i + 1, i % 5, source.id, source.type});
        }
    }

    struct Row {
        std::int32_t id;
        std::int32_t type;
        std::int8_t source;
        KV_LogDataSourceType sourceType;
    };

    // What a filter must select, worked out without SQL.
    std::vector<std::int32_t> expected(const EntryIndexFilter& filter, std::int32_t min = 1,
                                       std::int32_t max = 40) const {
        auto has = [](const auto& list, auto value) {
            return list.empty() || std::find(list.begin(), list.end(), value) != list.end();
        };
        std::vector<std::int32_t> ids;
        for (const Row& row : all) {
            if (row.id >= min && row.id <= max && has(filter.dataTypes, row.type) &&
                has(filter.dataSources, row.source) &&
                has(filter.dataSourceTypes, row.sourceType)) {
                ids.push_back(row.id);
            }
        }
        return ids;
    }

    static std::vector<std::int32_t> idsOf(const std::vector<DataEntry>& entries) {
        std::vector<std::int32_t> ids;
        for (const DataEntry& entry : entries) {
            ids.push_back(entry.entryId);
        }
        return ids;
    }

    std::unique_ptr<SqliteLogFile> log;
    std::vector<DataSource> sources;
    std::vector<Row> all;
};

TEST_F(FilterTest, EveryCombinationSelectsWhatItShould) {
    const std::vector<std::int32_t> types = {1, 3};
    const std::vector<std::int8_t> ids = {sources[1].id, -56};
    const std::vector<KV_LogDataSourceType> kinds = {KV_LogDataSourceType{200}};
    for (int mask = 0; mask < 8; ++mask) {
        EntryIndexFilter filter;
        if (mask & 1)
            filter.dataTypes = types;
        if (mask & 2)
            filter.dataSources = ids;
        if (mask & 4)
            filter.dataSourceTypes = kinds;
        SCOPED_TRACE(mask);
        EXPECT_EQ(log->getEntryIndex(filter), expected(filter));
        EXPECT_EQ(idsOf(log->readEntries(-1, -1, filter, -1)), expected(filter));
        EXPECT_EQ(idsOf(log->readEntries(5, 30, filter, -1)), expected(filter, 5, 30));
    }
}

TEST_F(FilterTest, ElevenElementListsBindEveryParameter) {
    EntryIndexFilter filter;
    for (int i = 0; i < 11; ++i) {
        filter.dataTypes.push_back(i < 10 ? 100 + i : 4);  // only the last one matches
        filter.dataSources.push_back(static_cast<std::int8_t>(i < 10 ? 90 + i : sources[0].id));
        filter.dataSourceTypes.push_back(KV_LogDataSourceType{i < 10 ? 900 + i : 100});
    }
    const auto selected = expected(filter);
    ASSERT_FALSE(selected.empty());
    EXPECT_EQ(log->getEntryIndex(filter), selected);
    EXPECT_EQ(idsOf(log->readEntries(-1, -1, filter, -1)), selected);
}

TEST_F(FilterTest, LimitsAndRanges) {
    const EntryIndexFilter evenTypes{{0, 2, 4}, {}, {}};
    const auto matches = expected(evenTypes);
    struct Case {
        std::int32_t min, max, limit;
        std::vector<std::int32_t> ids;
    };
    const std::vector<Case> cases = {
        {-1, -1, 0, {}},
        {-1, -1, 3, {matches.begin(), matches.begin() + 3}},
        {-1, -1, -1, matches},
        {-1, -1, -2, matches},  // any negative limit means none
        {30, 10, -1, {}},       // reversed range
        {10, 10, -1, expected(evenTypes, 10, 10)},
        {-5, 3, -1, expected(evenTypes, 1, 3)},  // only -1 is special
        {38, -1, 5, expected(evenTypes, 38, 40)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.min) + ".." + std::to_string(c.max) + " limit " +
                     std::to_string(c.limit));
        const auto entries = log->readEntries(c.min, c.max, evenTypes, c.limit);
        EXPECT_EQ(idsOf(entries), c.ids);
        for (const DataEntry& entry : entries) {
            EXPECT_EQ(entry.data, ByteArray{static_cast<std::uint8_t>(entry.entryId - 1)});
            EXPECT_EQ(entry.timestamp, 1001 - entry.entryId);
        }
    }
}

TEST_F(FilterTest, AggregatesAndTheEmptyFile) {
    EXPECT_EQ(log->getEntryCount(), 40);
    EXPECT_EQ(log->getFirstEntryId(), 1);
    EXPECT_EQ(log->getLastEntryId(), 40);
    EXPECT_EQ(log->getLastError(), "No error");

    SqliteLogFile empty(path("empty.log"), "", "app", "1", 0, 0);
    EXPECT_EQ(empty.getEntryCount(), 0);
    EXPECT_EQ(empty.getLastError(), "No error");
    EXPECT_EQ(empty.getFirstEntryId(), -1);
    EXPECT_EQ(empty.getLastError(), "Unknown internal error");
    EXPECT_EQ(empty.getLastEntryId(), -1);
    EXPECT_TRUE(empty.readEntries(-1, -1, {}, -1).empty());
    EXPECT_TRUE(empty.getEntryIndex({}).empty());
    EXPECT_FALSE(empty.readEntry(1).has_value());
}

TEST_F(FilterTest, RowsNoWriterProducesReadSafely) {
    {
        RawDatabase raw(path("filter.log"));
        raw.exec(
            "INSERT INTO data VALUES (100, 5, 1, 77, 1, x'aa');"  // source row missing
            "INSERT INTO dataSources VALUES (300, 100, 'wide');"  // id above 8 bits
            "INSERT INTO data VALUES (101, 6, 1, 300, 1, x'bb');"
            "INSERT INTO data VALUES (102, 'late', 1, 1, 4, 'text');"  // text, not blob
            "INSERT INTO data VALUES (103, 8, 1, 1, 0, x'');");        // empty blob
    }
    const auto orphan = log->readEntry(100);
    ASSERT_TRUE(orphan.has_value());
    EXPECT_EQ(orphan->dataSourceId, 77);
    EXPECT_EQ(log->getEntryCount(), 44);
    const auto index = log->getEntryIndex({});
    EXPECT_EQ(std::count(index.begin(), index.end(), 100), 0) << "reads join their source";

    const auto wide = log->readEntry(101);
    ASSERT_TRUE(wide.has_value());
    EXPECT_EQ(wide->dataSourceId, static_cast<std::int8_t>(300 & 0xff));

    const auto text = log->readEntry(102);
    ASSERT_TRUE(text.has_value());
    EXPECT_TRUE(text->data.empty());
    EXPECT_EQ(text->timestamp, 0);
    const auto empty = log->readEntry(103);
    ASSERT_TRUE(empty.has_value());
    EXPECT_TRUE(empty->data.empty());
    EXPECT_EQ(log->readEntries(100, 103, {}, -1).size(), 3u);
}

}  // namespace
}  // namespace Korvane::Logging
