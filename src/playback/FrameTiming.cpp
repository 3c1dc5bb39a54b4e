#include "FrameTiming.h"

#include <cmath>
#include <limits>

namespace Korvane::Logging::Playback::FrameTiming {

namespace {

constexpr std::int64_t int64Max = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t int64Min = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t nsPerMs = 1'000'000;

std::int64_t saturatingSub(std::int64_t a, std::int64_t b) {
    std::int64_t difference = 0;
    if (__builtin_sub_overflow(a, b, &difference)) {
        return b < 0 ? int64Max : int64Min;
    }
    return difference;
}

}  // namespace

std::int64_t saturatingAdd(std::int64_t a, std::int64_t b) {
    std::int64_t sum = 0;
    if (__builtin_add_overflow(a, b, &sum)) {
        return b > 0 ? int64Max : int64Min;
    }
    return sum;
}

std::int64_t gapMs(std::int64_t timestampMs, std::int64_t previousTimestampMs) {
    return saturatingSub(timestampMs, previousTimestampMs);
}

std::int64_t roundToInt64(double value) {
    // 2^63 is exact in double precision; every double below it in magnitude fits into 64 bits.
    constexpr double limit = 9223372036854775808.0;
    if (std::isnan(value)) {
        return 0;
    }
    if (value >= limit) {
        return int64Max;
    }
    if (value < -limit) {
        return int64Min;
    }
    return std::llround(value);
}

std::int64_t frameDelayMs(std::int64_t gapMs, std::int32_t maxFrameDelayMs,
                          float speedMultiplier, std::int64_t timingCarryMs) {
    if (gapMs >= maxFrameDelayMs) {
        return maxFrameDelayMs;
    }
    const float scaled = static_cast<float>(gapMs) / speedMultiplier;
    return saturatingSub(roundToInt64(scaled), timingCarryMs);
}

std::int64_t deadlineNs(std::int64_t nowNs, std::int64_t delayMs) {
    if (delayMs < 1) {
        return nowNs;
    }
    if (delayMs > int64Max / nsPerMs) {
        return int64Max;
    }
    return saturatingAdd(nowNs, delayMs * nsPerMs);
}

std::int64_t overrunMs(std::int64_t waitedMs, std::int64_t delayMs, std::int64_t fetchMs) {
    return saturatingAdd(saturatingSub(waitedMs, delayMs), fetchMs);
}

std::int64_t nextTimingCarryMs(std::int64_t deliveryMs, std::int64_t overrunMs) {
    return saturatingAdd(deliveryMs, overrunMs);
}

std::int32_t playTimeSpanMs(std::int64_t firstTimestampMs, std::int64_t lastTimestampMs) {
    const auto span = static_cast<std::uint32_t>(lastTimestampMs) -
                      static_cast<std::uint32_t>(firstTimestampMs);
    return static_cast<std::int32_t>(span);
}

std::int64_t elapsedMs(std::chrono::steady_clock::time_point from,
                       std::chrono::steady_clock::time_point to) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count();
}

}  // namespace Korvane::Logging::Playback::FrameTiming
