// The C++ side of bench/package_bench.py: times the library's own readEntries and logEntries on
// the files and entries that the Python side times, and prints one line per round:
// "<seconds of wall clock> <seconds of processor time>".
//
//   package-compare-bench read FILE ROUNDS
//       readEntries(-1, -1, {}, -1) of FILE, ROUNDS times.
//   package-compare-bench write FILE COUNT SIZE LEVEL BATCH ROUNDS
//       a new FILE at LEVEL, then COUNT entries of SIZE bytes through logEntries in batches
//       of BATCH, ROUNDS times; the file is made before the clock starts.
//
// Entry i's payload byte j is (i + 31 j) mod 251, as the Python side makes it. Without
// arguments, or with --quick, it writes and reads 10,000 entries of 64 B once, to show that it
// works.

#include <korvane/logging/sqlite/SqliteLogFile.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

using namespace Korvane::Logging;

namespace {

struct Clocks {
    std::chrono::steady_clock::time_point wall = std::chrono::steady_clock::now();
    std::clock_t processor = std::clock();

    void print() const {
        const std::chrono::duration<double> wallSeconds = std::chrono::steady_clock::now() - wall;
        std::printf("%.6f %.6f\n", wallSeconds.count(),
                    double(std::clock() - processor) / CLOCKS_PER_SEC);
        std::fflush(stdout);
    }
};

ByteArray payload(std::int64_t entry, std::size_t size) {
    ByteArray bytes(size);
    for (std::size_t j = 0; j < size; ++j) {
        bytes[j] = static_cast<std::uint8_t>((entry + 31 * static_cast<std::int64_t>(j)) % 251);
    }
    return bytes;
}

int read(const std::string& file, int rounds) {
    SqliteLogFile log{std::filesystem::path(file)};
    for (int round = 0; round < rounds; ++round) {
        const Clocks clocks;
        const std::vector<DataEntry> entries = log.readEntries(-1, -1, {}, -1);
        clocks.print();
        if (entries.empty()) {
            return 1;
        }
    }
    return 0;
}

int write(const std::string& file, std::int64_t count, std::size_t size, int level,
          std::int64_t batchSize, int rounds) {
    std::vector<std::vector<DataEntry>> batches;
    for (std::int64_t first = 0; first < count; first += batchSize) {
        std::vector<DataEntry>& batch = batches.emplace_back();
        for (std::int64_t i = first; i < std::min(count, first + batchSize); ++i) {
            batch.push_back(DataEntry{0, 1, 1, payload(i, size), i});
        }
    }
    for (int round = 0; round < rounds; ++round) {
        std::filesystem::remove(file);
        SqliteLogFile log(file, "UTC", "package-compare-bench", "1",
                          static_cast<std::int8_t>(level), 0);
        DataSource source{-1, KV_LogDataSourceType{1}, "source"};
        log.addDataSource(source);
        const Clocks clocks;
        for (const std::vector<DataEntry>& batch : batches) {
            if (!log.logEntries(batch)) {
                std::fprintf(stderr, "%s\n", log.getLastError().c_str());
                return 1;
            }
        }
        clocks.print();
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty() || (args.size() == 1 && args[0] == "--quick")) {
        const std::string file =
            (std::filesystem::temp_directory_path() / "package-compare-bench.log").string();
        const int failed = write(file, 10000, 64, 0, 1000, 1) || read(file, 1);
        std::filesystem::remove(file);
        return failed;
    }
    if (args.size() == 3 && args[0] == "read") {
        return read(args[1], std::atoi(args[2].c_str()));
    }
    if (args.size() == 7 && args[0] == "write") {
        return write(args[1], std::atoll(args[2].c_str()),
                     std::strtoull(args[3].c_str(), nullptr, 10), std::atoi(args[4].c_str()),
                     std::atoll(args[5].c_str()), std::atoi(args[6].c_str()));
    }
    std::fprintf(stderr,
                 "usage: package-compare-bench read FILE ROUNDS\n"
                 "       package-compare-bench write FILE COUNT SIZE LEVEL BATCH ROUNDS\n");
    return 2;
}
