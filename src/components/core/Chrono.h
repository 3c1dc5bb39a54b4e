#pragma once

#include <cstdint>

namespace Korvane::Chrono {

// The present time in milliseconds since the Unix epoch.
std::int64_t msSinceUnixEpoch();

}  // namespace Korvane::Chrono
