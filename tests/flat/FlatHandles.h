#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "korvane/logging/KV_Log.h"

namespace Korvane::Testing {

// Owning pointers over the flat handles, so that every handle a test receives is destroyed.
template <auto Destroy>
struct Destroyer {
    template <typename Handle>
    void operator()(Handle* handle) const {
        Destroy(handle);
    }
};
using File = std::unique_ptr<KV_LogFile, Destroyer<KV_LogFile_Destroy>>;
using Config = std::unique_ptr<KV_LogConfig, Destroyer<KV_LogConfig_Destroy>>;
using Source = std::unique_ptr<KV_LogDataSource, Destroyer<KV_LogDataSource_Destroy>>;
using Property =
    std::unique_ptr<KV_LogDataSourceProperty, Destroyer<KV_LogDataSourceProperty_Destroy>>;
using Entry = std::unique_ptr<KV_LogDataEntry, Destroyer<KV_LogDataEntry_Destroy>>;
using Metadata = std::unique_ptr<KV_LogMetadata, Destroyer<KV_LogMetadata_Destroy>>;
using Resource = std::unique_ptr<KV_LogResource, Destroyer<KV_LogResource_Destroy>>;
using Mark = std::unique_ptr<KV_LogBookmark, Destroyer<KV_LogBookmark_Destroy>>;
using Filter = std::unique_ptr<KV_LogEntryIndexFilter, Destroyer<KV_LogEntryIndexFilter_Destroy>>;

// An error location: `out()` frees what it held and hands it out cleared; `text()` gives the
// message, or "<none>" when nothing was stored.
class ErrorSlot {
public:
    ErrorSlot() = default;
    ErrorSlot(const ErrorSlot&) = delete;
    ErrorSlot& operator=(const ErrorSlot&) = delete;
    ~ErrorSlot() { KV_LogError_Destroy(error); }
    KV_LogError** out() {
        KV_LogError_Destroy(error);
        error = nullptr;
        return &error;
    }
    std::string text() const {
        const char* message = "<none>";
        if (error != nullptr)
            KV_LogError_GetErrorMessage(error, &message);
        return message;
    }

private:
    KV_LogError* error = nullptr;
};

inline KV_LogDataSourceType sourceType(std::int32_t value) {
    return static_cast<KV_LogDataSourceType>(value);
}

// Copies what a bytes-out getter lends.
template <typename Handle>
std::vector<std::uint8_t> bytesOf(const Handle* handle, void (*get)(const Handle*, std::uint64_t*,
                                                                    const std::uint8_t**)) {
    std::uint64_t size = 0;
    const std::uint8_t* data = nullptr;
    get(handle, &size, &data);
    return size == 0 ? std::vector<std::uint8_t>() : std::vector<std::uint8_t>(data, data + size);
}

// Takes ownership of the handles that an enumeration delivers.
template <typename Owner>
struct Collected {
    std::vector<Owner> handles;
    template <typename Handle>
    static void add(void* self, Handle* handle) {
        static_cast<Collected*>(self)->handles.emplace_back(handle);
    }
};

}  // namespace Korvane::Testing
