// The seven record families. A handle is the record itself (see Handles.h); these functions
// build, read, change and free records and touch no file.

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "components/core/Chrono.h"
#include "flat/GuardedCall.h"
#include "flat/Handles.h"
#include "flat/KV_Log.h"

using namespace Korvane::Logging;

namespace {

// The typed readers, shared by metadata and data source properties. They accept only what a
// log file gives back: whole numbers come back as 64-bit, so both integer readers take that
// alternative and neither takes the 32-bit one. A mismatch leaves `out` alone.

bool readInt32(const PropertyValue& value, std::int32_t* out) noexcept {
    const auto* number = std::get_if<std::int64_t>(&value);
    if (number == nullptr) {
        return false;
    }
    // The low 32 bits, without a report when the number does not fit.
    *out = static_cast<std::int32_t>(static_cast<std::uint32_t>(*number));
    return true;
}

bool readInt64(const PropertyValue& value, std::int64_t* out) noexcept {
    const auto* number = std::get_if<std::int64_t>(&value);
    if (number == nullptr) {
        return false;
    }
    *out = *number;
    return true;
}

bool readDouble(const PropertyValue& value, double* out) noexcept {
    const auto* number = std::get_if<double>(&value);
    if (number == nullptr) {
        return false;
    }
    *out = *number;
    return true;
}

bool readString(const PropertyValue& value, const char** out) noexcept {
    const auto* text = std::get_if<std::string>(&value);
    if (text == nullptr) {
        return false;
    }
    *out = text->c_str();
    return true;
}

// A property whose value holds `Alternative`, made from `value`. It takes the id of `source` as
// it stands now; a later registration of the source does not reach it.
template <typename Alternative, typename Value>
KV_LogDataSourceProperty* newProperty(const KV_LogDataSource* source, const char* name,
                                      Value value) noexcept {
    return newHandle<KV_LogDataSourceProperty>([&] {
        return DataSourceProperty{record(source).id, name,
                                  PropertyValue(std::in_place_type<Alternative>, value)};
    });
}

// A metadata item whose value holds `Alternative`, made from `value`.
template <typename Alternative, typename Value>
KV_LogMetadata* newMetadata(const char* key, Value value) noexcept {
    return newHandle<KV_LogMetadata>([&] {
        return LogMetadataEntry{key, PropertyValue(std::in_place_type<Alternative>, value)};
    });
}

// Appends to a filter list; push_back leaves the list as it was when it cannot grow.
template <typename Element>
void append(std::vector<Element>& list, Element element) noexcept {
    failSilently([&] { list.push_back(element); });
}

}  // namespace

// ---- KV_LogBookmark --------------------------------------------------------------------------

KV_LogBookmark* KV_LogBookmark_Create(int32_t entryId, const char* title, const char* comment,
                                      const uint8_t* payload, uint64_t payloadSize) noexcept {
    return newHandle<KV_LogBookmark>([&] {
        return Bookmark{entryId, title, comment, copyBytes(payload, payloadSize)};
    });
}

void KV_LogBookmark_Destroy(KV_LogBookmark* bookmark) noexcept {
    destroyHandle(bookmark);
}

void KV_LogBookmark_GetEntryId(const KV_LogBookmark* bookmark, int32_t* entryId) noexcept {
    *entryId = record(bookmark).entryId;
}

void KV_LogBookmark_GetTitle(const KV_LogBookmark* bookmark, const char** title) noexcept {
    *title = record(bookmark).title.c_str();
}

void KV_LogBookmark_GetComment(const KV_LogBookmark* bookmark, const char** comment) noexcept {
    *comment = record(bookmark).comment.c_str();
}

void KV_LogBookmark_GetPayload(const KV_LogBookmark* bookmark, uint64_t* payloadSize,
                               const uint8_t** payload) noexcept {
    lendBytes(record(bookmark).payload, payloadSize, payload);
}

// A string assignment that throws changes nothing, so the setters keep the old text when
// memory runs out.
void KV_LogBookmark_SetTitle(KV_LogBookmark* bookmark, const char* title) noexcept {
    failSilently([&] { record(bookmark).title = title; });
}

void KV_LogBookmark_SetComment(KV_LogBookmark* bookmark, const char* comment) noexcept {
    failSilently([&] { record(bookmark).comment = comment; });
}

void KV_LogBookmark_SetPayload(KV_LogBookmark* bookmark, const uint8_t* payload,
                               uint64_t payloadSize) noexcept {
    // The copy is complete before the old array is given up.
    failSilently([&] { record(bookmark).payload = copyBytes(payload, payloadSize); });
}

// ---- KV_LogDataEntry -------------------------------------------------------------------------

KV_LogDataEntry* KV_LogDataEntry_Create(const KV_LogDataSource* source, int32_t type,
                                        const uint8_t* data, uint64_t dataSize) noexcept {
    return newHandle<KV_LogDataEntry>([&] {
        ByteArray bytes = copyBytes(data, dataSize);
        const std::int8_t sourceId = record(source).id;
        // Stamped now, not when it is logged.
        const std::int64_t timestamp = Korvane::Chrono::msSinceUnixEpoch();
        return DataEntry{0, sourceId, type, std::move(bytes), timestamp};
    });
}

void KV_LogDataEntry_Destroy(KV_LogDataEntry* entry) noexcept {
    destroyHandle(entry);
}

void KV_LogDataEntry_GetDataSourceId(const KV_LogDataEntry* entry, int8_t* dataSourceId) noexcept {
    *dataSourceId = record(entry).dataSourceId;
}

void KV_LogDataEntry_GetType(const KV_LogDataEntry* entry, int32_t* type) noexcept {
    *type = record(entry).type;
}

void KV_LogDataEntry_GetData(const KV_LogDataEntry* entry, uint64_t* dataSize,
                             const uint8_t** data) noexcept {
    lendBytes(record(entry).data, dataSize, data);
}

void KV_LogDataEntry_GetTimestamp(const KV_LogDataEntry* entry, int64_t* timestamp) noexcept {
    *timestamp = record(entry).timestamp;
}

void KV_LogDataEntry_SetTimestamp(KV_LogDataEntry* entry, int64_t timestamp) noexcept {
    record(entry).timestamp = timestamp;
}

// ---- KV_LogDataSource ------------------------------------------------------------------------

KV_LogDataSource* KV_LogDataSource_Create(KV_LogDataSourceType type, const char* name) noexcept {
    return newHandle<KV_LogDataSource>([&] { return DataSource{-1, type, name}; });
}

void KV_LogDataSource_Destroy(KV_LogDataSource* source) noexcept {
    destroyHandle(source);
}

void KV_LogDataSource_GetId(const KV_LogDataSource* source, int8_t* id) noexcept {
    *id = record(source).id;
}

void KV_LogDataSource_GetType(const KV_LogDataSource* source,
                              KV_LogDataSourceType* type) noexcept {
    *type = record(source).type;
}

void KV_LogDataSource_GetName(const KV_LogDataSource* source, const char** name) noexcept {
    *name = record(source).name.c_str();
}

// ---- KV_LogDataSourceProperty ----------------------------------------------------------------

KV_LogDataSourceProperty* KV_LogDataSourceProperty_CreateInt32(const KV_LogDataSource* source,
                                                               const char* name,
                                                               int32_t value) noexcept {
    return newProperty<std::int32_t>(source, name, value);
}

KV_LogDataSourceProperty* KV_LogDataSourceProperty_CreateInt64(const KV_LogDataSource* source,
                                                               const char* name,
                                                               int64_t value) noexcept {
    return newProperty<std::int64_t>(source, name, value);
}

KV_LogDataSourceProperty* KV_LogDataSourceProperty_CreateDouble(const KV_LogDataSource* source,
                                                                const char* name,
                                                                double value) noexcept {
    return newProperty<double>(source, name, value);
}

KV_LogDataSourceProperty* KV_LogDataSourceProperty_CreateString(const KV_LogDataSource* source,
                                                                const char* name,
                                                                const char* value) noexcept {
    return newProperty<std::string>(source, name, value);
}

void KV_LogDataSourceProperty_Destroy(KV_LogDataSourceProperty* property) noexcept {
    destroyHandle(property);
}

void KV_LogDataSourceProperty_GetDataSourceId(const KV_LogDataSourceProperty* property,
                                              int8_t* dataSourceId) noexcept {
    *dataSourceId = record(property).dataSourceId;
}

void KV_LogDataSourceProperty_GetPropertyName(const KV_LogDataSourceProperty* property,
                                              const char** name) noexcept {
    *name = record(property).name.c_str();
}

bool KV_LogDataSourceProperty_GetInt32(const KV_LogDataSourceProperty* property,
                                       int32_t* value) noexcept {
    return readInt32(record(property).value, value);
}

bool KV_LogDataSourceProperty_GetInt64(const KV_LogDataSourceProperty* property,
                                       int64_t* value) noexcept {
    return readInt64(record(property).value, value);
}

bool KV_LogDataSourceProperty_GetDouble(const KV_LogDataSourceProperty* property,
                                        double* value) noexcept {
    return readDouble(record(property).value, value);
}

bool KV_LogDataSourceProperty_GetString(const KV_LogDataSourceProperty* property,
                                        const char** value) noexcept {
    return readString(record(property).value, value);
}

// ---- KV_LogEntryIndexFilter ------------------------------------------------------------------

KV_LogEntryIndexFilter* KV_LogEntryIndexFilter_Create(void) noexcept {
    return newHandle<KV_LogEntryIndexFilter>([] { return EntryIndexFilter{}; });
}

void KV_LogEntryIndexFilter_Destroy(KV_LogEntryIndexFilter* filter) noexcept {
    destroyHandle(filter);
}

void KV_LogEntryIndexFilter_AddDataType(KV_LogEntryIndexFilter* filter, int32_t type) noexcept {
    append(record(filter).dataTypes, type);
}

void KV_LogEntryIndexFilter_AddDataSource(KV_LogEntryIndexFilter* filter,
                                          int8_t dataSourceId) noexcept {
    append(record(filter).dataSources, dataSourceId);
}

void KV_LogEntryIndexFilter_AddDataSourceType(KV_LogEntryIndexFilter* filter,
                                              KV_LogDataSourceType type) noexcept {
    append(record(filter).dataSourceTypes, type);
}

// ---- KV_LogMetadata --------------------------------------------------------------------------

KV_LogMetadata* KV_LogMetadata_CreateInt32(const char* key, int32_t value) noexcept {
    return newMetadata<std::int32_t>(key, value);
}

KV_LogMetadata* KV_LogMetadata_CreateInt64(const char* key, int64_t value) noexcept {
    return newMetadata<std::int64_t>(key, value);
}

KV_LogMetadata* KV_LogMetadata_CreateDouble(const char* key, double value) noexcept {
    return newMetadata<double>(key, value);
}

KV_LogMetadata* KV_LogMetadata_CreateString(const char* key, const char* value) noexcept {
    return newMetadata<std::string>(key, value);
}

void KV_LogMetadata_Destroy(KV_LogMetadata* metadata) noexcept {
    destroyHandle(metadata);
}

bool KV_LogMetadata_GetInt32(const KV_LogMetadata* metadata, int32_t* value) noexcept {
    return readInt32(record(metadata).value, value);
}

bool KV_LogMetadata_GetInt64(const KV_LogMetadata* metadata, int64_t* value) noexcept {
    return readInt64(record(metadata).value, value);
}

bool KV_LogMetadata_GetDouble(const KV_LogMetadata* metadata, double* value) noexcept {
    return readDouble(record(metadata).value, value);
}

bool KV_LogMetadata_GetString(const KV_LogMetadata* metadata, const char** value) noexcept {
    return readString(record(metadata).value, value);
}

// ---- KV_LogResource --------------------------------------------------------------------------

KV_LogResource* KV_LogResource_Create(const char* name, const uint8_t* data,
                                      uint64_t dataSize) noexcept {
    return newHandle<KV_LogResource>([&] {
        return LogResourceEntry{name, copyBytes(data, dataSize)};
    });
}

void KV_LogResource_Destroy(KV_LogResource* resource) noexcept {
    destroyHandle(resource);
}

void KV_LogResource_GetData(const KV_LogResource* resource, uint64_t* dataSize,
                            const uint8_t** data) noexcept {
    lendBytes(record(resource).data, dataSize, data);
}
