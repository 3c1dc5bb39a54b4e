#pragma once

#include <string>

#include "RawDatabase.h"
#include "sqlite/Statements.h"

namespace Korvane::Testing {

// Writes a log file as an older or foreign writer would: the schema and the two metadata rows
// that steer reading, with any log version and level. A negative `logVersion` leaves its row out.
inline void writeLogFileOfVersion(const std::string& path, int logVersion, int compressionLevel) {
    RawDatabase database(path);
    for (const char* statement : Logging::Statements::schema) {
        database.exec(statement);
    }
    database.exec("INSERT INTO metadata VALUES " +
                  (logVersion < 0 ? "" : "('logVersion', " + std::to_string(logVersion) + "), ") +
                  "('compressionLevel', " + std::to_string(compressionLevel) + ");");
}

}  // namespace Korvane::Testing
