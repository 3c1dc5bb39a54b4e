#include "LogFileInterface.h"

namespace Korvane::Logging {

LogFileInterface::~LogFileInterface() = default;

bool LogFileInterface::addMetadata(const LogMetadataEntry& entry) {
    PropertyValue value = entry.value;
    return addMetadata(entry.key, std::move(value));
}

bool LogFileInterface::addResource(const LogResourceEntry& entry) {
    return addResource(entry.name, entry.data);
}

}  // namespace Korvane::Logging
