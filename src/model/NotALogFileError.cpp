#include "NotALogFileError.h"

namespace Korvane::Logging {

NotALogFileError::NotALogFileError()
    : std::runtime_error("This file is not in a supported log file format.") {}

NotALogFileError::~NotALogFileError() = default;

}  // namespace Korvane::Logging
