// The KVX_ functions that read and write entries as columns in the caller's memory. They reach
// SqliteLogFile itself: its row visit and its batch write are not part of LogFileInterface.

#include <cstdint>
#include <cstring>
#include <vector>

#include "flat/GuardedCall.h"
#include "flat/Handles.h"
#include "flat/KV_LogExtensions.h"
#include "sqlite/SqliteLogFile.h"

using namespace Korvane::Logging;

namespace {

using Payloads = SqliteLogFile::Payloads;
using EntryRow = SqliteLogFile::EntryRow;
using VisitEnd = SqliteLogFile::VisitEnd;

// A batch keeps the memory of its records for the next one on the same thread, up to this many
// bytes of payload room: small batches then allocate nothing, and a huge one gives it back.
constexpr std::size_t keptBatchBytes = std::size_t{64} << 20;

bool refuse(KV_LogError** error, const char* message) noexcept {
    saveError(error, message);
    return false;
}

// The file behind a handle; every handle holds one, whichever call made it.
SqliteLogFile* sqliteFile(KV_LogFile* file, KV_LogError** error) noexcept {
    auto* sqlite = dynamic_cast<SqliteLogFile*>(file->logFile.get());
    if (sqlite == nullptr) {
        saveError(error, "Unknown internal error");
    }
    return sqlite;
}

// Runs one visit inside the safety net and gives how it ended; a visit that fails reports the
// file's last error. An exception counts as a row that failed.
template <typename Visit>
SqliteLogFile::VisitEnd visitEntries(KV_LogFile* file, std::int32_t minimumEntryId,
                                     std::int32_t maximumEntryId,
                                     const KV_LogEntryIndexFilter* filter, Payloads payloads,
                                     KV_LogError** error, Visit&& visit) noexcept {
    const SqliteLogFile* sqlite = sqliteFile(file, error);
    if (sqlite == nullptr) {
        return VisitEnd::RowFailed;
    }
    return failSafe(VisitEnd::RowFailed, error, [&] {
        const VisitEnd end =
            sqlite->visitEntries(minimumEntryId, maximumEntryId, record(filter), payloads, visit);
        if (end != VisitEnd::Complete) {
            saveError(error, sqlite->getLastError());
        }
        return end;
    });
}

}  // namespace

bool KVX_MeasureEntries(KV_LogFile* file, int32_t minimumEntryId, int32_t maximumEntryId,
                        const KV_LogEntryIndexFilter* filter, int32_t* count,
                        uint64_t* payloadBytes, KV_LogError** error) noexcept {
    *count = 0;
    if (payloadBytes != nullptr) {
        *payloadBytes = 0;
    }
    const SqliteLogFile* sqlite = sqliteFile(file, error);
    if (sqlite == nullptr) {
        return false;
    }
    return failSafe(false, error, [&] {
        const auto totals =
            sqlite->measureEntries(minimumEntryId, maximumEntryId, record(filter),
                                   payloadBytes == nullptr ? Payloads::Skip : Payloads::Size);
        if (!totals) {
            saveError(error, sqlite->getLastError());
            return false;
        }
        *count = static_cast<std::int32_t>(totals->entries);
        if (payloadBytes != nullptr) {
            *payloadBytes = totals->payloadBytes;
        }
        return true;
    });
}

bool KVX_ReadColumns(KV_LogFile* file, int32_t minimumEntryId, int32_t maximumEntryId,
                     const KV_LogEntryIndexFilter* filter, KVX_EntryColumns* columns,
                     KV_LogError** error) noexcept {
    KVX_EntryColumns& out = *columns;
    out.count = 0;
    out.payloadSize = 0;
    out.nextEntryId = -1;
    out.nextPayloadSize = 0;
    if (out.capacity < 0) {
        return refuse(error, "The capacity of the columns cannot be negative.");
    }
    if (out.payloadOffsets != nullptr) {
        out.payloadOffsets[0] = 0;
    }
    const Payloads payloads = out.payloads != nullptr         ? Payloads::Bytes
                              : out.payloadOffsets != nullptr ? Payloads::Size
                                                              : Payloads::Skip;
    std::size_t lastSize = 0;
    const VisitEnd end = visitEntries(
        file, minimumEntryId, maximumEntryId, filter, payloads, error, [&](EntryRow& row) {
            const bool fits =
                out.count < out.capacity &&
                (payloads != Payloads::Bytes || row.size <= out.payloadCapacity - out.payloadSize);
            if (!fits) {
                out.nextEntryId = row.entryId;
                out.nextPayloadSize = payloads == Payloads::Bytes ? row.size : 0;
                return false;
            }
            const auto at = static_cast<std::size_t>(out.count);
            if (out.entryIds != nullptr) {
                out.entryIds[at] = row.entryId;
            }
            if (out.timestamps != nullptr) {
                out.timestamps[at] = row.timestamp;
            }
            if (out.dataSourceIds != nullptr) {
                out.dataSourceIds[at] = row.dataSourceId;
            }
            if (out.types != nullptr) {
                out.types[at] = row.type;
            }
            if (payloads == Payloads::Bytes) {
                row.target = out.payloads + out.payloadSize;
            }
            lastSize = row.size;
            out.payloadSize += row.size;
            if (out.payloadOffsets != nullptr) {
                out.payloadOffsets[at + 1] = out.payloadSize;
            }
            ++out.count;
            return true;
        });
    if (end == VisitEnd::PayloadFailed) {
        --out.count;
        out.payloadSize -= lastSize;
    }
    return end == VisitEnd::Complete;
}

bool KVX_LogColumns(KV_LogFile* file, int32_t count, const int8_t* dataSourceIds,
                    const int32_t* types, const int64_t* timestamps, const uint64_t* payloadOffsets,
                    const uint8_t* payloads, KV_LogError** error) noexcept {
    if (!file->acceptsData) {
        return refuse(error, "Data cannot be logged into pre-existing log files.");
    }
    if (count < 0) {
        return refuse(error, "The number of entries cannot be negative.");
    }
    for (std::int32_t i = 0; i < count; ++i) {
        if (payloadOffsets[i + 1] < payloadOffsets[i]) {
            return refuse(error, "The payload offsets cannot decrease.");
        }
    }
    SqliteLogFile* sqlite = sqliteFile(file, error);
    if (sqlite == nullptr) {
        return false;
    }
    return failSafe(false, error, [&] {
        thread_local std::vector<DataEntry> batch;
        const auto entries = static_cast<std::size_t>(count);
        // Records of an earlier batch keep their payload's memory, which `assign` reuses.
        batch.resize(entries);
        std::size_t bytes = 0;
        for (std::size_t i = 0; i < entries; ++i) {
            DataEntry& entry = batch[i];
            entry.dataSourceId = dataSourceIds[i];
            entry.type = types[i];
            entry.timestamp = timestamps[i];
            const std::uint8_t* begin = payloads + payloadOffsets[i];
            entry.data.assign(begin, payloads + payloadOffsets[i + 1]);
            bytes += entry.data.capacity();
        }
        const bool logged = sqlite->logEntries(batch);
        if (bytes > keptBatchBytes) {
            std::vector<DataEntry>().swap(batch);
        }
        if (!logged) {
            saveError(error, sqlite->getLastError());
        }
        return logged;
    });
}
