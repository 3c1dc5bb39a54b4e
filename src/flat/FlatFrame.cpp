// KV_LogError, KV_LogConfig, and the functions that make, open and free a KV_LogFile.

#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include "components/core/Chrono.h"
#include "flat/GuardedCall.h"
#include "flat/Handles.h"
#include "flat/KV_Log.h"
#include "flat/KV_LogExtensions.h"
#include "sqlite/SqliteLogFile.h"

using namespace Korvane::Logging;

namespace {

enum class PathState { Absent, Present, Unknown };

// Whether anything stands at `path`, following links: a file, a directory or any other object
// is present, a link to nothing is absent. When the path cannot be examined, the reason goes to
// `error` and the state is Unknown; the caller then refuses, since it cannot tell what is there.
PathState examinePath(const char* path, KV_LogError** error) noexcept {
    return failSafe(PathState::Unknown, error, [&] {
        std::error_code code;
        const std::filesystem::file_status status = std::filesystem::status(path, code);
        if (status.type() == std::filesystem::file_type::not_found) {
            return PathState::Absent;
        }
        if (code) {
            saveError(error, "Cannot examine the path: " + code.message() + ".");
            return PathState::Unknown;
        }
        return PathState::Present;
    });
}

// Opens the log file at `path` for `access` behind a handle that accepts no data.
KV_LogFile* openLogFile(const char* path, SqliteLogFile::Access access,
                        KV_LogError** error) noexcept {
    switch (examinePath(path, error)) {
    case PathState::Unknown:
        return nullptr;
    case PathState::Absent:
        saveError(error, "Log file does not exist.");
        return nullptr;
    case PathState::Present:
        break;
    }
    KV_LogFile* result = nullptr;
    guardedCall(error, [&] {
        std::unique_ptr<LogFileInterface> logFile =
            std::make_unique<SqliteLogFile>(std::filesystem::path(path), access);
        result = new KV_LogFile{std::move(logFile), false};
    });
    return result;
}

}  // namespace

void KV_LogError_GetErrorMessage(const KV_LogError* error, const char** message) noexcept {
    *message = error->message.c_str();
}

void KV_LogError_Destroy(KV_LogError* error) noexcept {
    delete error;
}

KV_LogConfig* KV_LogConfig_Create(const char* applicationName, const char* applicationVersion,
                                  const char* timeZone) noexcept {
    return failSafe<KV_LogConfig*>(nullptr, nullptr, [&] {
        return new KV_LogConfig{applicationName, applicationVersion, timeZone};
    });
}

void KV_LogConfig_Destroy(KV_LogConfig* config) noexcept {
    delete config;
}

void KV_LogConfig_GetCompressionLevel(const KV_LogConfig* config, int8_t* level) noexcept {
    *level = config->compressionLevel;
}

bool KV_LogConfig_SetCompressionLevel(KV_LogConfig* config, int8_t level,
                                      KV_LogError** error) noexcept {
    if (level < -1 || level > 9) {
        saveError(error, "Invalid compression level, value must be in the range [0,9].");
        return false;
    }
    config->compressionLevel = level;
    return true;
}

void KV_LogConfig_GetTimeZone(const KV_LogConfig* config, const char** timeZone) noexcept {
    *timeZone = config->timeZone.c_str();
}

bool KV_LogConfig_SetTimeZone(KV_LogConfig* config, const char* timeZone) noexcept {
    // A string assignment that throws changes nothing, so the old text survives a failure.
    return failSafe(false, nullptr, [&] {
        config->timeZone = timeZone;
        return true;
    });
}

KV_LogFile* KV_LogFile_Create(const char* path, const KV_LogConfig* config,
                              KV_LogError** error) noexcept {
    switch (examinePath(path, error)) {
    case PathState::Unknown:
        return nullptr;
    case PathState::Present:
        saveError(error, "Cannot create file as file already exists.");
        return nullptr;
    case PathState::Absent:
        break;
    }
    KV_LogFile* result = nullptr;
    guardedCall(error, [&] {
        const std::int64_t creationTime = Korvane::Chrono::msSinceUnixEpoch();
        std::unique_ptr<LogFileInterface> logFile = std::make_unique<SqliteLogFile>(
            path, config->timeZone, config->applicationName, config->applicationVersion,
            config->compressionLevel, creationTime);
        result = new KV_LogFile{std::move(logFile), true};
    });
    return result;
}

KV_LogFile* KV_LogFile_Open(const char* path, KV_LogError** error) noexcept {
    return openLogFile(path, SqliteLogFile::Access::ReadWrite, error);
}

KV_LogFile* KVX_OpenReadOnly(const char* path, KV_LogError** error) noexcept {
    return openLogFile(path, SqliteLogFile::Access::ReadOnly, error);
}

void KV_LogFile_Destroy(KV_LogFile* file) noexcept {
    // The log file's destructor closes the connection; every write is already complete.
    delete file;
}
