#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "../model/Export.h"
#include "../model/LogFileInterface.h"
#include "../model/Records.h"
#include "PlaybackTiming.h"
#include "PlayerBookmark.h"

namespace Korvane::Logging::Playback {

struct PlayerState;

// Receives one frame: its frame number and the entry, which owns its payload. It runs with no
// lock held and must not throw; the player does not catch.
using FrameCallback = std::function<void(std::int32_t frameNumber, DataEntry entry)>;

// Replays a log file as a sequence of frames, in real time, on a thread of its own.
//
// A frame is one entry of the data sources chosen at construction; frame numbers are 0-based
// positions in the ascending list of their entry ids. `play` delivers the frames after the
// current position to the frame callback on the playback thread, spaced as their timestamps
// were, divided by the speed multiplier, with gaps at or above `maxFrameDelayMs` cut to exactly
// that cap. Time lost to reading and to the callback comes off the following waits, in whole
// milliseconds by default or to the nanosecond on an absolute schedule (`setPlaybackTiming`).
// The player holds one entry at a time, whatever the size of the log file.
//
// The player owns its log file and destroys it with itself. It moves but does not copy; a
// moved-from player may only be destroyed or assigned to. `play`, `stop`, `seek`,
// `getTotalPlayTime` and destruction are to come from one thread at a time and never from inside
// a frame callback; so are the bookmark operations and `getBookmarks`, which may run while the
// playback thread reads the log file. Failures to start, join or lock the playback thread are
// reported as `std::system_error`.
class KORVANE_LOGGING_EXPORT LogFilePlayer {
public:
    // Takes over `logFile`, which must not be null (else `std::invalid_argument`). The frames
    // are the entries of the sources whose type is in `dataSourceTypes`; when no source matches,
    // every entry of the file is a frame. `frameCallback` is copied and may be empty, in which
    // case `play` does nothing and only `seek` with a callable of its own delivers. The player
    // starts at frame 0 without having read it, so a first `play` delivers frame 1 first.
    // Exceptions of the log file pass through, and the log file is then destroyed.
    LogFilePlayer(std::unique_ptr<LogFileInterface> logFile,
                  const std::vector<KV_LogDataSourceType>& dataSourceTypes,
                  FrameCallback frameCallback, bool loopPlayback, std::int32_t maxFrameDelayMs);

    // Both moves stop the playback of `other` first; assignment also stops and destroys the
    // player it replaces, log file included. `other` is left empty.
    LogFilePlayer(LogFilePlayer&& other) noexcept;
    LogFilePlayer& operator=(LogFilePlayer&& other) noexcept;
    LogFilePlayer(const LogFilePlayer&) = delete;
    LogFilePlayer& operator=(const LogFilePlayer&) = delete;

    // Stops playback, waits for the playback thread and destroys the log file.
    ~LogFilePlayer();

    // Starts delivering the frames after the current position on a new playback thread. Does
    // nothing while playing or when the player has no frame callback. Without looping, playback
    // ends by itself after the last frame; a later `play` then delivers nothing unless looping
    // was switched on or `seek` moved the position. A frame whose entry the log file can't give,
    // because the read yields nothing or throws, ends the run quietly in the same way,
    // undelivered: the exception goes nowhere, and the next `play` goes on after that frame.
    void play();

    // Ends playback and waits for the playback thread. The position stays: a frame read but not
    // yet delivered is skipped, and the next `play` goes on after it. Does nothing when stopped.
    void stop();

    // Moves to `frameNumber` and delivers that frame at once, on the calling thread, to
    // `callback` or, when that is empty, to the frame callback; `std::bad_function_call` if both
    // are empty. Running playback is stopped first and restarted afterwards, continuing with the
    // next frame after the recorded gap. A frame number outside 0 to `getFrameCount() - 1` is
    // ignored: nothing moves, nothing is delivered and playback is not interrupted. A frame that
    // reads as nothing is not delivered, and playback goes on after it. An exception, from the
    // log file's read or from the callable, passes to the caller with the position at
    // `frameNumber` and playback left stopped; the next `play` goes on after the target.
    void seek(std::int32_t frameNumber, FrameCallback callback = {});

    // Whether playback wraps to frame 0 after the last frame; takes effect also during a run.
    void setLoopPlayback(bool loopPlayback);

    // Divides the recorded gaps below the cap by `multiplier` from the next frame on; 2.0 plays
    // twice as fast. The value is not checked: a negative one or NaN gives no waits, and 0 holds
    // playback at the next positive gap below the cap until `stop`. On the timeline a change of
    // multiplier counts the following frames from the previous frame's due time, or from the
    // moment of the change if that has passed: lateness from before the change is not made up.
    void setPlaybackSpeedMultiplier(float multiplier);

    // Chooses how frames are spaced, from the next frame on; `PlaybackTiming::Milliseconds`
    // until called. May be called before or during playback. A change during a run starts the
    // new timing afresh from the frame after it, as a new run would: without lateness to make
    // up, and on the timeline with that frame's gap counted from the moment it began.
    void setPlaybackTiming(PlaybackTiming timing);

    // The number of frames.
    std::int32_t getFrameCount() const;

    // The span in milliseconds from the first frame's timestamp to the last one's, computed on
    // the low 32 bits of both; 0 without frames or when one of the two entries reads as nothing.
    // Reads both entries on every call and briefly stops running playback to do so; the position
    // that the next `play` starts from is kept. An exception of a read passes to the caller with
    // the position kept and playback left stopped.
    std::int32_t getTotalPlayTime();

    // The data sources whose entries are frames, in the log file's order.
    const std::vector<DataSource>& getDataSources() const;

    // The log file the player owns.
    const LogFileInterface& getUnderlyingLogFile() const;

    // Adds a bookmark with an empty payload to the log file, then rereads the bookmarks. A refusal
    // of the log file shows only in its `getLastError`. Does not interrupt playback.
    void addBookmark(std::int32_t entryId, const std::string& title, const std::string& comment);

    // Replaces title and comment of every bookmark of `entryId` and empties their payloads, then
    // rereads the bookmarks. Does not interrupt playback.
    void updateBookmark(std::int32_t entryId, const std::string& title,
                        const std::string& comment);

    // Removes every bookmark of `entryId`, then rereads the bookmarks. Does not interrupt
    // playback.
    void removeBookmark(std::int32_t entryId);

    // The bookmarks of the log file in its order, each with its frame number. The contents are
    // replaced by every bookmark operation, so references into them don't survive one.
    const std::vector<PlayerBookmark>& getBookmarks() const;

private:
    std::unique_ptr<PlayerState> state;
};

}  // namespace Korvane::Logging::Playback
