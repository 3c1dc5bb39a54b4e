// Configs, the making of file handles, and the record handles on their own.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "FlatHandles.h"
#include "TempDir.h"

namespace Korvane::Testing {
namespace {

using Bytes = std::vector<std::uint8_t>;

class FlatFileHandleTest : public TempDirTest {};

TEST_F(FlatFileHandleTest, CreateRefusesEveryOccupiedPathAndTouchesNothing) {
    writeFileBytes(dir / "file", {1, 2, 3});
    std::filesystem::create_directory(dir / "directory");
    std::filesystem::create_symlink(dir / "file", dir / "link");
    Config config(KV_LogConfig_Create("app", "1.0", "UTC"));
    for (const char* name : {"file", "directory", "link"}) {
        ErrorSlot error;
        EXPECT_EQ(File(KV_LogFile_Create(path(name).c_str(), config.get(), error.out())), nullptr);
        EXPECT_EQ(error.text(), "Cannot create file as file already exists.") << name;
        EXPECT_EQ(File(KV_LogFile_Create(path(name).c_str(), config.get(), nullptr)), nullptr);
    }
    EXPECT_EQ(readFileBytes(dir / "file"), (Bytes{1, 2, 3}));
}

TEST_F(FlatFileHandleTest, OpenReportsWhatStandsAtThePath) {
    writeFileBytes(dir / "legacy", {0x44, 0x33, 0x22, 0x11, 'l', 'e', 'g', 'a', 'c', 'y', 0, 0});
    writeFileBytes(dir / "reversed", {0x11, 0x22, 0x33, 0x44, 'n', 'o', 't', 'd', 'b', 0, 0, 0});
    std::filesystem::create_symlink(dir / "nowhere", dir / "dangling");
    const std::pair<const char*, const char*> rows[] = {
        {"missing", "Log file does not exist."},
        {"dangling", "Log file does not exist."},
        {"legacy", "Tried to open a legacy log file."},
        {"reversed", "This file is not in a supported log file format."},
    };
    for (const auto& [name, message] : rows) {
        ErrorSlot error;
        EXPECT_EQ(File(KV_LogFile_Open(path(name).c_str(), error.out())), nullptr);
        EXPECT_EQ(error.text(), message) << name;
        EXPECT_EQ(File(KV_LogFile_Open(path(name).c_str(), nullptr)), nullptr);
    }
    EXPECT_FALSE(std::filesystem::exists(dir / "missing"));
}

// The four typed readers on one record, each as its result followed by its out-parameter,
// which starts at 99 or "untouched".
template <typename Handle>
std::string readAll(const Handle* record, bool (*int32)(const Handle*, std::int32_t*),
                    bool (*int64)(const Handle*, std::int64_t*),
                    bool (*real)(const Handle*, double*),
                    bool (*text)(const Handle*, const char**)) {
    std::int32_t a = 99;
    std::int64_t b = 99;
    double c = 99;
    const char* d = "untouched";
    std::ostringstream out;
    out << int32(record, &a) << a << ' ' << int64(record, &b) << b << ' ' << real(record, &c) << c
        << ' ' << text(record, &d) << d;
    return out.str();
}

TEST(FlatRecordTest, TypedReadersTakeOnlyWhatAFileGivesBack) {
    Source source(KV_LogDataSource_Create(sourceType(1), "source"));
    const std::int64_t wide = (std::int64_t{1} << 32) + 5;
    struct Row {
        Metadata metadata;
        Property property;
        const char* expected;
    };
    const Row rows[] = {
        {Metadata(KV_LogMetadata_CreateInt32("k", 7)),
         Property(KV_LogDataSourceProperty_CreateInt32(source.get(), "k", 7)),
         "099 099 099 0untouched"},
        {Metadata(KV_LogMetadata_CreateInt64("k", wide)),
         Property(KV_LogDataSourceProperty_CreateInt64(source.get(), "k", wide)),
         "15 14294967301 099 0untouched"},
        {Metadata(KV_LogMetadata_CreateInt64("k", -3)),
         Property(KV_LogDataSourceProperty_CreateInt64(source.get(), "k", -3)),
         "1-3 1-3 099 0untouched"},
        {Metadata(KV_LogMetadata_CreateDouble("k", 2.5)),
         Property(KV_LogDataSourceProperty_CreateDouble(source.get(), "k", 2.5)),
         "099 099 12.5 0untouched"},
        {Metadata(KV_LogMetadata_CreateString("k", "7")),
         Property(KV_LogDataSourceProperty_CreateString(source.get(), "k", "7")),
         "099 099 099 17"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(readAll(row.metadata.get(), KV_LogMetadata_GetInt32, KV_LogMetadata_GetInt64,
                          KV_LogMetadata_GetDouble, KV_LogMetadata_GetString),
                  row.expected);
        EXPECT_EQ(readAll(row.property.get(), KV_LogDataSourceProperty_GetInt32,
                          KV_LogDataSourceProperty_GetInt64, KV_LogDataSourceProperty_GetDouble,
                          KV_LogDataSourceProperty_GetString),
                  row.expected);
    }
}

TEST(FlatRecordTest, BytesAreCopiedAndEntriesStampedWhenMade) {
    Bytes bytes{1, 2, 3, 4};
    Mark bookmark(KV_LogBookmark_Create(7, "title", "comment", bytes.data(), 4));
    bytes[0] = 9;
    EXPECT_EQ(bytesOf(bookmark.get(), KV_LogBookmark_GetPayload), (Bytes{1, 2, 3, 4}));
    KV_LogBookmark_SetPayload(bookmark.get(), bytes.data(), 2);
    EXPECT_EQ(bytesOf(bookmark.get(), KV_LogBookmark_GetPayload), (Bytes{9, 2}));
    // A size beyond what an array can hold leaves the record as it was, and makes no record.
    KV_LogBookmark_SetPayload(bookmark.get(), bytes.data(), UINT64_MAX);
    EXPECT_EQ(bytesOf(bookmark.get(), KV_LogBookmark_GetPayload), (Bytes{9, 2}));
    EXPECT_EQ(Resource(KV_LogResource_Create("huge", bytes.data(), UINT64_MAX)), nullptr);
    KV_LogBookmark_SetPayload(bookmark.get(), nullptr, 0);
    EXPECT_EQ(bytesOf(bookmark.get(), KV_LogBookmark_GetPayload), Bytes{});

    // Size 0 with a null pointer gives an empty array; the clock stamps the entry when it is made.
    const auto now = [] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    Source source(KV_LogDataSource_Create(sourceType(-4), "unregistered"));
    const std::int64_t before = now();
    Entry entry(KV_LogDataEntry_Create(source.get(), -8, nullptr, 0));
    const std::int64_t after = now();
    Resource resource(KV_LogResource_Create("resource", nullptr, 0));
    EXPECT_EQ(bytesOf(entry.get(), KV_LogDataEntry_GetData), Bytes{});
    EXPECT_EQ(bytesOf(resource.get(), KV_LogResource_GetData), Bytes{});
    std::int64_t timestamp = 0;
    KV_LogDataEntry_GetTimestamp(entry.get(), &timestamp);
    EXPECT_GE(timestamp, before);
    EXPECT_LE(timestamp, after);
    for (const std::int64_t value : {std::int64_t{0}, std::int64_t{-5}, INT64_MAX}) {
        KV_LogDataEntry_SetTimestamp(entry.get(), value);
        KV_LogDataEntry_GetTimestamp(entry.get(), &timestamp);
        EXPECT_EQ(timestamp, value);
    }
}

}  // namespace
}  // namespace Korvane::Testing
