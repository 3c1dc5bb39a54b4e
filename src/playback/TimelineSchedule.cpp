#include "TimelineSchedule.h"

#include <algorithm>
#include <limits>

#include "FrameTiming.h"

namespace Korvane::Logging::Playback {

void TimelineSchedule::restart(std::int64_t newOriginNs) {
    originNs = newOriginNs;
    recordedMs = 0;
    lastDueNs = newOriginNs;
    rateKnown = false;
}

std::int64_t TimelineSchedule::nextDueNs(std::int64_t gapMs, std::int32_t maxFrameDelayMs,
                                         float newMultiplier, std::int64_t nowNs) {
    if (gapMs >= maxFrameDelayMs) {
        restart(FrameTiming::deadlineNs(nowNs, maxFrameDelayMs));
        return lastDueNs;
    }
    // NaN equals nothing, so under it every frame starts afresh from its own moment.
    if (rateKnown && !(newMultiplier == multiplier)) {
        restart(std::max(lastDueNs, nowNs));
    }
    multiplier = newMultiplier;
    rateKnown = true;
    recordedMs = FrameTiming::saturatingAdd(recordedMs, gapMs);
    if (multiplier == 0.0f && gapMs > 0) {
        lastDueNs = std::numeric_limits<std::int64_t>::max();
        return lastDueNs;
    }
    // Exact in double precision up to 2^53 ns, about 104 days of recorded time since the origin.
    // At 0 the sum is not positive here: long past (an infinity) or, at 0 ms, NaN (0).
    const double offsetNs = static_cast<double>(recordedMs) * 1e6 / double{multiplier};
    lastDueNs = FrameTiming::saturatingAdd(originNs, FrameTiming::roundToInt64(offsetNs));
    return lastDueNs;
}

}  // namespace Korvane::Logging::Playback
