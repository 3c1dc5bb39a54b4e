#pragma once

#include <cstdint>

#include "../model/Records.h"

namespace Korvane::Logging::Playback {

// A bookmark of the played log file together with the frame at which it lies.
//
// `entryId`, `title` and `comment` come from the log file; `payload` is always empty here.
// `frameNumber` is the first frame whose entry id is not below `entryId`, the last frame when
// the bookmark lies beyond every frame, and -1 when the player has no frames.
struct PlayerBookmark : Bookmark {
    // The frame at which the bookmark lies, as told above.
    std::int32_t frameNumber = -1;
};

}  // namespace Korvane::Logging::Playback
