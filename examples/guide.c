/* The C example of the API reference's guide: the flat interface records one entry and reads it
 * back. The reference quotes the part between the two "flat" markers.
 *
 * Usage: korvane-guide-c FOLDER (it writes FOLDER/camera.kvlog). Exits with 1 on a failure. */

#include <korvane/logging/KV_Log.h>
#include <korvane/logging/KV_LogExtensions.h>
#include <stdio.h>
#include <string.h>

static void printEntry(void* userData, KV_LogDataEntry* entry) {
    int* count = (int*)userData;
    uint64_t size = 0;
    const uint8_t* data = NULL;
    KV_LogDataEntry_GetData(entry, &size, &data);
    printf("entry of %llu bytes\n", (unsigned long long)size);
    *count += size == 5 && memcmp(data, "hello", 5) == 0;
    KV_LogDataEntry_Destroy(entry); /* every handle handed out is the caller's */
}

int main(int argc, char** argv) {
    int count = 0;
    char path[4096];
    if (argc != 2 || snprintf(path, sizeof path, "%s/camera.kvlog", argv[1]) >= (int)sizeof path) {
        fprintf(stderr, "usage: korvane-guide-c FOLDER\n");
        return 2;
    }
    remove(path); /* KV_LogFile_Create never overwrites: start afresh on every run */
    /* [flat] */
    KV_LogError* error = NULL;
    KV_LogConfig* config = KV_LogConfig_Create("recorder", "1.0", "UTC");
    KV_LogFile* file = KV_LogFile_Create(path, config, &error);
    KV_LogConfig_Destroy(config);
    if (file == NULL) {
        const char* message = NULL;
        KV_LogError_GetErrorMessage(error, &message);
        fprintf(stderr, "%s\n", message);
        KV_LogError_Destroy(error);
        return 1;
    }
    KV_LogDataSource* camera = KV_LogDataSource_Create(1, "camera");
    KV_LogFile_AddDataSource(file, camera, NULL); /* writes the assigned id into camera */
    KV_LogDataEntry* entry = KV_LogDataEntry_Create(camera, 7, (const uint8_t*)"hello", 5);
    KV_LogFile_LogData(file, entry, NULL);
    KV_LogDataEntry_Destroy(entry);
    KV_LogDataSource_Destroy(camera);
    KV_LogFile_Destroy(file);

    KV_LogFile* reader = KVX_OpenReadOnly(path, NULL); /* never writes to the file */
    KV_LogEntryIndexFilter* all = KV_LogEntryIndexFilter_Create();
    KV_LogFile_ReadEntries(reader, -1, -1, all, -1, printEntry, &count);
    KV_LogEntryIndexFilter_Destroy(all);
    KV_LogFile_Destroy(reader);
    /* [flat] */
    return count == 1 ? 0 : 1;
}
