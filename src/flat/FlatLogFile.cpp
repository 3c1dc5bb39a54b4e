// The functions that work on an open KV_LogFile, and slice and clone. Each one forwards to one
// operation of LogFileInterface or Algorithms and translates the result by one of five patterns:
// write, number, look-up, enumeration, derived file.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "algorithms/Algorithms.h"
#include "flat/GuardedCall.h"
#include "flat/Handles.h"
#include "flat/KV_Log.h"

using namespace Korvane::Logging;

namespace {

// Stores the text of the file's latest failure in `*error`: the only way a text of the class
// reaches a flat caller.
void saveLastError(const KV_LogFile* file, KV_LogError** error) noexcept {
    if (error == nullptr) {
        return;
    }
    failSafe(false, error, [&] {
        saveError(error, file->logFile->getLastError());
        return true;
    });
}

bool refuse(KV_LogError** error, const char* message) noexcept {
    saveError(error, message);
    return false;
}

// Write: true when the operation succeeds, else the file's last error.
template <typename Operation>
bool writeThrough(KV_LogFile* file, KV_LogError** error, Operation&& operation) noexcept {
    return failSafe(false, error, [&] {
        if (operation(*file->logFile)) {
            return true;
        }
        saveLastError(file, error);
        return false;
    });
}

// Number: the result always goes to `out`; -1 is a failure with the file's last error.
bool reportNumber(KV_LogFile* file, std::int32_t (LogFileInterface::*operation)() const,
                  std::int32_t* out, KV_LogError** error) noexcept {
    // Also what the caller sees when the operation throws.
    *out = -1;
    return failSafe(false, error, [&] {
        *out = (file->logFile.get()->*operation)();
        if (*out != -1) {
            return true;
        }
        saveLastError(file, error);
        return false;
    });
}

// Look-up: `find` gives the record of the new handle, or nothing, which is reported with
// `missing` whatever the cause; `*out` is written only on success.
template <typename Handle, typename Find>
bool lookUp(KV_LogFile* file, Handle** out, const char* missing, KV_LogError** error,
            Find&& find) noexcept {
    return failSafe(false, error, [&] {
        std::optional<RecordOf<Handle>> found = find(std::as_const(*file->logFile));
        if (!found) {
            return refuse(error, missing);
        }
        *out = reinterpret_cast<Handle*>(new RecordOf<Handle>(std::move(*found)));
        return true;
    });
}

enum class EmptyList { Fails, Succeeds };

// Enumeration: reads the whole list, then hands each element to `callback` in a new handle, in
// order, on this thread. The file is not touched once the first callback runs, so a callback may
// use it, or even destroy it. An exception from the read, or an element that cannot be
// allocated, ends the enumeration with false.
template <typename Handle, typename Read, typename Callback>
bool enumerate(KV_LogFile* file, EmptyList empty, Read&& read, Callback callback, void* userData,
               KV_LogError** error) noexcept {
    std::vector<RecordOf<Handle>> list;
    const bool readOk = failSafe(false, error, [&] {
        list = read(std::as_const(*file->logFile));
        return true;
    });
    if (!readOk) {
        return false;
    }
    if (list.empty()) {
        if (empty == EmptyList::Succeeds) {
            return true;
        }
        saveLastError(file, error);
        return false;
    }
    for (RecordOf<Handle>& element : list) {
        Handle* handle = adopt<Handle>(std::move(element), error);
        if (handle == nullptr) {
            return false;
        }
        callback(userData, handle);
    }
    return true;
}

// Derived file: runs slice or clone inside the translation frame; a null result is reported
// with `failed`.
template <typename Run>
KV_LogFile* deriveFile(bool acceptsData, const char* failed, KV_LogError** error,
                       Run&& run) noexcept {
    KV_LogFile* result = nullptr;
    guardedCall(error, [&] {
        std::unique_ptr<LogFileInterface> logFile = run();
        if (!logFile) {
            saveError(error, failed);
            return;
        }
        result = new KV_LogFile{std::move(logFile), acceptsData};
    });
    return result;
}

}  // namespace

// ---- Writes ----------------------------------------------------------------------------------

bool KV_LogFile_AddDataSource(KV_LogFile* file, KV_LogDataSource* source,
                              KV_LogError** error) noexcept {
    if (!file->acceptsData) {
        return refuse(error, "Data sources cannot be added to pre-existing log files.");
    }
    // The writable overload: the file stores the id that it assigns in the caller's record.
    return writeThrough(file, error, [&](LogFileInterface& log) {
        DataSource& writable = record(source);
        return log.addDataSource(writable);
    });
}

bool KV_LogFile_AddDataSourceProperty(KV_LogFile* file, const KV_LogDataSourceProperty* property,
                                      KV_LogError** error) noexcept {
    if (!file->acceptsData) {
        return refuse(error, "Data source properties cannot be added to pre-existing log files.");
    }
    return writeThrough(file, error, [&](LogFileInterface& log) {
        return log.addDataSourceProperty(record(property));
    });
}

bool KV_LogFile_LogData(KV_LogFile* file, const KV_LogDataEntry* entry,
                        KV_LogError** error) noexcept {
    if (!file->acceptsData) {
        return refuse(error, "Data cannot be logged into pre-existing log files.");
    }
    return writeThrough(file, error,
                        [&](LogFileInterface& log) { return log.logData(record(entry)); });
}

bool KV_LogFile_AddMetadata(KV_LogFile* file, const KV_LogMetadata* metadata,
                            KV_LogError** error) noexcept {
    return writeThrough(file, error, [&](LogFileInterface& log) {
        const LogMetadataEntry& entry = record(metadata);
        return log.addMetadata(entry.key, entry.value);
    });
}

bool KV_LogFile_AddResource(KV_LogFile* file, const KV_LogResource* resource,
                            KV_LogError** error) noexcept {
    return writeThrough(file, error, [&](LogFileInterface& log) {
        const LogResourceEntry& entry = record(resource);
        return log.addResource(entry.name, entry.data);
    });
}

bool KV_LogFile_AddBookmark(KV_LogFile* file, const KV_LogBookmark* bookmark,
                            KV_LogError** error) noexcept {
    return writeThrough(file, error,
                        [&](LogFileInterface& log) { return log.addBookmark(record(bookmark)); });
}

bool KV_LogFile_UpdateBookmark(KV_LogFile* file, const KV_LogBookmark* bookmark,
                               KV_LogError** error) noexcept {
    return writeThrough(
        file, error, [&](LogFileInterface& log) { return log.updateBookmark(record(bookmark)); });
}

bool KV_LogFile_RemoveBookmark(KV_LogFile* file, const KV_LogBookmark* bookmark,
                               KV_LogError** error) noexcept {
    return writeThrough(
        file, error, [&](LogFileInterface& log) { return log.removeBookmark(record(bookmark)); });
}

// ---- Numbers ---------------------------------------------------------------------------------

bool KV_LogFile_GetEntryCount(KV_LogFile* file, int32_t* count, KV_LogError** error) noexcept {
    return reportNumber(file, &LogFileInterface::getEntryCount, count, error);
}

bool KV_LogFile_GetFirstEntryId(KV_LogFile* file, int32_t* entryId, KV_LogError** error) noexcept {
    return reportNumber(file, &LogFileInterface::getFirstEntryId, entryId, error);
}

bool KV_LogFile_GetLastEntryId(KV_LogFile* file, int32_t* entryId, KV_LogError** error) noexcept {
    return reportNumber(file, &LogFileInterface::getLastEntryId, entryId, error);
}

// ---- Look-ups --------------------------------------------------------------------------------

bool KV_LogFile_GetDataSourceProperty(KV_LogFile* file, const KV_LogDataSource* source,
                                      const char* name, KV_LogDataSourceProperty** property,
                                      KV_LogError** error) noexcept {
    return lookUp(file, property, "The requested data source property does not exist.", error,
                  [&](const LogFileInterface& log) -> std::optional<DataSourceProperty> {
                      const std::int8_t sourceId = record(source).id;
                      std::string key(name);
                      std::optional<PropertyValue> value =
                          log.getDataSourceProperty(sourceId, key);
                      if (!value) {
                          return std::nullopt;
                      }
                      return DataSourceProperty{sourceId, std::move(key), std::move(*value)};
                  });
}

bool KV_LogFile_GetMetadata(KV_LogFile* file, const char* key, KV_LogMetadata** metadata,
                            KV_LogError** error) noexcept {
    return lookUp(file, metadata, "The requested metadata does not exist.", error,
                  [&](const LogFileInterface& log) -> std::optional<LogMetadataEntry> {
                      std::string name(key);
                      std::optional<PropertyValue> value = log.getMetadataValue(name);
                      if (!value) {
                          return std::nullopt;
                      }
                      return LogMetadataEntry{std::move(name), std::move(*value)};
                  });
}

bool KV_LogFile_GetResource(KV_LogFile* file, const char* name, KV_LogResource** resource,
                            KV_LogError** error) noexcept {
    return lookUp(file, resource, "The requested resource does not exist.", error,
                  [&](const LogFileInterface& log) -> std::optional<LogResourceEntry> {
                      std::string resourceName(name);
                      std::optional<ByteArray> data = log.getResource(resourceName);
                      if (!data) {
                          return std::nullopt;
                      }
                      return LogResourceEntry{std::move(resourceName), std::move(*data)};
                  });
}

bool KV_LogFile_ReadEntry(KV_LogFile* file, int32_t entryId, KV_LogDataEntry** entry,
                          KV_LogError** error) noexcept {
    return lookUp(file, entry, "The requested data entry does not exist.", error,
                  [&](const LogFileInterface& log) { return log.readEntry(entryId); });
}

// ---- Enumerations ----------------------------------------------------------------------------

bool KV_LogFile_GetDataSources(KV_LogFile* file, KV_LogDataSourceCallback callback, void* userData,
                               KV_LogError** error) noexcept {
    return enumerate<KV_LogDataSource>(
        file, EmptyList::Fails, [](const LogFileInterface& log) { return log.getDataSources(); },
        callback, userData, error);
}

bool KV_LogFile_GetAllDataSourceProperties(KV_LogFile* file,
                                           KV_LogDataSourcePropertyCallback callback,
                                           void* userData, KV_LogError** error) noexcept {
    return enumerate<KV_LogDataSourceProperty>(
        file, EmptyList::Fails,
        [](const LogFileInterface& log) { return log.getAllDataSourceProperties(); }, callback,
        userData, error);
}

bool KV_LogFile_GetEntryIndex(KV_LogFile* file, const KV_LogEntryIndexFilter* filter,
                              KV_LogEntryIdCallback callback, void* userData,
                              KV_LogError** error) noexcept {
    std::vector<std::int32_t> ids;
    const bool readOk = failSafe(false, error, [&] {
        ids = std::as_const(*file->logFile).getEntryIndex(record(filter));
        return true;
    });
    if (!readOk) {
        return false;
    }
    if (ids.empty()) {
        saveLastError(file, error);
        return false;
    }
    for (const std::int32_t id : ids) {
        callback(userData, id);
    }
    return true;
}

bool KV_LogFile_GetAllMetadata(KV_LogFile* file, KV_LogMetadataCallback callback,
                               void* userData) noexcept {
    return enumerate<KV_LogMetadata>(
        file, EmptyList::Succeeds,
        [](const LogFileInterface& log) { return log.getAllMetadata(); }, callback, userData,
        nullptr);
}

bool KV_LogFile_GetAllResources(KV_LogFile* file, KV_LogResourceCallback callback,
                                void* userData) noexcept {
    return enumerate<KV_LogResource>(
        file, EmptyList::Succeeds,
        [](const LogFileInterface& log) { return log.getAllResources(); }, callback, userData,
        nullptr);
}

bool KV_LogFile_GetBookmarks(KV_LogFile* file, KV_LogBookmarkCallback callback,
                             void* userData) noexcept {
    return enumerate<KV_LogBookmark>(
        file, EmptyList::Succeeds, [](const LogFileInterface& log) { return log.getBookmarks(); },
        callback, userData, nullptr);
}

bool KV_LogFile_ReadEntries(KV_LogFile* file, int32_t minimumEntryId, int32_t maximumEntryId,
                            const KV_LogEntryIndexFilter* filter, int32_t limit,
                            KV_LogDataEntryCallback callback, void* userData) noexcept {
    return enumerate<KV_LogDataEntry>(
        file, EmptyList::Succeeds,
        [&](const LogFileInterface& log) {
            return log.readEntries(minimumEntryId, maximumEntryId, record(filter), limit);
        },
        callback, userData, nullptr);
}

// ---- Slice and clone -------------------------------------------------------------------------

KV_LogFile* KV_LogAlgorithms_Clone(KV_LogFile* file, const char* path, const KV_LogConfig* config,
                                   KV_LogError** error) noexcept {
    return deriveFile(true, "Failed to clone log file", error, [&] {
        return Algorithms::clone(*file->logFile, std::string(path), config->applicationName,
                                 config->applicationVersion, config->compressionLevel);
    });
}

KV_LogFile* KV_LogAlgorithms_Slice(KV_LogFile* file, int32_t firstEntryId, int32_t lastEntryId,
                                   const char* path, const KV_LogConfig* config,
                                   KV_LogError** error) noexcept {
    return deriveFile(false, "Failed to slice log file", error, [&] {
        return Algorithms::slice(*file->logFile, firstEntryId, lastEntryId, std::string(path),
                                 config->applicationName, config->applicationVersion,
                                 config->compressionLevel);
    });
}
