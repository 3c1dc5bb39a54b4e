// Kills a recording child at random moments; another child checks the file and runs
// `korvane-log recover` on it, so that a crash while checking is counted. A crash, a refused file
// or an acknowledged entry that cannot be read back fails. Options: `--runs N` kills per
// configuration, `--tool PATH` another korvane-log, `--keep DIR` keeps every file not intact.

#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "sqlite/SqliteLogFile.h"

namespace {

namespace fs = std::filesystem;
using namespace Korvane::Logging;

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
        bytes[i] = static_cast<std::uint8_t>(i / 32 + static_cast<std::size_t>(id) + random() % 3);
    }
    return bytes;
}

// Records until killed, acknowledging each entry in `path`.acks, in one write of a whole line,
// once it is in the file.
[[noreturn]] void record(const std::string& path, const Config& config) {
    SqliteLogFile log(path, "UTC", "crash-test", "1", config.level, 0);
    DataSource source{-1, KV_LogDataSourceType{1}, "sensor"};
    log.addDataSource(source);
    std::ofstream acks(path + ".acks");
    for (std::int32_t id = 1;
         log.logData(DataEntry{0, source.id, 1, payloadFor(id, config.payloadSize), id}); ++id) {
        acks << id << '\n' << std::flush;
    }
    _exit(3);
}

// The check's exit code: 0 when all is well, else the sum of these flags.
enum Flag : int { LostEntries = 1, Refused = 2, NotIntact = 4, RecoveryCrashed = 8 };

// How many of the acknowledged entries 1 to `acknowledged` `log` holds with the right payload,
// known by id or, in a recovered file, which numbers them anew, by timestamp (set to the id).
std::int32_t acknowledgedIn(const SqliteLogFile& log, std::size_t payloadSize,
                            std::int32_t acknowledged, bool byTimestamp) {
    std::vector<bool> found(static_cast<std::size_t>(acknowledged) + 1);
    const std::int32_t last = byTimestamp ? log.getLastEntryId() : acknowledged;
    for (std::int32_t id = 1; id <= last; ++id) {
        try {
            const auto entry = log.readEntry(id);
            const std::int64_t key = byTimestamp && entry ? entry->timestamp : id;
            if (entry && key >= 1 && key <= acknowledged &&
                entry->data == payloadFor(static_cast<std::int32_t>(key), payloadSize)) {
                found[static_cast<std::size_t>(key)] = true;
            }
        } catch (const std::exception&) {
            // a damaged payload: counted as lost
        }
    }
    return static_cast<std::int32_t>(std::count(found.begin(), found.end(), true));
}

bool integrityOk(const std::string& path) {
    sqlite3* db = nullptr;
    sqlite3_stmt* statement = nullptr;
    const bool ok =
        sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(db, "PRAGMA integrity_check;", -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW &&
        reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)) == std::string("ok");
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return ok;
}

// Runs in a child: exits with its flags and writes to `path`.result how many acknowledged
// entries the library reads and `tool recover` saved. The recovery runs first, as an open may
// change the file; a shell reports the tool's death by a signal as an exit code above 128.
[[noreturn]] void check(const std::string& path, const Config& config, std::int32_t acknowledged,
                        const std::string& tool) {
    int flags = integrityOk(path) ? 0 : NotIntact;
    std::int32_t recovered = 0;
    const std::string command = tool + " recover " + path + " " + path + ".recovered";
    const int status = tool.empty() ? 1 : std::system((command + " >/dev/null 2>&1").c_str());
    if (WIFSIGNALED(status) || WEXITSTATUS(status) > 128) {
        flags |= RecoveryCrashed;
    } else if (WEXITSTATUS(status) == 0) {
        recovered = acknowledgedIn(SqliteLogFile{fs::path(path + ".recovered")}, config.payloadSize,
                                   acknowledged, true);
    }
    std::int32_t readable = 0;
    try {
        readable =
            acknowledgedIn(SqliteLogFile{fs::path(path)}, config.payloadSize, acknowledged, false);
        flags |= readable == acknowledged ? 0 : LostEntries;
    } catch (const std::exception&) {
        flags |= Refused;
    }
    std::ofstream(path + ".result") << readable << ' ' << recovered;
    _exit(flags);
}

// Runs `body` in a child, which it kills after `killAfter` if that is set; returns its status.
template <typename Body>
int inChild(Body body, std::chrono::milliseconds killAfter = {}) {
    std::fflush(stdout);  // or the child would print what this process has buffered
    const pid_t pid = fork();
    if (pid == 0) {
        body();
    }
    if (killAfter.count() > 0) {
        std::this_thread::sleep_for(killAfter);
        kill(pid, SIGKILL);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

// Copies `from` and its journal, if there is one, to `to`.
void copyWithJournal(const std::string& from, const std::string& to) {
    for (const std::string suffix : {"", "-journal"}) {
        fs::remove(to + suffix);
        if (fs::exists(from + suffix)) {
            fs::copy_file(from + suffix, to + suffix);
        }
    }
}

struct Tally {
    int runs = 0, opened = 0, intact = 0, refused = 0, crashed = 0;
    long long acknowledged = 0, readable = 0, recovered = 0;
};

}  // namespace

int main(int argc, char** argv) {
    int runs = 8;
    std::string tool = KORVANE_LOG_TOOL;  // empty: no recovery
    std::string keep;                     // folder for the files that are not intact
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--runs") {
            runs = std::atoi(argv[i + 1]);
        } else if (option == "--tool") {
            tool = argv[i + 1];
        } else if (option == "--keep") {
            keep = argv[i + 1];
            fs::create_directories(keep);
        }
    }
    const fs::path dir = fs::temp_directory_path() / ("korvane-crash-" + std::to_string(getpid()));
    fs::create_directories(dir);
    std::mt19937 random(std::random_device{}());
    // Creating the file takes about a tenth of a second; most kills fall while recording.
    std::uniform_int_distribution<int> delayMs(20, 600);

    const auto runConfig = [&](const Config& config) {
        Tally tally;
        const std::string path = (dir / config.name).string() + ".log";
        const std::string killed = path + ".killed";
        for (int run = 0; run < runs; ++run, ++tally.runs) {
            for (const char* made : {"", "-journal", ".acks", ".result", ".recovered"}) {
                fs::remove(path + made);
            }
            inChild([&] { record(path, config); }, std::chrono::milliseconds(delayMs(random)));
            std::ifstream acks(path + ".acks");
            std::int32_t acknowledged = 0;
            for (std::int32_t id = 0; acks >> id;) {
                acknowledged = id;
            }
            tally.acknowledged += acknowledged;

            // As the kill left it, with the journal of a schema change that did not finish.
            copyWithJournal(path, killed);
            const int status = inChild([&] { check(path, config, acknowledged, tool); });
            const int flags = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            if (!keep.empty() && flags != 0) {
                const std::string name = std::string(config.name) + "-" + std::to_string(run);
                copyWithJournal(killed, (fs::path(keep) / (name + ".log")).string());
                std::ofstream(fs::path(keep) / (name + ".acknowledged")) << acknowledged;
            }
            if (flags < 0 || (flags & RecoveryCrashed)) {
                ++tally.crashed;
                std::fprintf(stderr, "%s run %d: %s crashed; file kept at %s.crash\n", config.name,
                             run, flags < 0 ? "the check" : "korvane-log recover", killed.c_str());
                fs::copy_file(killed, killed + ".crash", fs::copy_options::overwrite_existing);
            }
            long long readable = 0, recovered = 0;
            std::ifstream(path + ".result") >> readable >> recovered;
            tally.readable += readable;
            tally.recovered += recovered;
            tally.refused += flags >= 0 && (flags & Refused);
            tally.opened += flags >= 0 && !(flags & Refused);
            tally.intact += flags >= 0 && !(flags & NotIntact);
        }
        return tally;
    };
    const auto percent = [](long long part, long long whole) {
        return whole > 0 ? 100.0 * double(part) / double(whole) : 100.0;
    };

    std::printf("%-14s %5s %7s %10s %8s %8s %13s %9s %10s\n", "config", "kills", "opened",
                "integrity", "refused", "crashed", "acknowledged", "readable", "recovered");
    // A crash anywhere, a refused file or an acknowledged entry that cannot be read is a failure.
    int failures = 0;
    for (const Config& config :
         {Config{"64B-level0", 64, 0}, Config{"64B-level-1", 64, -1},
          Config{"64KiB-level0", 64 << 10, 0}, Config{"64KiB-level-1", 64 << 10, -1}}) {
        const Tally t = runConfig(config);
        failures += t.crashed + t.refused + (t.readable != t.acknowledged ? 1 : 0);
        std::printf("%-14s %5d %7d %10d %8d %8d %13lld %8.2f%% ", config.name, t.runs, t.opened,
                    t.intact, t.refused, t.crashed, t.acknowledged,
                    percent(t.readable, t.acknowledged));
        tool.empty() ? std::printf("%10s\n", "-")
                     : std::printf("%9.2f%%\n", percent(t.recovered, t.acknowledged));
    }
    fs::remove_all(dir);
    std::printf("%d passed, %d failed\n", failures == 0, failures != 0);
    return failures == 0 ? 0 : 1;
}
