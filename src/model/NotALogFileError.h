#pragma once

#include <stdexcept>

#include "Export.h"

namespace Korvane::Logging {

// Thrown when a file is neither a log file of this format nor a legacy one.
class KORVANE_LOGGING_EXPORT NotALogFileError : public std::runtime_error {
public:
    NotALogFileError();
    ~NotALogFileError() override;
};

}  // namespace Korvane::Logging
