#ifndef KORVANE_LOGGING_KV_LOG_EXTENSIONS_H
#define KORVANE_LOGGING_KV_LOG_EXTENSIONS_H

/*
 * korvane-logging, extensions of the flat C interface. Compiles as C99 and as C++.
 *
 * The functions here serve callers in other languages beyond the KV_Log functions of KV_Log.h:
 * they are named KVX_..., so that no KV_Log name is ever taken for one of them. They work on
 * the handles of KV_Log.h and follow all of its rules (ownership, text and bytes, errors,
 * threads, exceptions); a function's comment says only what differs.
 */

#include "KV_Log.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Opening ------------------------------------------------------------------------------- */

/*
 * Opens the log file at `path` for reading only: nothing is ever written to the file, so an
 * empty file stays empty. Like KV_LogFile_Open, the handle refuses new sources, properties and
 * entries; its metadata, resource and bookmark writes fail with "The log file is open for
 * reading only.". Null with "Log file does not exist." when nothing is at `path`, and with "This
 * file is not in a supported log file format." for an empty file or one that is no log file.
 */
KORVANE_LOGGING_EXPORT KV_LogFile* KVX_OpenReadOnly(const char* path,
                                                    KV_LogError** error) KV_LOG_NOEXCEPT;

/* ---- Entries as columns --------------------------------------------------------------------- */

/*
 * Many entries in one call, as columns in memory that the caller owns, for callers to whom a
 * handle per entry costs more than the entry: no record is made, and the only copy of a payload
 * is the one into the caller's buffer. The entries are selected as by KV_LogFile_ReadEntries
 * with a limit of -1: ids from `minimumEntryId` to `maximumEntryId` (-1: the first and last
 * entry) that `filter` selects, by ascending id. One call is one statement, during which the
 * file stays locked for writers in other processes; read a big file in several calls.
 *
 * To read a selection whole, learn its size with KVX_MeasureEntries, give columns of that size
 * to KVX_ReadColumns and read. To read it in pieces, give columns of any size and call
 * KVX_ReadColumns again from `nextEntryId` until that is -1.
 */

/*
 * Gives the number of entries that the selection holds in `*count` and, when `payloadBytes` is
 * not NULL, the bytes of their uncompressed payloads in `*payloadBytes`. Counting alone reads no
 * payload; the bytes of a compressed file are read from each payload's frame header, without
 * uncompressing it. On failure both are 0.
 */
KORVANE_LOGGING_EXPORT bool KVX_MeasureEntries(KV_LogFile* file, int32_t minimumEntryId,
                                               int32_t maximumEntryId,
                                               const KV_LogEntryIndexFilter* filter, int32_t* count,
                                               uint64_t* payloadBytes,
                                               KV_LogError** error) KV_LOG_NOEXCEPT;

/*
 * The columns that KVX_ReadColumns fills. The caller sets the first seven fields and owns every
 * array. Any array may be NULL: that column is not delivered. Payload bytes are read only when
 * `payloads` is given; without it, `payloadOffsets` still gives each payload's place as if they
 * had been.
 */
typedef struct KVX_EntryColumns {
    /* Room of each array below, in entries; `payloadOffsets` has one element more. */
    int32_t capacity;
    int32_t* entryIds;
    int64_t* timestamps;
    int8_t* dataSourceIds;
    int32_t* types;
    /* Entry i's payload is payloads[payloadOffsets[i]] up to payloads[payloadOffsets[i + 1]];
       payloadOffsets[0] is 0 and payloadOffsets[count] is `payloadSize`. */
    uint64_t* payloadOffsets;
    /* The uncompressed payloads, one after the other, in room for `payloadCapacity` bytes. */
    uint8_t* payloads;
    uint64_t payloadCapacity;

    /* Set by KVX_ReadColumns: the entries delivered, at the start of each array. */
    int32_t count;
    /* The payload bytes delivered; without `payloads`, the bytes they would have taken. */
    uint64_t payloadSize;
    /* The id of the first selected entry that did not fit, where the next call starts; -1 when
       every selected entry was delivered. */
    int32_t nextEntryId;
    /* The payload size of the entry `nextEntryId` when payloads are read, else 0: room for it
       is needed before it can be delivered. */
    uint64_t nextPayloadSize;
} KVX_EntryColumns;

/*
 * Fills `columns` with the selected entries, in order, while both the arrays and the payload
 * buffer have room for the next one, and says in `nextEntryId` where it stopped. With a
 * `capacity` of 0 it delivers nothing and tells where the selection starts. Fails when a row or
 * a payload cannot be read, with `count` the entries delivered before it.
 */
KORVANE_LOGGING_EXPORT bool KVX_ReadColumns(KV_LogFile* file, int32_t minimumEntryId,
                                            int32_t maximumEntryId,
                                            const KV_LogEntryIndexFilter* filter,
                                            KVX_EntryColumns* columns,
                                            KV_LogError** error) KV_LOG_NOEXCEPT;

/*
 * Logs `count` entries in one transaction, each as KV_LogFile_LogData would: entry i comes from
 * the source `dataSourceIds[i]`, with the data type `types[i]`, the time `timestamps[i]` and
 * the bytes payloads[payloadOffsets[i]] up to payloads[payloadOffsets[i + 1]] (`payloadOffsets`
 * has count + 1 elements and never decreases). Every entry is in the file when it returns true,
 * none when it returns false, with the message that KV_LogFile_LogData gives for the first entry
 * that fails. With `count` 0 nothing is read or written.
 */
KORVANE_LOGGING_EXPORT bool KVX_LogColumns(KV_LogFile* file, int32_t count,
                                           const int8_t* dataSourceIds, const int32_t* types,
                                           const int64_t* timestamps,
                                           const uint64_t* payloadOffsets, const uint8_t* payloads,
                                           KV_LogError** error) KV_LOG_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
