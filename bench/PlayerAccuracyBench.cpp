// Measures how closely a LogFilePlayer keeps to the recorded schedule, in both timings.
//
// Frames are recorded at a fixed rate into a temporary log file and played back, once with
// millisecond timing and once on the timeline. The first delivery is the reference; each later
// frame is due at the reference plus its recorded distance from the reference frame, divided by
// the speed multiplier. Lateness is how far a delivery came after that ideal moment (negative:
// early); drift is the lateness of the last frame; stretch is how much longer the replay took
// than the recording divided by the speed. A busy callback spins for 0.5 ms on every frame.
//
// A last line measures the playback thread's kind of wait alone: how late a condition
// variable's timed wait on the monotonic clock wakes up, with the timer slack at 1 ns.
//
// Usage: player-accuracy-bench [--quick]   (--quick records 0.5 s instead of 10 s)

#include <korvane/logging/playback/LogFilePlayer.h>
#include <korvane/logging/sqlite/SqliteLogFile.h>

#ifdef __linux__
#include <sys/prctl.h>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Korvane::Logging::DataEntry;
using Korvane::Logging::DataSource;
using Korvane::Logging::SqliteLogFile;
using Korvane::Logging::Playback::LogFilePlayer;
using Korvane::Logging::Playback::PlaybackTiming;

constexpr KV_LogDataSourceType sensorType{1};
constexpr std::int64_t recordingStart = 1'700'000'000'000;
constexpr std::int32_t maxFrameDelayMs = 1000;
constexpr std::size_t payloadSize = 256;
constexpr auto busyTime = std::chrono::microseconds(500);

struct Scenario {
    int rateHz;
    float multiplier;
    bool busy;
};

struct Result {
    std::size_t deliveries = 0;
    double medianMs = 0;
    double p99Ms = 0;
    double maxMs = 0;
    double driftMs = 0;
    double replaySeconds = 0;  // first delivery to last
    double idealSeconds = 0;   // first frame to last, recorded, divided by the speed
};

// Records `durationMs` of frames at `rateHz` into a new file at `path`.
void record(const std::filesystem::path& path, int rateHz, int durationMs) {
    SqliteLogFile file(path.string(), "UTC", "player-accuracy-bench", "1.0", std::int8_t{0},
                       recordingStart);
    DataSource sensor{-1, sensorType, "sensor"};
    file.addDataSource(sensor);
    std::minstd_rand random(7);
    DataEntry entry;
    entry.dataSourceId = sensor.id;
    entry.data.resize(payloadSize);
    const int frames = rateHz * durationMs / 1000 + 1;
    for (int i = 0; i < frames; ++i) {
        entry.timestamp = recordingStart + std::int64_t(i) * 1000 / rateHz;
        std::generate(entry.data.begin(), entry.data.end(),
                      [&] { return static_cast<std::uint8_t>(random()); });
        file.logData(entry);
    }
}

double percentile(const std::vector<double>& sorted, double fraction) {
    const auto rank = static_cast<std::size_t>(fraction * double(sorted.size() - 1) + 0.5);
    return sorted[std::min(rank, sorted.size() - 1)];
}

void spinFor(Clock::duration span) {
    const Clock::time_point end = Clock::now() + span;
    while (Clock::now() < end) {
    }
}

// Plays the file at `path` from frame 1 to its end and measures every delivery.
Result play(const std::filesystem::path& path, const Scenario& scenario, PlaybackTiming timing) {
    auto file = std::make_unique<SqliteLogFile>(path);
    const auto capacity = static_cast<std::size_t>(file->getEntryCount());
    std::vector<Clock::time_point> arrivals(capacity);
    std::vector<std::int64_t> timestamps(capacity);
    std::atomic<std::size_t> count{0};
    std::mutex mutex;
    std::condition_variable finished;

    const auto lastFrame = static_cast<std::int32_t>(capacity) - 1;
    auto callback = [&](std::int32_t frame, DataEntry entry) {
        const Clock::time_point now = Clock::now();
        const std::size_t index = count.load(std::memory_order_relaxed);
        arrivals[index] = now;
        timestamps[index] = entry.timestamp;
        if (scenario.busy) {
            spinFor(busyTime);
        }
        count.store(index + 1, std::memory_order_release);
        if (frame == lastFrame) {
            std::lock_guard<std::mutex> lock(mutex);
            finished.notify_all();
        }
    };
    LogFilePlayer player(std::move(file), {sensorType}, callback, false, maxFrameDelayMs);
    player.setPlaybackSpeedMultiplier(scenario.multiplier);
    player.setPlaybackTiming(timing);
    // Seeking to frame 0 first makes the first played gap the recorded one instead of the cap.
    player.seek(0, [](std::int32_t, DataEntry) {});

    player.play();
    {
        std::unique_lock<std::mutex> lock(mutex);
        finished.wait_for(lock, std::chrono::seconds(60),
                          [&] { return count.load(std::memory_order_acquire) == capacity - 1; });
    }
    player.stop();
    Result result;
    result.deliveries = count.load();
    if (result.deliveries == 0) {
        return result;
    }

    const double multiplier = scenario.multiplier;
    std::vector<double> lateness;
    lateness.reserve(result.deliveries);
    for (std::size_t i = 0; i < result.deliveries; ++i) {
        const double idealMs = double(timestamps[i] - timestamps[0]) / multiplier;
        const double actualMs =
            std::chrono::duration<double, std::milli>(arrivals[i] - arrivals[0]).count();
        lateness.push_back(actualMs - idealMs);
    }
    const std::size_t last = result.deliveries - 1;
    result.driftMs = lateness.back();
    result.replaySeconds = std::chrono::duration<double>(arrivals[last] - arrivals[0]).count();
    result.idealSeconds = double(timestamps[last] - timestamps[0]) / multiplier / 1000.0;
    std::sort(lateness.begin(), lateness.end());
    result.medianMs = percentile(lateness, 0.5);
    result.p99Ms = percentile(lateness, 0.99);
    result.maxMs = lateness.back();
    return result;
}

// How late a timed wait of `span` on a condition variable wakes, in microseconds, `count` times;
// returns the median and the 99th percentile.
std::pair<double, double> wakeLatenessUs(Clock::duration span, int count) {
#ifdef __linux__
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
#endif
    std::mutex mutex;
    std::condition_variable never;
    std::vector<double> lateness;
    std::unique_lock<std::mutex> lock(mutex);
    for (int i = 0; i < count; ++i) {
        const Clock::time_point deadline = Clock::now() + span;
        while (Clock::now() < deadline) {
            never.wait_until(lock, deadline);
        }
        lateness.push_back(
            std::chrono::duration<double, std::micro>(Clock::now() - deadline).count());
    }
    std::sort(lateness.begin(), lateness.end());
    return {percentile(lateness, 0.5), percentile(lateness, 0.99)};
}

const char* nameOf(PlaybackTiming timing) {
    return timing == PlaybackTiming::Timeline ? "timeline" : "ms";
}

}  // namespace

int main(int argc, char** argv) {
    const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
    const int durationMs = quick ? 500 : 10'000;
    const Scenario scenarios[] = {{100, 1.0f, false},
                                  {100, 10.0f, false},
                                  {1000, 1.0f, false},
                                  {1000, 10.0f, false},
                                  {1000, 1.0f, true}};
    const PlaybackTiming timings[] = {PlaybackTiming::Milliseconds, PlaybackTiming::Timeline};

    const auto folder = std::filesystem::temp_directory_path() /
                        ("korvane-player-bench-" + std::to_string(std::random_device{}()));
    std::filesystem::create_directories(folder);

    std::printf(
        "Player delivery accuracy: %.1f s recorded, cap %d ms, lateness in ms (negative: early)\n",
        durationMs / 1000.0, maxFrameDelayMs);
    std::printf("%8s %4s %-6s %-8s %6s %8s %8s %8s %8s %7s %7s %7s\n", "rate", "x", "busy",
                "timing", "frames", "median", "p99", "max", "drift", "replay", "ideal", "stretch");
    int status = 0;
    // The replay time of each timing at 1 kHz and 1x, against which 10x is compared.
    std::map<PlaybackTiming, double> oneKilohertzAt1x;
    std::map<PlaybackTiming, double> oneKilohertzAt10x;
    for (const Scenario& scenario : scenarios) {
        const auto path = folder / ("rate-" + std::to_string(scenario.rateHz) + ".klog");
        if (!std::filesystem::exists(path)) {
            record(path, scenario.rateHz, durationMs);
        }
        for (const PlaybackTiming timing : timings) {
            const Result result = play(path, scenario, timing);
            const auto expected = static_cast<std::size_t>(scenario.rateHz * durationMs / 1000);
            const double stretch =
                result.idealSeconds > 0 ? result.replaySeconds / result.idealSeconds - 1 : 0;
            std::printf(
                "%5d Hz %3.0fx %-6s %-8s %6zu %8.3f %8.3f %8.3f %8.3f %7.3f %7.3f %6.2f%%\n",
                scenario.rateHz, double(scenario.multiplier), scenario.busy ? "0.5 ms" : "-",
                nameOf(timing), result.deliveries, result.medianMs, result.p99Ms, result.maxMs,
                result.driftMs, result.replaySeconds, result.idealSeconds, 100 * stretch);
            if (result.deliveries != expected) {
                std::fprintf(stderr, "expected %zu deliveries, got %zu\n", expected,
                             result.deliveries);
                status = 1;
            }
            if (scenario.rateHz == 1000 && !scenario.busy) {
                (scenario.multiplier == 1.0f ? oneKilohertzAt1x : oneKilohertzAt10x)[timing] =
                    result.replaySeconds;
            }
        }
    }
    for (const PlaybackTiming timing : timings) {
        if (oneKilohertzAt10x[timing] > 0) {
            std::printf("1 kHz, %s: 1x takes %.2f times as long as 10x\n", nameOf(timing),
                        oneKilohertzAt1x[timing] / oneKilohertzAt10x[timing]);
        }
    }
    const auto [median, p99] = wakeLatenessUs(std::chrono::milliseconds(1), quick ? 200 : 2000);
    std::printf(
        "Timed wait of 1 ms on a condition variable wakes late by %.0f us (median), "
        "%.0f us (p99)\n",
        median, p99);

    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return status;
}
