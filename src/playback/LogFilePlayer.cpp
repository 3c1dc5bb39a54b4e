#include "LogFilePlayer.h"

#ifdef __linux__
#include <sys/prctl.h>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "FrameTiming.h"
#include "TimelineSchedule.h"

namespace Korvane::Logging::Playback {

namespace {

using Clock = std::chrono::steady_clock;

std::int64_t toNs(Clock::time_point point) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(point.time_since_epoch()).count();
}

Clock::time_point fromNs(std::int64_t ns) {
    return Clock::time_point(std::chrono::duration_cast<Clock::duration>(
        std::chrono::nanoseconds(ns)));
}

}  // namespace

// Everything a player knows. `stateMutex` guards `playing` alone. While playback runs,
// `currentFrame`, `currentEntry`, `previousTimestamp` and the reading of `logFile` belong to the
// playback thread; other threads touch them only after `stop` has joined it.
struct PlayerState {
    PlayerState(std::unique_ptr<LogFileInterface> file, FrameCallback callback, bool loop,
                std::int32_t maxDelayMs)
        : logFile(std::move(file)),
          frameCallback(std::move(callback)),
          loopPlayback(loop),
          maxFrameDelayMs(maxDelayMs) {}

    bool isPlaying();
    void play();
    void stop();
    bool advanceFrame();
    bool advanceOnThread();
    void reloadBookmarks();
    void playbackLoop();
    std::int32_t frameNumberOf(std::int32_t entryId) const;
    DataEntry takeCurrentEntry();

    std::unique_ptr<LogFileInterface> logFile;
    std::vector<DataSource> dataSources;
    std::vector<PlayerBookmark> bookmarks;
    std::vector<std::int32_t> frames;
    FrameCallback frameCallback;
    std::atomic<bool> loopPlayback;
    std::int32_t maxFrameDelayMs;
    std::atomic<float> playbackSpeedMultiplier{1.0f};
    std::atomic<PlaybackTiming> playbackTiming{PlaybackTiming::Milliseconds};
    std::int32_t currentFrame = 0;
    std::thread playbackThread;
    std::mutex stateMutex;
    std::condition_variable wakeCondition;
    std::unique_ptr<DataEntry> currentEntry;
    std::int64_t previousTimestamp = 0;
    bool playing = false;
};

bool PlayerState::isPlaying() {
    std::lock_guard<std::mutex> lock(stateMutex);
    return playing;
}

void PlayerState::play() {
    if (!frameCallback) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(stateMutex);
        if (playing) {
            return;
        }
        playing = true;
    }
    try {
        // A run that ended by itself leaves its finished thread behind.
        if (playbackThread.joinable()) {
            playbackThread.join();
        }
        playbackThread = std::thread(&PlayerState::playbackLoop, this);
    } catch (...) {
        // Without a thread nothing would ever clear the flag, and `play` would stay a no-op.
        std::lock_guard<std::mutex> lock(stateMutex);
        playing = false;
        throw;
    }
}

void PlayerState::stop() {
    std::unique_lock<std::mutex> lock(stateMutex);
    if (!playing) {
        // The thread of a run that ended by itself has released the mutex for good, so joining
        // it under the lock cannot block it.
        if (playbackThread.joinable()) {
            playbackThread.join();
        }
        return;
    }
    playing = false;
    lock.unlock();
    wakeCondition.notify_one();
    playbackThread.join();
}

bool PlayerState::advanceFrame() {
    ++currentFrame;
    if (currentFrame >= static_cast<std::int32_t>(frames.size())) {
        // Without frames there is no frame 0 to wrap to.
        if (!loopPlayback.load() || frames.empty()) {
            return false;
        }
        currentFrame = 0;
        previousTimestamp = 0;
    }
    // Whether the read yields nothing or throws, the previous entry must not stay behind to be
    // delivered again under this frame number.
    currentEntry.reset();
    std::optional<DataEntry> entry = logFile->readEntry(frames[currentFrame]);
    if (!entry) {
        // A frame that can't be read ends the run as the end of the list does.
        return false;
    }
    currentEntry = std::make_unique<DataEntry>(std::move(*entry));
    return true;
}

std::int32_t PlayerState::frameNumberOf(std::int32_t entryId) const {
    const auto found = std::lower_bound(frames.begin(), frames.end(), entryId);
    if (found == frames.end()) {
        return static_cast<std::int32_t>(frames.size()) - 1;
    }
    return static_cast<std::int32_t>(found - frames.begin());
}

void PlayerState::reloadBookmarks() {
    std::vector<Bookmark> read = logFile->getBookmarks();
    bookmarks.clear();
    bookmarks.reserve(read.size());
    for (Bookmark& bookmark : read) {
        PlayerBookmark entry;
        entry.entryId = bookmark.entryId;
        entry.title = std::move(bookmark.title);
        entry.comment = std::move(bookmark.comment);
        entry.frameNumber = frameNumberOf(bookmark.entryId);
        bookmarks.push_back(std::move(entry));
    }
}

DataEntry PlayerState::takeCurrentEntry() {
    DataEntry entry;
    entry.entryId = currentEntry->entryId;
    entry.dataSourceId = currentEntry->dataSourceId;
    entry.type = currentEntry->type;
    entry.data = std::move(currentEntry->data);
    entry.timestamp = currentEntry->timestamp;
    return entry;
}

bool PlayerState::advanceOnThread() {
    try {
        return advanceFrame();
    } catch (...) {
        // A damaged file makes the read throw (a payload that does not uncompress, a page that
        // is no database). Here that would end the process; the frame ends the run instead, as
        // a frame that reads as nothing does.
        return false;
    }
}

void PlayerState::playbackLoop() {
#ifdef __linux__
    // Timed waits of this thread end as close to their deadline as the system can manage,
    // instead of up to 50 microseconds late.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
#endif
    // What paces the frames: in milliseconds, the lateness still to make up; on the timeline,
    // the schedule. Both start afresh with each thread and when the timing changes during a run.
    std::optional<PlaybackTiming> pacing;
    std::int64_t timingCarry = 0;
    TimelineSchedule schedule;
    for (;;) {
        const Clock::time_point t0 = Clock::now();
        if (!advanceOnThread()) {
            std::lock_guard<std::mutex> lock(stateMutex);
            playing = false;
            return;
        }
        const PlaybackTiming timing = playbackTiming.load();
        if (pacing != timing) {
            pacing = timing;
            timingCarry = 0;
            schedule.restart(toNs(t0));
        }
        const bool onTimeline = timing == PlaybackTiming::Timeline;
        const std::int64_t gap = FrameTiming::gapMs(currentEntry->timestamp, previousTimestamp);
        const float multiplier = playbackSpeedMultiplier.load();
        const std::int64_t delay =
            onTimeline ? 0
                       : FrameTiming::frameDelayMs(gap, maxFrameDelayMs, multiplier, timingCarry);
        previousTimestamp = currentEntry->timestamp;
        const std::int64_t fetchMs = FrameTiming::elapsedMs(t0, Clock::now());

        const Clock::time_point t1 = Clock::now();
        std::unique_lock<std::mutex> lock(stateMutex);
        const std::int64_t nowNs = toNs(Clock::now());
        const Clock::time_point deadline =
            fromNs(onTimeline ? schedule.nextDueNs(gap, maxFrameDelayMs, multiplier, nowNs)
                              : FrameTiming::deadlineNs(nowNs, delay));
        // A timed wait rather than a sleep, so that `stop` ends it at once.
        while (playing && Clock::now() < deadline) {
            wakeCondition.wait_until(lock, deadline);
        }
        const std::int64_t overrun =
            FrameTiming::overrunMs(FrameTiming::elapsedMs(t1, Clock::now()), delay, fetchMs);
        const Clock::time_point t2 = Clock::now();
        if (!playing) {
            return;
        }
        lock.unlock();

        frameCallback(currentFrame, takeCurrentEntry());
        timingCarry = FrameTiming::nextTimingCarryMs(FrameTiming::elapsedMs(t2, Clock::now()),
                                                     overrun);
    }
}

LogFilePlayer::LogFilePlayer(std::unique_ptr<LogFileInterface> logFile,
                             const std::vector<KV_LogDataSourceType>& dataSourceTypes,
                             FrameCallback frameCallback, bool loopPlayback,
                             std::int32_t maxFrameDelayMs) {
    if (!logFile) {
        throw std::invalid_argument("LogFilePlayer needs a log file");
    }
    state = std::make_unique<PlayerState>(std::move(logFile), std::move(frameCallback),
                                          loopPlayback, maxFrameDelayMs);

    std::vector<DataSource>& sources = state->dataSources;
    sources = state->logFile->getDataSources();
    sources.erase(std::remove_if(sources.begin(), sources.end(),
                                 [&](const DataSource& source) {
                                     return std::find(dataSourceTypes.begin(),
                                                      dataSourceTypes.end(),
                                                      source.type) == dataSourceTypes.end();
                                 }),
                  sources.end());

    // With no source left the filter is empty and selects every entry of the file.
    EntryIndexFilter filter;
    for (const DataSource& source : sources) {
        filter.dataSources.push_back(source.id);
    }
    state->frames = state->logFile->getEntryIndex(filter);
    state->reloadBookmarks();
}

LogFilePlayer::LogFilePlayer(LogFilePlayer&& other) noexcept {
    if (other.state) {
        other.state->stop();
    }
    state = std::move(other.state);
}

LogFilePlayer& LogFilePlayer::operator=(LogFilePlayer&& other) noexcept {
    if (this == &other) {
        return *this;
    }
    if (other.state) {
        other.state->stop();
    }
    if (state) {
        state->stop();
    }
    state = std::move(other.state);
    return *this;
}

LogFilePlayer::~LogFilePlayer() {
    if (state) {
        state->stop();
    }
}

void LogFilePlayer::play() {
    state->play();
}

void LogFilePlayer::stop() {
    state->stop();
}

void LogFilePlayer::seek(std::int32_t frameNumber, FrameCallback callback) {
    if (frameNumber < 0 || frameNumber >= getFrameCount()) {
        return;
    }
    const bool wasPlaying = state->isPlaying();
    if (wasPlaying) {
        state->stop();
    }
    state->currentFrame = frameNumber - 1;
    // An exception of the read passes with the position at the target and playback stopped.
    state->advanceFrame();
    if (!state->currentEntry) {
        // The frame couldn't be read: there is nothing to show and no timestamp to measure from.
        if (wasPlaying) {
            state->play();
        }
        return;
    }
    state->previousTimestamp = state->currentEntry->timestamp;
    const FrameCallback& target = callback ? callback : state->frameCallback;
    target(frameNumber, state->takeCurrentEntry());
    if (wasPlaying) {
        state->play();
    }
}

void LogFilePlayer::setLoopPlayback(bool loopPlayback) {
    state->loopPlayback.exchange(loopPlayback);
}

void LogFilePlayer::setPlaybackSpeedMultiplier(float multiplier) {
    state->playbackSpeedMultiplier.exchange(multiplier);
}

void LogFilePlayer::setPlaybackTiming(PlaybackTiming timing) {
    state->playbackTiming.exchange(timing);
}

std::int32_t LogFilePlayer::getFrameCount() const {
    return static_cast<std::int32_t>(state->frames.size());
}

std::int32_t LogFilePlayer::getTotalPlayTime() {
    if (state->frames.empty()) {
        return 0;
    }
    const bool wasPlaying = state->isPlaying();
    if (wasPlaying) {
        state->stop();
    }
    const std::int32_t savedFrame = state->currentFrame;
    std::optional<std::int64_t> first;
    std::optional<std::int64_t> last;
    try {
        state->currentFrame = -1;
        if (state->advanceFrame()) {
            first = state->currentEntry->timestamp;
        }
        state->currentFrame = getFrameCount() - 2;
        if (state->advanceFrame()) {
            last = state->currentEntry->timestamp;
        }
    } catch (...) {
        // The position belongs to the caller and stays; playback stays stopped, as after a
        // `seek` that fails.
        state->currentFrame = savedFrame;
        throw;
    }
    state->currentFrame = savedFrame;
    if (wasPlaying) {
        state->play();
    }
    return first && last ? FrameTiming::playTimeSpanMs(*first, *last) : 0;
}

const std::vector<DataSource>& LogFilePlayer::getDataSources() const {
    return state->dataSources;
}

const LogFileInterface& LogFilePlayer::getUnderlyingLogFile() const {
    return *state->logFile;
}

void LogFilePlayer::addBookmark(std::int32_t entryId, const std::string& title,
                                const std::string& comment) {
    state->logFile->addBookmark(Bookmark{entryId, title, comment, {}});
    state->reloadBookmarks();
}

void LogFilePlayer::updateBookmark(std::int32_t entryId, const std::string& title,
                                   const std::string& comment) {
    state->logFile->updateBookmark(Bookmark{entryId, title, comment, {}});
    state->reloadBookmarks();
}

void LogFilePlayer::removeBookmark(std::int32_t entryId) {
    state->logFile->removeBookmark(Bookmark{entryId, {}, {}, {}});
    state->reloadBookmarks();
}

const std::vector<PlayerBookmark>& LogFilePlayer::getBookmarks() const {
    return state->bookmarks;
}

}  // namespace Korvane::Logging::Playback
