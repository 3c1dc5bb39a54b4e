// Kills a recording process at random moments and looks at what the file still holds.
//
// A child records entries and writes the id of each acknowledged entry to a pipe; the parent
// kills it with SIGKILL after a random time, then checks the file in another child, so that a
// crash while checking is counted instead of ending the run. Without arguments it runs a short
// round and fails on any crash; `--runs N` sets the kills per configuration.

#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "model/LegacyLogFileError.h"
#include "model/NotALogFileError.h"
#include "sqlite/SqliteLogFile.h"

namespace {

namespace fs = std::filesystem;
using Korvane::Logging::ByteArray;
using Korvane::Logging::DataEntry;
using Korvane::Logging::DataSource;
using Korvane::Logging::SqliteLogFile;

struct Config {
    const char* name;
    std::size_t payloadSize;
    std::int8_t level;
};

// The payload of the entry with `id`: checkable after the kill without any other record.
ByteArray payloadFor(std::int32_t id, std::size_t size) {
    ByteArray bytes(size);
    std::minstd_rand random(static_cast<unsigned>(id));
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>((i / 32 + static_cast<std::size_t>(id)) % 251 +
                                             random() % 3);
    }
    return bytes;
}

[[noreturn]] void record(const std::string& path, const Config& config, int ackFd) {
    SqliteLogFile log(path, "UTC", "crash-test", "1", config.level, 0);
    DataSource source{-1, KV_LogDataSourceType{1}, "sensor"};
    log.addDataSource(source);
    for (std::int32_t id = 1;; ++id) {
        if (!log.logData(DataEntry{0, source.id, 1, payloadFor(id, config.payloadSize), id})) {
            _exit(3);
        }
        const std::string line = std::to_string(id) + "\n";
        if (write(ackFd, line.data(), line.size()) < 0) {
            _exit(4);
        }
    }
}

enum Outcome : int {
    Intact = 0,       // opens, passes the integrity check, every acknowledged entry reads back
    LostEntries = 1,  // opens, but some acknowledged entries are missing or wrong
    Refused = 2,      // the library refuses the file
    NotIntact = 4,    // flag: the integrity check fails
};

bool integrityOk(const std::string& path) {
    sqlite3* db = nullptr;
    bool ok = false;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db, "PRAGMA integrity_check;", -1, &statement, nullptr) ==
                SQLITE_OK &&
            sqlite3_step(statement) == SQLITE_ROW) {
            ok = std::strcmp(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)),
                             "ok") == 0;
        }
        sqlite3_finalize(statement);
    }
    sqlite3_close(db);
    return ok;
}

// Runs in a child: the exit code is an Outcome, and stdout gets the number of readable
// acknowledged entries.
[[noreturn]] void check(const std::string& path, const Config& config, std::int32_t acknowledged) {
    int flags = integrityOk(path) ? 0 : NotIntact;
    try {
        SqliteLogFile log{fs::path(path)};
        std::int32_t readable = 0;
        for (std::int32_t id = 1; id <= acknowledged; ++id) {
            try {
                const auto entry = log.readEntry(id);
                readable += entry && entry->data == payloadFor(id, config.payloadSize) ? 1 : 0;
            } catch (const std::exception&) {
                // a damaged payload: counted as lost
            }
        }
        std::printf("%d\n", readable);
        std::fflush(stdout);
        _exit(flags | (readable == acknowledged ? Intact : LostEntries));
    } catch (const std::exception&) {
        std::printf("0\n");
        std::fflush(stdout);
        _exit(flags | Refused);
    }
}

// Runs `body` in a child whose stdout comes back through `output`; returns the wait status.
template <typename Body>
int inChild(Body body, std::string& output) {
    int fds[2];
    if (pipe(fds) != 0) {
        std::perror("pipe");
        std::exit(2);
    }
    std::fflush(stdout);  // or the child would print what this process has buffered
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        dup2(fds[1], STDOUT_FILENO);
        body(fds[1]);
    }
    close(fds[1]);
    char buffer[4096];
    ssize_t got;
    while ((got = read(fds[0], buffer, sizeof buffer)) > 0) {
        output.append(buffer, static_cast<std::size_t>(got));
    }
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

struct Tally {
    int runs = 0, opened = 0, intact = 0, refused = 0, crashed = 0;
    long long acknowledged = 0, readable = 0;
};

Tally runConfig(const Config& config, int runs, std::mt19937& random, const fs::path& dir) {
    Tally tally;
    // Creating the file takes about a tenth of a second; most kills fall while recording.
    std::uniform_int_distribution<int> delayMs(20, 600);
    for (int run = 0; run < runs; ++run) {
        const std::string path = (dir / (std::string(config.name) + ".log")).string();
        fs::remove(path);
        int fds[2];
        if (pipe(fds) != 0) {
            std::exit(2);
        }
        std::fflush(stdout);
        const pid_t recorder = fork();
        if (recorder == 0) {
            close(fds[0]);
            record(path, config, fds[1]);
        }
        close(fds[1]);
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs(random)));
        kill(recorder, SIGKILL);
        std::string acks;
        char buffer[4096];
        ssize_t got;
        while ((got = read(fds[0], buffer, sizeof buffer)) > 0) {
            acks.append(buffer, static_cast<std::size_t>(got));
        }
        close(fds[0]);
        waitpid(recorder, nullptr, 0);

        // The last complete line is the highest acknowledged id.
        std::int32_t acknowledged = 0;
        const auto end = acks.rfind('\n');
        if (end != std::string::npos) {
            const auto start = acks.rfind('\n', end - 1);
            acknowledged = std::stoi(acks.substr(start == std::string::npos ? 0 : start + 1));
        }

        std::string output;
        const int status = inChild([&](int) { check(path, config, acknowledged); }, output);
        ++tally.runs;
        tally.acknowledged += acknowledged;
        if (!WIFEXITED(status)) {
            ++tally.crashed;
            std::fprintf(stderr, "%s run %d: the check crashed (signal %d); file kept at %s.crash\n",
                         config.name, run, WTERMSIG(status), path.c_str());
            fs::copy_file(path, path + ".crash", fs::copy_options::overwrite_existing);
            continue;
        }
        const int outcome = WEXITSTATUS(status);
        tally.readable += std::atoll(output.c_str());
        tally.refused += (outcome & Refused) ? 1 : 0;
        tally.opened += (outcome & Refused) ? 0 : 1;
        tally.intact += (outcome & NotIntact) ? 0 : 1;
    }
    return tally;
}

}  // namespace

int main(int argc, char** argv) {
    int runs = 8;
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "--runs") == 0) {
            runs = std::atoi(argv[i + 1]);
        }
    }
    const Config configs[] = {
        {"64B-level0", 64, 0},
        {"64B-level-1", 64, -1},
        {"64KiB-level0", 64 << 10, 0},
        {"64KiB-level-1", 64 << 10, -1},
    };
    const fs::path dir = fs::temp_directory_path() / ("korvane-crash-" + std::to_string(getpid()));
    fs::create_directories(dir);
    std::mt19937 random(std::random_device{}());

    std::printf("%-14s %5s %7s %10s %8s %8s %13s %13s\n", "config", "kills", "opened",
                "integrity", "refused", "crashed", "acknowledged", "readable");
    int crashes = 0;
    for (const Config& config : configs) {
        const Tally t = runConfig(config, runs, random, dir);
        crashes += t.crashed;
        std::printf("%-14s %5d %7d %10d %8d %8d %13lld %12.2f%%\n", config.name, t.runs, t.opened,
                    t.intact, t.refused, t.crashed, t.acknowledged,
                    t.acknowledged ? 100.0 * double(t.readable) / double(t.acknowledged) : 100.0);
        std::fflush(stdout);
    }
    fs::remove_all(dir);
    std::printf("%d passed, %d failed\n", crashes == 0 ? 1 : 0, crashes == 0 ? 0 : 1);
    return crashes == 0 ? 0 : 1;
}
