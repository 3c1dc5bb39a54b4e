#include <gtest/gtest.h>

#include "RawDatabase.h"
#include "TempDir.h"
#include "components/core/Compression.h"
#include "sqlite/SqliteLogFile.h"

namespace Korvane::Logging {
namespace {

using Testing::RawDatabase;

class EntriesTest : public Testing::TempDirTest {
protected:
    std::unique_ptr<SqliteLogFile> create(const std::string& name, std::int8_t level = 0) {
        return std::make_unique<SqliteLogFile>(path(name), "", "app", "1", level, 0);
    }
    static DataSource source(int type, const std::string& name) {
        return DataSource{-1, KV_LogDataSourceType{type}, name};
    }
};

TEST_F(EntriesTest, SourcesGetIdsInOrderOrKeepTheirOwn) {
    auto log = create("sources.log");
    DataSource first = source(10, "imu");
    DataSource second = source(20, "gps");
    ASSERT_TRUE(log->addDataSource(first));
    ASSERT_TRUE(log->addDataSource(second));
    EXPECT_EQ(first.id, 1);
    EXPECT_EQ(second.id, 2);

    const DataSource chosen{-56, KV_LogDataSourceType{30}, "camera"};
    ASSERT_TRUE(log->addDataSource(chosen));
    EXPECT_FALSE(log->addDataSource(static_cast<const DataSource&>(first)));
    EXPECT_EQ(log->getLastError(), "Unknown internal error");

    const auto sources = log->getDataSources();
    ASSERT_EQ(sources.size(), 3u);
    EXPECT_EQ(sources[0].id, -56);
    EXPECT_EQ(sources[0].name, "camera");
    EXPECT_EQ(sources[1].id, 1);
    EXPECT_EQ(sources[2].type, KV_LogDataSourceType{20});
}

TEST_F(EntriesTest, WritesToMissingSourcesAreRefusedInTheirOwnWords) {
    auto log = create("missing.log");
    DataEntry entry;
    entry.dataSourceId = -1;
    entry.data = {1, 2, 3};
    EXPECT_FALSE(log->logData(entry));
    EXPECT_EQ(log->getLastError(),
              "Attempted to log data against a data source that did not exist in the file.");
    EXPECT_FALSE(log->addDataSourceProperty(DataSourceProperty{5, "gain", 1.5}));
    EXPECT_EQ(log->getLastError(),
              "Attempted to add a data source property for a data source that did not exist in "
              "the file.");

    DataSource registered = source(1, "s");
    ASSERT_TRUE(log->addDataSource(registered));
    entry.dataSourceId = registered.id;
    EXPECT_TRUE(log->logData(entry));
    EXPECT_EQ(log->getLastError(),
              "Attempted to add a data source property for a data source that did not exist in "
              "the file.")
        << "success does not clear the last failure";
    EXPECT_EQ(log->getEntryCount(), 1);
}

TEST_F(EntriesTest, PayloadsRoundTripByteForByteAtEveryLevel) {
    const std::size_t sizes[] = {0, 1, 64 << 10, 8 << 20};
    for (std::int8_t level : {std::int8_t{0}, std::int8_t{-1}, std::int8_t{9}}) {
        const std::string name = "level" + std::to_string(level) + ".log";
        auto log = create(name, level);
        DataSource imu = source(1, "imu");
        ASSERT_TRUE(log->addDataSource(imu));
        std::vector<ByteArray> payloads;
        for (std::size_t size : sizes) {
            DataEntry entry;
            entry.entryId = 999;  // ignored
            entry.dataSourceId = imu.id;
            entry.type = static_cast<std::int32_t>(size);
            entry.timestamp = -static_cast<std::int64_t>(size);
            entry.data = Testing::sensorBytes(size, static_cast<std::uint32_t>(size) + 1);
            ASSERT_TRUE(log->logData(entry)) << log->getLastError();
            payloads.push_back(entry.data);
        }
        const auto entries = log->readEntries(-1, -1, {}, -1);
        ASSERT_EQ(entries.size(), payloads.size());
        RawDatabase raw(path(name));
        for (std::size_t i = 0; i < payloads.size(); ++i) {
            SCOPED_TRACE("level " + std::to_string(level) + ", size " + std::to_string(sizes[i]));
            const std::int32_t id = static_cast<std::int32_t>(i + 1);
            EXPECT_EQ(entries[i].entryId, id);
            EXPECT_EQ(entries[i].data, payloads[i]);
            EXPECT_EQ(entries[i].timestamp, -static_cast<std::int64_t>(sizes[i]));
            const auto single = log->readEntry(id);
            ASSERT_TRUE(single.has_value());
            EXPECT_EQ(single->data, payloads[i]);
            EXPECT_EQ(single->entryId, id);
            EXPECT_EQ(single->dataSourceId, imu.id);

            const std::string where = " FROM data WHERE entryId = " + std::to_string(id);
            const auto stored = raw.blob("SELECT payload" + where);
            EXPECT_EQ(raw.value("SELECT length" + where), std::to_string(stored.size()));
            if (level == 0) {
                EXPECT_EQ(stored, payloads[i]);
            } else {
                EXPECT_EQ(Compression::uncompress(stored), payloads[i]);
            }
        }
    }
}

TEST_F(EntriesTest, PropertiesKeepTheirKindAndMayRepeat) {
    auto log = create("properties.log");
    DataSource imu = source(1, "imu");
    DataSource gps = source(2, "gps");
    ASSERT_TRUE(log->addDataSource(imu));
    ASSERT_TRUE(log->addDataSource(gps));
    EXPECT_TRUE(log->getAllDataSourceProperties().empty());
    const std::vector<DataSourceProperty> written = {
        {imu.id, "rate", std::int32_t{200}},
        {gps.id, "datum", std::string("WGS84")},
        {imu.id, "gain", 0.5},
        {imu.id, "rate", std::int64_t{400}},
    };
    for (const auto& property : written) {
        ASSERT_TRUE(log->addDataSourceProperty(property));
    }
    EXPECT_EQ(log->getDataSourceProperty(imu.id, "rate"), PropertyValue{std::int64_t{200}})
        << "the first row of the scan decides";
    EXPECT_EQ(log->getDataSourceProperty(gps.id, "datum"), PropertyValue{std::string("WGS84")});
    EXPECT_EQ(log->getDataSourceProperty(imu.id, "datum"), std::nullopt);
    EXPECT_EQ(log->getDataSourceProperty(77, "rate"), std::nullopt);

    const auto all = log->getAllDataSourceProperties();
    ASSERT_EQ(all.size(), written.size());
    EXPECT_EQ(all[0].value, PropertyValue{std::int64_t{200}});
    EXPECT_EQ(all[1].dataSourceId, gps.id);
    EXPECT_EQ(all[2].value, PropertyValue{0.5});
    EXPECT_EQ(all[3].name, "rate");
}

TEST_F(EntriesTest, HostileTextIsStoredVerbatimAndChangesNothingElse) {
    const std::vector<std::string> hostile = {
        "'); DROP TABLE data; --",
        "\"quoted\" ; semi;colons",
        "tab\tnew\nline",
        "",
        std::string("nul\0inside", 10),
        "ünïcödé ✓",
    };
    auto log = create("hostile.log");
    DataSource imu = source(1, "imu");
    ASSERT_TRUE(log->addDataSource(imu));
    ASSERT_TRUE(log->logData(DataEntry{0, imu.id, 1, {1}, 1}));
    for (std::size_t i = 0; i < hostile.size(); ++i) {
        const std::string& text = hostile[i];
        SCOPED_TRACE(i);
        DataSource named{-1, KV_LogDataSourceType{1}, text};
        ASSERT_TRUE(log->addDataSource(named));
        ASSERT_TRUE(log->addDataSourceProperty({named.id, text, text}));
        ASSERT_TRUE(log->addMetadata(text + std::to_string(i), text));
        ASSERT_TRUE(
            log->addResource(text + std::to_string(i), ByteArray(text.begin(), text.end())));
        ASSERT_TRUE(log->addBookmark(Bookmark{1, text, text, {}}));

        EXPECT_EQ(log->getDataSources().back().name, text);
        EXPECT_EQ(log->getDataSourceProperty(named.id, text), PropertyValue{text});
        EXPECT_EQ(log->getMetadataValue(text + std::to_string(i)), PropertyValue{text});
        EXPECT_EQ(log->getResource(text + std::to_string(i)), ByteArray(text.begin(), text.end()));
        EXPECT_EQ(log->getBookmarks().back().comment, text);
    }
    RawDatabase raw(path("hostile.log"));
    EXPECT_EQ(raw.value("SELECT COUNT(*) FROM sqlite_master;"), "9");
    EXPECT_EQ(log->getEntryCount(), 1);
}

}  // namespace
}  // namespace Korvane::Logging
