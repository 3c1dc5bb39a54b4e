#pragma once

#include <string>

#include "RawDatabase.h"
#include "sqlite/Statements.h"

namespace Korvane::Testing {

// A file as an older writer made it: the schema, a version row (unless negative) and a level.
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
