// flat_calls: the input is a program of flat calls on a few handles of every kind: files made,
// opened, written, read, enumerated, sliced and cloned and destroyed in any order, records built,
// changed and read, and enumeration callbacks that destroy what they get, keep it, call back
// into the file or destroy the file itself. Every handle still alive at the end is destroyed, so
// LeakSanitizer sees every handle the library made.
//
// Besides crashes and leaks it checks the promises that KV_Log.h makes about every call: an
// error object exactly when a call fails, a look-up's out-parameter written only on success, a
// number query's -1 on failure.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <type_traits>
#include <vector>

#include "FuzzSupport.h"
#include "flat/KV_Log.h"

namespace {

using namespace Korvane::Fuzzing;

template <typename Handle>
using Slots = std::array<Handle*, 2>;

void destroy(KV_LogFile* handle) {
    KV_LogFile_Destroy(handle);
}
void destroy(KV_LogConfig* handle) {
    KV_LogConfig_Destroy(handle);
}
void destroy(KV_LogDataSource* handle) {
    KV_LogDataSource_Destroy(handle);
}
void destroy(KV_LogDataEntry* handle) {
    KV_LogDataEntry_Destroy(handle);
}
void destroy(KV_LogBookmark* handle) {
    KV_LogBookmark_Destroy(handle);
}
void destroy(KV_LogMetadata* handle) {
    KV_LogMetadata_Destroy(handle);
}
void destroy(KV_LogResource* handle) {
    KV_LogResource_Destroy(handle);
}
void destroy(KV_LogDataSourceProperty* handle) {
    KV_LogDataSourceProperty_Destroy(handle);
}
void destroy(KV_LogEntryIndexFilter* handle) {
    KV_LogEntryIndexFilter_Destroy(handle);
}

// Puts `handle` into `slot`, destroying what was there.
template <typename Handle>
void replace(Handle*& slot, Handle* handle) {
    destroy(slot);
    slot = handle;
}

// What an enumeration callback does with the handle it gets.
enum class Reaction { Destroy, Keep, Inspect, DestroyFile, CallBack, Count };

// The program, read front to back, one byte per choice, so that a program can be written by
// hand. Past its end every read gives zeros.
class ProgramReader {
public:
    ProgramReader(const std::uint8_t* data, std::size_t size) : data(data), size(size) {}

    bool done() const { return position >= size; }
    std::uint8_t byte() { return position < size ? data[position++] : 0; }
    bool flag() { return (byte() & 1) != 0; }

    // A number from `lowest` to `highest`, both included; they are at most 255 apart.
    template <typename T = int>
    T range(int lowest, int highest) {
        return static_cast<T>(lowest + byte() % (highest - lowest + 1));
    }

    // A value of `T` made of the next sizeof(T) bytes.
    template <typename T>
    T number() {
        static_assert(std::is_trivially_copyable_v<T>);
        std::uint8_t raw[sizeof(T)];
        for (std::uint8_t& part : raw) {
            part = byte();
        }
        T value;
        std::memcpy(&value, raw, sizeof(T));
        return value;
    }

    // A length byte, then that many bytes.
    std::vector<std::uint8_t> bytes(std::size_t longest) {
        const std::size_t length = byte() % (longest + 1);
        const std::size_t available = std::min(length, size - std::min(position, size));
        std::vector<std::uint8_t> taken(data + position, data + position + available);
        position += available;
        return taken;
    }

    std::string text() {
        const std::vector<std::uint8_t> raw = bytes(24);
        return std::string(raw.begin(), raw.end());
    }

private:
    const std::uint8_t* data;
    std::size_t size;
    std::size_t position = 0;
};

class Machine;

struct Enumeration {
    Machine* machine;
    Reaction reaction;
    std::size_t fileSlot;
};

class Machine {
public:
    explicit Machine(ProgramReader& input) : input(input) {
        std::filesystem::create_directory(scratchDir() / "dir");
        config = KV_LogConfig_Create("fuzz", "1.0", "UTC");
    }

    ~Machine() {
        for (KV_LogFile*& file : files) {
            replace(file, static_cast<KV_LogFile*>(nullptr));
        }
        replace(config, static_cast<KV_LogConfig*>(nullptr));
        replace(filter, static_cast<KV_LogEntryIndexFilter*>(nullptr));
        clear(sources);
        clear(entries);
        clear(bookmarks);
        clear(metadata);
        clear(resources);
        clear(properties);
    }

    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    void run() {
        for (int steps = 0; steps < 200 && !input.done(); ++steps) {
            step();
        }
    }

    // Called by the enumeration callbacks.
    template <typename Handle>
    void received(const Enumeration& enumeration, Handle* handle) {
        switch (enumeration.reaction) {
        case Reaction::Keep:
            replace(slotsOf(handle)[0], handle);
            return;
        case Reaction::Inspect:
            inspect(handle);
            break;
        case Reaction::DestroyFile:
            // The list is complete before the first callback, so the file may go at once.
            replace(files[enumeration.fileSlot], static_cast<KV_LogFile*>(nullptr));
            break;
        case Reaction::CallBack:
            if (KV_LogFile* file = files[enumeration.fileSlot]) {
                std::int32_t count = 0;
                KV_LogFile_GetEntryCount(file, &count, nullptr);
            }
            break;
        default:
            break;
        }
        destroy(handle);
    }

    void receivedId(std::int32_t entryId) {
        if (knownIds.size() < 16) {
            knownIds.push_back(entryId);
        }
    }

private:
    template <typename Handle>
    static void clear(Slots<Handle>& slots) {
        for (Handle*& slot : slots) {
            replace(slot, static_cast<Handle*>(nullptr));
        }
    }

    Slots<KV_LogDataSource>& slotsOf(KV_LogDataSource*) { return sources; }
    Slots<KV_LogDataEntry>& slotsOf(KV_LogDataEntry*) { return entries; }
    Slots<KV_LogBookmark>& slotsOf(KV_LogBookmark*) { return bookmarks; }
    Slots<KV_LogMetadata>& slotsOf(KV_LogMetadata*) { return metadata; }
    Slots<KV_LogResource>& slotsOf(KV_LogResource*) { return resources; }
    Slots<KV_LogDataSourceProperty>& slotsOf(KV_LogDataSourceProperty*) { return properties; }

    // ---- What the input chooses --------------------------------------------------------------

    std::size_t fileSlot() { return input.range<std::size_t>(0, 2); }
    std::size_t recordSlot() { return input.range<std::size_t>(0, 1); }
    std::string text() { return input.text(); }

    std::vector<std::uint8_t> bytes() {
        std::vector<std::uint8_t> data = input.bytes(48);
        if (!data.empty() && input.flag()) {
            data.resize(data.size() * 128, data.back());  // large enough to span pages
        }
        return data;
    }

    // Paths of the scratch directory, a directory and a path under a missing directory; with
    // `orEmpty` also the empty path, which slice and clone read as "a new name beside the
    // source". Files are never made at the empty path, so that name stays in the scratch
    // directory too.
    std::string path(bool orEmpty = false) {
        static const char* const names[] = {"a.log", "b.log", "c.log", "dir", "missing/x.log"};
        const std::size_t choice = input.range<std::size_t>(0, orEmpty ? 5 : 4);
        return choice == 5 ? std::string() : (scratchDir() / names[choice]).string();
    }

    std::int32_t entryId() {
        if (!knownIds.empty() && input.flag()) {
            return knownIds[input.byte() % knownIds.size()];
        }
        return input.range<std::int32_t>(-2, 40);
    }

    KV_LogDataSourceType sourceType() {
        return static_cast<KV_LogDataSourceType>(input.range(0, 4));
    }

    // ---- Checks of the interface's promises --------------------------------------------------

    KV_LogError** errorOut(KV_LogError*& error) {
        error = nullptr;
        return input.flag() ? &error : nullptr;
    }

    // An error object comes exactly with a failure, when one was asked for.
    void checkError(bool succeeded, KV_LogError* error, KV_LogError** asked) {
        if (asked != nullptr) {
            require(succeeded == (error == nullptr), "error object and result disagree");
        }
        if (error != nullptr) {
            const char* message = nullptr;
            KV_LogError_GetErrorMessage(error, &message);
            require(message != nullptr && std::strlen(message) > 0, "empty error message");
            KV_LogError_Destroy(error);
        }
    }

    void touch(const std::uint8_t* data, std::uint64_t size) {
        for (std::uint64_t i = 0; i < size; ++i) {
            sink += data[i];
        }
    }

    void touch(const char* textOut) { sink += std::strlen(textOut); }

    // ---- Reading records ---------------------------------------------------------------------

    void inspect(const KV_LogDataSource* source) {
        std::int8_t id = 0;
        KV_LogDataSourceType type{};
        const char* name = nullptr;
        KV_LogDataSource_GetId(source, &id);
        KV_LogDataSource_GetType(source, &type);
        KV_LogDataSource_GetName(source, &name);
        touch(name);
    }

    void inspect(const KV_LogDataEntry* entry) {
        std::int8_t sourceId = 0;
        std::int32_t type = 0;
        std::int64_t timestamp = 0;
        std::uint64_t size = 0;
        const std::uint8_t* data = nullptr;
        KV_LogDataEntry_GetDataSourceId(entry, &sourceId);
        KV_LogDataEntry_GetType(entry, &type);
        KV_LogDataEntry_GetTimestamp(entry, &timestamp);
        KV_LogDataEntry_GetData(entry, &size, &data);
        touch(data, size);
    }

    void inspect(const KV_LogBookmark* bookmark) {
        std::int32_t id = 0;
        const char* title = nullptr;
        const char* comment = nullptr;
        std::uint64_t size = 0;
        const std::uint8_t* payload = nullptr;
        KV_LogBookmark_GetEntryId(bookmark, &id);
        KV_LogBookmark_GetTitle(bookmark, &title);
        KV_LogBookmark_GetComment(bookmark, &comment);
        KV_LogBookmark_GetPayload(bookmark, &size, &payload);
        touch(title);
        touch(comment);
        touch(payload, size);
    }

    // Both integer readers take the same values, and a value reads as one kind at most.
    void inspect(const KV_LogMetadata* item) {
        std::int32_t narrow = 0;
        std::int64_t wide = 0;
        double real = 0;
        const char* value = nullptr;
        const bool isNarrow = KV_LogMetadata_GetInt32(item, &narrow);
        const bool isWide = KV_LogMetadata_GetInt64(item, &wide);
        const bool isReal = KV_LogMetadata_GetDouble(item, &real);
        const bool isText = KV_LogMetadata_GetString(item, &value);
        require(isNarrow == isWide, "the two integer readers disagree");
        require(isWide + isReal + isText <= 1, "a metadata value reads as two kinds");
        if (isText) {
            touch(value);
        }
    }

    void inspect(const KV_LogDataSourceProperty* property) {
        std::int8_t sourceId = 0;
        const char* name = nullptr;
        std::int32_t narrow = 0;
        std::int64_t wide = 0;
        double real = 0;
        const char* value = nullptr;
        KV_LogDataSourceProperty_GetDataSourceId(property, &sourceId);
        KV_LogDataSourceProperty_GetPropertyName(property, &name);
        touch(name);
        KV_LogDataSourceProperty_GetInt32(property, &narrow);
        KV_LogDataSourceProperty_GetInt64(property, &wide);
        KV_LogDataSourceProperty_GetDouble(property, &real);
        if (KV_LogDataSourceProperty_GetString(property, &value)) {
            touch(value);
        }
    }

    void inspect(const KV_LogResource* resource) {
        std::uint64_t size = 0;
        const std::uint8_t* data = nullptr;
        KV_LogResource_GetData(resource, &size, &data);
        touch(data, size);
    }

    void inspectSomeRecord() {
        const std::size_t slot = recordSlot();
        switch (input.range(0, 5)) {
        case 0:
            if (sources[slot] != nullptr) {
                inspect(sources[slot]);
            }
            break;
        case 1:
            if (entries[slot] != nullptr) {
                inspect(entries[slot]);
            }
            break;
        case 2:
            if (bookmarks[slot] != nullptr) {
                inspect(bookmarks[slot]);
            }
            break;
        case 3:
            if (metadata[slot] != nullptr) {
                inspect(metadata[slot]);
            }
            break;
        case 4:
            if (properties[slot] != nullptr) {
                inspect(properties[slot]);
            }
            break;
        default:
            if (resources[slot] != nullptr) {
                inspect(resources[slot]);
            }
            break;
        }
    }

    // ---- Making and changing records ---------------------------------------------------------
    // Each maker reads the slot first and then the values, in the order of the statements.

    void makeSource() {
        const std::size_t slot = recordSlot();
        const KV_LogDataSourceType type = sourceType();
        replace(sources[slot], KV_LogDataSource_Create(type, text().c_str()));
    }

    void makeBookmark() {
        const std::size_t slot = recordSlot();
        const std::int32_t id = entryId();
        const std::string title = text();
        const std::string comment = text();
        const std::vector<std::uint8_t> payload = bytes();
        replace(bookmarks[slot], KV_LogBookmark_Create(id, title.c_str(), comment.c_str(),
                                                       payload.data(), payload.size()));
    }

    void makeResource() {
        const std::size_t slot = recordSlot();
        const std::string name = input.flag() ? std::string("thumbnail") : text();
        const std::vector<std::uint8_t> data = bytes();
        replace(resources[slot], KV_LogResource_Create(name.c_str(), data.data(), data.size()));
    }

    void makeMetadata() {
        const std::size_t slot = recordSlot();
        const std::string key = text();
        KV_LogMetadata* item = nullptr;
        switch (input.range(0, 3)) {
        case 0:
            item = KV_LogMetadata_CreateInt32(key.c_str(), input.number<std::int32_t>());
            break;
        case 1:
            item = KV_LogMetadata_CreateInt64(key.c_str(), input.number<std::int64_t>());
            break;
        case 2:
            item = KV_LogMetadata_CreateDouble(key.c_str(), input.number<double>());
            break;
        default:
            item = KV_LogMetadata_CreateString(key.c_str(), text().c_str());
            break;
        }
        replace(metadata[slot], item);
    }

    void makeProperty() {
        const std::size_t slot = recordSlot();
        const KV_LogDataSource* source = sources[recordSlot()];
        if (source == nullptr) {
            return;
        }
        const std::string name = text();
        KV_LogDataSourceProperty* property = nullptr;
        switch (input.range(0, 3)) {
        case 0:
            property = KV_LogDataSourceProperty_CreateInt32(source, name.c_str(),
                                                            input.number<std::int32_t>());
            break;
        case 1:
            property = KV_LogDataSourceProperty_CreateInt64(source, name.c_str(),
                                                            input.number<std::int64_t>());
            break;
        case 2: {
            const double value = input.number<double>();
            property = KV_LogDataSourceProperty_CreateDouble(source, name.c_str(), value);
            break;
        }
        default:
            property = KV_LogDataSourceProperty_CreateString(source, name.c_str(), text().c_str());
            break;
        }
        replace(properties[slot], property);
    }

    void makeEntry() {
        const std::size_t slot = recordSlot();
        const KV_LogDataSource* source = sources[recordSlot()];
        if (source == nullptr) {
            return;
        }
        const std::vector<std::uint8_t> data = bytes();
        KV_LogDataEntry* entry =
            KV_LogDataEntry_Create(source, input.range(0, 3), data.data(), data.size());
        if (entry != nullptr && input.flag()) {
            KV_LogDataEntry_SetTimestamp(entry, input.number<std::int64_t>());
        }
        replace(entries[slot], entry);
    }

    void changeBookmark() {
        KV_LogBookmark* bookmark = bookmarks[recordSlot()];
        if (bookmark == nullptr) {
            return;
        }
        switch (input.range(0, 2)) {
        case 0:
            KV_LogBookmark_SetTitle(bookmark, text().c_str());
            break;
        case 1:
            KV_LogBookmark_SetComment(bookmark, text().c_str());
            break;
        default: {
            const std::vector<std::uint8_t> payload = bytes();
            KV_LogBookmark_SetPayload(bookmark, payload.data(), payload.size());
            break;
        }
        }
    }

    void changeFilter() {
        if (filter == nullptr) {
            filter = KV_LogEntryIndexFilter_Create();
            return;
        }
        switch (input.range(0, 3)) {
        case 0:
            KV_LogEntryIndexFilter_AddDataType(filter, input.range(0, 3));
            break;
        case 1:
            KV_LogEntryIndexFilter_AddDataSource(filter, input.range<std::int8_t>(-1, 4));
            break;
        case 2:
            KV_LogEntryIndexFilter_AddDataSourceType(filter, sourceType());
            break;
        default:
            replace(filter, KV_LogEntryIndexFilter_Create());
            break;
        }
    }

    void changeConfig() {
        KV_LogError* error = nullptr;
        switch (input.range(0, 2)) {
        case 0: {
            const std::string name = text();
            const std::string version = text();
            replace(config, KV_LogConfig_Create(name.c_str(), version.c_str(), text().c_str()));
            break;
        }
        case 1: {
            KV_LogError** asked = errorOut(error);
            const std::int8_t level = input.range<std::int8_t>(-3, 11);
            const bool ok = KV_LogConfig_SetCompressionLevel(config, level, asked);
            checkError(ok, error, asked);
            std::int8_t stored = 0;
            KV_LogConfig_GetCompressionLevel(config, &stored);
            require(!ok || stored == level, "a level that was accepted is not kept");
            break;
        }
        default: {
            KV_LogConfig_SetTimeZone(config, text().c_str());
            const char* zone = nullptr;
            KV_LogConfig_GetTimeZone(config, &zone);
            touch(zone);
            break;
        }
        }
    }

    // ---- Files -------------------------------------------------------------------------------

    void makeFile(bool create) {
        const std::size_t slot = fileSlot();
        const std::string where = path();
        KV_LogError* error = nullptr;
        KV_LogError** asked = errorOut(error);
        KV_LogFile* file = create ? KV_LogFile_Create(where.c_str(), config, asked)
                                  : KV_LogFile_Open(where.c_str(), asked);
        checkError(file != nullptr, error, asked);
        if (file != nullptr) {
            replace(files[slot], file);
        }
    }

    // Some bytes where nothing stands yet, for KV_LogFile_Open to meet.
    void writeForeignFile() {
        const std::string where = path();
        const std::vector<std::uint8_t> data = bytes();
        std::error_code ignored;
        if (!std::filesystem::exists(where, ignored)) {
            writeFile(where, data.data(), data.size());
        }
    }

    void writeToFile(KV_LogFile* file) {
        const std::size_t slot = recordSlot();
        KV_LogError* error = nullptr;
        KV_LogError** asked = errorOut(error);
        bool ok = false;
        switch (input.range(0, 7)) {
        case 0:
            if (sources[slot] == nullptr) {
                return;
            }
            ok = KV_LogFile_AddDataSource(file, sources[slot], asked);
            break;
        case 1:
            if (properties[slot] == nullptr) {
                return;
            }
            ok = KV_LogFile_AddDataSourceProperty(file, properties[slot], asked);
            break;
        case 2:
            if (entries[slot] == nullptr) {
                return;
            }
            ok = KV_LogFile_LogData(file, entries[slot], asked);
            break;
        case 3:
            if (metadata[slot] == nullptr) {
                return;
            }
            ok = KV_LogFile_AddMetadata(file, metadata[slot], asked);
            break;
        case 4:
            if (resources[slot] == nullptr) {
                return;
            }
            ok = KV_LogFile_AddResource(file, resources[slot], asked);
            break;
        case 5:
            if (bookmarks[slot] == nullptr) {
                return;
            }
            ok = KV_LogFile_AddBookmark(file, bookmarks[slot], asked);
            break;
        case 6:
            if (bookmarks[slot] == nullptr) {
                return;
            }
            ok = KV_LogFile_UpdateBookmark(file, bookmarks[slot], asked);
            break;
        default:
            if (bookmarks[slot] == nullptr) {
                return;
            }
            ok = KV_LogFile_RemoveBookmark(file, bookmarks[slot], asked);
            break;
        }
        checkError(ok, error, asked);
    }

    void askNumber(KV_LogFile* file) {
        using Query = bool (*)(KV_LogFile*, std::int32_t*, KV_LogError**);
        static const Query queries[] = {KV_LogFile_GetEntryCount, KV_LogFile_GetFirstEntryId,
                                        KV_LogFile_GetLastEntryId};
        KV_LogError* error = nullptr;
        KV_LogError** asked = errorOut(error);
        std::int32_t number = 12345;
        const bool ok = queries[input.range(0, 2)](file, &number, asked);
        require(ok || number == -1, "a failed number query does not give -1");
        require(number != 12345, "a number query left its out-parameter alone");
        checkError(ok, error, asked);
    }

    // A look-up writes its out-parameter on success only.
    template <typename Handle, typename LookUp>
    void lookUp(LookUp&& call) {
        KV_LogError* error = nullptr;
        KV_LogError** asked = errorOut(error);
        Handle* found = nullptr;
        const bool ok = call(&found, asked);
        require(ok == (found != nullptr), "a look-up's out-parameter and result disagree");
        checkError(ok, error, asked);
        if (found != nullptr) {
            inspect(found);
            if (input.flag()) {
                replace(slotsOf(found)[recordSlot()], found);
            } else {
                destroy(found);
            }
        }
    }

    void lookUpIn(KV_LogFile* file) {
        switch (input.range(0, 3)) {
        case 0: {
            const KV_LogDataSource* source = sources[recordSlot()];
            if (source == nullptr) {
                return;
            }
            const std::string name = text();
            lookUp<KV_LogDataSourceProperty>([&](auto** out, KV_LogError** error) {
                return KV_LogFile_GetDataSourceProperty(file, source, name.c_str(), out, error);
            });
            break;
        }
        case 1: {
            const std::string key = text();
            lookUp<KV_LogMetadata>([&](auto** out, KV_LogError** error) {
                return KV_LogFile_GetMetadata(file, key.c_str(), out, error);
            });
            break;
        }
        case 2: {
            const std::string name = input.flag() ? std::string("thumbnail") : text();
            lookUp<KV_LogResource>([&](auto** out, KV_LogError** error) {
                return KV_LogFile_GetResource(file, name.c_str(), out, error);
            });
            break;
        }
        default: {
            const std::int32_t id = entryId();
            lookUp<KV_LogDataEntry>([&](auto** out, KV_LogError** error) {
                return KV_LogFile_ReadEntry(file, id, out, error);
            });
            break;
        }
        }
    }

    void enumerate(std::size_t slot) {
        KV_LogFile* file = files[slot];
        Enumeration enumeration{
            this, static_cast<Reaction>(input.range(0, static_cast<int>(Reaction::Count) - 1)),
            slot};
        KV_LogError* error = nullptr;
        KV_LogError** asked = errorOut(error);
        switch (input.range(0, 6)) {
        case 0:
            checkError(
                KV_LogFile_GetDataSources(file, receive<KV_LogDataSource>, &enumeration, asked),
                error, asked);
            break;
        case 1:
            checkError(KV_LogFile_GetAllDataSourceProperties(
                           file, receive<KV_LogDataSourceProperty>, &enumeration, asked),
                       error, asked);
            break;
        case 2:
            KV_LogFile_GetAllMetadata(file, receive<KV_LogMetadata>, &enumeration);
            break;
        case 3:
            KV_LogFile_GetAllResources(file, receive<KV_LogResource>, &enumeration);
            break;
        case 4:
            KV_LogFile_GetBookmarks(file, receive<KV_LogBookmark>, &enumeration);
            break;
        case 5: {
            if (filter == nullptr) {
                return;
            }
            const std::int32_t first = input.flag() ? -1 : entryId();
            const std::int32_t last = input.flag() ? -1 : entryId();
            KV_LogFile_ReadEntries(file, first, last, filter, input.range<std::int32_t>(-2, 8),
                                   receive<KV_LogDataEntry>, &enumeration);
            break;
        }
        default:
            if (filter == nullptr) {
                return;
            }
            checkError(KV_LogFile_GetEntryIndex(file, filter, receiveId, this, asked), error,
                       asked);
            break;
        }
    }

    void derive(KV_LogFile* file, bool whole) {
        const std::size_t target = fileSlot();
        const std::string where = path(true);
        KV_LogError* error = nullptr;
        KV_LogError** asked = errorOut(error);
        KV_LogFile* derived = nullptr;
        if (whole) {
            derived = KV_LogAlgorithms_Clone(file, where.c_str(), config, asked);
        } else {
            const std::int32_t first = entryId();
            derived = KV_LogAlgorithms_Slice(file, first, entryId(), where.c_str(), config, asked);
        }
        checkError(derived != nullptr, error, asked);
        if (derived != nullptr) {
            replace(files[target], derived);
        }
    }

    void step() {
        const int operation = input.range(0, 19);
        switch (operation) {
        case 0:
            return makeFile(true);
        case 1:
            return makeFile(false);
        case 2:
            return replace(files[fileSlot()], static_cast<KV_LogFile*>(nullptr));
        case 3:
            return writeForeignFile();
        case 4:
            return changeConfig();
        case 5:
            return makeSource();
        case 6:
            return makeEntry();
        case 7:
            return makeBookmark();
        case 8:
            return changeBookmark();
        case 9:
            return makeMetadata();
        case 10:
            return makeResource();
        case 11:
            return makeProperty();
        case 12:
            return changeFilter();
        case 13:
            return inspectSomeRecord();
        default:
            break;
        }

        // The rest work on an open file.
        const std::size_t slot = fileSlot();
        KV_LogFile* file = files[slot];
        if (file == nullptr) {
            return;
        }
        switch (operation) {
        case 14:
            return writeToFile(file);
        case 15:
            return askNumber(file);
        case 16:
            return lookUpIn(file);
        case 17:
            return enumerate(slot);
        case 18:
            return derive(file, true);
        default:
            return derive(file, false);
        }
    }

    template <typename Handle>
    static void receive(void* userData, Handle* handle) {
        const auto& enumeration = *static_cast<const Enumeration*>(userData);
        enumeration.machine->received(enumeration, handle);
    }

    static void receiveId(void* userData, std::int32_t entryId) {
        static_cast<Machine*>(userData)->receivedId(entryId);
    }

    ProgramReader& input;
    std::array<KV_LogFile*, 3> files{};
    KV_LogConfig* config = nullptr;
    KV_LogEntryIndexFilter* filter = nullptr;
    Slots<KV_LogDataSource> sources{};
    Slots<KV_LogDataEntry> entries{};
    Slots<KV_LogBookmark> bookmarks{};
    Slots<KV_LogMetadata> metadata{};
    Slots<KV_LogResource> resources{};
    Slots<KV_LogDataSourceProperty> properties{};
    std::vector<std::int32_t> knownIds;
    // Bytes and texts handed out are added up here, so that every borrowed pointer is read.
    std::uint64_t sink = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ProgramReader input(data, size);
    {
        Machine machine(input);
        machine.run();
    }
    clearScratchDir();
    return 0;
}
