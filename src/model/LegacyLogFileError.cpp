#include "LegacyLogFileError.h"

namespace Korvane::Logging {

LegacyLogFileError::LegacyLogFileError() : std::runtime_error("Tried to open a legacy log file.") {}

LegacyLogFileError::~LegacyLogFileError() = default;

}  // namespace Korvane::Logging
