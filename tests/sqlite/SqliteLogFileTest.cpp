#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "LogFiles.h"
#include "TempDir.h"
#include "components/core/Compression.h"
#include "sqlite/EntryFilterSql.h"
#include "sqlite/SqliteLogFile.h"

namespace Korvane::Logging {
namespace {

using Testing::RawDatabase;

constexpr const char* missingSource =
    "Attempted to log data against a data source that did not exist in the file.";

class LogFileTest : public Testing::TempDirTest {
protected:
    // A new file at `level` with sources 1 and 2, of types 100 and 200.
    std::unique_ptr<SqliteLogFile> create(const std::string& name, std::int8_t level = 0) {
        auto log = std::make_unique<SqliteLogFile>(path(name), "UTC+1", "recorder", "2.1", level,
                                                   1700000000123);
        for (int type : {100, 200}) {
            DataSource source{-1, KV_LogDataSourceType{type}, "s"};
            EXPECT_TRUE(log->addDataSource(source));
        }
        return log;
    }
    SqliteLogFile open(const std::string& name) const {
        return SqliteLogFile(std::filesystem::path{path(name)});
    }
    // A file that an older writer made, of the given version and level, with entries 1 to 5.
    std::unique_ptr<SqliteLogFile> fileOfVersion(int logVersion, int level) {
        const std::string file = path(std::to_string(logVersion) + "_" + std::to_string(level));
        Testing::writeLogFileOfVersion(file, logVersion, level);
        auto log = std::make_unique<SqliteLogFile>(std::filesystem::path{file});
        EXPECT_TRUE(log->addDataSource(DataSource{1, KV_LogDataSourceType{1}, "s"}));
        for (int i = 0; i < 5; ++i) {
            EXPECT_TRUE(log->logData(DataEntry{0, 1, 0, {1}, i}));
        }
        return log;
    }
    static DataEntry entry(std::int8_t source, std::size_t size, std::uint32_t seed) {
        return DataEntry{0, source, std::int32_t(seed % 5), Testing::sensorBytes(size, seed),
                         1000 - std::int64_t(seed)};
    }
};

TEST_F(LogFileTest, ANewFileHoldsTheSchemaAndSixMetadataRowsAndOpensWithMore) {
    auto log = create("new.log", -1);
    RawDatabase raw(path("new.log"));
    std::string schema;
    for (const char* statement : Statements::schema) {
        schema += statement;
    }
    EXPECT_EQ(raw.value("SELECT group_concat(sql || ';', '') FROM (SELECT sql FROM sqlite_master "
                        "ORDER BY rowid);"),
              schema);
    EXPECT_EQ(raw.value("SELECT group_concat(key || '=' || value || ':' || typeof(value), ' ') "
                        "FROM (SELECT * FROM metadata ORDER BY rowid);"),
              "createdDateTime=1700000000123:integer applicationName=recorder:text "
              "applicationVersion=2.1:text currentTimeZone=UTC+1:text logVersion=4:integer "
              "compressionLevel=-1:integer");
    raw.exec("CREATE TABLE other(x); CREATE TABLE another(y);");
    EXPECT_NO_THROW(open("new.log")) << "tables beside the six are no hindrance";

    ASSERT_TRUE(log->addMetadata("int", std::int32_t{-5}));
    ASSERT_TRUE(log->addMetadata(LogMetadataEntry{"Int", 3.0})) << "keys are exact";
    EXPECT_EQ(log->getMetadataValue("int"), PropertyValue{std::int64_t{-5}});
    EXPECT_EQ(log->getAllMetadata().at(7).value, PropertyValue{3.0});
    EXPECT_EQ(log->getMetadataValue("missing"), std::nullopt);
    ASSERT_FALSE(log->logData(DataEntry{}));
    const std::string earlier = log->getLastError();
    EXPECT_FALSE(log->addMetadata("applicationName", std::string("other")));
    EXPECT_EQ(log->getMetadataValue("applicationName"), PropertyValue{std::string("recorder")});
    EXPECT_EQ(log->getLastError(), earlier);
}

TEST_F(LogFileTest, BookmarksWhoseReferencesCannotBeCheckedAreReplaced) {
    // A reference to a column that is no key makes the check itself fail.
    Testing::writeLogFileOfVersion(path("odd.log"), 4, 0);
    RawDatabase(path("odd.log"))
        .exec(
            "DROP TABLE bookmarks; CREATE TABLE bookmarks(entryId INT NOT NULL REFERENCES "
            "data(timestamp), title TEXT NOT NULL, comments TEXT, payload BLOB);"
            "INSERT INTO bookmarks VALUES (1, 'old', NULL, NULL);");
    EXPECT_TRUE(open("odd.log").getBookmarks().empty());
    const std::string table = "SELECT sql || ';' FROM sqlite_master WHERE name = 'bookmarks';";
    EXPECT_EQ(RawDatabase(path("odd.log")).value(table), Statements::createBookmarksTable);
    // A bookmark on an entry that is gone is a violation, not a failed check: it stays.
    Testing::writeLogFileOfVersion(path("dangling.log"), 4, 0);
    RawDatabase(path("dangling.log")).exec("INSERT INTO bookmarks VALUES (7, 'kept', 'c', NULL);");
    ASSERT_EQ(open("dangling.log").getBookmarks().size(), 1u);
}

// Runs `hold` on another connection to `file` and commits it after a moment.
class OtherConnection {
public:
    OtherConnection(const std::string& file, const std::string& hold) : raw(file) {
        raw.exec(hold);
        release = std::thread([this] {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            raw.exec("COMMIT;");
        });
    }
    ~OtherConnection() { release.join(); }

private:
    RawDatabase raw;
    std::thread release;
};

TEST_F(LogFileTest, AFileThatIsBusyOrDamagedElsewhereKeepsItsBookmarks) {
    {
        auto log = create("busy.log");
        ASSERT_TRUE(log->logEntries(std::vector<DataEntry>(200, {0, 1, 1, ByteArray(500, 1), 0})));
        ASSERT_TRUE(log->addBookmark(Bookmark{150, "brake", "", {}}));
    }
    {
        // A writer holds the file while it is opened: the open waits, and is no refusal.
        OtherConnection writer(path("busy.log"), "BEGIN EXCLUSIVE;");
        EXPECT_EQ(open("busy.log").getBookmarks().size(), 1u);
    }
    // Unreadable pages of entries fail the check of the references: no fault of the bookmarks.
    RawDatabase raw(path("busy.log"));
    const auto pageSize = std::stoll(raw.value("PRAGMA page_size;"));
    auto bytes = Testing::readFileBytes(path("busy.log"));
    for (const auto& leaf :
         raw.rows("SELECT pageno FROM dbstat WHERE name = 'data' AND pagetype = 'leaf';")) {
        std::fill_n(bytes.begin() + (std::stoll(leaf[0]) - 1) * pageSize, pageSize, 0);
    }
    Testing::writeFileBytes(path("busy.log"), bytes);
    ASSERT_EQ(open("busy.log").getBookmarks().size(), 1u);
}

TEST_F(LogFileTest, AFileBeingMadeIsOpenedWhenItIsWhole) {
    const ByteArray bytes = Testing::sensorBytes(3000);
    std::string make = "BEGIN IMMEDIATE;";
    for (const char* statement : Statements::schema) {
        make += statement;
    }
    make +=
        "INSERT INTO metadata VALUES ('logVersion', 4), ('compressionLevel', 3);"
        "INSERT INTO dataSources VALUES (1, 1, 'imu'); INSERT INTO data VALUES (1, 5, 2, 1, "
        "0, x'";
    for (const std::uint8_t byte : Compression::compress(bytes, Compression::CompressionLevel{3})) {
        make += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
    }
    OtherConnection maker(path("made.log"), make + "');");
    EXPECT_EQ(open("made.log").readEntry(1).value_or(DataEntry{}).data, bytes);
}

// A reader that spins on the path while a file is made finds nothing or the whole file, never an
// empty database that it would make a log file of level 0 and then misread the entries of.
TEST_F(LogFileTest, ANewFileAppearsAtItsPathWhole) {
    const DataEntry written = entry(1, 3000, 1);
    for (int run = 0; run < 40; ++run) {
        const std::filesystem::path file = path("race" + std::to_string(run));
        std::atomic<bool> logged{false};
        std::string seen = "nothing";
        std::thread reader([&] {
            while (!std::filesystem::exists(file) && !logged) {
            }
            try {
                SqliteLogFile log{file};
                while (!logged) {
                }
                seen = log.readEntry(1).value_or(DataEntry{}).data == written.data ? "whole"
                                                                                   : "misread";
            } catch (const std::exception& refusal) {
                seen = refusal.what();
            }
        });
        auto log = create(file.filename().string(), 3);
        logged = log->logData(written);
        reader.join();
        ASSERT_TRUE(seen == "whole" || seen == "nothing") << "run " << run << ": " << seen;
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 40)
        << "a temporary file stayed behind";
    // A file that cannot be made is reported under its own name, and leaves nothing.
    const std::string missing = path("missing/new.log");
    try {
        SqliteLogFile(missing, "", "", "", 0, 0);
        ADD_FAILURE() << "made in a missing folder";
    } catch (const std::runtime_error& refusal) {
        EXPECT_EQ(std::string(refusal.what()),
                  "Cannot open database '" + missing + "': unable to open database file");
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 40);
}

TEST_F(LogFileTest, SourcesAndPropertiesKeepTheirIdsAndKinds) {
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

    for (const PropertyValue& value : {PropertyValue{std::int32_t{200}}, PropertyValue{0.5}}) {
        ASSERT_TRUE(log->addDataSourceProperty({1, "rate", value}));
    }
    EXPECT_EQ(log->getDataSourceProperty(1, "rate"), PropertyValue{std::int64_t{200}});
    EXPECT_EQ(log->getDataSourceProperty(2, "rate"), std::nullopt);
    EXPECT_EQ(log->getAllDataSourceProperties().at(1).value, PropertyValue{0.5});
}

TEST_F(LogFileTest, PayloadsRoundTripByteForByteAtEveryLevel) {
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

// 40 entries of types 0..4 from sources 1, 2, 3, -56 in turn, against a model without SQL.
TEST_F(LogFileTest, ReadsSelectWhatTheFilterRangeAndLimitSay) {
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
            std::vector<std::int32_t> read;
            for (const DataEntry& each : log->readEntries(min, max, filter, limit)) {
                read.push_back(each.entryId);
                EXPECT_EQ(each.data, ByteArray{std::uint8_t(each.entryId - 1)});
                EXPECT_EQ(each.timestamp, 1 - each.entryId);
            }
            EXPECT_EQ(read, model(filter, min, max, limit < 0 ? -1 : limit))
                << mask << ": " << min << ".." << max << " limit " << limit;
        }
    }
    EXPECT_EQ(std::make_tuple(log->getEntryCount(), log->getFirstEntryId(), log->getLastEntryId()),
              std::make_tuple(40, 1, 40));
    EXPECT_EQ(log->getLastError(), "No error");

    auto empty = create("empty.log");
    EXPECT_EQ(std::make_pair(empty->getFirstEntryId(), empty->getLastEntryId()),
              std::make_pair(-1, -1));
    EXPECT_EQ(empty->getLastError(), "Unknown internal error");
}

// Small entries, then enough large ones to be compressed on two threads, in several windows.
TEST_F(LogFileTest, ABatchIsAllOrNothingAndStoredAsEntriesLoggedOneByOne) {
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
    // An empty batch does not even ask for the write lock that another connection holds.
    auto log = create("empty.log", -1);
    RawDatabase other(path("empty.log"));
    other.exec("BEGIN IMMEDIATE;");
    EXPECT_TRUE(log->logEntries({}));
    other.exec("COMMIT;");
    EXPECT_EQ(log->getEntryCount(), 0);
}

TEST_F(LogFileTest, ResourceNamesAreAddedOnceAndOnlyTheThumbnailIsReplaced) {
    auto log = fileOfVersion(4, 0);
    EXPECT_TRUE(log->addResource("calibration", ByteArray{1, 2, 3}));
    EXPECT_FALSE(log->addResource("calibration", ByteArray{9}));
    EXPECT_EQ(log->getLastError(), "No error");
    EXPECT_EQ(log->getResource("calibration"), (ByteArray{1, 2, 3}));
    EXPECT_TRUE(log->addResource(LogResourceEntry{"Calibration", {}})) << "names are exact";
    EXPECT_EQ(log->getResource("Calibration"), ByteArray{});
    EXPECT_EQ(log->getResource("missing"), std::nullopt);
    EXPECT_EQ(log->getThumbnail(), std::nullopt);
    EXPECT_TRUE(log->setThumbnail(ByteArray{4, 4}));
    EXPECT_TRUE(log->setThumbnail(ByteArray{5, 5, 5}));
    EXPECT_FALSE(log->addResource("thumbnail", ByteArray{6}));
    EXPECT_EQ(log->getThumbnail(), (ByteArray{5, 5, 5}));
    const auto all = log->getAllResources();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(std::tie(all[2].name, all[2].data),
              std::make_tuple(std::string("thumbnail"), ByteArray{5, 5, 5}));

    RawDatabase(log->getFilePath()).exec("INSERT INTO resources VALUES ('text', 'not a blob');");
    EXPECT_EQ(log->getResource("text"), std::nullopt) << "foreign payloads read as nothing";
}

TEST_F(LogFileTest, AddUpdateAndRemoveSelectByEntryId) {
    auto log = fileOfVersion(4, 0);
    ASSERT_TRUE(log->addBookmark({2, "first", "a", {7}}));
    ASSERT_TRUE(log->addBookmark({2, "second", "b", {}}));
    ASSERT_TRUE(log->addBookmark({4, "other", "c", {8, 8}}));
    ASSERT_TRUE(log->updateBookmark({2, "both", "changed", {}}));
    ASSERT_TRUE(log->updateBookmark({3, "nobody", "", {}})) << "no row is no failure";
    auto bookmarks = log->getBookmarks();
    ASSERT_EQ(bookmarks.size(), 3u);
    for (int i : {0, 1}) {
        EXPECT_EQ(bookmarks[i].title + bookmarks[i].comment, "bothchanged");
        EXPECT_TRUE(bookmarks[i].payload.empty()) << "an update replaces the payload";
    }
    EXPECT_EQ(bookmarks[2].payload, (ByteArray{8, 8}));
    ASSERT_TRUE(log->removeBookmark({2, "any title", "", {}}));
    ASSERT_TRUE(log->removeBookmark({5, "", "", {}}));
    EXPECT_FALSE(log->addBookmark({42, "nowhere", "", {}}));
    EXPECT_EQ(log->getLastError(), "Unknown internal error");
    bookmarks = log->getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    EXPECT_EQ(bookmarks[0].entryId, 4);

    RawDatabase(log->getFilePath()).exec("INSERT INTO bookmarks VALUES (2, 'plain', NULL, NULL);");
    EXPECT_EQ(log->getBookmarks().at(1).comment, "") << "NULL columns read as empty";
}

// Resources are compressed from version 3, bookmark payloads kept from 4; no version row is 0.
TEST_F(LogFileTest, PayloadsFollowTheLogVersionAndLevel) {
    const ByteArray payload = Testing::sensorBytes(30000);
    for (const auto& [logVersion, level] : {std::pair{4, 9}, {4, 0}, {3, -1}, {2, 5}, {-1, 5}}) {
        SCOPED_TRACE(std::to_string(logVersion) + " " + std::to_string(level));
        auto log = fileOfVersion(logVersion, level);
        ASSERT_TRUE(log->addResource("image", payload));
        ASSERT_TRUE(log->setThumbnail(payload));
        ASSERT_TRUE(log->setThumbnail(ByteArray(payload.begin(), payload.begin() + 100)));
        ASSERT_TRUE(log->addBookmark({1, "with", "payload", payload}));
        ASSERT_TRUE(log->addBookmark({3, "without", "", {}}));
        ASSERT_TRUE(log->updateBookmark({3, "still without", "x", payload}));

        const bool compressed = logVersion >= 3 && level != 0;
        const bool keepsPayload = logVersion >= 4;
        EXPECT_EQ(log->isResourceCompressionSupported(), logVersion >= 3);
        EXPECT_EQ(log->isBookmarkPayloadsSupported(), keepsPayload);
        const SqliteLogFile reopened(log->getFilePath());
        EXPECT_EQ(reopened.getResource("image"), payload);
        EXPECT_EQ(reopened.getAllResources().at(0).data, payload);
        EXPECT_EQ(reopened.getThumbnail(), ByteArray(payload.begin(), payload.begin() + 100));
        for (const Bookmark& bookmark : reopened.getBookmarks()) {
            EXPECT_EQ(bookmark.payload, keepsPayload ? payload : ByteArray{});
        }
        RawDatabase raw(log->getFilePath());
        const ByteArray resource = raw.blob("SELECT payload FROM resources WHERE name = 'image';");
        EXPECT_EQ(compressed ? Compression::uncompress(resource) : resource, payload);
        const auto mark = raw.rows("SELECT typeof(payload), length(payload) FROM bookmarks;");
        EXPECT_EQ(mark.at(0).at(0), keepsPayload ? "blob" : "null");
        EXPECT_EQ(mark[0][1] == std::to_string(payload.size()), keepsPayload && level == 0);
    }
}

}  // namespace
}  // namespace Korvane::Logging
