#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "flat/GuardedCall.h"
#include "flat/KV_Log.h"
#include "model/LogFileInterface.h"
#include "model/Records.h"

// The three handles that belong to the flat layer. They live in the global namespace because
// KV_Log.h declares them there.

// An open log file. `acceptsData` is fixed when the handle is made: true for a new file or a
// clone, false for an opened file or a slice. Only the flat layer reads it.
struct KV_LogFile {
    std::unique_ptr<Korvane::Logging::LogFileInterface> logFile;
    bool acceptsData;
};

// What a new log file is made with; it knows no file.
struct KV_LogConfig {
    std::string applicationName;
    std::string applicationVersion;
    std::string timeZone;
    std::int8_t compressionLevel = -1;
};

// The message of a failed call, and nothing else.
struct KV_LogError {
    std::string message;
};

namespace Korvane::Logging {

// The seven record handles are never defined: a handle is the address of the record itself,
// seen through an incomplete type. A record is handed to LogFileInterface by reference, so
// KV_LogFile_AddDataSource writes the assigned id straight into the caller's source.
template <typename Handle>
struct HandleRecord;
template <>
struct HandleRecord<KV_LogBookmark> {
    using Type = Bookmark;
};
template <>
struct HandleRecord<KV_LogDataEntry> {
    using Type = DataEntry;
};
template <>
struct HandleRecord<KV_LogDataSource> {
    using Type = DataSource;
};
template <>
struct HandleRecord<KV_LogDataSourceProperty> {
    using Type = DataSourceProperty;
};
template <>
struct HandleRecord<KV_LogEntryIndexFilter> {
    using Type = EntryIndexFilter;
};
template <>
struct HandleRecord<KV_LogMetadata> {
    using Type = LogMetadataEntry;
};
template <>
struct HandleRecord<KV_LogResource> {
    using Type = LogResourceEntry;
};

template <typename Handle>
using RecordOf = typename HandleRecord<std::remove_const_t<Handle>>::Type;

// The record behind a handle, const when the handle is.
template <typename Handle>
auto& record(Handle* handle) noexcept {
    if constexpr (std::is_const_v<Handle>) {
        return *reinterpret_cast<const RecordOf<Handle>*>(handle);
    } else {
        return *reinterpret_cast<RecordOf<Handle>*>(handle);
    }
}

// Moves `value` into a new record and returns its handle; the caller owns it. Null when memory
// runs out, with the reason in `error` where there is one. Moving a record does not throw, so
// a payload is never copied on the way.
template <typename Handle>
Handle* adopt(RecordOf<Handle>&& value, KV_LogError** error = nullptr) noexcept {
    return failSafe<Handle*>(nullptr, error, [&] {
        return reinterpret_cast<Handle*>(new RecordOf<Handle>(std::move(value)));
    });
}

// Builds a new record from what `make` returns, in place, and returns its handle. Null when
// `make` or the allocation throws.
template <typename Handle, typename Make>
Handle* newHandle(Make&& make) noexcept {
    return failSafe<Handle*>(nullptr, nullptr, [&] {
        return reinterpret_cast<Handle*>(new RecordOf<Handle>(std::forward<Make>(make)()));
    });
}

// Frees a record handle; null is allowed.
template <typename Handle>
void destroyHandle(Handle* handle) noexcept {
    delete reinterpret_cast<RecordOf<Handle>*>(handle);
}

// Copies `size` bytes from `data`. With size 0, `data` is not read and may be null.
inline ByteArray copyBytes(const std::uint8_t* data, std::uint64_t size) {
    if (size == 0) {
        return {};
    }
    if (size > ByteArray().max_size()) {
        throw std::length_error("Byte array is larger than the library can hold.");
    }
    return ByteArray(data, data + size);
}

// Lends a byte array as size and pointer; the pointer stays the array's.
inline void lendBytes(const ByteArray& bytes, std::uint64_t* size,
                      const std::uint8_t** data) noexcept {
    *size = bytes.size();
    *data = bytes.data();
}

}  // namespace Korvane::Logging
