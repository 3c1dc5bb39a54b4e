// play: the entries of a file in real time, one line per frame as the player delivers it.

#include <korvane/logging/playback/LogFilePlayer.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <mutex>

#include "Commands.h"
#include "Format.h"
#include "Terminal.h"

namespace KorvaneLog {

namespace {

using Korvane::Logging::Playback::LogFilePlayer;
using Korvane::Logging::Playback::PlaybackTiming;
using Clock = std::chrono::steady_clock;

// Prints the frames and keeps the account of the run. Frames arrive on the player's thread; the
// main thread waits on `changed` until the run is over.
class FrameSink {
public:
    FrameSink(const PlayOptions& options, std::vector<DataSource> sources)
        : options(options),
          sources(std::move(sources)),
          status(std::cout, STDOUT_FILENO),
          table({{"FRAME", true},
                 {"ENTRY", true},
                 {"TIME"},
                 {"POSITION", true},
                 {"SOURCE"},
                 {"TYPE", true},
                 {"SIZE", true}}) {
        for (const DataSource& source : this->sources) {
            table.reserveWidth(4, source.name.size());
        }
        table.reserveWidth(0, 6);
        table.reserveWidth(1, 6);
        table.reserveWidth(2, localDateTime(0).size());
        table.reserveWidth(3, 9);
        table.reserveWidth(6, 9);
    }

    // The clock starts at frame 0; `total` is the time from the first frame to the last.
    void start(std::int64_t originTimestamp, std::int32_t frames, std::int64_t total) {
        origin = originTimestamp;
        frameCount = frames;
        totalMs = total;
        startedAt = lastDelivery = Clock::now();
        table.printHeader(std::cout);
        std::cout.flush();
    }

    void deliver(std::int32_t frame, const DataEntry& entry) {
        const Clock::time_point now = Clock::now();
        std::lock_guard<std::mutex> lock(mutex);
        if (finished) {
            return;
        }
        // A wrap to frame 0 goes back in time; it adds nothing to the time played.
        const std::int64_t played =
            playedMs + (delivered > 0 ? std::max<std::int64_t>(0, entry.timestamp - previous) : 0);
        if (options.durationMs >= 0 && played > options.durationMs) {
            finish();
            return;
        }
        playedMs = played;
        latenessMs = std::chrono::duration<double, std::milli>(now - dueTime(frame, entry, now))
                         .count();
        previous = entry.timestamp;
        ++delivered;
        lastFrame = frame;
        lastDelivery = now;
        status.printAbove(table.formatRow(
            {std::to_string(frame), std::to_string(entry.entryId), localDateTime(entry.timestamp),
             clockTime(entry.timestamp - origin), sourceName(sources, entry.dataSourceId),
             std::to_string(entry.type), humanSize(entry.data.size())}));
        status.show(statusText(entry.timestamp));
        if (frame == frameCount - 1 && !options.loop) {
            finish();
        }
        doneWith = Clock::now();
        if (delivered == 1) {
            // Playback starts right after the first frame, shown by `seek`, and so does its
            // schedule.
            scheduleOrigin = doneWith;
        }
    }

    // Waits until the run is over, Ctrl-C was pressed, or the player fell silent for longer
    // than any wait it could be in, which means it ended early. True in the first case.
    bool waitForEnd(std::chrono::milliseconds longestWait) {
        std::unique_lock<std::mutex> lock(mutex);
        while (!finished && !InterruptGuard::raised()) {
            changed.wait_for(lock, std::chrono::milliseconds(100));
            if (!finished && Clock::now() - lastDelivery > longestWait) {
                return false;
            }
        }
        return finished;
    }

    void printSummary(bool interrupted) {
        std::lock_guard<std::mutex> lock(mutex);
        status.clear();
        const double seconds = std::chrono::duration<double>(Clock::now() - startedAt).count();
        char wall[32];
        std::snprintf(wall, sizeof wall, "%.2f s", seconds);
        std::cout << (interrupted ? "stopped by Ctrl-C: " : "played ") << delivered << " frames, "
                  << humanDuration(playedMs) << " of recorded time in " << wall << '\n';
    }

    std::int32_t lastDeliveredFrame() {
        std::lock_guard<std::mutex> lock(mutex);
        return lastFrame;
    }

private:
    // When a frame was due on a schedule kept here from the timestamps, the speed and the cap as
    // timeline playback keeps it, so that the live line tells the lateness in either timing. A
    // gap at the cap, a wrap's included, is due the cap after the previous frame was printed, and
    // starts the schedule afresh. The first frame is on time.
    Clock::time_point dueTime(std::int32_t frame, const DataEntry& entry, Clock::time_point now) {
        if (delivered == 0) {
            return now;
        }
        const std::int64_t gap = entry.timestamp - (frame == 0 ? 0 : previous);
        if (gap >= options.maxGapMs) {
            scheduleOrigin = doneWith + std::chrono::milliseconds(options.maxGapMs);
            recordedSinceOriginMs = 0;
            return scheduleOrigin;
        }
        recordedSinceOriginMs += gap;
        const std::chrono::duration<double, std::milli> offset(double(recordedSinceOriginMs) /
                                                               double(options.speed));
        return scheduleOrigin + std::chrono::duration_cast<Clock::duration>(offset);
    }

    void finish() {
        finished = true;
        changed.notify_all();
    }

    std::string statusText(std::int64_t timestamp) const {
        char speed[16];
        std::snprintf(speed, sizeof speed, "%gx", static_cast<double>(options.speed));
        const std::string frame =
            "frame " + std::to_string(lastFrame) + " of " + std::to_string(frameCount);
        char late[32];
        std::snprintf(late, sizeof late, "late %+.2f ms", latenessMs);
        return "\u25B6 " + clockTime(timestamp - origin) + " / " + clockTime(totalMs) + "  " +
               frame + "  " + speed + "  " + late + (options.loop ? "  loop" : "") +
               "  (Ctrl-C stops)";
    }

    const PlayOptions& options;
    std::vector<DataSource> sources;
    StatusLine status;
    Table table;
    std::mutex mutex;
    std::condition_variable changed;
    bool finished = false;
    std::int64_t origin = 0;
    std::int32_t frameCount = 0;
    std::int64_t totalMs = 0;
    std::int64_t delivered = 0;
    std::int32_t lastFrame = -1;
    std::int64_t playedMs = 0;
    std::int64_t previous = 0;
    Clock::time_point startedAt;
    Clock::time_point lastDelivery;
    Clock::time_point doneWith;  // when the last frame was printed
    Clock::time_point scheduleOrigin;
    std::int64_t recordedSinceOriginMs = 0;
    double latenessMs = 0;
};

// The player plays every entry when no source has one of the asked types; asking for a type
// that is not there is a mistake to report instead.
std::vector<KV_LogDataSourceType> chosenTypes(const PlayOptions& options,
                                              const std::vector<DataSource>& sources) {
    std::vector<KV_LogDataSourceType> types;
    for (const std::int32_t type : options.sourceTypes) {
        const bool present = std::any_of(sources.begin(), sources.end(), [type](const auto& s) {
            return static_cast<std::int32_t>(s.type) == type;
        });
        if (!present) {
            throw ToolError(options.file, "no data source of type " + std::to_string(type));
        }
        types.push_back(static_cast<KV_LogDataSourceType>(type));
    }
    return types;
}

}  // namespace

int runPlay(const PlayOptions& options) {
    std::unique_ptr<SqliteLogFile> log = openLog(options.file);
    const std::vector<DataSource> sources = log->getDataSources();
    FrameSink sink(options, sources);
    LogFilePlayer player(
        std::move(log), chosenTypes(options, sources),
        [&sink](std::int32_t frame, DataEntry entry) { sink.deliver(frame, entry); }, options.loop,
        options.maxGapMs);

    const std::int32_t frames = player.getFrameCount();
    if (frames == 0) {
        std::cout << "no frames to play\n";
        return 0;
    }
    if (options.seekFrame >= frames) {
        throw ToolError(options.file, "cannot seek to frame " + std::to_string(options.seekFrame) +
                                          ": the frames are 0 to " + std::to_string(frames - 1));
    }
    std::int64_t origin = 0;
    player.seek(0, [&origin](std::int32_t, DataEntry entry) { origin = entry.timestamp; });
    sink.start(origin, frames, player.getTotalPlayTime());
    player.setPlaybackSpeedMultiplier(options.speed);
    player.setPlaybackTiming(options.timing == "ms" ? PlaybackTiming::Milliseconds
                                                    : PlaybackTiming::Timeline);

    const InterruptGuard interrupt;
    player.seek(options.seekFrame);
    player.play();
    const auto longestWait = std::chrono::milliseconds(
        static_cast<std::int64_t>(options.maxGapMs / std::min(options.speed, 1.0f)) + 2000);
    const bool ended = sink.waitForEnd(longestWait);
    player.stop();
    if (!ended && !InterruptGuard::raised()) {
        throw ToolError(options.file, "playback ended after frame " +
                                          std::to_string(sink.lastDeliveredFrame()) +
                                          ": the next frame could not be read");
    }
    sink.printSummary(!ended);
    return 0;
}

}  // namespace KorvaneLog
