// flat_calls: the input is a program of flat calls on two file handles (files made, opened,
// overwritten, sliced and cloned in any order, written and read, enumerated by callbacks that
// destroy the file), checking their promises: an error object exactly on failure, a look-up's
// out-parameter set on success only, -1 from a failed count.

#include <fuzzer/FuzzedDataProvider.h>

#include <fstream>
#include <functional>
#include <utility>

#include "FuzzSupport.h"
#include "flat/KV_Log.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using Korvane::Fuzzing::require;
    const std::filesystem::path dir = Korvane::Fuzzing::freshScratchDir();
    // A folder, a missing folder's file, and for slices and clones a name beside the source.
    const std::string paths[] = {dir / "a.log", dir / "b.log", dir, dir / "no/x.log", ""};
    FuzzedDataProvider in(data, size);
    KV_LogFile* files[4] = {};
    KV_LogConfig* config = KV_LogConfig_Create("fuzz", "1.0", "UTC");
    KV_LogDataSource* source = KV_LogDataSource_Create(KV_LogDataSourceType(1), "camera");
    KV_LogEntryIndexFilter* all = KV_LogEntryIndexFilter_Create();
    // Destroys the file in `slot`, maybe the one it enumerates; files[2] and [3] stay empty.
    const KV_LogDataEntryCallback drop = [](void* slot, KV_LogDataEntry* entry) {
        KV_LogFile_Destroy(std::exchange(*static_cast<KV_LogFile**>(slot), nullptr));
        KV_LogDataEntry_Destroy(entry);
    };
    for (int step = 0; step < 64 && in.remaining_bytes() > 0; ++step) {
        const int operation = in.ConsumeIntegralInRange(0, 14);
        KV_LogFile*& file = files[in.ConsumeBool()];
        const char* path = paths[in.ConsumeIntegralInRange(0, operation < 4 ? 3 : 4)].c_str();
        const std::int32_t id = in.ConsumeIntegralInRange(-2, 40);
        const auto bytes = in.ConsumeBytes<std::uint8_t>(in.ConsumeIntegralInRange(0, 9000));
        KV_LogError* error = nullptr;
        KV_LogError** asked = in.ConsumeBool() ? &error : nullptr;
        KV_LogDataEntry* entry = KV_LogDataEntry_Create(source, id, bytes.data(), bytes.size());
        KV_LogBookmark* mark = KV_LogBookmark_Create(id, path, "", bytes.data(), bytes.size());
        KV_LogMetadata* found = nullptr;
        KV_LogDataEntry* read = nullptr;
        std::int32_t count = 12345;
        KV_LogFile* made = nullptr;
        const std::function<bool()> operations[] = {
            [&] { return made = KV_LogFile_Create(path, config, asked); },
            [&] { return made = KV_LogFile_Open(path, asked); },
            [&] { return KV_LogConfig_SetCompressionLevel(config, std::int8_t(id - 8), asked); },
            [&] {
                return bool(std::ofstream(paths[0]) << std::string(bytes.begin(), bytes.end()));
            },
            [&] { return made = KV_LogAlgorithms_Clone(file, path, config, asked); },
            [&] { return made = KV_LogAlgorithms_Slice(file, id, id + 3, path, config, asked); },
            [&] { return KV_LogFile_AddDataSource(file, source, asked); },
            [&] { return KV_LogFile_LogData(file, entry, asked); },
            [&] { return KV_LogFile_AddBookmark(file, mark, asked); },
            [&] { return KV_LogFile_UpdateBookmark(file, mark, asked); },
            [&] { return KV_LogFile_RemoveBookmark(file, mark, asked); },
            [&] { return KV_LogFile_ReadEntries(file, -1, id, all, 3, drop, &files[id & 3]); },
            [&] { return KV_LogFile_GetMetadata(file, id % 2 ? "logVersion" : "", &found, asked); },
            [&] { return KV_LogFile_ReadEntry(file, id, &read, asked); },
            [&] { return KV_LogFile_GetLastEntryId(file, &count, asked); },
        };
        if (operation < 4 || file != nullptr) {  // from 4 on with an open file
            const bool ok = operations[operation]();
            // ReadEntries (11) takes no error object; 12 and 13 look up, 14 counts.
            require(!asked || operation == 11 || ok == !error, "error object and result differ");
            require(operation < 12 || operation > 13 || ok == (found || read), "look-up differs");
            require(operation != 14 || ok || count == -1, "a failed count does not give -1");
        }
        if (made != nullptr) {
            KV_LogFile_Destroy(std::exchange(file, made));
        }
        KV_LogError_Destroy(error);
        KV_LogDataEntry_Destroy(entry);
        KV_LogDataEntry_Destroy(read);
        KV_LogBookmark_Destroy(mark);
        KV_LogMetadata_Destroy(found);
    }
    KV_LogFile_Destroy(files[0]);
    KV_LogFile_Destroy(files[1]);
    KV_LogConfig_Destroy(config);
    KV_LogDataSource_Destroy(source);
    KV_LogEntryIndexFilter_Destroy(all);
    return 0;
}
