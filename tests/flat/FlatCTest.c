/* The flat interface from plain C99: a new file, read back, sliced and cloned; no leaks. */

#define _POSIX_C_SOURCE 200809L

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "korvane/logging/KV_Log.h"
#include "korvane/logging/KV_LogExtensions.h"

static int failures = 0;
static KV_LogError* error = NULL;

static void check(int line, int passed, const char* condition) {
    if (!passed) {
        fprintf(stderr, "line %d: failed: %s\n", line, condition);
        ++failures;
    }
}
#define CHECK(condition) check(__LINE__, (condition) ? 1 : 0, #condition)

/* Checks that `call` fails with the message `expected`, then frees the error. */
static void expectError(int line, int failed, const char* expected) {
    const char* message = "<none>";
    if (error != NULL) {
        KV_LogError_GetErrorMessage(error, &message);
    }
    if (!failed || strcmp(message, expected) != 0) {
        fprintf(stderr, "line %d: message \"%s\", expected \"%s\"\n", line, message, expected);
        ++failures;
    }
    KV_LogError_Destroy(error);
    error = NULL;
}
#define EXPECT_ERROR(call, expected) expectError(__LINE__, !(call), expected)

static void collectName(void* names, KV_LogDataSource* source) {
    const char* name = NULL;
    KV_LogDataSource_GetName(source, &name);
    strcat(strcat((char*)names, name), ";");
    KV_LogDataSource_Destroy(source);
}

/* Sums the ids; reads each entry and bookmarks it on the file that is enumerating. */
static int32_t idSum = 0;
static void touchEntry(void* file, int32_t entryId) {
    KV_LogDataEntry* entry = NULL;
    KV_LogBookmark* bookmark = KV_LogBookmark_Create(entryId, "seen", "", NULL, 0);
    CHECK(KV_LogFile_ReadEntry((KV_LogFile*)file, entryId, &entry, NULL));
    CHECK(KV_LogFile_AddBookmark((KV_LogFile*)file, bookmark, NULL));
    KV_LogDataEntry_Destroy(entry);
    KV_LogBookmark_Destroy(bookmark);
    idSum += entryId;
}

static void writeBytes(const char* path, const char* bytes) {
    FILE* file = fopen(path, "wb");
    fwrite(bytes, 1, 12, file);
    fclose(file);
}

static void countEntry(void* count, KV_LogDataEntry* entry) {
    ++*(int*)count;
    KV_LogDataEntry_Destroy(entry);
}

static void countMark(void* count, KV_LogBookmark* bookmark) {
    ++*(int*)count;
    KV_LogBookmark_Destroy(bookmark);
}

static int32_t countOf(KV_LogFile* file) {
    int32_t count = -1;
    CHECK(KV_LogFile_GetEntryCount(file, &count, NULL));
    return count;
}

int main(void) {
    char dir[] = "/tmp/korvane-c-test-XXXXXX", path[96], slicePath[96], clonePath[96], other[96];
    uint8_t bytes[64];
    int i;
    if (mkdtemp(dir) == NULL) {
        return 1;
    }
    snprintf(path, sizeof path, "%s/new.log", dir);
    snprintf(slicePath, sizeof slicePath, "%s/slice.log", dir);
    snprintf(clonePath, sizeof clonePath, "%s/clone.log", dir);
    snprintf(other, sizeof other, "%s/other", dir);
    for (i = 0; i < 64; ++i) {
        bytes[i] = (uint8_t)(i * 7);
    }

    /* Config, then the file; the config may go as soon as the file exists. */
    KV_LogConfig* config = KV_LogConfig_Create("c-test", "1.2", "UTC");
    int8_t level = 0;
    KV_LogConfig_GetCompressionLevel(config, &level);
    CHECK(level == -1 && KV_LogConfig_SetCompressionLevel(config, 9, &error) && error == NULL);
    EXPECT_ERROR(KV_LogConfig_SetCompressionLevel(config, 10, &error),
                 "Invalid compression level, value must be in the range [0,9].");
    EXPECT_ERROR(KV_LogConfig_SetCompressionLevel(config, -2, &error),
                 "Invalid compression level, value must be in the range [0,9].");
    KV_LogConfig_GetCompressionLevel(config, &level);
    CHECK(level == 9 && KV_LogConfig_SetCompressionLevel(config, 3, NULL));
    KV_LogFile* file = KV_LogFile_Create(path, config, &error);
    CHECK(file != NULL && error == NULL);
    EXPECT_ERROR(KV_LogFile_Create(path, config, &error),
                 "Cannot create file as file already exists.");
    writeBytes(other, "\x44\x33\x22\x11legacy..");
    EXPECT_ERROR(KV_LogFile_Open(other, &error), "Tried to open a legacy log file.");
    writeBytes(other, "\x11\x22\x33\x44reversed");
    EXPECT_ERROR(KV_LogFile_Open(other, &error),
                 "This file is not in a supported log file format.");
    KV_LogConfig_Destroy(config);

    /* A new file is empty: first and last ids, sources and the index fail with its last error,
     * the other enumerations succeed without a call. */
    int32_t number = 7;
    int entries = 0;
    char names[64] = "";
    KV_LogEntryIndexFilter* filter = KV_LogEntryIndexFilter_Create();
    CHECK(KV_LogFile_GetEntryCount(file, &number, &error) && number == 0 && error == NULL);
    CHECK(!KV_LogFile_GetLastEntryId(file, &number, &error) && number == -1 && error != NULL);
    const char* lastError = NULL;
    KV_LogError_GetErrorMessage(error, &lastError);
    char firstText[128];
    snprintf(firstText, sizeof firstText, "%s", lastError);
    KV_LogError_Destroy(error);
    error = NULL;
    EXPECT_ERROR(KV_LogFile_GetDataSources(file, collectName, names, &error), firstText);
    EXPECT_ERROR(KV_LogFile_GetEntryIndex(file, filter, touchEntry, file, &error), firstText);
    CHECK(KV_LogFile_GetBookmarks(file, countMark, &entries));
    CHECK(KV_LogFile_ReadEntries(file, -1, -1, filter, -1, countEntry, &entries) && entries == 0);

    /* A source gets its id from the file; records made from it before that carry -1. */
    KV_LogDataSource* camera = KV_LogDataSource_Create(10, "camera");
    KV_LogDataSource* lidar = KV_LogDataSource_Create(20, "lidar");
    KV_LogDataEntry* early = KV_LogDataEntry_Create(camera, 0, bytes, 1);
    int8_t id = 0;
    int64_t number64 = 0;
    KV_LogDataEntry_GetTimestamp(early, &number64);
    CHECK(number64 > INT64_C(1600000000000)); /* stamped in milliseconds when made */
    CHECK(KV_LogFile_AddDataSource(file, camera, &error) &&
          KV_LogFile_AddDataSource(file, lidar, &error));
    KV_LogDataSource_GetId(lidar, &id);
    CHECK(id == 2);
    KV_LogDataEntry_GetDataSourceId(early, &id);
    CHECK(id == -1);
    EXPECT_ERROR(KV_LogFile_LogData(file, early, &error),
                 "Attempted to log data against a data source that did not exist in the file.");
    for (i = 1; i <= 10; ++i) {
        KV_LogDataEntry* entry =
            KV_LogDataEntry_Create(i % 2 ? camera : lidar, i, bytes, (uint64_t)(i * 6));
        CHECK(KV_LogFile_LogData(file, entry, &error));
        KV_LogDataEntry_Destroy(entry);
    }
    KV_LogFile_Destroy(file);
    CHECK(error == NULL);

    /* An opened file refuses data, but takes bookmarks. */
    file = KV_LogFile_Open(path, &error);
    CHECK(file != NULL && error == NULL);
    EXPECT_ERROR(KV_LogFile_LogData(file, early, &error),
                 "Data cannot be logged into pre-existing log files.");
    KV_LogBookmark* bookmark = KV_LogBookmark_Create(4, "start", "", bytes, 3);
    CHECK(KV_LogFile_AddBookmark(file, bookmark, &error));
    KV_LogBookmark_Destroy(bookmark);

    /* Reading back. */
    uint64_t size = 0;
    const uint8_t* data = NULL;
    KV_LogDataEntry* entry = NULL;
    CHECK(countOf(file) == 10);
    CHECK(KV_LogFile_GetLastEntryId(file, &number, &error) && number == 10);
    CHECK(KV_LogFile_ReadEntry(file, 7, &entry, &error));
    KV_LogDataEntry_GetData(entry, &size, &data);
    CHECK(size == 42 && memcmp(data, bytes, 42) == 0);
    KV_LogDataEntry_Destroy(entry);
    entry = NULL;
    EXPECT_ERROR(KV_LogFile_ReadEntry(file, 11, &entry, &error),
                 "The requested data entry does not exist.");
    CHECK(entry == NULL);
    CHECK(KV_LogResource_Create("huge", bytes, UINT64_MAX) == NULL);

    CHECK(KV_LogFile_GetDataSources(file, collectName, names, &error));
    CHECK(strcmp(names, "camera;lidar;") == 0);
    KV_LogEntryIndexFilter_AddDataSourceType(filter, 20);
    CHECK(KV_LogFile_GetEntryIndex(file, filter, touchEntry, file, &error));
    CHECK(idSum == 2 + 4 + 6 + 8 + 10);
    CHECK(KV_LogFile_GetBookmarks(file, countMark, &entries) && entries == 6);
    entries = 0;
    CHECK(KV_LogFile_ReadEntries(file, 3, 9, filter, 2, countEntry, &entries) && entries == 2);
    CHECK(KV_LogFile_ReadEntries(file, 3, 7, filter, -1, countEntry, &entries) && entries == 4);

    /* A clone takes new data. */
    config = KV_LogConfig_Create("c-test", "2.0", "ignored");
    KV_LogFile* slice = KV_LogAlgorithms_Slice(file, 3, 5, slicePath, config, &error);
    CHECK(slice != NULL && countOf(slice) == 3);
    KV_LogDataEntry* late = KV_LogDataEntry_Create(camera, 0, NULL, 0);
    KV_LogFile* clone = KV_LogAlgorithms_Clone(file, clonePath, config, &error);
    CHECK(clone != NULL && countOf(clone) == 10);
    CHECK(KV_LogFile_LogData(clone, late, &error) && countOf(clone) == 11);
    CHECK(countOf(file) == 10);

    struct stat status;
    KV_LogFile* reader = NULL;

    /* Links count by what they point at: a link to a file is something, a dangling link is
     * nothing, and a file created at a dangling link lands at its target. */
    char link[96], target[96];
    snprintf(link, sizeof link, "%s/link", dir);
    snprintf(target, sizeof target, "%s/target.log", dir);
    CHECK(symlink(path, link) == 0);
    EXPECT_ERROR(KV_LogFile_Create(link, config, &error),
                 "Cannot create file as file already exists.");
    reader = KV_LogFile_Open(link, &error);
    CHECK(reader != NULL && countOf(reader) == 10);
    KV_LogFile_Destroy(reader);
    CHECK(remove(link) == 0 && symlink("target.log", link) == 0);
    EXPECT_ERROR(KV_LogFile_Open(link, &error), "Log file does not exist.");
    CHECK(stat(target, &status) != 0);
    reader = KV_LogFile_Create(link, config, &error);
    CHECK(reader != NULL && countOf(reader) == 0 && stat(target, &status) == 0);
    KV_LogFile_Destroy(reader);
    remove(link);
    remove(target);

    /* Read only: an empty file is refused and stays empty; a log file reads but takes nothing. */
    fclose(fopen(other, "wb"));
    EXPECT_ERROR(KVX_OpenReadOnly(other, &error),
                 "This file is not in a supported log file format.");
    CHECK(stat(other, &status) == 0 && status.st_size == 0);
    EXPECT_ERROR(KVX_OpenReadOnly("/nonexistent/new.log", &error), "Log file does not exist.");
    reader = KVX_OpenReadOnly(path, &error);
    CHECK(reader != NULL && countOf(reader) == 10);
    bookmark = KV_LogBookmark_Create(5, "late", "", NULL, 0);
    EXPECT_ERROR(KV_LogFile_AddBookmark(reader, bookmark, &error),
                 "The log file is open for reading only.");
    EXPECT_ERROR(KV_LogFile_LogData(reader, late, &error),
                 "Data cannot be logged into pre-existing log files.");
    KV_LogBookmark_Destroy(bookmark);
    KV_LogFile_Destroy(reader);

    KV_LogEntryIndexFilter_Destroy(filter);
    KV_LogFile_Destroy(clone);
    KV_LogFile_Destroy(slice);
    KV_LogFile_Destroy(file);
    KV_LogConfig_Destroy(config);
    KV_LogDataEntry_Destroy(late);
    KV_LogDataEntry_Destroy(early);
    KV_LogDataSource_Destroy(camera);
    KV_LogDataSource_Destroy(lidar);
    remove(other);
    remove(clonePath);
    remove(slicePath);
    remove(path);
    rmdir(dir);
    return failures == 0 ? 0 : (fprintf(stderr, "%d checks failed\n", failures), 1);
}
