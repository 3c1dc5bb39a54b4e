/* The column functions from plain C99: a batch written as columns reads back the same, whole
 * or piece by piece, at level 0 and compressed; a bad batch writes nothing. */

#define _POSIX_C_SOURCE 200809L

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "korvane/logging/KV_Log.h"
#include "korvane/logging/KV_LogExtensions.h"

enum { ENTRIES = 40, MAX_SIZE = 3000 };

static int failures = 0;
static KV_LogError* error = NULL;

static void check(int line, int passed, const char* condition) {
    if (!passed) {
        fprintf(stderr, "line %d: failed: %s\n", line, condition);
        ++failures;
    }
}
#define CHECK(condition) check(__LINE__, (condition) ? 1 : 0, #condition)

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

/* What was written: entry i (id i + 1) from source 1 or 2, of i % 3 bytes * 1000 bytes. */
static int8_t sources[ENTRIES];
static int32_t types[ENTRIES];
static int64_t times[ENTRIES];
static uint64_t offsets[ENTRIES + 1];
static uint8_t payloads[ENTRIES * MAX_SIZE];

/* Columns with room for `capacity` entries and `bytes` payload bytes. */
typedef struct {
    int32_t ids[ENTRIES];
    int64_t times[ENTRIES];
    int8_t sources[ENTRIES];
    int32_t types[ENTRIES];
    uint64_t offsets[ENTRIES + 1];
    uint8_t payloads[ENTRIES * MAX_SIZE];
    KVX_EntryColumns columns;
} Room;

static KVX_EntryColumns* prepare(Room* room, int32_t capacity, uint64_t bytes, int withBytes) {
    KVX_EntryColumns columns = {capacity,
                                room->ids,
                                room->times,
                                room->sources,
                                room->types,
                                room->offsets,
                                withBytes ? room->payloads : NULL,
                                bytes,
                                -7,
                                7,
                                7,
                                7};
    room->columns = columns;
    return &room->columns;
}

/* True when the `count` entries in `room` are the written entries from index `first` on. */
static int holds(const Room* room, int first, int withBytes) {
    int i;
    for (i = 0; i < room->columns.count; ++i) {
        const int w = first + i;
        const uint64_t size = offsets[w + 1] - offsets[w];
        if (room->ids[i] != w + 1 || room->times[i] != times[w] || room->sources[i] != sources[w] ||
            room->types[i] != types[w] || room->offsets[i + 1] - room->offsets[i] != size ||
            (withBytes &&
             memcmp(room->payloads + room->offsets[i], payloads + offsets[w], size) != 0)) {
            return 0;
        }
    }
    return room->offsets[0] == 0 && room->offsets[i] == room->columns.payloadSize;
}

static void readBack(KV_LogFile* file, KV_LogEntryIndexFilter* everything,
                     KV_LogEntryIndexFilter* secondSource, Room* room) {
    int32_t count = -1, next, i;
    uint64_t bytes = 0;
    KVX_EntryColumns* columns;

    CHECK(KVX_MeasureEntries(file, -1, -1, everything, &count, &bytes, &error));
    CHECK(count == ENTRIES && bytes == offsets[ENTRIES]);
    CHECK(KVX_MeasureEntries(file, 5, 9, secondSource, &count, NULL, &error) && count == 2);

    /* Whole, in room of exactly its size; then sizes alone, without the bytes. */
    columns = prepare(room, ENTRIES, bytes, 1);
    CHECK(KVX_ReadColumns(file, -1, -1, everything, columns, &error) && error == NULL);
    CHECK(columns->count == ENTRIES && columns->nextEntryId == -1 && holds(room, 0, 1));
    columns = prepare(room, ENTRIES, 0, 0);
    CHECK(KVX_ReadColumns(file, 1, ENTRIES, everything, columns, &error));
    CHECK(columns->count == ENTRIES && columns->payloadSize == bytes && holds(room, 0, 0));

    /* In pieces of at most 5 entries and 4000 bytes: each piece continues where one stopped. */
    for (next = 1, i = 0; next != -1; next = columns->nextEntryId) {
        columns = prepare(room, 5, 4000, 1);
        CHECK(KVX_ReadColumns(file, next, -1, everything, columns, &error));
        CHECK(columns->count > 0 && holds(room, i, 1) && columns->payloadSize <= 4000);
        CHECK(columns->nextEntryId == -1 || columns->nextEntryId == next + columns->count);
        i += columns->count;
    }
    CHECK(i == ENTRIES);

    /* An entry bigger than the room stops the read before it and says how big it is. */
    columns = prepare(room, ENTRIES, 1999, 1);
    CHECK(KVX_ReadColumns(file, 2, 9, everything, columns, &error));
    CHECK(columns->count == 1 && columns->nextEntryId == 3 && columns->nextPayloadSize == 2000);
    columns = prepare(room, 0, 0, 1);
    CHECK(KVX_ReadColumns(file, 4, 9, everything, columns, &error));
    CHECK(columns->count == 0 && columns->nextEntryId == 4 && columns->nextPayloadSize == 0);

    /* The filter selects what it selects for the 84: every other entry. */
    columns = prepare(room, ENTRIES, bytes, 1);
    CHECK(KVX_ReadColumns(file, 3, 30, secondSource, columns, &error) && columns->count == 14);
    for (i = 0; i < columns->count; ++i) {
        CHECK(room->ids[i] == 4 + 2 * i && room->sources[i] == 2);
    }
    columns->capacity = -1;
    EXPECT_ERROR(KVX_ReadColumns(file, 1, 2, everything, columns, &error),
                 "The capacity of the columns cannot be negative.");
}

int main(void) {
    static Room room;
    char dir[] = "/tmp/korvane-columns-test-XXXXXX", path[96];
    const int8_t levels[] = {0, 3};
    int32_t count = 0;
    int level, i;
    if (mkdtemp(dir) == NULL) {
        return 1;
    }
    for (i = 0; i < ENTRIES; ++i) {
        sources[i] = (int8_t)(1 + i % 2);
        types[i] = i * 11 - 50;
        times[i] = (int64_t)1700000000000 + 37 * (i % 7);
        offsets[i + 1] = offsets[i] + (uint64_t)(i % 3) * 1000;
    }
    for (i = 0; i < (int)offsets[ENTRIES]; ++i) {
        payloads[i] = (uint8_t)(i * 31 / 7);
    }
    KV_LogEntryIndexFilter* everything = KV_LogEntryIndexFilter_Create();
    KV_LogEntryIndexFilter* secondSource = KV_LogEntryIndexFilter_Create();
    KV_LogEntryIndexFilter_AddDataSource(secondSource, 2);

    for (level = 0; level < 2; ++level) {
        KV_LogConfig* config = KV_LogConfig_Create("columns-test", "1", "UTC");
        KV_LogConfig_SetCompressionLevel(config, levels[level], NULL);
        snprintf(path, sizeof path, "%s/%d.log", dir, levels[level]);
        KV_LogFile* file = KV_LogFile_Create(path, config, NULL);
        KV_LogDataSource* camera = KV_LogDataSource_Create(1, "camera");
        KV_LogDataSource* lidar = KV_LogDataSource_Create(2, "lidar");
        CHECK(KV_LogFile_AddDataSource(file, camera, NULL));
        CHECK(KV_LogFile_AddDataSource(file, lidar, NULL));
        KV_LogDataSource_Destroy(camera);
        KV_LogDataSource_Destroy(lidar);

        /* A batch with an unknown source in its middle writes nothing; the next follows on. */
        sources[20] = 9;
        EXPECT_ERROR(
            KVX_LogColumns(file, ENTRIES, sources, types, times, offsets, payloads, &error),
            "Attempted to log data against a data source that did not exist in the "
            "file.");
        sources[20] = 1;
        CHECK(KV_LogFile_GetEntryCount(file, &count, NULL) && count == 0);
        CHECK(KVX_LogColumns(file, 0, NULL, NULL, NULL, NULL, NULL, &error) && error == NULL);
        CHECK(KVX_LogColumns(file, 10, sources, types, times, offsets, payloads, &error));
        CHECK(KVX_LogColumns(file, ENTRIES - 10, sources + 10, types + 10, times + 10, offsets + 10,
                             payloads, &error));
        CHECK(KV_LogFile_GetEntryCount(file, &count, NULL) && count == ENTRIES);
        readBack(file, everything, secondSource, &room);
        KV_LogFile_Destroy(file);

        file = KV_LogFile_Open(path, NULL);
        EXPECT_ERROR(KVX_LogColumns(file, 1, sources, types, times, offsets, payloads, &error),
                     "Data cannot be logged into pre-existing log files.");
        readBack(file, everything, secondSource, &room);
        KV_LogFile_Destroy(file);
        KV_LogConfig_Destroy(config);
        remove(path);
    }

    snprintf(path, sizeof path, "%s/fresh.log", dir);
    KV_LogConfig* config = KV_LogConfig_Create("columns-test", "1", "UTC");
    KV_LogFile* file = KV_LogFile_Create(path, config, NULL);
    const uint64_t backwards[] = {0, 5, 4};
    EXPECT_ERROR(KVX_LogColumns(file, 2, sources, types, times, backwards, payloads, &error),
                 "The payload offsets cannot decrease.");
    EXPECT_ERROR(KVX_LogColumns(file, -1, sources, types, times, offsets, payloads, &error),
                 "The number of entries cannot be negative.");
    KV_LogFile_Destroy(file);
    KV_LogConfig_Destroy(config);
    KV_LogEntryIndexFilter_Destroy(everything);
    KV_LogEntryIndexFilter_Destroy(secondSource);
    remove(path);
    rmdir(dir);
    return failures == 0 ? 0 : (fprintf(stderr, "%d checks failed\n", failures), 1);
}
