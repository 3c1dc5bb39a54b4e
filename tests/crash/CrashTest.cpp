// Kills a recording process at random moments and looks at what the file still holds.
//
// A child records entries and writes the id of each acknowledged entry to a pipe; the parent
// kills it with SIGKILL after a random time, then checks the file in another child, so that a
// crash while checking is counted instead of ending the run. The checking child also runs
// `korvane-log recover` on the killed file and counts the acknowledged entries in what it saved.
// It fails on any crash, on a file that the library refuses and on an acknowledged entry that
// cannot be read back. Options: `--runs N` kills per
// configuration, `--tool PATH` another korvane-log, `--keep DIR` keeps a copy of every file
// that is not intact.

#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
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
    Intact = 0,          // opens, passes the integrity check, every acknowledged entry reads back
    LostEntries = 1,     // opens, but some acknowledged entries are missing or wrong
    Refused = 2,         // the library refuses the file
    NotIntact = 4,       // flag: the integrity check fails
    RecoveryCrashed = 8  // flag: korvane-log recover died of a signal
};

// The acknowledged entries, 1 to `acknowledged`, that `log` holds with the right payload. An
// entry is known by its timestamp, which the recorder set to its id: a recovered file numbers
// its entries anew.
std::int32_t acknowledgedIn(const SqliteLogFile& log, const Config& config,
                            std::int32_t acknowledged, bool byTimestamp) {
    std::vector<bool> found(static_cast<std::size_t>(acknowledged) + 1);
    const std::int32_t last = byTimestamp ? log.getLastEntryId() : acknowledged;
    for (std::int32_t id = 1; id <= last; ++id) {
        try {
            const auto entry = log.readEntry(id);
            const std::int64_t key = byTimestamp && entry ? entry->timestamp : id;
            if (entry && key >= 1 && key <= acknowledged &&
                entry->data == payloadFor(static_cast<std::int32_t>(key), config.payloadSize)) {
                found[static_cast<std::size_t>(key)] = true;
            }
        } catch (const std::exception&) {
            // a damaged payload: counted as lost
        }
    }
    return static_cast<std::int32_t>(std::count(found.begin(), found.end(), true));
}

// Runs `tool recover path recovered` and counts the acknowledged entries it saved; -1 when the
// tool died of a signal.
std::int32_t recover(const std::string& tool, const std::string& path, const Config& config,
                     std::int32_t acknowledged) {
    const std::string recovered = path + ".recovered";
    fs::remove(recovered);
    const pid_t pid = fork();
    if (pid == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        execl(tool.c_str(), tool.c_str(), "recover", path.c_str(), recovered.c_str(), nullptr);
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFSIGNALED(status)) {
        return -1;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || !fs::exists(recovered)) {
        return 0;
    }
    const SqliteLogFile log{fs::path(recovered)};
    return acknowledgedIn(log, config, acknowledged, true);
}

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

// Runs in a child: the exit code is an Outcome, and stdout gets the numbers of acknowledged
// entries that the library reads and that the recovery saved. The recovery runs first, on the
// file as the kill left it: the library's open may change a damaged file.
[[noreturn]] void check(const std::string& path, const Config& config, std::int32_t acknowledged,
                        const std::string& tool) {
    int flags = integrityOk(path) ? 0 : NotIntact;
    std::int32_t recovered = tool.empty() ? 0 : recover(tool, path, config, acknowledged);
    if (recovered < 0) {
        flags |= RecoveryCrashed;
        recovered = 0;
    }
    std::int32_t readable = 0;
    try {
        const SqliteLogFile log{fs::path(path)};
        readable = acknowledgedIn(log, config, acknowledged, false);
        flags |= readable == acknowledged ? Intact : LostEntries;
    } catch (const std::exception&) {
        flags |= Refused;
    }
    std::printf("%d %d\n", readable, recovered);
    std::fflush(stdout);
    _exit(flags);
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
    long long acknowledged = 0, readable = 0, recovered = 0;
};

struct Settings {
    int runs = 8;
    std::string tool = KORVANE_LOG_TOOL;  // empty: no recovery
    std::string keep;                     // folder for the files that are not intact
};

Tally runConfig(const Config& config, const Settings& settings, std::mt19937& random,
                const fs::path& dir) {
    Tally tally;
    // Creating the file takes about a tenth of a second; most kills fall while recording.
    std::uniform_int_distribution<int> delayMs(20, 600);
    for (int run = 0; run < settings.runs; ++run) {
        const std::string path = (dir / (std::string(config.name) + ".log")).string();
        fs::remove(path);
        fs::remove(path + "-journal");
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
        // As the kill left it, with the journal of a schema change that did not finish.
        const std::string killed = path + ".killed";
        fs::copy_file(path, killed, fs::copy_options::overwrite_existing);
        fs::remove(killed + "-journal");
        if (fs::exists(path + "-journal")) {
            fs::copy_file(path + "-journal", killed + "-journal");
        }
        const int status =
            inChild([&](int) { check(path, config, acknowledged, settings.tool); }, output);
        ++tally.runs;
        tally.acknowledged += acknowledged;
        const bool intact = WIFEXITED(status) && WEXITSTATUS(status) == Intact;
        if (!settings.keep.empty() && !intact) {
            const std::string name = std::string(config.name) + "-" + std::to_string(run);
            const fs::path kept = fs::path(settings.keep) / (name + ".log");
            fs::copy_file(killed, kept, fs::copy_options::overwrite_existing);
            if (fs::exists(killed + "-journal")) {
                fs::copy_file(killed + "-journal", kept.string() + "-journal",
                              fs::copy_options::overwrite_existing);
            }
            std::ofstream(fs::path(settings.keep) / (name + ".acknowledged")) << acknowledged;
        }
        if (!WIFEXITED(status)) {
            ++tally.crashed;
            std::fprintf(stderr, "%s run %d: the check crashed (signal %d); file kept at %s.crash\n",
                         config.name, run, WTERMSIG(status), path.c_str());
            fs::copy_file(killed, path + ".crash", fs::copy_options::overwrite_existing);
            continue;
        }
        const int outcome = WEXITSTATUS(status);
        long long readable = 0;
        long long recovered = 0;
        std::sscanf(output.c_str(), "%lld %lld", &readable, &recovered);
        tally.readable += readable;
        tally.recovered += recovered;
        if (outcome & RecoveryCrashed) {
            ++tally.crashed;
            std::fprintf(stderr, "%s run %d: korvane-log recover crashed on %s\n", config.name, run,
                         killed.c_str());
            fs::copy_file(killed, killed + ".crash", fs::copy_options::overwrite_existing);
        }
        tally.refused += (outcome & Refused) ? 1 : 0;
        tally.opened += (outcome & Refused) ? 0 : 1;
        tally.intact += (outcome & NotIntact) ? 0 : 1;
    }
    return tally;
}

double percent(long long part, long long whole) {
    return whole > 0 ? 100.0 * double(part) / double(whole) : 100.0;
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--runs") {
            settings.runs = std::atoi(argv[i + 1]);
        } else if (option == "--tool") {
            settings.tool = argv[i + 1];
        } else if (option == "--keep") {
            settings.keep = argv[i + 1];
            fs::create_directories(settings.keep);
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

    std::printf("%-14s %5s %7s %10s %8s %8s %13s %9s %10s\n", "config", "kills", "opened",
                "integrity", "refused", "crashed", "acknowledged", "readable", "recovered");
    // A crash anywhere, a refused file or an acknowledged entry that cannot be read is a failure.
    int failures = 0;
    for (const Config& config : configs) {
        const Tally t = runConfig(config, settings, random, dir);
        failures += t.crashed + t.refused + (t.readable != t.acknowledged ? 1 : 0);
        std::printf("%-14s %5d %7d %10d %8d %8d %13lld %8.2f%% ", config.name, t.runs, t.opened,
                    t.intact, t.refused, t.crashed, t.acknowledged,
                    percent(t.readable, t.acknowledged));
        if (settings.tool.empty()) {
            std::printf("%10s\n", "-");
        } else {
            std::printf("%9.2f%%\n", percent(t.recovered, t.acknowledged));
        }
        std::fflush(stdout);
    }
    fs::remove_all(dir);
    std::printf("%d passed, %d failed\n", failures == 0 ? 1 : 0, failures == 0 ? 0 : 1);
    return failures == 0 ? 0 : 1;
}
