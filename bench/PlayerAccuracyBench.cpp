// Measures how closely a LogFilePlayer keeps to the recorded schedule.
//
// Frames are recorded at a fixed rate into a temporary log file and played back. The first
// delivery is the reference; each later frame is due at the reference plus its recorded distance
// from the reference frame, divided by the speed multiplier. Lateness is how far a delivery came
// after that ideal moment (negative: early); drift is the lateness of the last frame.
//
// Usage: player-accuracy-bench [--quick]   (--quick records 1 s instead of 10 s)

#include <korvane/logging/playback/LogFilePlayer.h>
#include <korvane/logging/sqlite/SqliteLogFile.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
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

constexpr KV_LogDataSourceType sensorType{1};
constexpr std::int64_t recordingStart = 1'700'000'000'000;
constexpr std::int32_t maxFrameDelayMs = 1000;
constexpr std::size_t payloadSize = 256;

struct Scenario {
    int rateHz;
    float multiplier;
};

struct Result {
    std::size_t deliveries = 0;
    double medianMs = 0;
    double p99Ms = 0;
    double maxMs = 0;
    double driftMs = 0;
    double wallSeconds = 0;
};

// Records `seconds` of frames at `rateHz` into a new file at `path`.
void record(const std::filesystem::path& path, int rateHz, int seconds) {
    SqliteLogFile file(path.string(), "UTC", "player-accuracy-bench", "1.0", std::int8_t{0},
                       recordingStart);
    DataSource sensor{-1, sensorType, "sensor"};
    file.addDataSource(sensor);
    std::minstd_rand random(7);
    DataEntry entry;
    entry.dataSourceId = sensor.id;
    entry.data.resize(payloadSize);
    const int frames = rateHz * seconds + 1;
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

// Plays the file at `path` from frame 1 to its end and measures every delivery.
Result play(const std::filesystem::path& path, float multiplier) {
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
        count.store(index + 1, std::memory_order_release);
        if (frame == lastFrame) {
            std::lock_guard<std::mutex> lock(mutex);
            finished.notify_all();
        }
    };
    LogFilePlayer player(std::move(file), {sensorType}, callback, false, maxFrameDelayMs);
    player.setPlaybackSpeedMultiplier(multiplier);
    // Seeking to frame 0 first makes the first played gap the recorded one instead of the cap.
    player.seek(0, [](std::int32_t, DataEntry) {});

    const Clock::time_point start = Clock::now();
    player.play();
    {
        std::unique_lock<std::mutex> lock(mutex);
        finished.wait_for(lock, std::chrono::seconds(60), [&] {
            return count.load(std::memory_order_acquire) == capacity - 1;
        });
    }
    player.stop();
    Result result;
    result.wallSeconds = std::chrono::duration<double>(Clock::now() - start).count();
    result.deliveries = count.load();
    if (result.deliveries == 0) {
        return result;
    }

    std::vector<double> lateness;
    lateness.reserve(result.deliveries);
    for (std::size_t i = 0; i < result.deliveries; ++i) {
        const double idealMs = double(timestamps[i] - timestamps[0]) / double(multiplier);
        const double actualMs =
            std::chrono::duration<double, std::milli>(arrivals[i] - arrivals[0]).count();
        lateness.push_back(actualMs - idealMs);
    }
    result.driftMs = lateness.back();
    std::sort(lateness.begin(), lateness.end());
    result.medianMs = percentile(lateness, 0.5);
    result.p99Ms = percentile(lateness, 0.99);
    result.maxMs = lateness.back();
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
    const int seconds = quick ? 1 : 10;
    const Scenario scenarios[] = {{100, 1.0f}, {1000, 1.0f}, {1000, 10.0f}};

    const auto folder = std::filesystem::temp_directory_path() /
                        ("korvane-player-bench-" + std::to_string(std::random_device{}()));
    std::filesystem::create_directories(folder);

    std::printf("Player delivery accuracy over %d s of recording, cap %d ms "
                "(lateness in ms against the recorded schedule; negative is early)\n",
                seconds, maxFrameDelayMs);
    std::printf("%-8s %5s %7s %9s %9s %9s %10s %8s\n", "rate", "speed", "frames", "median",
                "p99", "max", "end drift", "wall s");
    int status = 0;
    for (const Scenario& scenario : scenarios) {
        const auto path = folder / ("rate-" + std::to_string(scenario.rateHz) + ".klog");
        if (!std::filesystem::exists(path)) {
            record(path, scenario.rateHz, seconds);
        }
        const Result result = play(path, scenario.multiplier);
        const auto expected = static_cast<std::size_t>(scenario.rateHz * seconds);
        std::printf("%5d Hz %4.0fx %7zu %9.3f %9.3f %9.3f %10.3f %8.2f\n", scenario.rateHz,
                    double(scenario.multiplier), result.deliveries, result.medianMs,
                    result.p99Ms, result.maxMs, result.driftMs, result.wallSeconds);
        if (result.deliveries != expected) {
            std::fprintf(stderr, "expected %zu deliveries, got %zu\n", expected,
                         result.deliveries);
            status = 1;
        }
    }
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return status;
}
