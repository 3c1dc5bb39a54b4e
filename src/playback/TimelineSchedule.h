#pragma once

#include <cstdint>

namespace Korvane::Logging::Playback {

// The absolute schedule of timeline playback, apart from any clock, so that it can be checked
// as arithmetic. Times are nanoseconds on the monotonic clock, gaps whole recorded milliseconds.
//
// A frame is due at the previous frame's due time plus its gap divided by the multiplier. The
// schedule keeps the recorded milliseconds since its origin as an exact integer and divides
// their sum once per frame, so a due time is off by at most half a nanosecond and the error
// never accumulates, however many frames follow: 1000 gaps of 1 ms at 3x end exactly
// 333,333,333 ns after the origin. A new origin is taken where the sum can't go on:
// - a gap at or above the cap: the frame is due exactly the cap after `nowNs`, unscaled, and
//   the following frames count from that due time;
// - a multiplier other than the one before: the following frames count from the previous due
//   time at the new rate, or from `nowNs` if that has passed, so that a change of speed never
//   has the replay rush to make up for time spent at another one.
// A multiplier below 0 or NaN divides into due times that have passed or into none, so such
// frames come without waits. At 0, a positive gap is due at the end of time (the wait lasts
// until playback stops) and the frames before it come without waits.
class TimelineSchedule {
public:
    // Starts afresh: the next frame below the cap is due its gap after `originNs`.
    void restart(std::int64_t originNs);

    // The due time of the next frame, `gapMs` after the previous one; `nowNs` is the clock
    // reading at which the frame is ready to wait. Results saturate at the 64-bit bounds.
    std::int64_t nextDueNs(std::int64_t gapMs, std::int32_t maxFrameDelayMs, float multiplier,
                           std::int64_t nowNs);

private:
    std::int64_t originNs = 0;
    std::int64_t recordedMs = 0;  // since the origin
    std::int64_t lastDueNs = 0;
    float multiplier = 0.0f;  // the rate since the origin, once `rateKnown`
    bool rateKnown = false;
};

}  // namespace Korvane::Logging::Playback
