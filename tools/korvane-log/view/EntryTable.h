#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

// The rows of a log file's entries read straight through SQLite, for the counts that `view`
// and `report` draw: on a connection that only reads, a window of ids per statement, so that a
// process recording into the file waits for no more than one short statement.
namespace KorvaneLog::View {

// What a row of the entries says of itself, without its payload. `storedBytes` is the size of
// the payload as the file stores it, after compression.
struct EntryRow {
    std::int32_t id = 0;
    std::int64_t timestamp = 0;
    std::int8_t source = 0;
    std::int32_t type = 0;
    std::uint64_t storedBytes = 0;
};

class EntryTable {
public:
    // Opens `file` for reading only; it is never written. Throws `std::runtime_error` when it
    // cannot be opened or holds no table of entries.
    explicit EntryTable(const std::filesystem::path& file);
    ~EntryTable();
    EntryTable(const EntryTable&) = delete;
    EntryTable& operator=(const EntryTable&) = delete;

    // The lowest and the highest entry id; 0 when there are no entries.
    std::int64_t firstId();
    std::int64_t lastId();

    // Calls `visit` with each row whose id is from `first` to `last`, in id order, without its
    // type (left 0), reading `window` ids per statement. Stops early when `visit` returns false.
    // Throws `std::runtime_error` when the rows cannot be read, and what `visit` throws.
    void scan(std::int64_t first, std::int64_t last,
              const std::function<bool(const EntryRow&)>& visit, std::int64_t window = 4096);

    // The rows of `source` with ids from `first` to `last`, in id order; SQLite finds them
    // through the file's index of sources.
    std::vector<EntryRow> rowsOf(std::int8_t source, std::int64_t first, std::int64_t last);

    // The timestamp of entry `id`, or -1 with `found` false when there is no such entry.
    std::int64_t timestampOf(std::int64_t id, bool& found);

    // A number that changes when sources, their properties, metadata, resources or bookmarks
    // change: cheap to ask for again and again.
    std::uint64_t annotationsFingerprint();

private:
    struct Visit;

    sqlite3* database = nullptr;
    std::unique_ptr<Visit> visiting;
    sqlite3_stmt* window = nullptr;
};

}  // namespace KorvaneLog::View
