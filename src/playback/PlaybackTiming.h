#pragma once

namespace Korvane::Logging::Playback {

// How a `LogFilePlayer` spaces the frames it delivers.
//
// `Milliseconds`, the default, measures every wait and every lateness in whole milliseconds,
// truncated: the lateness of each frame is subtracted from the next wait, and what is lost below
// a millisecond is not carried. At 100 Hz and above that loss adds up to a replay that runs
// visibly slow, and scaled gaps below half a millisecond round to no wait at all.
//
// `Timeline` keeps an absolute schedule in nanoseconds on the monotonic clock: each frame is due
// at the previous frame's due time plus its recorded gap divided by the speed multiplier, with
// nothing rounded to milliseconds, so time spent reading, in the callback or in waking up late
// never accumulates. A frame found late is delivered at once, and the frames after it follow
// without waiting until the replay is back on schedule.
//
// Both modes deliver the same frames in the same order under the same numbers, cut gaps at or
// above `maxFrameDelayMs` to exactly that cap, unscaled, and start afresh with each run.
enum class PlaybackTiming { Milliseconds, Timeline };

}  // namespace Korvane::Logging::Playback
