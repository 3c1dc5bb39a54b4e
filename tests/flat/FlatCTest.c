/* The flat interface from plain C99: the calling order of a new file, reading it back, slicing
 * and cloning it, and the failure texts on the way. Every handle is destroyed. */

#define _POSIX_C_SOURCE 200809L

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "korvane/logging/KV_Log.h"

static int failures = 0;

#define CHECK(condition)                                                    \
    do {                                                                    \
        if (!(condition)) {                                                 \
            fprintf(stderr, "line %d: failed: %s\n", __LINE__, #condition); \
            ++failures;                                                     \
        }                                                                   \
    } while (0)

/* Checks the message in `error`, then frees it and clears the location. */
static void expectError(int line, KV_LogError** error, const char* expected) {
    const char* message = "<none>";
    if (*error != NULL) {
        KV_LogError_GetErrorMessage(*error, &message);
    }
    if (strcmp(message, expected) != 0) {
        fprintf(stderr, "line %d: message \"%s\", expected \"%s\"\n", line, message, expected);
        ++failures;
    }
    KV_LogError_Destroy(*error);
    *error = NULL;
}
#define EXPECT_ERROR(expected) expectError(__LINE__, &error, (expected))

static void collectName(void* names, KV_LogDataSource* source) {
    const char* name = NULL;
    KV_LogDataSource_GetName(source, &name);
    strcat(strcat((char*)names, name), ";");
    KV_LogDataSource_Destroy(source);
}

static void sumIds(void* sum, int32_t entryId) {
    *(int32_t*)sum += entryId;
}

static void countEntry(void* count, KV_LogDataEntry* entry) {
    ++*(int*)count;
    KV_LogDataEntry_Destroy(entry);
}

static int32_t countOf(KV_LogFile* file) {
    int32_t count = -1;
    CHECK(KV_LogFile_GetEntryCount(file, &count, NULL));
    return count;
}

int main(void) {
    char dir[] = "/tmp/korvane-c-test-XXXXXX", path[96], slicePath[96], clonePath[96];
    KV_LogError* error = NULL;
    uint8_t bytes[64];
    int i;
    if (mkdtemp(dir) == NULL) {
        return 1;
    }
    snprintf(path, sizeof path, "%s/new.log", dir);
    snprintf(slicePath, sizeof slicePath, "%s/slice.log", dir);
    snprintf(clonePath, sizeof clonePath, "%s/clone.log", dir);
    for (i = 0; i < 64; ++i) {
        bytes[i] = (uint8_t)(i * 7);
    }

    /* Config, then the file; the config may go as soon as the file exists. */
    KV_LogConfig* config = KV_LogConfig_Create("c-test", "1.2", "UTC");
    int8_t level = 0;
    KV_LogConfig_GetCompressionLevel(config, &level);
    CHECK(level == -1);
    CHECK(KV_LogConfig_SetCompressionLevel(config, 9, &error) && error == NULL);
    CHECK(!KV_LogConfig_SetCompressionLevel(config, 10, &error));
    EXPECT_ERROR("Invalid compression level, value must be in the range [0,9].");
    CHECK(!KV_LogConfig_SetCompressionLevel(config, -2, &error));
    EXPECT_ERROR("Invalid compression level, value must be in the range [0,9].");
    KV_LogConfig_GetCompressionLevel(config, &level);
    CHECK(level == 9);
    CHECK(KV_LogConfig_SetCompressionLevel(config, -1, NULL));
    CHECK(KV_LogConfig_SetCompressionLevel(config, 3, &error));
    CHECK(KV_LogConfig_SetTimeZone(config, "Europe/Oslo"));
    KV_LogFile* file = KV_LogFile_Create(path, config, &error);
    CHECK(file != NULL && error == NULL);
    CHECK(KV_LogFile_Create(path, config, &error) == NULL);
    EXPECT_ERROR("Cannot create file as file already exists.");
    KV_LogConfig_Destroy(config);

    /* A source gets its id from the file; records made from it before that carry -1. */
    KV_LogDataSource* camera = KV_LogDataSource_Create(10, "camera");
    KV_LogDataSource* lidar = KV_LogDataSource_Create(20, "lidar");
    KV_LogDataEntry* early = KV_LogDataEntry_Create(camera, 0, bytes, 1);
    int8_t id = 0;
    CHECK(KV_LogFile_AddDataSource(file, camera, &error));
    CHECK(KV_LogFile_AddDataSource(file, lidar, &error));
    KV_LogDataSource_GetId(lidar, &id);
    CHECK(id == 2);
    KV_LogDataEntry_GetDataSourceId(early, &id);
    CHECK(id == -1);
    CHECK(!KV_LogFile_LogData(file, early, &error));
    EXPECT_ERROR("Attempted to log data against a data source that did not exist in the file.");
    KV_LogDataSourceProperty* fps = KV_LogDataSourceProperty_CreateInt32(camera, "fps", 30);
    CHECK(KV_LogFile_AddDataSourceProperty(file, fps, &error));
    KV_LogDataSourceProperty_Destroy(fps);
    for (i = 1; i <= 10; ++i) {
        KV_LogDataEntry* entry =
            KV_LogDataEntry_Create(i % 2 ? camera : lidar, i, bytes, (uint64_t)(i * 6));
        CHECK(KV_LogFile_LogData(file, entry, &error));
        KV_LogDataEntry_Destroy(entry);
    }
    KV_LogResource* resource = KV_LogResource_Create("calibration", bytes, 64);
    CHECK(KV_LogFile_AddResource(file, resource, &error));
    KV_LogResource_Destroy(resource);
    KV_LogFile_Destroy(file);
    CHECK(error == NULL);

    /* An opened file refuses sources, properties and data, but takes bookmarks. */
    CHECK(KV_LogFile_Open(clonePath, &error) == NULL);
    EXPECT_ERROR("Log file does not exist.");
    file = KV_LogFile_Open(path, &error);
    CHECK(file != NULL && error == NULL);
    KV_LogDataSource* radar = KV_LogDataSource_Create(30, "radar");
    CHECK(!KV_LogFile_AddDataSource(file, radar, &error));
    EXPECT_ERROR("Data sources cannot be added to pre-existing log files.");
    KV_LogDataSource_GetId(radar, &id);
    CHECK(id == -1);
    KV_LogDataSource_Destroy(radar);
    fps = KV_LogDataSourceProperty_CreateDouble(camera, "fps", 25.0);
    CHECK(!KV_LogFile_AddDataSourceProperty(file, fps, &error));
    EXPECT_ERROR("Data source properties cannot be added to pre-existing log files.");
    KV_LogDataSourceProperty_Destroy(fps);
    CHECK(!KV_LogFile_LogData(file, early, &error));
    EXPECT_ERROR("Data cannot be logged into pre-existing log files.");
    KV_LogBookmark* bookmark = KV_LogBookmark_Create(4, "start", "", bytes, 3);
    CHECK(KV_LogFile_AddBookmark(file, bookmark, &error));
    KV_LogBookmark_Destroy(bookmark);

    /* Reading back. */
    int32_t number = 0;
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
    CHECK(!KV_LogFile_ReadEntry(file, 11, &entry, &error) && entry == NULL);
    EXPECT_ERROR("The requested data entry does not exist.");

    KV_LogMetadata* metadata = NULL;
    int64_t level64 = 0;
    CHECK(KV_LogFile_GetMetadata(file, "compressionLevel", &metadata, &error));
    CHECK(KV_LogMetadata_GetInt64(metadata, &level64) && level64 == 3);
    KV_LogMetadata_Destroy(metadata);
    CHECK(!KV_LogFile_GetMetadata(file, "absent", &metadata, &error));
    EXPECT_ERROR("The requested metadata does not exist.");
    CHECK(KV_LogFile_GetResource(file, "calibration", &resource, &error));
    KV_LogResource_GetData(resource, &size, &data);
    CHECK(size == 64 && memcmp(data, bytes, 64) == 0);
    KV_LogResource_Destroy(resource);
    CHECK(!KV_LogFile_GetResource(file, "absent", &resource, &error));
    EXPECT_ERROR("The requested resource does not exist.");
    CHECK(KV_LogFile_GetDataSourceProperty(file, camera, "fps", &fps, &error));
    CHECK(KV_LogDataSourceProperty_GetInt64(fps, &level64) && level64 == 30);
    KV_LogDataSourceProperty_Destroy(fps);
    CHECK(!KV_LogFile_GetDataSourceProperty(file, lidar, "fps", &fps, &error));
    EXPECT_ERROR("The requested data source property does not exist.");

    char names[64] = "";
    CHECK(KV_LogFile_GetDataSources(file, collectName, names, &error));
    CHECK(strcmp(names, "camera;lidar;") == 0);
    KV_LogEntryIndexFilter* filter = KV_LogEntryIndexFilter_Create();
    KV_LogEntryIndexFilter_AddDataSourceType(filter, 20);
    int32_t idSum = 0;
    CHECK(KV_LogFile_GetEntryIndex(file, filter, sumIds, &idSum, &error));
    CHECK(idSum == 2 + 4 + 6 + 8 + 10);
    int entries = 0;
    CHECK(KV_LogFile_ReadEntries(file, 3, -1, filter, 2, countEntry, &entries) && entries == 2);
    KV_LogEntryIndexFilter_Destroy(filter);

    /* A slice refuses new data, a clone takes it. */
    config = KV_LogConfig_Create("c-test", "2.0", "ignored");
    CHECK(KV_LogAlgorithms_Slice(file, 5, 3, slicePath, config, &error) == NULL);
    EXPECT_ERROR("Failed to slice log file");
    KV_LogFile* slice = KV_LogAlgorithms_Slice(file, 3, 5, slicePath, config, &error);
    CHECK(slice != NULL && countOf(slice) == 3);
    KV_LogDataEntry* late = KV_LogDataEntry_Create(camera, 0, NULL, 0);
    KV_LogDataEntry_SetTimestamp(late, 5);
    CHECK(!KV_LogFile_LogData(slice, late, &error));
    EXPECT_ERROR("Data cannot be logged into pre-existing log files.");
    KV_LogFile* clone = KV_LogAlgorithms_Clone(file, clonePath, config, &error);
    CHECK(clone != NULL && countOf(clone) == 10);
    CHECK(KV_LogFile_LogData(clone, late, &error) && countOf(clone) == 11);
    CHECK(KV_LogAlgorithms_Clone(file, clonePath, config, &error) == NULL);
    EXPECT_ERROR("Failed to clone log file");
    CHECK(countOf(file) == 10);

    KV_LogFile_Destroy(clone);
    KV_LogFile_Destroy(slice);
    KV_LogFile_Destroy(file);
    KV_LogConfig_Destroy(config);
    KV_LogDataEntry_Destroy(late);
    KV_LogDataEntry_Destroy(early);
    KV_LogDataSource_Destroy(camera);
    KV_LogDataSource_Destroy(lidar);

    /* Every Destroy takes NULL. */
    KV_LogError_Destroy(NULL);
    KV_LogConfig_Destroy(NULL);
    KV_LogFile_Destroy(NULL);
    KV_LogBookmark_Destroy(NULL);
    KV_LogDataEntry_Destroy(NULL);
    KV_LogDataSource_Destroy(NULL);
    KV_LogDataSourceProperty_Destroy(NULL);
    KV_LogEntryIndexFilter_Destroy(NULL);
    KV_LogMetadata_Destroy(NULL);
    KV_LogResource_Destroy(NULL);

    remove(clonePath);
    remove(slicePath);
    remove(path);
    rmdir(dir);
    if (failures != 0) {
        fprintf(stderr, "%d checks failed\n", failures);
    }
    return failures == 0 ? 0 : 1;
}
