#ifndef KORVANE_LOGGING_KV_LOG_H
#define KORVANE_LOGGING_KV_LOG_H

/*
 * korvane-logging, flat C interface. Compiles as C99 and as C++.
 *
 * The rules below hold for every function; a function's own comment says only what differs.
 *
 * Handles. Every KV_Log... type is an opaque handle that the library allocates and the caller
 * never looks into. The caller owns every handle that it receives, as a result, through an
 * out-parameter or as the argument of a callback, and frees it with the Destroy function of its
 * family. Every Destroy function accepts NULL and then does nothing. Passing a handle to a
 * function never transfers it. Apart from the setters of a record's own family, only
 * KV_LogFile_AddDataSource changes a record that it is given: it writes the assigned id. No
 * handle refers to another, so a record read from a file stays valid after KV_LogFile_Destroy,
 * and a config may be destroyed as soon as the call that used it has returned.
 *
 * Text and bytes in. Text is NUL-terminated; its content is neither examined nor converted.
 * Bytes are a pointer followed by a size; with size 0 the pointer is not read and may be NULL.
 * Both are copied before the call returns: the library keeps no pointer to caller memory.
 *
 * Text and bytes out. Out-parameters receive pointers borrowed from a handle: valid until the
 * handle is destroyed or the same field is set again, and never freed by the caller. Bytes come
 * out as the size first, then the pointer; with size 0 the pointer is not to be read.
 *
 * Errors. A function that can fail returns a bool (true on success) or a new handle (NULL on
 * failure). Most take an optional last parameter `KV_LogError** error`: on failure, when error is
 * not NULL, a new KV_LogError is stored in *error. What *error held before is neither read nor
 * freed, and on success *error is left alone, so a caller that tests it sets it to NULL first.
 * A failed look-up leaves its out-parameter alone; a failed number query sets it to -1.
 *
 * Lists. No function returns an array. Lists are delivered through a callback, one call per
 * element, in order, on the caller's thread, before the function returns; `userData` is passed
 * through as the callback's first argument. The list is complete before the first call, so a
 * callback may call any function of this interface, on the same handle too.
 *
 * Validation. Only a Destroy argument and `error` may be NULL. Every other pointer must be
 * valid and point at a handle of the named kind; this is not checked.
 *
 * Threads. Nothing here locks. A caller that shares a handle between threads serialises its
 * calls.
 *
 * Exceptions. No C++ exception leaves this interface. When memory runs out, a function that
 * makes a record or a config returns NULL, a setter leaves the record as it was, and every other
 * function fails in its documented way. Every function is noexcept to C++ callers, so an
 * exception thrown out of a callback ends the program.
 */

#include <stdint.h>

#include "model/DataSourceType.h"
#include "model/Export.h"
#ifndef __cplusplus
#include <stdbool.h>
#endif

/* Declares every function noexcept to C++ callers; empty in C. */
#ifdef __cplusplus
#define KV_LOG_NOEXCEPT noexcept
extern "C" {
#else
#define KV_LOG_NOEXCEPT
#endif

/* An open log file. */
typedef struct KV_LogFile KV_LogFile;
/* Application identity, time zone and compression level of a new log file. */
typedef struct KV_LogConfig KV_LogConfig;
/* The message of a failed call. */
typedef struct KV_LogError KV_LogError;

/* The record handles. Each one is the library's record itself, not a wrapper around it. */
typedef struct KV_LogBookmark KV_LogBookmark;
typedef struct KV_LogDataEntry KV_LogDataEntry;
typedef struct KV_LogDataSource KV_LogDataSource;
typedef struct KV_LogDataSourceProperty KV_LogDataSourceProperty;
typedef struct KV_LogEntryIndexFilter KV_LogEntryIndexFilter;
typedef struct KV_LogMetadata KV_LogMetadata;
typedef struct KV_LogResource KV_LogResource;

/* Callbacks of the enumerations: `userData` as given, then a new handle owned by the caller. */
typedef void (*KV_LogDataSourceCallback)(void* userData, KV_LogDataSource* source);
typedef void (*KV_LogDataSourcePropertyCallback)(void* userData,
                                                 KV_LogDataSourceProperty* property);
typedef void (*KV_LogMetadataCallback)(void* userData, KV_LogMetadata* metadata);
typedef void (*KV_LogResourceCallback)(void* userData, KV_LogResource* resource);
typedef void (*KV_LogBookmarkCallback)(void* userData, KV_LogBookmark* bookmark);
typedef void (*KV_LogDataEntryCallback)(void* userData, KV_LogDataEntry* entry);
/* Callback of KV_LogFile_GetEntryIndex: `userData` as given, then an entry id. */
typedef void (*KV_LogEntryIdCallback)(void* userData, int32_t entryId);

/* ---- KV_LogError ---------------------------------------------------------------------------- */

/* Gives the message; it lives until KV_LogError_Destroy. */
KORVANE_LOGGING_EXPORT void KV_LogError_GetErrorMessage(const KV_LogError* error,
                                                        const char** message) KV_LOG_NOEXCEPT;
/* Frees an error. */
KORVANE_LOGGING_EXPORT void KV_LogError_Destroy(KV_LogError* error) KV_LOG_NOEXCEPT;

/* ---- KV_LogConfig --------------------------------------------------------------------------- */

/* Makes a config for new files; its compression level starts at -1. */
KORVANE_LOGGING_EXPORT KV_LogConfig* KV_LogConfig_Create(const char* applicationName,
                                                         const char* applicationVersion,
                                                         const char* timeZone) KV_LOG_NOEXCEPT;
/* Frees a config. */
KORVANE_LOGGING_EXPORT void KV_LogConfig_Destroy(KV_LogConfig* config) KV_LOG_NOEXCEPT;
/* Gives the compression level. */
KORVANE_LOGGING_EXPORT void KV_LogConfig_GetCompressionLevel(const KV_LogConfig* config,
                                                             int8_t* level) KV_LOG_NOEXCEPT;
/* Sets the compression level, -1 to 9 (0 stores uncompressed); refuses other values. */
KORVANE_LOGGING_EXPORT bool KV_LogConfig_SetCompressionLevel(KV_LogConfig* config, int8_t level,
                                                             KV_LogError** error) KV_LOG_NOEXCEPT;
/* Gives the time zone text. */
KORVANE_LOGGING_EXPORT void KV_LogConfig_GetTimeZone(const KV_LogConfig* config,
                                                     const char** timeZone) KV_LOG_NOEXCEPT;
/* Replaces the time zone text; refuses no text. */
KORVANE_LOGGING_EXPORT bool KV_LogConfig_SetTimeZone(KV_LogConfig* config,
                                                     const char* timeZone) KV_LOG_NOEXCEPT;

/* ---- KV_LogFile: life ----------------------------------------------------------------------- */

/* Creates a new log file at `path`, where nothing may exist yet; it accepts data. */
KORVANE_LOGGING_EXPORT KV_LogFile* KV_LogFile_Create(const char* path, const KV_LogConfig* config,
                                                     KV_LogError** error) KV_LOG_NOEXCEPT;
/* Opens the log file at `path`; it refuses new sources, properties and entries. */
KORVANE_LOGGING_EXPORT KV_LogFile* KV_LogFile_Open(const char* path,
                                                   KV_LogError** error) KV_LOG_NOEXCEPT;
/* Closes the file and frees the handle; every write is already complete. */
KORVANE_LOGGING_EXPORT void KV_LogFile_Destroy(KV_LogFile* file) KV_LOG_NOEXCEPT;

/* ---- KV_LogFile: writes --------------------------------------------------------------------- */

/* Registers a source and writes the id that the file assigns into `source`. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_AddDataSource(KV_LogFile* file, KV_LogDataSource* source,
                                                     KV_LogError** error) KV_LOG_NOEXCEPT;
/* Adds a property to a registered source; keys may repeat. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_AddDataSourceProperty(
    KV_LogFile* file, const KV_LogDataSourceProperty* property,
    KV_LogError** error) KV_LOG_NOEXCEPT;
/* Logs an entry under the next entry id. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_LogData(KV_LogFile* file, const KV_LogDataEntry* entry,
                                               KV_LogError** error) KV_LOG_NOEXCEPT;
/* Adds a metadata key with its value; fails if the key exists. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_AddMetadata(KV_LogFile* file,
                                                   const KV_LogMetadata* metadata,
                                                   KV_LogError** error) KV_LOG_NOEXCEPT;
/* Adds a named resource; fails if the name exists. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_AddResource(KV_LogFile* file,
                                                   const KV_LogResource* resource,
                                                   KV_LogError** error) KV_LOG_NOEXCEPT;
/* Adds a bookmark on an existing entry. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_AddBookmark(KV_LogFile* file,
                                                   const KV_LogBookmark* bookmark,
                                                   KV_LogError** error) KV_LOG_NOEXCEPT;
/* Replaces title, comment and payload of the bookmarks on the entry of `bookmark`. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_UpdateBookmark(KV_LogFile* file,
                                                      const KV_LogBookmark* bookmark,
                                                      KV_LogError** error) KV_LOG_NOEXCEPT;
/* Removes the bookmarks on the entry of `bookmark`. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_RemoveBookmark(KV_LogFile* file,
                                                      const KV_LogBookmark* bookmark,
                                                      KV_LogError** error) KV_LOG_NOEXCEPT;

/* ---- KV_LogFile: numbers (on failure the out-parameter holds -1) ---------------------------- */

/* Gives the number of entries. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_GetEntryCount(KV_LogFile* file, int32_t* count,
                                                     KV_LogError** error) KV_LOG_NOEXCEPT;
/* Gives the lowest entry id; fails on a file without entries. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_GetFirstEntryId(KV_LogFile* file, int32_t* entryId,
                                                       KV_LogError** error) KV_LOG_NOEXCEPT;
/* Gives the highest entry id; fails on a file without entries. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_GetLastEntryId(KV_LogFile* file, int32_t* entryId,
                                                      KV_LogError** error) KV_LOG_NOEXCEPT;

/* ---- KV_LogFile: look-ups (a new handle in the out-parameter) ------------------------------- */

/* Reads property `name` of `source` (by its id as the record holds it now). */
KORVANE_LOGGING_EXPORT bool KV_LogFile_GetDataSourceProperty(KV_LogFile* file,
                                                             const KV_LogDataSource* source,
                                                             const char* name,
                                                             KV_LogDataSourceProperty** property,
                                                             KV_LogError** error) KV_LOG_NOEXCEPT;
/* Reads the metadata value of `key`. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_GetMetadata(KV_LogFile* file, const char* key,
                                                   KV_LogMetadata** metadata,
                                                   KV_LogError** error) KV_LOG_NOEXCEPT;
/* Reads the resource `name`. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_GetResource(KV_LogFile* file, const char* name,
                                                   KV_LogResource** resource,
                                                   KV_LogError** error) KV_LOG_NOEXCEPT;
/* Reads the entry `entryId`, its data uncompressed. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_ReadEntry(KV_LogFile* file, int32_t entryId,
                                                 KV_LogDataEntry** entry,
                                                 KV_LogError** error) KV_LOG_NOEXCEPT;

/* ---- KV_LogFile: enumerations --------------------------------------------------------------- */

/* Delivers every data source; an empty list is a failure. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_GetDataSources(KV_LogFile* file,
                                                      KV_LogDataSourceCallback callback,
                                                      void* userData,
                                                      KV_LogError** error) KV_LOG_NOEXCEPT;
/* Delivers every property of every source; an empty list is a failure. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_GetAllDataSourceProperties(
    KV_LogFile* file, KV_LogDataSourcePropertyCallback callback, void* userData,
    KV_LogError** error) KV_LOG_NOEXCEPT;
/* Delivers the ids of the entries that `filter` selects, ascending; none is a failure. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_GetEntryIndex(KV_LogFile* file,
                                                     const KV_LogEntryIndexFilter* filter,
                                                     KV_LogEntryIdCallback callback,
                                                     void* userData,
                                                     KV_LogError** error) KV_LOG_NOEXCEPT;
/* Delivers every metadata item; true also when there is none. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_GetAllMetadata(KV_LogFile* file,
                                                      KV_LogMetadataCallback callback,
                                                      void* userData) KV_LOG_NOEXCEPT;
/* Delivers every resource, the thumbnail among them; true also when there is none. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_GetAllResources(KV_LogFile* file,
                                                       KV_LogResourceCallback callback,
                                                       void* userData) KV_LOG_NOEXCEPT;
/* Delivers every bookmark; true also when there is none. */
KORVANE_LOGGING_EXPORT bool KV_LogFile_GetBookmarks(KV_LogFile* file,
                                                    KV_LogBookmarkCallback callback,
                                                    void* userData) KV_LOG_NOEXCEPT;
/* Delivers the selected entries of a range (-1: first/last entry; limit -1: no limit). */
KORVANE_LOGGING_EXPORT bool KV_LogFile_ReadEntries(KV_LogFile* file, int32_t minimumEntryId,
                                                   int32_t maximumEntryId,
                                                   const KV_LogEntryIndexFilter* filter,
                                                   int32_t limit, KV_LogDataEntryCallback callback,
                                                   void* userData) KV_LOG_NOEXCEPT;

/* ---- KV_LogAlgorithms ----------------------------------------------------------------------- */
/* A clone's handle accepts new sources, properties and entries; a slice's refuses them. Both
 * read `config` for name, version and compression level; the time zone comes from `file`. */

/* Writes all entries of `file` into a new file at `path` (empty: a name made beside `file`). */
KORVANE_LOGGING_EXPORT KV_LogFile* KV_LogAlgorithms_Clone(KV_LogFile* file, const char* path,
                                                          const KV_LogConfig* config,
                                                          KV_LogError** error) KV_LOG_NOEXCEPT;
/* Writes the entries from `firstEntryId` to `lastEntryId`, both included, into a new file. */
KORVANE_LOGGING_EXPORT KV_LogFile* KV_LogAlgorithms_Slice(KV_LogFile* file, int32_t firstEntryId,
                                                          int32_t lastEntryId, const char* path,
                                                          const KV_LogConfig* config,
                                                          KV_LogError** error) KV_LOG_NOEXCEPT;

/* ---- KV_LogBookmark ------------------------------------------------------------------------- */

/* Makes a bookmark on entry `entryId`. */
KORVANE_LOGGING_EXPORT KV_LogBookmark* KV_LogBookmark_Create(int32_t entryId, const char* title,
                                                             const char* comment,
                                                             const uint8_t* payload,
                                                             uint64_t payloadSize) KV_LOG_NOEXCEPT;
/* Frees a bookmark. */
KORVANE_LOGGING_EXPORT void KV_LogBookmark_Destroy(KV_LogBookmark* bookmark) KV_LOG_NOEXCEPT;
/* Gives the entry id, which identifies the bookmark in a file. */
KORVANE_LOGGING_EXPORT void KV_LogBookmark_GetEntryId(const KV_LogBookmark* bookmark,
                                                      int32_t* entryId) KV_LOG_NOEXCEPT;
/* Gives the title. */
KORVANE_LOGGING_EXPORT void KV_LogBookmark_GetTitle(const KV_LogBookmark* bookmark,
                                                    const char** title) KV_LOG_NOEXCEPT;
/* Gives the comment. */
KORVANE_LOGGING_EXPORT void KV_LogBookmark_GetComment(const KV_LogBookmark* bookmark,
                                                      const char** comment) KV_LOG_NOEXCEPT;
/* Gives the payload. */
KORVANE_LOGGING_EXPORT void KV_LogBookmark_GetPayload(const KV_LogBookmark* bookmark,
                                                      uint64_t* payloadSize,
                                                      const uint8_t** payload) KV_LOG_NOEXCEPT;
/* Replaces the title. */
KORVANE_LOGGING_EXPORT void KV_LogBookmark_SetTitle(KV_LogBookmark* bookmark,
                                                    const char* title) KV_LOG_NOEXCEPT;
/* Replaces the comment. */
KORVANE_LOGGING_EXPORT void KV_LogBookmark_SetComment(KV_LogBookmark* bookmark,
                                                      const char* comment) KV_LOG_NOEXCEPT;
/* Replaces the payload with exactly `payloadSize` bytes. */
KORVANE_LOGGING_EXPORT void KV_LogBookmark_SetPayload(KV_LogBookmark* bookmark,
                                                      const uint8_t* payload,
                                                      uint64_t payloadSize) KV_LOG_NOEXCEPT;

/* ---- KV_LogDataEntry ------------------------------------------------------------------------ */

/* Makes an entry of `source` (its id now), stamped with the present time. */
KORVANE_LOGGING_EXPORT KV_LogDataEntry* KV_LogDataEntry_Create(const KV_LogDataSource* source,
                                                               int32_t type, const uint8_t* data,
                                                               uint64_t dataSize) KV_LOG_NOEXCEPT;
/* Frees an entry. */
KORVANE_LOGGING_EXPORT void KV_LogDataEntry_Destroy(KV_LogDataEntry* entry) KV_LOG_NOEXCEPT;
/* Gives the id of the entry's source. */
KORVANE_LOGGING_EXPORT void KV_LogDataEntry_GetDataSourceId(const KV_LogDataEntry* entry,
                                                            int8_t* dataSourceId) KV_LOG_NOEXCEPT;
/* Gives the caller's data type. */
KORVANE_LOGGING_EXPORT void KV_LogDataEntry_GetType(const KV_LogDataEntry* entry,
                                                    int32_t* type) KV_LOG_NOEXCEPT;
/* Gives the data, always uncompressed. */
KORVANE_LOGGING_EXPORT void KV_LogDataEntry_GetData(const KV_LogDataEntry* entry,
                                                    uint64_t* dataSize,
                                                    const uint8_t** data) KV_LOG_NOEXCEPT;
/* Gives the timestamp in milliseconds since the Unix epoch. */
KORVANE_LOGGING_EXPORT void KV_LogDataEntry_GetTimestamp(const KV_LogDataEntry* entry,
                                                         int64_t* timestamp) KV_LOG_NOEXCEPT;
/* Replaces the timestamp; any value is taken. */
KORVANE_LOGGING_EXPORT void KV_LogDataEntry_SetTimestamp(KV_LogDataEntry* entry,
                                                         int64_t timestamp) KV_LOG_NOEXCEPT;

/* ---- KV_LogDataSource ----------------------------------------------------------------------- */

/* Makes an unregistered source, whose id is -1. */
KORVANE_LOGGING_EXPORT KV_LogDataSource* KV_LogDataSource_Create(KV_LogDataSourceType type,
                                                                 const char* name) KV_LOG_NOEXCEPT;
/* Frees a source. */
KORVANE_LOGGING_EXPORT void KV_LogDataSource_Destroy(KV_LogDataSource* source) KV_LOG_NOEXCEPT;
/* Gives the id: -1 until KV_LogFile_AddDataSource has registered the source. */
KORVANE_LOGGING_EXPORT void KV_LogDataSource_GetId(const KV_LogDataSource* source,
                                                   int8_t* id) KV_LOG_NOEXCEPT;
/* Gives the kind of source. */
KORVANE_LOGGING_EXPORT void KV_LogDataSource_GetType(const KV_LogDataSource* source,
                                                     KV_LogDataSourceType* type) KV_LOG_NOEXCEPT;
/* Gives the name. */
KORVANE_LOGGING_EXPORT void KV_LogDataSource_GetName(const KV_LogDataSource* source,
                                                     const char** name) KV_LOG_NOEXCEPT;

/* ---- KV_LogDataSourceProperty --------------------------------------------------------------- */
/* A property takes its source's id when it is made. The typed readers accept only what a file
 * gives back: GetInt32 and GetInt64 both read a whole number (GetInt32 its low 32 bits), and a
 * value made by CreateInt32 answers false to every reader until it has been through a file. A
 * reader that does not match returns false and leaves its out-parameter alone. */

/* Makes a property with a 32-bit whole number. */
KORVANE_LOGGING_EXPORT KV_LogDataSourceProperty* KV_LogDataSourceProperty_CreateInt32(
    const KV_LogDataSource* source, const char* name, int32_t value) KV_LOG_NOEXCEPT;
/* Makes a property with a 64-bit whole number. */
KORVANE_LOGGING_EXPORT KV_LogDataSourceProperty* KV_LogDataSourceProperty_CreateInt64(
    const KV_LogDataSource* source, const char* name, int64_t value) KV_LOG_NOEXCEPT;
/* Makes a property with a double. */
KORVANE_LOGGING_EXPORT KV_LogDataSourceProperty* KV_LogDataSourceProperty_CreateDouble(
    const KV_LogDataSource* source, const char* name, double value) KV_LOG_NOEXCEPT;
/* Makes a property with a text. */
KORVANE_LOGGING_EXPORT KV_LogDataSourceProperty* KV_LogDataSourceProperty_CreateString(
    const KV_LogDataSource* source, const char* name, const char* value) KV_LOG_NOEXCEPT;
/* Frees a property. */
KORVANE_LOGGING_EXPORT void KV_LogDataSourceProperty_Destroy(KV_LogDataSourceProperty* property)
    KV_LOG_NOEXCEPT;
/* Gives the id of the property's source. */
KORVANE_LOGGING_EXPORT void KV_LogDataSourceProperty_GetDataSourceId(
    const KV_LogDataSourceProperty* property, int8_t* dataSourceId) KV_LOG_NOEXCEPT;
/* Gives the key. */
KORVANE_LOGGING_EXPORT void KV_LogDataSourceProperty_GetPropertyName(
    const KV_LogDataSourceProperty* property, const char** name) KV_LOG_NOEXCEPT;
/* Reads a whole number as its low 32 bits. */
KORVANE_LOGGING_EXPORT bool KV_LogDataSourceProperty_GetInt32(
    const KV_LogDataSourceProperty* property, int32_t* value) KV_LOG_NOEXCEPT;
/* Reads a whole number. */
KORVANE_LOGGING_EXPORT bool KV_LogDataSourceProperty_GetInt64(
    const KV_LogDataSourceProperty* property, int64_t* value) KV_LOG_NOEXCEPT;
/* Reads a double. */
KORVANE_LOGGING_EXPORT bool KV_LogDataSourceProperty_GetDouble(
    const KV_LogDataSourceProperty* property, double* value) KV_LOG_NOEXCEPT;
/* Reads a text. */
KORVANE_LOGGING_EXPORT bool KV_LogDataSourceProperty_GetString(
    const KV_LogDataSourceProperty* property, const char** value) KV_LOG_NOEXCEPT;

/* ---- KV_LogEntryIndexFilter ----------------------------------------------------------------- */
/* Three lists, each unrestricted while empty; appending keeps order and duplicates. */

/* Makes a filter that selects every entry. */
KORVANE_LOGGING_EXPORT KV_LogEntryIndexFilter* KV_LogEntryIndexFilter_Create(void) KV_LOG_NOEXCEPT;
/* Frees a filter. */
KORVANE_LOGGING_EXPORT void KV_LogEntryIndexFilter_Destroy(KV_LogEntryIndexFilter* filter)
    KV_LOG_NOEXCEPT;
/* Also selects entries of data type `type`. */
KORVANE_LOGGING_EXPORT void KV_LogEntryIndexFilter_AddDataType(KV_LogEntryIndexFilter* filter,
                                                               int32_t type) KV_LOG_NOEXCEPT;
/* Also selects entries of source `dataSourceId`. */
KORVANE_LOGGING_EXPORT void KV_LogEntryIndexFilter_AddDataSource(
    KV_LogEntryIndexFilter* filter, int8_t dataSourceId) KV_LOG_NOEXCEPT;
/* Also selects entries of sources of kind `type`. */
KORVANE_LOGGING_EXPORT void KV_LogEntryIndexFilter_AddDataSourceType(
    KV_LogEntryIndexFilter* filter, KV_LogDataSourceType type) KV_LOG_NOEXCEPT;

/* ---- KV_LogMetadata ------------------------------------------------------------------------- */
/* The typed readers follow the rule of the KV_LogDataSourceProperty readers. */

/* Makes a metadata item with a 32-bit whole number. */
KORVANE_LOGGING_EXPORT KV_LogMetadata* KV_LogMetadata_CreateInt32(const char* key,
                                                                  int32_t value) KV_LOG_NOEXCEPT;
/* Makes a metadata item with a 64-bit whole number. */
KORVANE_LOGGING_EXPORT KV_LogMetadata* KV_LogMetadata_CreateInt64(const char* key,
                                                                  int64_t value) KV_LOG_NOEXCEPT;
/* Makes a metadata item with a double. */
KORVANE_LOGGING_EXPORT KV_LogMetadata* KV_LogMetadata_CreateDouble(const char* key,
                                                                   double value) KV_LOG_NOEXCEPT;
/* Makes a metadata item with a text. */
KORVANE_LOGGING_EXPORT KV_LogMetadata* KV_LogMetadata_CreateString(
    const char* key, const char* value) KV_LOG_NOEXCEPT;
/* Frees a metadata item. */
KORVANE_LOGGING_EXPORT void KV_LogMetadata_Destroy(KV_LogMetadata* metadata) KV_LOG_NOEXCEPT;
/* Reads a whole number as its low 32 bits. */
KORVANE_LOGGING_EXPORT bool KV_LogMetadata_GetInt32(const KV_LogMetadata* metadata,
                                                    int32_t* value) KV_LOG_NOEXCEPT;
/* Reads a whole number. */
KORVANE_LOGGING_EXPORT bool KV_LogMetadata_GetInt64(const KV_LogMetadata* metadata,
                                                    int64_t* value) KV_LOG_NOEXCEPT;
/* Reads a double. */
KORVANE_LOGGING_EXPORT bool KV_LogMetadata_GetDouble(const KV_LogMetadata* metadata,
                                                     double* value) KV_LOG_NOEXCEPT;
/* Reads a text. */
KORVANE_LOGGING_EXPORT bool KV_LogMetadata_GetString(const KV_LogMetadata* metadata,
                                                     const char** value) KV_LOG_NOEXCEPT;

/* ---- KV_LogResource ------------------------------------------------------------------------- */

/* Makes a named resource. */
KORVANE_LOGGING_EXPORT KV_LogResource* KV_LogResource_Create(const char* name, const uint8_t* data,
                                                             uint64_t dataSize) KV_LOG_NOEXCEPT;
/* Frees a resource. */
KORVANE_LOGGING_EXPORT void KV_LogResource_Destroy(KV_LogResource* resource) KV_LOG_NOEXCEPT;
/* Gives the bytes, always uncompressed. */
KORVANE_LOGGING_EXPORT void KV_LogResource_GetData(const KV_LogResource* resource,
                                                   uint64_t* dataSize,
                                                   const uint8_t** data) KV_LOG_NOEXCEPT;

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* KORVANE_LOGGING_KV_LOG_H */
