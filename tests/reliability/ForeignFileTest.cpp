// Files that are not what a log file should be: foreign, damaged, read-only or cut short.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <future>
#include <tuple>

#include "LogFiles.h"
#include "TempDir.h"
#include "algorithms/Algorithms.h"
#include "flat/KV_Log.h"
#include "model/LegacyLogFileError.h"
#include "model/NotALogFileError.h"
#include "playback/LogFilePlayer.h"
#include "sqlite/SqliteLogFile.h"

namespace Korvane::Logging {
namespace {

using namespace Testing;
namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

const std::string notALogFile = "not a log file: This file is not in a supported log file format.";

// What `call` throws, or "no exception".
std::string thrown(const std::function<void()>& call) try {
    call();
    return "no exception";
} catch (const std::exception& error) {
    return error.what();
}

// Opens `file` with KV_LogFile_Open, then with the open constructor, which must give the same
// text. Returns "opened", or the kind of the refusal and its text.
std::string openBoth(const std::string& file) {
    KV_LogError* error = nullptr;
    KV_LogFile_Destroy(KV_LogFile_Open(file.c_str(), &error));
    const char* flatText = "";
    if (error != nullptr) {
        KV_LogError_GetErrorMessage(error, &flatText);
    }
    std::string outcome = "opened";
    try {
        SqliteLogFile log{fs::path(file)};
    } catch (const std::exception& refusal) {
        outcome = (dynamic_cast<const LegacyLogFileError*>(&refusal) ? "legacy: "
                   : dynamic_cast<const NotALogFileError*>(&refusal) ? "not a log file: "
                                                                     : "error: ") +
                  std::string(refusal.what());
    }
    EXPECT_EQ(flatText, outcome == "opened" ? "" : outcome.substr(outcome.find(": ") + 2)) << file;
    KV_LogError_Destroy(error);
    return outcome;
}

Bytes randomBytes(std::size_t size, std::uint32_t seed) {
    std::mt19937 random(seed);
    Bytes bytes(size);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<std::uint8_t>(random()); });
    return bytes;
}

// A compressed log file of 40 entries of noise, spanning many pages, a resource and a bookmark.
std::vector<DataEntry> writeGenuineLog(const std::string& file) {
    SqliteLogFile log(file, "UTC", "reliability", "1.0", -1, 1700000000000);
    DataSource source{-1, KV_LogDataSourceType{1}, "camera"};
    EXPECT_TRUE(log.addDataSource(source));
    std::vector<DataEntry> entries;
    for (int id = 1; id <= 40; ++id) {
        const auto size = static_cast<std::size_t>(id % 10 == 0 ? 20000 : id * 97 % 2000);
        entries.push_back({id, source.id, id % 4, randomBytes(size, id), 1700000000000 + 20 * id});
        EXPECT_TRUE(log.logData(entries.back()));
    }
    EXPECT_TRUE(log.addResource("calibration", randomBytes(5000, 99)));
    EXPECT_TRUE(log.addBookmark({5, "start", "", Bytes{1, 2, 3}}));
    return entries;
}

class ForeignFileTest : public TempDirTest {};

TEST_F(ForeignFileTest, FilesAreRefusedUnchangedOrBecomeLogFiles) {
    const std::string file = path("file.bin");
    SqliteLogFile(file, "UTC", "app", "1", 0, 0);
    const Bytes logFile = readFileBytes(file);
    Bytes magicAndNoise = randomBytes(4096, 3);
    std::copy_n(logFile.begin(), 16, magicAndNoise.begin());
    // A row is the bytes of a file, or SQL run on an empty file or on the schema of a log file.
    std::vector<std::tuple<Bytes, bool, std::string, std::string>> rows = {
        {randomBytes(8192, 1), false, "", notALogFile},
        {Bytes{0}, false, "", notALogFile},
        {Bytes(logFile.begin(), logFile.begin() + 99), false, "", notALogFile},
        {magicAndNoise, false, "", notALogFile},
        {Bytes{0x44, 0x33, 0x22, 0x11}, false, "", "legacy: Tried to open a legacy log file."},
        {Bytes{0x44, 0x33, 0x22, 0x11, 0}, false, "", "legacy: Tried to open a legacy log file."},
        {Bytes{0x11, 0x22, 0x33, 0x44, 0, 0, 0, 0}, false, "", notALogFile},
        {Bytes{0, 0x44, 0x33, 0x22, 0x11}, false, "", notALogFile},
        {Bytes{0x44, 0x33, 0x22}, false, "", notALogFile},
        {Bytes{0x44, 0x33, 0x22, 0x10}, false, "", notALogFile},
        {{}, true, "ALTER TABLE data RENAME TO d; ALTER TABLE d RENAME TO Data;", notALogFile},
        {{}, false, "CREATE TABLE notes(text); INSERT INTO notes VALUES ('hello');", notALogFile},
        {{}, false, "", "opened"},
        {{}, false, "CREATE TABLE t(x); DROP TABLE t;", "opened"},
        {{}, false, "PRAGMA user_version = 7; PRAGMA application_id = 9;", "opened"},
        {{}, false, "CREATE VIEW v AS SELECT 1;", "opened"},
    };
    for (const std::string table : Statements::requiredTables) {
        for (const std::string& view :
             {std::string(), " CREATE VIEW " + table + " AS SELECT 1 entryId;"}) {
            rows.emplace_back(Bytes{}, true, "DROP TABLE " + table + ";" + view, notALogFile);
        }
    }
    for (const auto& [bytes, schema, sql, outcome] : rows) {
        SCOPED_TRACE(std::to_string(bytes.size()) + " bytes; " + sql);
        fs::remove(file);
        writeFileBytes(file, bytes);
        if (schema) {
            writeLogFileOfVersion(file, 4, 0);
        }
        RawDatabase(file).exec(sql);
        const Bytes before = readFileBytes(file);
        EXPECT_EQ(openBoth(file), outcome);
        EXPECT_TRUE(outcome == "opened" || readFileBytes(file) == before) << "a refusal changed it";
        EXPECT_EQ(std::distance(fs::directory_iterator(dir), {}), 1)
            << "opening left something beside the file";
    }

    // A directory; a path under a missing directory, where no new log file can be made.
    const std::string directory = path("directory");
    fs::create_directory(directory);
    EXPECT_EQ(openBoth(directory).rfind("error: Cannot open database '" + directory + "'", 0), 0u);
    const std::string refusal = thrown([&] { SqliteLogFile{fs::path(path("no/x"))}; });
    EXPECT_EQ(refusal.rfind("Cannot open database", 0), 0u) << refusal;
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), {}), 2) << "a file was made";
}

TEST_F(ForeignFileTest, TablesOfOtherShapesOpenAndNothingIsConverted) {
    // The six names with columns of other names: every statement that names a column fails.
    const std::string otherColumns = path("other-columns.db");
    for (const std::string table : Statements::requiredTables) {
        RawDatabase(otherColumns).exec("CREATE TABLE " + table + " AS SELECT 1 AS x;");
    }
    SqliteLogFile columns{fs::path(otherColumns)};
    EXPECT_EQ(columns.getFirstEntryId(), -1);
    EXPECT_TRUE(columns.readEntries(-1, -1, {}, -1).empty() && columns.getBookmarks().empty());
    EXPECT_FALSE(columns.addMetadata("key", PropertyValue{std::string("value")}));
    // Values of other kinds: a level or version that is no whole number is none.
    const std::string otherKinds = path("other-kinds.db");
    writeLogFileOfVersion(otherKinds, -1, 9);
    RawDatabase(otherKinds)
        .exec(
            "UPDATE metadata SET value = '9'; INSERT INTO metadata VALUES ('logVersion', 4.0);"
            "INSERT INTO data VALUES (1, 7, 1, 1, 3, x'616263');");
    SqliteLogFile log{fs::path(otherKinds)};
    EXPECT_FALSE(log.isBookmarkPayloadsSupported());
    EXPECT_EQ(log.readEntry(1).value_or(DataEntry{}).data, (Bytes{'a', 'b', 'c'}));
}

TEST_F(ForeignFileTest, PayloadsThatDoNotDecodeFailTheirOwnReadsOnly) {
    // Entries 3 and 40 (the last) hold no compressed frame.
    const std::string file = path("undecodable.log");
    writeGenuineLog(file);
    RawDatabase(file).exec("UPDATE data SET payload = x'00112233' WHERE entryId IN (3, 40);");
    const std::string damaged = thrown([&] { SqliteLogFile{fs::path(file)}.readEntry(3); });
    EXPECT_NE(damaged, "no exception") << "an undecodable payload was read";
    // On the calling thread `seek` and `getTotalPlayTime` pass the exception on; on the playback
    // thread a frame that does not decode ends a run as the end of the frames does.
    std::vector<std::int32_t> delivered;
    std::promise<void> played;
    Playback::LogFilePlayer player(
        std::make_unique<SqliteLogFile>(fs::path(file)), {},
        [&](std::int32_t frame, DataEntry) {
            delivered.push_back(frame);
            if (delivered.size() == 2) {
                played.set_value();
            }
        },
        false, 0);
    EXPECT_EQ(thrown([&] { player.seek(2); }), damaged);
    EXPECT_EQ(thrown([&] { player.getTotalPlayTime(); }), damaged) << "of the last frame";
    player.seek(37);
    player.play();  // delivers frame 38, then meets frame 39, which does not decode
    EXPECT_EQ(played.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
    player.stop();
    EXPECT_EQ(delivered, (std::vector<std::int32_t>{37, 38})) << "seek shows its frame only";
}

// Sets or clears mode 0444 and, where the file system allows it, the immutable flag, which holds
// for root too. Returns whether this process can write none of the files.
bool setReadOnly(std::initializer_list<std::string> files, bool on) {
    bool enforced = true;
    for (const std::string& file : files) {
        chmod(file.c_str(), on ? 0444 : 0644);
        const int descriptor = open(file.c_str(), O_RDONLY);
        int flags = 0;
        if (ioctl(descriptor, FS_IOC_GETFLAGS, &flags) == 0) {
            flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
            ioctl(descriptor, FS_IOC_SETFLAGS, &flags);
        }
        close(descriptor);
        enforced = enforced && access(file.c_str(), W_OK) != 0;
    }
    return enforced;
}

TEST_F(ForeignFileTest, ReadOnlyFilesAreReadAndNeverWritten) {
    const std::string file = path("read-only.log");
    const std::string foreign = path("read-only.bin");
    const std::string empty = path("read-only-empty.log");
    writeGenuineLog(file);
    writeFileBytes(foreign, randomBytes(3000, 8));
    writeFileBytes(empty, {});
    const bool enforced = setReadOnly({file, foreign, empty}, true);
    {
        SqliteLogFile log{fs::path(file)};
        EXPECT_EQ(log.readEntries(-1, -1, {}, -1).size(), 40u);
        EXPECT_NE(log.addMetadata("note", PropertyValue{std::string("x")}), enforced);
        EXPECT_EQ(log.getLastError(), enforced ? "Unknown internal error" : "No error");
    }
    // A foreign file is refused; an empty one cannot be given the schema and fails its reads.
    EXPECT_EQ(openBoth(foreign), notALogFile);
    EXPECT_EQ(SqliteLogFile(fs::path(empty)).getEntryCount(), enforced ? -1 : 0);
    setReadOnly({file, foreign, empty}, false);
}

TEST_F(ForeignFileTest, LogFilesTruncatedAtEveryPageBoundary) {
    const std::string genuine = path("genuine.log");
    const std::vector<DataEntry> written = writeGenuineLog(genuine);
    const Bytes whole = readFileBytes(genuine);
    // The header's page count: the file has grown ahead of its pages.
    const std::size_t pageSize = std::stoul(RawDatabase(genuine).value("PRAGMA page_size;"));
    const std::size_t pages = std::stoul(RawDatabase(genuine).value("PRAGMA page_count;"));
    ASSERT_GE(pages, 20u) << "the log file should span many pages";
    // Cut as a copy is cut, and also with the page count of the header made to match, as some
    // writers leave it; SQLite then reads up to the cut instead of refusing the file at once.
    int opened = 0;
    for (const bool headerMatches : {false, true}) {
        for (std::size_t kept = 1; kept < pages; ++kept) {
            SCOPED_TRACE(std::to_string(kept) + " pages" + (headerMatches ? ", header" : ""));
            Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(kept * pageSize));
            for (int i = 0; i < 4 && headerMatches; ++i) {
                cut[28 + i] = static_cast<std::uint8_t>(kept >> (8 * (3 - i)));
            }
            const std::string file = path("cut.log");
            writeFileBytes(file, cut);
            const std::string outcome = openBoth(file);
            if (outcome != "opened") {
                EXPECT_EQ(outcome, notALogFile);
                EXPECT_EQ(readFileBytes(file), cut) << "a refused file was changed";
                continue;
            }
            // Damage may hide an entry or make a read throw, but never alter an entry.
            ++opened;
            SqliteLogFile log{fs::path(file)};
            for (const DataEntry& entry : written) {
                thrown([&] {
                    EXPECT_EQ(log.readEntry(entry.entryId).value_or(entry).data, entry.data)
                        << "entry " << entry.entryId;
                });
            }
            thrown([&] { log.readEntries(-1, -1, {}, -1); });
            thrown([&] { log.getBookmarks(); });
            thrown([&] { log.getAllResources(); });
            thrown([&] { Algorithms::clone(log, file + ".clone", "reader", "2.0", 1); });
            fs::remove(file + ".clone");
        }
    }
    EXPECT_GT(opened, 0) << "no cut file was read at all";
}

}  // namespace
}  // namespace Korvane::Logging
