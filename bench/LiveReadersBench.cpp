// Measures what readers in other processes cost a recorder, and how soon `korvane-log tail`
// shows what the recorder writes.
//
// A recorder in a child process logs entries of 256 B at 1 kHz and times each logData. It runs
// alone; with `korvane-log tail` following the file and `korvane-log cat` reading all of it in a
// loop; and in a large file while another process reads the whole file with one readEntries,
// again and again. Tail's lines are read here: an entry's delay is the time from the return of
// its logData to its line from tail, both on the monotonic clock, which processes share.
//
// Usage: live-readers-bench [--quick]   (--quick records 1 s per case instead of 5 s)

#include <fcntl.h>
#include <korvane/logging/sqlite/SqliteLogFile.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Korvane::Logging::DataEntry;
using Korvane::Logging::DataSource;
using Korvane::Logging::SqliteLogFile;

constexpr std::size_t payloadSize = 256;
constexpr int rateHz = 1000;

std::int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

std::int8_t createWithSource(const fs::path& file) {
    SqliteLogFile log(file.string(), "UTC", "live-readers-bench", "1.0", -1, 0);
    DataSource source{-1, KV_LogDataSourceType{1}, "sensor"};
    log.addDataSource(source);
    return source.id;
}

// Fills `file` with `count` entries, the way a long recording would have.
void prefill(const fs::path& file, std::int8_t source, int count) {
    SqliteLogFile log{file};
    const Korvane::Logging::ByteArray payload(payloadSize, 7);
    for (int i = 0; i < count; ++i) {
        log.logData(DataEntry{0, source, 1, payload, i});
    }
}

pid_t spawn(const std::function<void()>& child) {
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        child();
        _exit(0);
    }
    return pid;
}

// Runs the tool with `arguments`; its stdout goes to `outFd` (or nowhere when -1).
pid_t runTool(const std::vector<std::string>& arguments, int outFd) {
    return spawn([&] {
        const int target = outFd >= 0 ? outFd : open("/dev/null", O_WRONLY);
        dup2(target, STDOUT_FILENO);
        std::vector<char*> argv{const_cast<char*>(KORVANE_LOG_TOOL)};
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        execv(KORVANE_LOG_TOOL, argv.data());
        _exit(127);
    });
}

void stopChild(pid_t pid) {
    kill(pid, SIGTERM);
    int status = 0;
    waitpid(pid, &status, 0);
}

// Records `count` entries at `rateHz` into `file` and reports, for each, a line on `reportFd`:
// the new id, when its logData returned and how long it took, in nanoseconds.
void recordPaced(const fs::path& file, std::int8_t source, int count, int reportFd) {
    SqliteLogFile log{file};
    std::int32_t id = std::max(log.getLastEntryId(), 0);
    const Korvane::Logging::ByteArray payload(payloadSize, 1);
    const std::int64_t start = nowNs();
    for (int i = 0; i < count; ++i) {
        const std::int64_t due = start + std::int64_t{i} * 1'000'000'000 / rateHz;
        std::this_thread::sleep_for(std::chrono::nanoseconds(due - nowNs()));
        const std::int64_t before = nowNs();
        const bool logged = log.logData(DataEntry{0, source, 1, payload, i});
        const std::int64_t after = nowNs();
        char line[96];
        const int size =
            std::snprintf(line, sizeof line, "%d %lld %lld\n", logged ? ++id : -1,
                          static_cast<long long>(after), static_cast<long long>(after - before));
        if (write(reportFd, line, static_cast<std::size_t>(size)) < 0) {
            _exit(2);
        }
    }
}

// Reads lines from `fd` until its end, giving each to `take`.
void forEachLine(int fd, const std::function<void(const std::string&)>& take) {
    std::string pending;
    char buffer[65536];
    ssize_t got;
    while ((got = read(fd, buffer, sizeof buffer)) > 0) {
        pending.append(buffer, static_cast<std::size_t>(got));
        std::size_t end;
        while ((end = pending.find('\n')) != std::string::npos) {
            take(pending.substr(0, end));
            pending.erase(0, end + 1);
        }
    }
}

struct Spread {
    double p50 = 0, p99 = 0, max = 0;
};

Spread spreadMs(std::vector<std::int64_t> ns) {
    if (ns.empty()) {
        return {};
    }
    std::sort(ns.begin(), ns.end());
    const auto at = [&ns](double q) {
        return static_cast<double>(ns[static_cast<std::size_t>(q * double(ns.size() - 1))]) / 1e6;
    };
    return {at(0.5), at(0.99), static_cast<double>(ns.back()) / 1e6};
}

struct CaseResult {
    int failed = 0;
    Spread logData;
    Spread tailDelay;
    std::size_t tailSeen = 0;
};

// Runs the recorder for `count` entries into `file`, with tail following it when `withTail`,
// while `readers` run (started before, stopped after).
CaseResult runCase(const fs::path& file, std::int8_t source, int count, bool withTail,
                   const std::function<std::vector<pid_t>()>& startReaders) {
    std::map<std::int64_t, std::int64_t> seenAt;
    pid_t tail = -1;
    int tailOut[2] = {-1, -1};
    std::thread tailReader;
    if (withTail) {
        if (pipe(tailOut) != 0) {
            std::perror("pipe");
            std::exit(1);
        }
        tail = runTool({"tail", file.string(), "-n", "0", "--format", "json"}, tailOut[1]);
        close(tailOut[1]);
        tailReader = std::thread([&seenAt, fd = tailOut[0]] {
            forEachLine(fd, [&seenAt](const std::string& line) {
                const std::int64_t at = nowNs();
                const char* id = std::strstr(line.c_str(), "\"id\":");
                if (id != nullptr) {
                    seenAt[std::atoll(id + 5)] = at;
                }
            });
        });
    }
    const std::vector<pid_t> readers = startReaders();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // everyone is running

    int report[2];
    if (pipe(report) != 0) {
        std::perror("pipe");
        std::exit(1);
    }
    const pid_t recorder = spawn([&] {
        close(report[0]);
        recordPaced(file, source, count, report[1]);
    });
    close(report[1]);
    CaseResult result;
    std::vector<std::int64_t> durations;
    std::map<std::int64_t, std::int64_t> returnedAt;
    forEachLine(report[0], [&](const std::string& line) {
        long long id = 0, at = 0, took = 0;
        std::sscanf(line.c_str(), "%lld %lld %lld", &id, &at, &took);
        durations.push_back(took);
        if (id < 0) {
            ++result.failed;
        } else {
            returnedAt[id] = at;
        }
    });
    close(report[0]);
    waitpid(recorder, nullptr, 0);
    for (const pid_t reader : readers) {
        stopChild(reader);
    }
    if (withTail) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the last lines arrive
        stopChild(tail);
        tailReader.join();
        close(tailOut[0]);
        std::vector<std::int64_t> delays;
        for (const auto& [id, returned] : returnedAt) {
            const auto seen = seenAt.find(id);
            if (seen != seenAt.end()) {
                delays.push_back(seen->second - returned);
            }
        }
        result.tailDelay = spreadMs(delays);
        result.tailSeen = delays.size();
    }
    result.logData = spreadMs(durations);
    return result;
}

void print(const char* name, int count, const CaseResult& result) {
    std::printf("%-44s %6d %5d %8.3f %8.3f %8.1f", name, count, result.failed, result.logData.p50,
                result.logData.p99, result.logData.max);
    if (result.tailSeen > 0) {
        std::printf("   %6zu %8.2f %8.2f %8.1f\n", result.tailSeen, result.tailDelay.p50,
                    result.tailDelay.p99, result.tailDelay.max);
    } else {
        std::printf("   %6s\n", "-");
    }
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
    const int count = (quick ? 1 : 5) * rateHz;
    const int largeFile = quick ? 20'000 : 200'000;
    const fs::path dir = fs::temp_directory_path() / ("korvane-live-" + std::to_string(getpid()));
    fs::create_directories(dir);

    std::printf("recorder: %d entries of %zu B at %d Hz, level -1; times in ms\n", count,
                payloadSize, rateHz);
    std::printf("%-44s %6s %5s %8s %8s %8s   %6s %8s %8s %8s\n", "case", "logged", "lost", "p50",
                "p99", "max", "tailed", "p50", "p99", "max");

    const fs::path alone = dir / "alone.log";
    print("recorder alone", count, runCase(alone, createWithSource(alone), count, false, [] {
              return std::vector<pid_t>{};
          }));

    const fs::path followed = dir / "followed.log";
    const std::int8_t source = createWithSource(followed);
    print("tail, and cat of the whole file in a loop", count,
          runCase(followed, source, count, true, [&followed] {
              return std::vector<pid_t>{spawn([&followed] {
                  for (;;) {
                      const pid_t cat = runTool({"cat", followed.string(), "--format", "json"}, -1);
                      waitpid(cat, nullptr, 0);
                  }
              })};
          }));

    const fs::path large = dir / "large.log";
    const std::int8_t largeSource = createWithSource(large);
    prefill(large, largeSource, largeFile);
    double readMs = 0;
    {
        const SqliteLogFile log{large};
        const auto start = Clock::now();
        const auto entries = log.readEntries(-1, -1, {}, -1);
        readMs = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    }
    char name[64];
    std::snprintf(name, sizeof name, "readEntries of all %d entries in a loop", largeFile);
    print(name, count, runCase(large, largeSource, count, true, [&large] {
              return std::vector<pid_t>{spawn([&large] {
                  const SqliteLogFile log{large};
                  for (;;) {
                      log.readEntries(-1, -1, {}, -1);
                  }
              })};
          }));
    std::printf("one readEntries of the whole large file takes %.0f ms alone\n", readMs);
    fs::remove_all(dir);
    return 0;
}
