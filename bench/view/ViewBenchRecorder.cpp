// The recordings of view_bench.py, made through the library.
//
//   view-bench-recorder fill FILE COUNT      a new FILE of COUNT entries of 64 B over four
//                                            sources, each at 1 kHz, written in batches
//   view-bench-recorder live FILE SECONDS    appends an entry of 64 B to FILE every millisecond
//                                            for SECONDS with logData, and prints how long the
//                                            calls took as one JSON line

#include <korvane/logging/sqlite/SqliteLogFile.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Korvane::Logging::ByteArray;
using Korvane::Logging::DataEntry;
using Korvane::Logging::DataSource;
using Korvane::Logging::SqliteLogFile;

constexpr std::size_t payloadSize = 64;
constexpr std::int64_t startMs = 1'700'000'000'000;

// Sensor-like bytes: a counter and slowly drifting values, compressible as real samples are.
ByteArray payloadOf(std::int64_t index, std::int8_t source) {
    ByteArray bytes(payloadSize);
    std::uint64_t state = static_cast<std::uint64_t>(index) * 2654435761u + source;
    for (std::size_t i = 0; i < payloadSize; ++i) {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        bytes[i] = i < 8 ? static_cast<std::uint8_t>(index >> (8 * i))
                         : static_cast<std::uint8_t>((i * 7 + (state >> 60)) & 0xff);
    }
    return bytes;
}

int fill(const char* file, std::int64_t count) {
    SqliteLogFile log(file, "UTC", "view-bench", "1.0", -1, startMs);
    std::vector<std::int8_t> sources;
    for (const char* name : {"imu", "gnss", "camera", "lidar"}) {
        DataSource source{-1, KV_LogDataSourceType{1}, name};
        if (!log.addDataSource(source)) {
            std::fprintf(stderr, "%s: %s\n", file, log.getLastError().c_str());
            return 1;
        }
        sources.push_back(source.id);
    }
    const auto started = Clock::now();
    std::vector<DataEntry> batch;
    for (std::int64_t i = 0; i < count; ++i) {
        const std::int8_t source = sources[static_cast<std::size_t>(i % 4)];
        batch.push_back(DataEntry{0, source, 1, payloadOf(i, source), startMs + i / 4});
        if (batch.size() == 1000 || i + 1 == count) {
            if (!log.logEntries(batch)) {
                std::fprintf(stderr, "%s: %s\n", file, log.getLastError().c_str());
                return 1;
            }
            batch.clear();
        }
    }
    std::printf("{\"entries\": %lld, \"seconds\": %.3f}\n", static_cast<long long>(count),
                std::chrono::duration<double>(Clock::now() - started).count());
    return 0;
}

int live(const char* file, double seconds) {
    SqliteLogFile log{std::filesystem::path(file)};
    const std::int32_t last = log.getLastEntryId();
    const std::optional<DataEntry> previous = last > 0 ? log.readEntry(last) : std::nullopt;
    const std::int64_t firstTime = previous ? previous->timestamp + 1 : startMs;
    const std::int8_t source = log.getDataSources().at(0).id;
    const auto count = static_cast<std::int64_t>(seconds * 1000);
    std::vector<double> took;
    int failed = 0;
    const auto start = Clock::now();
    for (std::int64_t i = 0; i < count; ++i) {
        std::this_thread::sleep_until(start + std::chrono::milliseconds(i));
        const auto before = Clock::now();
        failed += log.logData(DataEntry{0, source, 1, payloadOf(i, source), firstTime + i}) ? 0 : 1;
        took.push_back(std::chrono::duration<double, std::milli>(Clock::now() - before).count());
    }
    std::sort(took.begin(), took.end());
    const auto at = [&took](double q) {
        return took[static_cast<std::size_t>(q * (took.size() - 1))];
    };
    std::printf(
        "{\"entries\": %lld, \"failed\": %d, \"p50\": %.3f, \"p99\": %.3f, \"max\": %.3f}\n",
        static_cast<long long>(count), failed, at(0.5), at(0.99), took.back());
    return failed == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "fill") == 0) {
        return fill(argv[2], std::atoll(argv[3]));
    }
    if (argc == 4 && std::strcmp(argv[1], "live") == 0) {
        return live(argv[2], std::atof(argv[3]));
    }
    std::fprintf(stderr, "usage: view-bench-recorder fill FILE COUNT | live FILE SECONDS\n");
    return 2;
}
