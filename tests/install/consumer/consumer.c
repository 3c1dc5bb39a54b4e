/* A C99 program built only against the installed library: records through the flat interface,
 * reopens the file for reading only and reads the entry back. Usage: consumer-c FOLDER. */
#include <korvane/logging/KV_Log.h>
#include <korvane/logging/KV_LogExtensions.h>

#include <stdio.h>
#include <string.h>

static void count(void* userData, KV_LogDataEntry* entry) {
    uint64_t size = 0;
    const uint8_t* data = NULL;
    KV_LogDataEntry_GetData(entry, &size, &data);
    *(int*)userData += size == 3 && memcmp(data, "abc", 3) == 0;
    KV_LogDataEntry_Destroy(entry);
}

int main(int argc, char** argv) {
    char path[4096];
    int matching = 0;
    if (argc != 2 || snprintf(path, sizeof path, "%s/c99.log", argv[1]) >= (int)sizeof path) {
        return 2;
    }
    KV_LogConfig* config = KV_LogConfig_Create("consumer-c", "1", "UTC");
    KV_LogFile* file = KV_LogFile_Create(path, config, NULL);
    KV_LogDataSource* source = KV_LogDataSource_Create(1, "s");
    const bool added = file != NULL && KV_LogFile_AddDataSource(file, source, NULL);
    /* The entry takes the id that the file gave the source. */
    KV_LogDataEntry* entry = KV_LogDataEntry_Create(source, 1, (const uint8_t*)"abc", 3);
    const bool logged = added && KV_LogFile_LogData(file, entry, NULL);
    KV_LogDataEntry_Destroy(entry);
    KV_LogDataSource_Destroy(source);
    KV_LogFile_Destroy(file);
    KV_LogConfig_Destroy(config);

    KV_LogFile* reader = KVX_OpenReadOnly(path, NULL);
    KV_LogEntryIndexFilter* all = KV_LogEntryIndexFilter_Create();
    const bool read = reader != NULL && KV_LogFile_ReadEntries(reader, -1, -1, all, -1, count,
                                                               &matching);
    KV_LogEntryIndexFilter_Destroy(all);
    KV_LogFile_Destroy(reader);
    puts(logged && read && matching == 1 ? "consumer-c ok" : "consumer-c FAILED");
    return logged && read && matching == 1 ? 0 : 1;
}
