#pragma once

#include <chrono>
#include <cstdint>

// The arithmetic of the playback loop, apart from any clock, so that it can be checked alone.
// Every result that could pass the range of a signed 64-bit number stops at its bound instead.
namespace Korvane::Logging::Playback::FrameTiming {

// The recorded gap from `previousTimestampMs` to `timestampMs`.
std::int64_t gapMs(std::int64_t timestampMs, std::int64_t previousTimestampMs);

// `a + b`, or the bound of the 64-bit range that the sum would pass.
std::int64_t saturatingAdd(std::int64_t a, std::int64_t b);

// Rounds `value` to the nearest whole number, halves away from zero. Infinities and values past
// the 64-bit range give the nearest bound; NaN gives 0.
std::int64_t roundToInt64(double value);

// The wait before a frame, in milliseconds. A recorded `gapMs` at or above `maxFrameDelayMs`
// waits exactly the cap. A shorter one is divided in single precision by `speedMultiplier`,
// rounded by `roundToInt64`, and reduced by `timingCarryMs`, the lateness still to make up.
std::int64_t frameDelayMs(std::int64_t gapMs, std::int32_t maxFrameDelayMs,
                          float speedMultiplier, std::int64_t timingCarryMs);

// The end of a wait of `delayMs` that starts at `nowNs`, both on the monotonic clock. A delay
// below 1 ms ends at `nowNs`; a sum past the 64-bit range gives the largest 64-bit value.
std::int64_t deadlineNs(std::int64_t nowNs, std::int64_t delayMs);

// How far a frame ran behind its plan: the time actually waited, less the planned delay, plus
// the time taken to read the frame.
std::int64_t overrunMs(std::int64_t waitedMs, std::int64_t delayMs, std::int64_t fetchMs);

// The lateness carried to the next frame: the time the delivery took plus the frame's overrun.
std::int64_t nextTimingCarryMs(std::int64_t deliveryMs, std::int64_t overrunMs);

// The span from `firstTimestampMs` to `lastTimestampMs` as the difference of their low 32 bits,
// in 32-bit wrap-around arithmetic, taken as signed.
std::int32_t playTimeSpanMs(std::int64_t firstTimestampMs, std::int64_t lastTimestampMs);

// Whole milliseconds from `from` to `to`, truncated towards zero.
std::int64_t elapsedMs(std::chrono::steady_clock::time_point from,
                       std::chrono::steady_clock::time_point to);

}  // namespace Korvane::Logging::Playback::FrameTiming
