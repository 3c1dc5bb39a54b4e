#pragma once

#include <stdexcept>

#include "Export.h"

namespace Korvane::Logging {

// Thrown when a file is of the earlier, non-database log format, which cannot be opened.
class KORVANE_LOGGING_EXPORT LegacyLogFileError : public std::runtime_error {
public:
    LegacyLogFileError();
    ~LegacyLogFileError() override;
};

}  // namespace Korvane::Logging
