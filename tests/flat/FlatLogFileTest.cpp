// The functions that work on an open KV_LogFile, and slice and clone.

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "FlatHandles.h"
#include "RawDatabase.h"
#include "TempDir.h"

namespace Korvane::Testing {
namespace {

// Entry i (1 to 6) comes from the camera (source 1, kind 10) when i is odd, else from the lidar
// (source 2, kind 20); its type is i % 3, its timestamp 1000 + i, its data sensorBytes(50 * i, i).
std::vector<std::uint8_t> payloadOf(int i) {
    return sensorBytes(50 * static_cast<std::size_t>(i), static_cast<std::uint32_t>(i));
}

// The timestamps of the entries that an enumeration delivers, which name them here.
void addStamp(void* stamps, KV_LogDataEntry* entry) {
    std::int64_t timestamp = 0;
    KV_LogDataEntry_GetTimestamp(entry, &timestamp);
    static_cast<std::vector<std::int64_t>*>(stamps)->push_back(timestamp);
    KV_LogDataEntry_Destroy(entry);
}

class FlatLogFileTest : public TempDirTest {
protected:
    // A new file at `level` with the entries above and a bookmark on entry 2.
    File record(std::int8_t level, const char* name = "recorded.log") {
        Config config(KV_LogConfig_Create("app", "1.0", "Europe/Berlin"));
        EXPECT_TRUE(KV_LogConfig_SetCompressionLevel(config.get(), level, nullptr));
        File file(KV_LogFile_Create(path(name).c_str(), config.get(), nullptr));
        Source camera(KV_LogDataSource_Create(sourceType(10), "camera"));
        Source lidar(KV_LogDataSource_Create(sourceType(20), "lidar"));
        ErrorSlot error;
        EXPECT_TRUE(KV_LogFile_AddDataSource(file.get(), camera.get(), error.out()));
        EXPECT_TRUE(KV_LogFile_AddDataSource(file.get(), lidar.get(), error.out()));
        for (int i = 1; i <= 6; ++i) {
            const std::vector<std::uint8_t> bytes = payloadOf(i);
            Entry entry(KV_LogDataEntry_Create(i % 2 ? camera.get() : lidar.get(), i % 3,
                                               bytes.data(), bytes.size()));
            KV_LogDataEntry_SetTimestamp(entry.get(), 1000 + i);
            EXPECT_TRUE(KV_LogFile_LogData(file.get(), entry.get(), error.out())) << error.text();
        }
        Mark bookmark(KV_LogBookmark_Create(2, "start", "note", payloadOf(1).data(), 9));
        Resource resource(KV_LogResource_Create("calibration", payloadOf(2).data(), 100));
        EXPECT_TRUE(KV_LogFile_AddBookmark(file.get(), bookmark.get(), error.out()));
        EXPECT_TRUE(KV_LogFile_AddResource(file.get(), resource.get(), error.out()));
        return file;
    }
};

TEST_F(FlatLogFileTest, EmptyResultsOfANewFile) {
    Config config(KV_LogConfig_Create("app", "1.0", "UTC"));
    File file(KV_LogFile_Create(path("empty.log").c_str(), config.get(), nullptr));
    ErrorSlot e[3];
    std::int32_t count = 7, first = 7, last = 7;
    EXPECT_TRUE(KV_LogFile_GetEntryCount(file.get(), &count, e[0].out()));
    EXPECT_FALSE(KV_LogFile_GetFirstEntryId(file.get(), &first, e[1].out()));
    EXPECT_FALSE(KV_LogFile_GetLastEntryId(file.get(), &last, e[2].out()));
    EXPECT_EQ((std::vector<std::int32_t>{count, first, last}),
              (std::vector<std::int32_t>{0, -1, -1}));
    EXPECT_EQ(e[0].text(), "<none>");
    const std::string lastError = e[1].text();
    EXPECT_NE(lastError, "<none>");

    // Three enumerations fail on an empty list with the file's last error; the others succeed.
    // None calls back.
    static int calls = 0;
    const auto call = [](void*, auto*) { ++calls; };
    Filter filter(KV_LogEntryIndexFilter_Create());
    EXPECT_FALSE(KV_LogFile_GetDataSources(file.get(), call, nullptr, e[0].out()));
    EXPECT_FALSE(KV_LogFile_GetAllDataSourceProperties(file.get(), call, nullptr, e[1].out()));
    EXPECT_FALSE(KV_LogFile_GetEntryIndex(
        file.get(), filter.get(), [](void*, std::int32_t) { ++calls; }, nullptr, e[2].out()));
    EXPECT_TRUE(KV_LogFile_GetBookmarks(file.get(), call, nullptr));
    EXPECT_TRUE(KV_LogFile_GetAllResources(file.get(), call, nullptr));
    EXPECT_TRUE(KV_LogFile_ReadEntries(file.get(), -1, -1, filter.get(), -1, call, nullptr));
    EXPECT_EQ(calls, 0);
    for (const ErrorSlot& error : e) {
        EXPECT_EQ(error.text(), lastError);
    }
    // A failed look-up leaves its out-parameter alone.
    auto* const untouched = reinterpret_cast<KV_LogDataEntry*>(&calls);
    KV_LogDataEntry* entry = untouched;
    EXPECT_FALSE(KV_LogFile_ReadEntry(file.get(), 1, &entry, nullptr));
    EXPECT_EQ(entry, untouched);
}

TEST_F(FlatLogFileTest, SelectionArgumentsReachTheFile) {
    File file = record(0);
    Filter all(KV_LogEntryIndexFilter_Create());
    Filter types(KV_LogEntryIndexFilter_Create());
    KV_LogEntryIndexFilter_AddDataType(types.get(), 1);
    KV_LogEntryIndexFilter_AddDataType(types.get(), 0);
    Filter lidar(KV_LogEntryIndexFilter_Create());
    KV_LogEntryIndexFilter_AddDataSource(lidar.get(), 2);
    Filter cameraKind(KV_LogEntryIndexFilter_Create());
    KV_LogEntryIndexFilter_AddDataSourceType(cameraKind.get(), sourceType(10));
    const struct {
        std::int32_t minimum, maximum, limit;
        const KV_LogEntryIndexFilter* filter;
        std::vector<std::int64_t> stamps;
    } rows[] = {
        {2, 5, -1, all.get(), {1002, 1003, 1004, 1005}},     {3, -1, 2, all.get(), {1003, 1004}},
        {-1, -1, -1, types.get(), {1001, 1003, 1004, 1006}}, {1, 6, 2, lidar.get(), {1002, 1004}},
        {2, -1, -1, cameraKind.get(), {1003, 1005}},         {5, 2, -1, all.get(), {}},
    };
    for (const auto& row : rows) {
        std::vector<std::int64_t> stamps;
        EXPECT_TRUE(KV_LogFile_ReadEntries(file.get(), row.minimum, row.maximum, row.filter,
                                           row.limit, addStamp, &stamps));
        EXPECT_EQ(stamps, row.stamps) << row.minimum << ".." << row.maximum << " " << row.limit;
    }
    std::vector<std::int32_t> ids;
    EXPECT_TRUE(KV_LogFile_GetEntryIndex(
        file.get(), cameraKind.get(),
        [](void* out, std::int32_t id) {
            static_cast<std::vector<std::int32_t>*>(out)->push_back(id);
        },
        &ids, nullptr));
    EXPECT_EQ(ids, (std::vector<std::int32_t>{1, 3, 5}));
}

TEST_F(FlatLogFileTest, CallbacksMayUseTheirFileAndHandlesOutliveIt) {
    File file = record(3);
    Filter all(KV_LogEntryIndexFilter_Create());
    // Reads and writes on the same handle from inside an enumeration.
    ASSERT_TRUE(KV_LogFile_GetEntryIndex(
        file.get(), all.get(),
        [](void* file, std::int32_t id) {
            KV_LogDataEntry* entry = nullptr;
            ASSERT_TRUE(KV_LogFile_ReadEntry(static_cast<KV_LogFile*>(file), id, &entry, {}));
            EXPECT_EQ(bytesOf(entry, KV_LogDataEntry_GetData), payloadOf(id));
            KV_LogDataEntry_Destroy(entry);
            Mark bookmark(KV_LogBookmark_Create(id, "seen", "", nullptr, 0));
            EXPECT_TRUE(
                KV_LogFile_AddBookmark(static_cast<KV_LogFile*>(file), bookmark.get(), {}));
        },
        file.get(), nullptr));
    Collected<Mark> bookmarks;
    Collected<Resource> resources;
    EXPECT_TRUE(KV_LogFile_GetBookmarks(file.get(), &Collected<Mark>::add, &bookmarks));
    EXPECT_TRUE(KV_LogFile_GetAllResources(file.get(), &Collected<Resource>::add, &resources));
    file.reset();
    ASSERT_EQ(bookmarks.handles.size(), 7u);
    ASSERT_EQ(resources.handles.size(), 1u);
    const std::vector<std::uint8_t> payload = payloadOf(1);
    EXPECT_EQ(bytesOf(bookmarks.handles[0].get(), KV_LogBookmark_GetPayload),
              std::vector<std::uint8_t>(payload.begin(), payload.begin() + 9));
    EXPECT_EQ(bytesOf(resources.handles[0].get(), KV_LogResource_GetData), payloadOf(2));
}

// A payload that cannot be uncompressed raises inside the class; the flat functions turn that
// into their failure result and leave the rest of the file usable.
TEST_F(FlatLogFileTest, DamagedPayloadsFailInsteadOfThrowing) {
    record(5).reset();
    RawDatabase(path("recorded.log"))
        .exec(
            "UPDATE data SET payload = x'28b52ffd0102030405' WHERE entryId = 4;"
            "UPDATE resources SET payload = x'0102'; UPDATE bookmarks SET payload = x'0102';");
    File file(KV_LogFile_Open(path("recorded.log").c_str(), nullptr));
    ErrorSlot error;
    KV_LogDataEntry* entry = nullptr;
    EXPECT_FALSE(KV_LogFile_ReadEntry(file.get(), 4, &entry, error.out()));
    EXPECT_EQ(entry, nullptr);
    EXPECT_NE(error.text(), "<none>");
    EXPECT_NE(error.text(), "The requested data entry does not exist.");

    Filter all(KV_LogEntryIndexFilter_Create());
    Collected<Entry> entries;
    Collected<Resource> resources;
    Collected<Mark> bookmarks;
    EXPECT_FALSE(KV_LogFile_ReadEntries(file.get(), -1, -1, all.get(), -1, &Collected<Entry>::add,
                                        &entries));
    EXPECT_FALSE(KV_LogFile_GetAllResources(file.get(), &Collected<Resource>::add, &resources));
    EXPECT_FALSE(KV_LogFile_GetBookmarks(file.get(), &Collected<Mark>::add, &bookmarks));
    EXPECT_TRUE(entries.handles.empty() && resources.handles.empty() && bookmarks.handles.empty());
    EXPECT_TRUE(KV_LogFile_ReadEntry(file.get(), 3, &entry, error.out()));
    EXPECT_EQ(bytesOf(entry, KV_LogDataEntry_GetData), payloadOf(3));
    KV_LogDataEntry_Destroy(entry);
}

}  // namespace
}  // namespace Korvane::Testing
