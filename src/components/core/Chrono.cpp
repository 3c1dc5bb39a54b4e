#include "Chrono.h"

#include <chrono>

namespace Korvane::Chrono {

std::int64_t msSinceUnixEpoch() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

}  // namespace Korvane::Chrono
