// Side-by-side throughput of the library and of plain SQLite doing the same statements.
//
// Every workload runs twice, as "library" and as "baseline", under Google Benchmark with manual
// timing; the table at the end gives the median of each and the ratio library/baseline, so
// that the noise of a shared machine cancels out. `--quick` shrinks every workload for smoke runs.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <map>
#include <random>

#include <malloc.h>
#include <unistd.h>

#include "RawSqlite.h"
#include "algorithms/Algorithms.h"
#include "sqlite/SqliteLogFile.h"
#include "sqlite/Statements.h"

namespace Korvane::Bench {
namespace {

namespace fs = std::filesystem;
using Logging::DataSource;
using Logging::EntryIndexFilter;
using Logging::SqliteLogFile;
using Clock = std::chrono::steady_clock;

bool quick = false;
fs::path workDir;

std::int64_t scaled(std::int64_t full) { return quick ? std::max<std::int64_t>(full / 100, 10) : full; }

// A synthetic sensor frame: a slow signal with noise, compressible but not trivially.
ByteArray sensorFrame(std::size_t size, std::uint32_t seed) {
    ByteArray bytes(size);
    std::minstd_rand random(seed);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>((i / 64 + seed) % 200 + random() % 4);
    }
    return bytes;
}

ByteArray smallPayload(std::int64_t i) {
    ByteArray bytes(64);
    for (std::size_t b = 0; b < bytes.size(); ++b) {
        bytes[b] = static_cast<std::uint8_t>(i * 31 + static_cast<std::int64_t>(b));
    }
    return bytes;
}

// A log file of `count` entries from `sources` sources, written in one transaction to save
// set-up time; built once per process and reused.
const std::string& fixture(const std::string& name, std::int64_t count, int sources,
                           const std::function<ByteArray(std::int64_t)>& payload, int level = 0) {
    static std::map<std::string, std::string> built;
    auto found = built.find(name);
    if (found != built.end()) {
        return found->second;
    }
    const std::string file = (workDir / (name + ".log")).string();
    {
        SqliteLogFile log(file, "", "bench", "1", static_cast<std::int8_t>(level), 0);
        for (int s = 0; s < sources; ++s) {
            DataSource source{-1, KV_LogDataSourceType{s}, "source" + std::to_string(s)};
            log.addDataSource(source);
        }
    }
    RawLog raw(file, false);
    raw.exec("BEGIN;");
    for (std::int64_t i = 0; i < count; ++i) {
        raw.log(i, 1, 1 + i % sources, payload(i), level);
    }
    raw.exec("COMMIT;");
    return built.emplace(name, file).first->second;
}

// Writes the fixtures out and reads them once, so that the first timed run neither waits for
// the write-back of the set-up nor reads from disk what later runs find in the page cache.
void settleFixtures() {
    ::sync();
    std::vector<char> buffer(1 << 20);
    for (const auto& entry : fs::directory_iterator(workDir)) {
        std::FILE* file = std::fopen(entry.path().c_str(), "rb");
        while (file != nullptr && std::fread(buffer.data(), 1, buffer.size(), file) > 0) {
        }
        if (file != nullptr) {
            std::fclose(file);
        }
    }
}

// Runs `body` once per repetition after an untimed `setup`, and reports the time of `body`.
void timed(benchmark::State& state, const std::function<void()>& setup,
           const std::function<void()>& body) {
    for (auto _ : state) {
        setup();
        const auto start = Clock::now();
        body();
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
}

struct Row {
    std::string name;
    std::string label;
    double entries;
    double bytes;
    double target;
    // The row whose library side this one's library side is compared with, and the least
    // speed-up expected over it; none when empty.
    std::string speedupOver = {};
    double speedupTarget = 0;
};
std::vector<Row> rows;
std::map<std::string, double> medians;  // seconds, by benchmark name

// Registers one workload as a library and a baseline benchmark and as a row of the table.
void add(const Row& row, int repetitions, const std::function<void(benchmark::State&)>& library,
         const std::function<void(benchmark::State&)>& baseline) {
    rows.push_back(row);
    for (const auto& [side, body] : {std::pair{"library", library}, std::pair{"baseline", baseline}}) {
        benchmark::RegisterBenchmark((row.name + "/" + side).c_str(), body)
            ->UseManualTime()
            ->Iterations(1)
            ->Repetitions(quick ? 1 : repetitions)
            ->Unit(benchmark::kMillisecond);
    }
}

// Collects the median of each benchmark and prints the table at the end.
class TableReporter : public benchmark::ConsoleReporter {
public:
    TableReporter() : ConsoleReporter(OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            const bool single = run.repetitions <= 1 && run.run_type == Run::RT_Iteration;
            if (single || (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")) {
                medians[run.run_name.function_name] = run.real_accumulated_time / run.iterations;
            }
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-44s %14s %14s %10s %10s %7s %7s\n", "workload (median)", "library e/s",
                    "baseline e/s", "lib MB/s", "base MB/s", "ratio", "target");
        for (const Row& row : rows) {
            const double library = medians[row.name + "/library"];
            const double baseline = medians[row.name + "/baseline"];
            if (library <= 0 || baseline <= 0) {
                continue;
            }
            const double ratio = baseline / library;
            std::printf("%-44s %14.0f %14.0f %10.1f %10.1f %7.2f %7s%s\n", row.label.c_str(),
                        row.entries / library, row.entries / baseline, row.bytes / library / 1e6,
                        row.bytes / baseline / 1e6, ratio,
                        row.target > 0 ? std::to_string(row.target).substr(0, 4).c_str() : "-",
                        row.target > 0 && ratio < row.target ? "  below target" : "");
        }
        for (const Row& row : rows) {
            const double library = medians[row.name + "/library"];
            const double other = medians[row.speedupOver + "/library"];
            const auto over = std::find_if(rows.begin(), rows.end(),
                                           [&](const Row& r) { return r.name == row.speedupOver; });
            if (row.speedupOver.empty() || library <= 0 || other <= 0 || over == rows.end()) {
                continue;
            }
            const double speedup = (row.entries / library) / (over->entries / other);
            const std::string target =
                row.speedupTarget > 0 ? ", target " + std::to_string(int(row.speedupTarget)) + "x"
                                      : std::string();
            std::printf("%-44s %6.1fx %s%s%s\n", row.label.c_str(), speedup,
                        row.speedupOver.c_str(), target.c_str(),
                        speedup < row.speedupTarget ? "  below target" : "");
        }
    }
};

// ---- Writing ----

// `count` entries of `size` bytes at `level`: one `logData` each when `batchSize` is 0, else
// `logEntries` of `batchSize` entries, against the same inserts in one transaction per batch.
void addWrite(Row row, std::size_t size, int level, std::int64_t batchSize = 0) {
    const auto count = static_cast<std::int64_t>(row.entries);
    row.bytes = row.entries * static_cast<double>(size);
    const ByteArray payload = size == 64 ? smallPayload(7) : sensorFrame(size, 7);
    const std::string file = (workDir / (row.name + ".log")).string();
    const auto fresh = [file] { fs::remove(file); };
    const std::int64_t perCall = std::max<std::int64_t>(batchSize, 1);
    std::vector<DataEntry> batch(static_cast<std::size_t>(perCall));
    for (std::size_t i = 0; i < batch.size(); ++i) {
        batch[i] = DataEntry{0, 1, 1, payload, static_cast<std::int64_t>(i)};
    }
    // A batched run takes about a second; more repetitions steady its median.
    add(row, batchSize == 0 ? 3 : 5,
        [=](benchmark::State& state) {
            std::unique_ptr<SqliteLogFile> log;
            std::vector<DataEntry> entries = batch;
            timed(
                state,
                [&] {
                    log.reset();
                    fresh();
                    log = std::make_unique<SqliteLogFile>(file, "", "bench", "1",
                                                          static_cast<std::int8_t>(level), 0);
                    DataSource source{-1, KV_LogDataSourceType{1}, "source"};
                    log->addDataSource(source);
                    for (DataEntry& entry : entries) {
                        entry.dataSourceId = source.id;
                    }
                },
                [&] {
                    for (std::int64_t done = 0; done < count; done += perCall) {
                        if (batchSize == 0) {
                            entries[0].timestamp = done;
                            log->logData(entries[0]);
                        } else {
                            log->logEntries(entries);
                        }
                    }
                });
        },
        [=](benchmark::State& state) {
            std::unique_ptr<RawLog> raw;
            std::int64_t source = 0;
            timed(
                state,
                [&] {
                    raw.reset();
                    fresh();
                    raw = std::make_unique<RawLog>(file, true);
                    source = raw->addSource(1, "source");
                },
                [&] {
                    for (std::int64_t done = 0; done < count; done += perCall) {
                        if (batchSize == 0) {
                            raw->log(done, 1, source, payload, level);
                            continue;
                        }
                        raw->exec(Logging::Statements::beginImmediate);
                        for (const DataEntry& entry : batch) {
                            raw->log(entry.timestamp, entry.type, source, entry.data, level);
                        }
                        raw->exec(Logging::Statements::commit);
                    }
                });
        });
}

// Appending `count` small entries to a file that already holds `existing`: the cost per entry
// must not grow with the file.
void addAppendScaling(std::int64_t existing) {
    const std::int64_t count = std::min<std::int64_t>(existing, scaled(20000));
    const std::string base = fixture("scale" + std::to_string(existing), existing, 1, smallPayload);
    const std::string name = "W1 append at " + std::to_string(existing);
    const auto copyOf = [base](const std::string& side) {
        const fs::path copy = workDir / ("append-" + side + "-" + fs::path(base).filename().string());
        fs::copy_file(base, copy, fs::copy_options::overwrite_existing);
        return copy.string();
    };
    add({name, "W1 logData 64 B into a file of " + std::to_string(existing), double(count),
         double(count) * 64, 0},
        3,
        [=](benchmark::State& state) {
            SqliteLogFile log{fs::path(copyOf("library"))};
            DataEntry entry{0, 1, 1, smallPayload(3), 0};
            timed(state, [] {}, [&] {
                for (std::int64_t i = 0; i < count; ++i) {
                    log.logData(entry);
                }
            });
        },
        [=](benchmark::State& state) {
            RawLog raw(copyOf("baseline"), false);
            const ByteArray payload = smallPayload(3);
            timed(state, [] {}, [&] {
                for (std::int64_t i = 0; i < count; ++i) {
                    raw.log(0, 1, 1, payload, 0);
                }
            });
        });
}

// ---- Reading ----

void addReadAll(const std::string& name, const std::string& label, std::int64_t count,
                std::size_t size, double target) {
    const ByteArray frame = sensorFrame(size, 3);
    const auto payload = [frame, size](std::int64_t i) {
        return size == 64 ? smallPayload(i) : frame;
    };
    const std::string file = fixture(name, count, 1, payload);
    add({name, label, double(count), double(count) * double(size), target}, 3,
        [=](benchmark::State& state) {
            SqliteLogFile log{fs::path(file)};
            timed(state, [] {}, [&] {
                benchmark::DoNotOptimize(log.readEntries(-1, -1, {}, -1));
            });
        },
        [=](benchmark::State& state) {
            RawLog raw(file, false);
            timed(state, [] {}, [&] { benchmark::DoNotOptimize(raw.readEntries(false)); });
        });
}

void addRandomReads(std::int64_t entries, double target) {
    const std::string file = fixture("scale" + std::to_string(entries), entries, 1, smallPayload);
    const std::int64_t reads = scaled(100000);
    std::vector<std::int32_t> ids(static_cast<std::size_t>(reads));
    std::mt19937 random(42);
    for (auto& id : ids) {
        id = static_cast<std::int32_t>(1 + random() % static_cast<std::uint64_t>(entries));
    }
    add({"R2 at " + std::to_string(entries),
         "R2 readEntry, random ids of " + std::to_string(entries), double(reads),
         double(reads) * 64, target},
        3,
        [=](benchmark::State& state) {
            SqliteLogFile log{fs::path(file)};
            timed(state, [] {}, [&] {
                for (std::int32_t id : ids) {
                    benchmark::DoNotOptimize(log.readEntry(id));
                }
            });
        },
        [=](benchmark::State& state) {
            RawLog raw(file, false);
            timed(state, [] {}, [&] {
                for (std::int32_t id : ids) {
                    benchmark::DoNotOptimize(raw.readEntry(id, false));
                }
            });
        });
}

void addEntryIndex(double target) {
    const std::int64_t count = scaled(1000000);
    const std::string file = fixture("fourSources", count, 4, smallPayload);
    add({"R3", "R3 getEntryIndex, 1 of 4 sources", double(count) / 4, 0, target}, 3,
        [=](benchmark::State& state) {
            SqliteLogFile log{fs::path(file)};
            EntryIndexFilter filter;
            filter.dataSources = {2};
            timed(state, [] {}, [&] { benchmark::DoNotOptimize(log.getEntryIndex(filter)); });
        },
        [=](benchmark::State& state) {
            RawLog raw(file, false);
            timed(state, [] {}, [&] { benchmark::DoNotOptimize(raw.entryIndexOfSource(2)); });
        });
}

// ---- Cloning ----

void addClone() {
    const std::size_t size = 64 << 10;
    const std::int64_t count = scaled(16384);  // 1 GiB
    const ByteArray frame = sensorFrame(size, 5);
    const std::string file = fixture("clone-source", count, 1, [&](std::int64_t i) {
        ByteArray bytes = frame;
        bytes[static_cast<std::size_t>(i) % size] ^= 0xff;
        return bytes;
    });
    const std::string output = (workDir / "clone-output.log").string();
    const auto fresh = [output] { fs::remove(output); };
    add({"C1", "C1 clone, level 0 to level 3", double(count), double(count) * double(size), 0}, 1,
        [=](benchmark::State& state) {
            SqliteLogFile log{fs::path(file)};
            timed(state, fresh, [&] {
                benchmark::DoNotOptimize(Logging::Algorithms::clone(log, output, "b", "1", 3));
            });
        },
        [=](benchmark::State& state) {
            RawLog source(file, false);
            timed(state, fresh, [&] {
                RawLog target(output, true);
                target.addSource(0, "source0");
                for (const DataEntry& entry : source.readEntries(false)) {
                    target.log(entry.timestamp, entry.type, entry.dataSourceId, entry.data, 3);
                }
            });
        });
}

// Whichever side runs first would otherwise pay the kernel's first touch of every page that
// its payloads land on, and glibc's moving mmap threshold would serve the two sides' megabyte
// payloads differently. A fixed threshold and a heap touched once up front serve both alike.
void prefaultHeap(std::size_t bytes) {
    mallopt(M_MMAP_THRESHOLD, 32 << 20);  // the largest fixed threshold glibc takes
    mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
    std::vector<std::unique_ptr<std::uint8_t[]>> chunks;
    for (std::size_t done = 0; done < bytes; done += 1 << 20) {
        chunks.emplace_back(new std::uint8_t[1 << 20]);
        std::memset(chunks.back().get(), 1, 1 << 20);
    }
}

}  // namespace
}  // namespace Korvane::Bench

int main(int argc, char** argv) {
    using namespace Korvane::Bench;
    std::vector<char*> arguments;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0) {
            quick = true;
        } else {
            arguments.push_back(argv[i]);
        }
    }
    // Repetitions of the library and of the baseline alternate in a random order, so that neither
    // side always runs first on a machine whose caches it has to warm.
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    arguments.insert(arguments.begin() + 1, interleave);
    int count = static_cast<int>(arguments.size());
    prefaultHeap(quick ? (64 << 20) : (std::size_t{3} << 30));
    workDir = fs::temp_directory_path() / ("korvane-bench-" + std::to_string(::getpid()));
    fs::create_directories(workDir);

    const auto entries = [](std::int64_t full) { return static_cast<double>(scaled(full)); };
    addWrite({"W1", "W1 logData 64 B, level 0", entries(200000), 0, 0.90}, 64, 0);
    // Batches of 1,000 through logEntries, beside W1.
    addWrite({"W4-64-0", "W4 logEntries 64 B, level 0", entries(1000000), 0, 0.90, "W1", 15}, 64,
             0, 1000);
    addWrite({"W4-64-1", "W4 logEntries 64 B, level -1", entries(1000000), 0, 0.90, "W1", 0},
             64, -1, 1000);
    addWrite({"W4-4k-0", "W4 logEntries 4 KiB, level 0", entries(100000), 0, 0.90}, 4096, 0, 1000);
    addWrite({"W4-4k-1", "W4 logEntries 4 KiB, level -1", entries(100000), 0, 0}, 4096, -1, 1000);
    addWrite({"W2", "W2 logData 1 MiB, level 0", entries(500), 0, 0.95}, 1 << 20, 0);
    addWrite({"W3-1", "W3 logData 64 KiB sensor frame, level -1", entries(2000), 0, 0.95}, 64 << 10,
             -1);
    addWrite({"W3-9", "W3 logData 64 KiB sensor frame, level 9", entries(500), 0, 0.95}, 64 << 10,
             9);
    addReadAll("R1-small", "R1 readEntries, 64 B entries", scaled(1000000), 64, 0.70);
    addReadAll("R1-large", "R1 readEntries, 1 MiB entries", scaled(2000), 1 << 20, 0.90);
    addRandomReads(scaled(1000000), 0.80);
    addEntryIndex(0.80);
    addClone();
    for (std::int64_t entries : {10000, 100000, 1000000, 10000000}) {
        if (!quick || entries <= 100000) {
            addAppendScaling(quick ? entries / 10 : entries);
            if (entries != 1000000) {
                addRandomReads(quick ? entries / 10 : entries, 0);
            }
        }
    }

    settleFixtures();
    benchmark::Initialize(&count, arguments.data());
    TableReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    fs::remove_all(workDir);
    return 0;
}
